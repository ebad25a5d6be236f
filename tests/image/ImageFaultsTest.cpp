// What an image object tells a client when the plug-in does not simply
// succeed, over IIOP against the stand-in plug-in, which logs every call:
// the flag a close hands on, a close that fails, partial transfers.
#include "DiskClient.h"
#include "FaultNumbers.h"
#include "sts_types.h"

#include <string>

using namespace keldtest;

namespace {

// The stand-in's control line: every transfer answers number with count bytes done.
std::string transferAnswers(int number, int count)
{
    return "KELD_FAULT_TRANSFER=" + std::to_string(number) + ":" + std::to_string(count) + "\n";
}

class ImageFaults : public ServiceFixture {
protected:
    void SetUp() override
    {
        startWithFaultPlugin();
        server = openFault(1, "faults");
    }

    API::Image_ptr create(const char* name) { return server->createImageV13(++serverSeq, "lsu", imageDefinition(name), 0); }

    API::StorageServer_var server;
    API::UInt64 serverSeq = 1;
};

TEST_F(ImageFaults, ClosesHandOnTheirFlagFailedClosesLeaveNothingOpenAndPartialTransfersReplayTheirCount)
{
    // A non-zero reserved wins over flag, on the image and on the server.
    struct Case {
        CORBA::Long flag, reserved;
        bool throughServer;
        const char* handedOn;
    };
    for (const Case& c : {Case{1, 2, false, "close image 2"}, Case{1, 0, false, "close image 1"},
                          Case{0, 7, true, "close image 7"}, Case{3, 0, true, "close image 3"}}) {
        API::Image_var image = create("closed");
        if (c.throughServer) {
            server->closeImageV12(++serverSeq, image, c.flag, c.reserved);
        } else {
            image->closeImageV12(1, c.flag, c.reserved);
        }
        EXPECT_EQ(1u, faultCalls(c.handedOn)) << c.handedOn;
    }

    // A close the plug-in refuses: recorded and replayed, and the handle is
    // gone, so flush and close answer "not opened" without the plug-in.
    faultControl("KELD_FAULT_CLOSE=" + std::to_string(FAULT_EREFUSED) + "\n");
    API::Image_var image = server->openImageV13(++serverSeq, "lsu", imageDefinition("failing"), kOpenWrite);
    image->flushV12(1);
    EXPECT_EQ(1u, faultCalls("flush"));
    EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { image->closeImageV12(2, 0, 0); }, "fail to close image "));
    EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { image->closeImageV12(2, 0, 0); }, "fail to close image "));
    EXPECT_EQ(1u, faultCalls("close image 0"));
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { image->flushV12(3); }, "image has not been opened"));
    EXPECT_TRUE(raises(STS_ENOT_OPEN, [&] { server->closeImageV12(++serverSeq, image, 0, 0); }, "image has not been opened"));
    EXPECT_EQ(1u, faultCalls("flush"));
    EXPECT_EQ(1u, faultCalls("close image 0"));
    EXPECT_FALSE(image->_non_existent()) << "a failed close stores nothing for deactivation";

    faultControl("");
    image = create("partial");
    API::Image_var source = create("source");
    const API::Bytes data = positioned(65536);
    API::UInt64 done = 0;
    API::Bytes_var read;

    // Busy and try-again come back with the count done, also on a retry,
    // which does not reach the plug-in.
    faultControl(transferAnswers(STS_EBUSY_AGAIN, 4096));
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raisesVal(STS_EBUSY_AGAIN, 4096, [&] { image->writeImageV12(1, data, 65536, 0, done); }));
    }
    EXPECT_EQ(1u, faultCalls("write 65536 0"));
    faultControl(transferAnswers(STS_EIN_USE, 100));
    EXPECT_TRUE(raisesVal(STS_EIN_USE, 100, [&] { image->readImageV12(2, read, 8192, 0, done); }));

    // The client goes on under a new number from where the count says.
    faultControl("KELD_FAULT_TRANSFER=off\n");
    image->writeImageV12(3, data, 65536 - 4096, 4096, done);
    EXPECT_EQ(65536u - 4096, done);
    image->readImageV12(4, read, 8192, 100, done);
    EXPECT_EQ(8192u, done);
    EXPECT_EQ('r', read[8191]);

    // Any other number carries no count: a plain STSError (raises() takes
    // no STSError_val).
    faultControl(transferAnswers(FAULT_EREFUSED, 10));
    EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { image->writeImageV12(5, data, 16, 0, done); }, "fail to call sts_write_image"));

    // A copy answered in part is a warning, not an error, and both counters
    // are back where they were.
    faultControl(transferAnswers(STS_EBUSY_AGAIN, 4096));
    for (int attempt = 0; attempt < 2; ++attempt) {
        EXPECT_TRUE(raisesVal(STS_EBUSY_AGAIN, 4096, [&] { image->copyExtentV12(7, 0, source, 0, 65536, 3, done); }));
    }
    EXPECT_EQ(1u, faultCalls("copy 65536"));
    EXPECT_TRUE(logHas("[WARN][faults][ImageImpl::copyExtent]sts_copy_extent returned with EBUSY or EAGAIN, sts return " +
                       std::to_string(STS_EBUSY_AGAIN) + ", flags 3, bytesCopy 4096"));
    EXPECT_FALSE(logHas("sts_copy_extent failed"));
    EXPECT_TRUE(logHas("sts_copy_extent returned, copy counter is 0"));
    faultControl(transferAnswers(FAULT_EREFUSED, 10));
    EXPECT_TRUE(raises(FAULT_EREFUSED, [&] { image->copyExtentV12(8, 0, source, 0, 65536, 0, done); }, "sts_copy_extent failed"));
}

} // namespace
