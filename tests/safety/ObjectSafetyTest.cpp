// What no client can do to the service over IIOP, however it interleaves
// its calls: many threads on one image and one server, numbered and
// unnumbered, growing reads, while the server is closed under them; calls
// on the children of a server that was closed or whose session was cleaned
// up; listings asked for more entries than there are.  The service stays
// up, answers each refused call with a clear error, closes every file its
// clients left open and never makes their half-written images complete.
#include "DiskClient.h"
#include "sts_plugin.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <dirent.h>
#include <thread>
#include <unistd.h>

using namespace keldtest;
using namespace std::chrono_literals;

namespace {

const size_t kImageSize = 1 << 20;
const char* const kServerGone = "the storage server of this object has been closed";

// How long each phase of the stress runs; longer in a soak.
std::chrono::milliseconds stressTime()
{
    const char* seconds = std::getenv("KELD_STRESS_SECONDS");
    return std::chrono::milliseconds(seconds != nullptr ? std::atoi(seconds) * 1000 : 3000);
}

class ObjectSafety : public ServiceFixture {
protected:
    // What the service's descriptors point at, its clients' connections
    // (which come and go with the client's threads) left out.
    std::vector<std::string> openFiles() const
    {
        const std::string fdDir = "/proc/" + std::to_string(service->pid()) + "/fd";
        std::vector<std::string> files;
        DIR* dir = opendir(fdDir.c_str());
        while (dirent* entry = dir != nullptr ? readdir(dir) : nullptr) {
            char target[4096] = {0};
            const std::string link = fdDir + "/" + entry->d_name;
            if (readlink(link.c_str(), target, sizeof(target) - 1) > 0 && std::strncmp(target, "socket:", 7) != 0) {
                files.push_back(target);
            }
        }
        if (dir != nullptr) closedir(dir);
        std::sort(files.begin(), files.end());
        return files;
    }
    int storageFilesOpen() const
    {
        const std::string storage = root.path() + "/keldrive/storage/";
        int open = 0;
        for (const std::string& file : openFiles()) open += file.rfind(storage, 0) == 0;
        return open;
    }
    API::Image_ptr createWith(API::StorageServer_ptr server, API::UInt64 seq, const char* name, size_t size)
    {
        API::Image_var image = server->createImageV13(seq, "lsu0", imageDefinition(name), 0);
        API::UInt64 written = 0;
        image->writeImageV12(1, positioned(size), size, 0, written);
        EXPECT_EQ(size, written);
        return image._retn();
    }
    API::UInt32 statusOf(API::StorageServer_ptr server, API::UInt64 seq, const char* name)
    {
        API::ImageInformationV13_var info;
        server->getImagePropByNameV13(seq, "lsu0", imageDefinition(name), info);
        return info->imo_status;
    }
    bool alive()
    {
        API::StorageServer_var probe = openDisk(1, "probe");
        probe->closeServerV12(2);
        return service->running();
    }
};

// What any call of the stress may answer besides success: a tossed or
// waiting number, or an object whose server was closed under it; the
// closed server itself hands the plug-in no handle (STSP_EBADHANDLE), or no
// plug-in at all once the last server went (STS_ENOT_INIT).
bool expectedRefusal(const API::STSError& e, bool serverClosed)
{
    const int n = e.stsErrorNo;
    return n == STS_ESEQUENCE || n == STS_ENOT_OPEN || (serverClosed && (n == STS_ENOT_INIT || n == STSP_EBADHANDLE));
}

// Threads that hammer one image and one server until told to stop; every
// answer must be a success with the right bytes or an expected refusal.
class Hammer {
public:
    Hammer(API::StorageServer_ptr server, API::Image_ptr image, bool serverCloses)
        : m_server(API::StorageServer::_duplicate(server)), m_image(API::Image::_duplicate(image)),
          m_serverCloses(serverCloses)
    {
        for (int t = 0; t < 2; ++t) m_threads.emplace_back([this, t] { loop([&](size_t i) { growingRead(0, i + t); }); });
        m_threads.emplace_back([this] { loop([&](size_t i) { growingRead(++m_imageSeq, i); }); });
        m_threads.emplace_back([this] { loop([&](size_t i) { properties(i % 2 == 0 ? 0 : ++m_imageSeq); }); });
        m_threads.emplace_back([this] { loop([&](size_t i) { serverQueries(0, i); }); });
        m_threads.emplace_back([this] { loop([&](size_t i) { serverQueries(++m_serverSeq, i); }); });
    }
    ~Hammer() { stop(); }
    void stop()
    {
        m_stop = true;
        for (std::thread& t : m_threads) {
            if (t.joinable()) t.join();
        }
    }
    int failures() const { return m_failures; }
    size_t calls() const { return m_calls; }

private:
    template <typename Call>
    void loop(Call call)
    {
        for (size_t i = 0; !m_stop; ++i) {
            try {
                call(i);
            } catch (const API::STSError& e) {
                if (!expectedRefusal(e, m_serverCloses)) fail(std::string("STSError ") + std::to_string(e.stsErrorNo) + " " + e.errorMsg.in());
            } catch (const CORBA::TIMEOUT&) {
                // a numbered call waited too long behind another: allowed
            } catch (const CORBA::Exception& e) {
                fail(std::string("exception ") + e._name());
            }
            ++m_calls;
        }
    }
    void fail(const std::string& what)
    {
        if (m_failures++ < 5) ADD_FAILURE() << what;
    }
    // Reads longer than the last each time, wrapping round, checked byte
    // for byte.
    void growingRead(API::UInt64 seq, size_t i)
    {
        const size_t length = 4096 * (1 + i % 64);
        const size_t offset = (i * 4096) % (kImageSize - length);
        API::Bytes_var bytes;
        API::UInt64 got = 0;
        m_image->readImageV12(seq, bytes, length, offset, got);
        if (got != length || !sameBytes(bytes->get_buffer(), positioned(length, offset))) fail("wrong bytes read");
    }
    void properties(API::UInt64 seq)
    {
        API::ImageInformationV13_var info;
        m_image->getImagePropV13(seq, info);
    }
    void serverQueries(API::UInt64 seq, size_t i)
    {
        API::LsuInformationV11_var lsu;
        m_server->getLsuPropByNameV12(seq, "lsu0", lsu);
        CORBA::Long returned = 0, available = 0;
        API::StorageElementSeq_var storels = m_server->getStorelV12(seq == 0 ? 0 : ++m_serverSeq,
                                                                    static_cast<CORBA::Long>(1 + i % 50), returned, available);
    }

