// Request bodies for the operations of a storage server and of an image,
// sent over a connection to the ORB of this process, so that the ORB's own
// unmarshalling and the generated skeletons take them apart before the
// servants see them.  An input is
//
//   byte 0    bit 0: the object, 0 the storage server, 1 the image;
//             bit 1: the body's byte order, 1 little-endian
//   byte 1    the operation: its place in the object's interface, in the
//             order of Proxy.idl (modulo the number of operations)
//   the rest  the request body: the operation's in arguments in CDR
//
// Every request is answered, or refused by the ORB with the end of its
// connection (a body with bytes left over), and the ORB takes the next
// connection.  An object a reply hands out is closed as its client would
// close it.  Once a request got past the ORB to a servant, the server and
// the image are opened anew on fresh storage, so that every input meets
// them as the first did: with no call recorded, no data, nothing closed.
#include "ContractOperations.h"
#include "FuzzSupport.h"
#include "InProcessService.h"
#include "RawGiop.h"

#include <omniORB4/CORBA.h>

namespace {

using keldfuzz::CallOutcome;
using keldfuzz::ContractOperation;
using keldfuzz::GiopReply;
using keldfuzz::ReplyStatus;

struct Target {
    const ContractOperation* operations;
    size_t count;
};

template <size_t N>
constexpr Target targetOf(const ContractOperation (&operations)[N])
{
    return {operations, N};
}

const Target kServer = targetOf(keldfuzz::kStorageServerOperations);
const Target kImage = targetOf(keldfuzz::kImageOperations);

// The object reference a successful reply starts with, or nil when the
// body holds none.
CORBA::Object_ptr returnedObject(const GiopReply& reply)
{
    std::vector<uint8_t> body = reply.body;   // the stream reads in place
    cdrMemoryStream in(body.data(), body.size());
    in.setByteSwapFlag(reply.littleEndian);
    try {
        return CORBA::Object::_unmarshalObjRef(in);
    } catch (const CORBA::SystemException&) {
        return CORBA::Object::_nil();
    }
}

// Whether the ORB turned the request away while taking it apart, before
// any servant code ran: a refused message, or a MARSHAL raised with the
// call not completed (no servant raises MARSHAL).
bool refusedByOrb(CallOutcome outcome, const GiopReply& reply)
{
    GiopReply::SystemException e;
    const uint32_t kCompletedNo = 1;
    return outcome == CallOutcome::Dropped ||
           (reply.systemException(e) && e.id == "IDL:omg.org/CORBA/MARSHAL:1.0" && e.completed == kCompletedNo);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size)
{
    if (size < 2) return 0;
    keldfuzz::InProcessService& service = keldfuzz::InProcessService::instance();
    static keldfuzz::RawGiopConnection connection(service.port());

    const bool toImage = (data[0] & 1) != 0;
    const bool littleEndian = (data[0] & 2) != 0;
    const Target& target = toImage ? kImage : kServer;
    const ContractOperation& operation = target.operations[data[1] % target.count];
    const std::string& key = toImage ? service.imageKey() : service.serverKey();

    GiopReply reply;
    const CallOutcome outcome = connection.call(key, operation.name, littleEndian, data + 2, size - 2, reply);
    FUZZ_CHECK(outcome != CallOutcome::Failed);
    FUZZ_CHECK(outcome == CallOutcome::Dropped || reply.status == ReplyStatus::NoException ||
               reply.status == ReplyStatus::UserException || reply.status == ReplyStatus::SystemException);
    if (refusedByOrb(outcome, reply)) return 0;
    if (reply.status == ReplyStatus::NoException && operation.returnsObject) {
        CORBA::Object_var made = returnedObject(reply);
        service.closeReturned(made);
    }
    service.renew();
    return 0;
}
