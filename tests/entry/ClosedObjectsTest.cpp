// Objects that a client closes by a call on the object itself, as backup
// jobs close their servers, images, LSUs and lists: a resent close is
// answered while a client may still be resending it, and then the object
// goes, so that a service running job after job keeps none of them.
#include "DiskClient.h"

#include <vector>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

// What one job leaves closed: every kind of object that closes itself.
struct ClosedByJob {
    std::vector<CORBA::Object_var> objects;
    void add(CORBA::Object_ptr obj) { objects.emplace_back(CORBA::Object::_duplicate(obj)); }
};

class SelfClosedObjects : public ServiceFixture {
protected:
    // Opens one object of each kind, uses the image (a read leaves a copy
    // for its retry), and has each close itself, the close sent twice.
    void job(int n, ClosedByJob& closed)
    {
        const std::string id = "job" + std::to_string(n);
        API::StorageServer_var server = openDisk(1, id.c_str());
        API::Lsu_var lsu = server->openLsuV12(2, "lsu0");
        API::LsuList_var lsus = server->openLsuListV12(3, API::LsuDefinitionV11());
        API::ImageList_var images = server->openImageListV12(4, "lsu0", 0);
        API::Image_var image = server->createImageV13(5, "lsu0", imageDefinition(id.c_str()), 0);
        const API::Bytes data = positioned(64 * 1024);
        API::UInt64 done = 0;
        image->writeImageV12(1, data, data.length(), 0, done);
        API::Bytes_var back;
        image->readImageV12(2, back, data.length(), 0, done);
        for (int send = 0; send < 2; ++send) {
            image->closeImageV12(3, 0, 0);
            images->closeImageListV12(1);
            lsus->closeLsuListV12(1);
            EXPECT_EQ(0, lsu->closeLsuV12(1));
            server->closeServerV12(6);
        }
        for (CORBA::Object_ptr obj : {CORBA::Object_ptr(image), CORBA::Object_ptr(images), CORBA::Object_ptr(lsus),
                                      CORBA::Object_ptr(lsu), CORBA::Object_ptr(server)}) {
            closed.add(obj);
        }
    }
    bool allGone(const ClosedByJob& closed)
    {
        for (const CORBA::Object_var& obj : closed.objects) {
            if (!obj->_non_existent()) return false;
        }
        return true;
    }
};

TEST_F(SelfClosedObjects, AnObjectClosedByItsOwnCallAnswersAResentCloseAndThenGoes)
{
    root.writeFile("keldrive/keldrive.conf", "VERBOSE = 5\nCLOSE_RETRY_SECONDS = 5\n");
    start();
    EXPECT_TRUE(logHas("an object closed by its own call stays 5 seconds for a resent close"));
    const int jobs = 20;
    ClosedByJob closed;
    for (int n = 0; n < jobs; ++n) job(n, closed);

    // Nothing is left of any job once the grace period has passed, without
    // a further call from any client.
    EXPECT_TRUE(waitFor([&] { return allGone(closed); }, 30s));
    for (const char* destroyed : {"object of StorageServerImpl is destroyed here",
                                  "the object of ImageImpl is destroyed here", "the object of LsuImpl is destroyed here",
                                  "the object of LsuListImpl is destroyed here",
                                  "the object of ImageListImpl is destroyed here"}) {
        EXPECT_EQ(size_t(jobs), logCount(destroyed)) << destroyed;
    }
}

} // namespace