    API::StorageServer_var m_server;
    API::Image_var m_image;
    const bool m_serverCloses;
    // Above the numbers the test used on these objects before.
    std::atomic<API::UInt64> m_imageSeq{100};
    std::atomic<API::UInt64> m_serverSeq{100};
    std::atomic<bool> m_stop{false};
    std::atomic<int> m_failures{0};
    std::atomic<size_t> m_calls{0};
    std::vector<std::thread> m_threads;
};

TEST_F(ObjectSafety, ThreadsOnOneImageAndServerThenACloseUnderThemLeaveTheServiceWholeAndNoFileOpen)
{
    start();
    const std::vector<std::string> filesBefore = openFiles();
    for (int round = 0; round < 2; ++round) {
        const bool closeUnderLoad = round == 1;
        API::StorageServer_var server = openDisk(1, closeUnderLoad ? "closed-under-load" : "stress");
        const std::string name = "stress" + std::to_string(round);
        API::Image_var image = createWith(server, 2, name.c_str(), kImageSize);
        Hammer hammer(server, image, closeUnderLoad);
        std::this_thread::sleep_for(stressTime());
        if (closeUnderLoad) {
            // The close waits for the calls inside, closes the image its
            // client left open, and every later call is refused.
            ssm->closeServerV12(2, session("closed-under-load"), server);
            std::this_thread::sleep_for(stressTime() / 3);
            EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { API::UInt64 n = 0; image->writeImageV12(0, positioned(10), 10, 0, n); }, kServerGone));
        }
        hammer.stop();
        EXPECT_EQ(0, hammer.failures());
        EXPECT_GT(hammer.calls(), 100u);
        EXPECT_TRUE(alive());
        if (!closeUnderLoad) {
            image->closeImageV12(0, 0, 0);
            server->closeServerV12(1u << 30);
        }
        EXPECT_EQ(0, storageFilesOpen()) << "round " << round;
        EXPECT_EQ(filesBefore, openFiles()) << "round " << round;
    }
    // The image written and closed is complete; the one whose server was
    // closed under it is not.
    API::StorageServer_var reader = openDisk(1, "reader");
    EXPECT_EQ(unsigned(DISK_IMAGE_COMPLETE), statusOf(reader, 2, "stress0"));
    EXPECT_EQ(unsigned(DISK_IMAGE_INCOMPLETE), statusOf(reader, 3, "stress1"));
}

// The children of a server that was closed (the last one open, so that the
// storage library went and came back with the next open) or whose session
// a client cleaned up: each refused call says so, nothing reaches the
// plug-in, no file stays open, and the image stays incomplete.
TEST_F(ObjectSafety, ChildrenOfAClosedOrCleanedUpServerAnswerThatItWasClosed)
{
    start();
    for (int round = 0; round < 3; ++round) {
        const bool cleanup = round == 1;
        const std::string orphans = "orphans" + std::to_string(round), otherId = "other" + std::to_string(round);
        const std::string imageName = (cleanup ? "cleaned" : "orphan") + std::to_string(round);
        API::StorageServer_var server = openDisk(1, orphans.c_str());
        API::Image_var image = createWith(server, 2, imageName.c_str(), 4096);
        API::ImageList_var list = server->openImageListV12(3, "lsu0", 0);
        API::Lsu_var lsu = server->openLsuV12(4, "lsu0");
        API::StorageServer_var other = openDisk(1, otherId.c_str());
        if (cleanup) {
            other->cleanupSessionV12(2, orphans.c_str());
            EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { API::ServerInformation_var i; server->getServerPropV12(5, i); }, kServerGone));
        } else {
            other->closeServerV12(2);
            server->closeServerV12(5);
            other = openDisk(2, otherId.c_str());
        }
        API::UInt64 n = 0;
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { image->writeImageV12(2, positioned(10), 10, 0, n); }, kServerGone));
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { image->writeImageV12(0, positioned(10), 10, 0, n); }, kServerGone));
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { API::ImageDefinitionV13_var d; list->listImageV13(1, d); }, kServerGone));
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { CORBA::Long r, m; API::StorageElementSeq_var s = lsu->getStorelV12(1, 2, r, m); }, kServerGone));
        EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { image->closeImageV12(3, 0, 0); }, kServerGone));
        EXPECT_EQ(0, storageFilesOpen());
        EXPECT_EQ(unsigned(DISK_IMAGE_INCOMPLETE), statusOf(other, 10, imageName.c_str()));
        other->closeServerV12(11);
    }
    EXPECT_TRUE(logHas("disk plug-in: image orphan0 abandoned, left incomplete, after 1 writes of 4096 bytes"));
    EXPECT_TRUE(alive());
}

// A close of the server while a child's call runs in the plug-in waits for
// it, then closes the children's handles before the server's.
TEST_F(ObjectSafety, CloseOfAServerWaitsForItsChildsCallThenClosesChildrenFirst)
{
    startWithFaultPlugin();
    API::StorageServer_var server = openFault(1, "slow");
    API::Image_var from = server->createImageV13(2, "lsu", imageDefinition("from"), 0);
    API::Image_var to = server->createImageV13(3, "lsu", imageDefinition("to"), 0);
    faultControl("KELD_FAULT_COPY_DELAY_MS=1500\n");
    std::thread copier([&] {
        API::UInt64 copied = 0;
        EXPECT_NO_THROW(to->copyExtentV12(1, 0, from, 0, 100, 0, copied));
        EXPECT_EQ(100u, copied);
    });
    ASSERT_TRUE(waitFor([&] { return faultCalls("copy") == 1; }, 5s));
    const auto began = std::chrono::steady_clock::now();
    server->closeServerV12(4);
    EXPECT_GE(std::chrono::steady_clock::now() - began, 1s);
    copier.join();
    EXPECT_EQ(2u, faultCalls("close image 2147483648"));
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { from->flushV12(1); }, kServerGone));
    // The plug-in saw the copy end before any close, and the images go
    // before their server.
    std::ifstream in(root.path() + "/fault.calls");
    std::vector<std::string> calls;
    for (std::string line; std::getline(in, line);) calls.push_back(line);
    ASSERT_GE(calls.size(), 4u);
    EXPECT_EQ("close server", calls.back());
    EXPECT_EQ(0u, calls[calls.size() - 2].rfind("close image", 0));
}

// A listing asked for more entries than there are: those past the count
// are empty records, whatever the service's heap held before.
TEST_F(ObjectSafety, ListingEntriesPastTheCountAreEmpty)
{
    start();
    API::StorageServer_var server = openDisk(1, "listing");
    API::Lsu_var lsu = server->openLsuV12(2, "lsu0");
    for (API::UInt64 seq = 1; seq <= 2; ++seq) {
        CORBA::Long storelCount = 0, poolCount = 0, available = 0;
        API::StorageElementSeq_var storels = server->getStorelV12(2 + seq, 64, storelCount, available);
        API::LSUPoolSeq_var pools = lsu->getPoolLsuV12(seq, 64, poolCount, available);
        EXPECT_EQ(1, storelCount) << "lsu0";
        ASSERT_EQ(64u, storels->length());
        for (CORBA::ULong i = storelCount; i < storels->length(); ++i) {
            EXPECT_EQ(0u, storels[i].ste_off | storels[i].ste_length) << i;
            EXPECT_STREQ("", storels[i].ste_devname.in()) << i;
        }
        ASSERT_EQ(64u, pools->length());
        for (CORBA::ULong i = poolCount; i < pools->length(); ++i) {
            EXPECT_EQ(0u, pools[i].lp_priority) << i;
            EXPECT_STREQ("", pools[i].lp_name.in()) << i;
        }
    }
}

} // namespace
