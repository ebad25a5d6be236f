// Whole-object copies inside the cluster (RadosObjectCopy.h), through the
// C++ wrappers of the plug-in's own C io contexts: a wrapper shares its
// context, so the snapshot write context set on it applies to the copies.
#include "RadosObjectCopy.h"

#include "RadosCompletion.h"
#include "RadosSnapshots.h"
#include "RadosStore.h"

#include <algorithm>
#include <cerrno>
#include <memory>
#include <vector>

namespace radosstore {

namespace {

// Copies in flight at once: enough to keep the OSDs busy, few enough not
// to flood a small cluster with object-sized reads.
const std::uint64_t COPIES_IN_FLIGHT = 16;

const std::uint32_t SOURCE_READ_HINT = LIBRADOS_OP_FLAG_FADVISE_SEQUENTIAL | LIBRADOS_OP_FLAG_FADVISE_NOCACHE;

// One write operation on one target object, kept until it completed.
struct Pending {
    std::string target;
    librados::ObjectWriteOperation op;
    Completion done;
};

// Starts op on target; the pending entry goes into batch even when the
// start failed, with the failure as its result.
int start(librados::IoCtx& io, std::vector<std::unique_ptr<Pending>>& batch, std::unique_ptr<Pending> p)
{
    p->done.reset(librados::Rados::aio_create_completion());
    const int rc = p->done ? io.aio_operate(p->target, p->done.get(), &p->op) : -ENOMEM;
    if (rc != 0) p->done.reset();
    batch.push_back(std::move(p));
    return rc;
}

// Waits for every entry of the batch.  Fills `absent` with the targets
// whose source object was not there; the first other failure, else 0.
int finish(std::vector<std::unique_ptr<Pending>>& batch, std::vector<std::string>* absent, int failed)
{
    for (const auto& p : batch) {
        if (!p->done) continue;
        p->done->wait_for_complete();
        const int rc = p->done->get_return_value();
        if (rc == -ENOENT && absent != nullptr) absent->push_back(p->target);
        else if (rc < 0 && rc != -ENOENT && failed == 0) failed = rc;
    }
    batch.clear();
    return failed;
}

// Targets whose source is a hole: removed, so that they read as zeros
// (a snapshot keeps what they held).
int removeTargets(librados::IoCtx& io, const std::vector<std::string>& targets)
{
    std::vector<std::unique_ptr<Pending>> batch;
    int failed = 0;
    for (const std::string& oid : targets) {
        auto p = std::make_unique<Pending>();
        p->target = oid;
        p->op.remove();
        const int rc = start(io, batch, std::move(p));
        if (rc != 0 && failed == 0) failed = rc;
    }
    return finish(batch, nullptr, failed);
}

// One window of copies: started together, then waited for.
int copyWindow(librados::IoCtx& src, const std::string& from, std::uint64_t fromFirst, librados::IoCtx& dst,
               const std::string& to, std::uint64_t toFirst, std::uint64_t count)
{
    std::vector<std::unique_ptr<Pending>> batch;
    int failed = 0;
    for (std::uint64_t i = 0; i < count; ++i) {
        auto p = std::make_unique<Pending>();
        p->target = dataObject(to, toFirst + i);
        p->op.copy_from(dataObject(from, fromFirst + i), src, 0, SOURCE_READ_HINT);
        const int rc = start(dst, batch, std::move(p));
        if (rc != 0 && failed == 0) failed = rc;
    }
    std::vector<std::string> holes;
    failed = finish(batch, &holes, failed);
    return failed != 0 ? failed : removeTargets(dst, holes);
}

} // namespace

int copyObjects(rados_ioctx_t fromIo, const std::string& from, std::uint64_t fromFirst, rados_ioctx_t toIo,
                const std::string& to, std::uint64_t toFirst, std::uint64_t count)
{
    if (count == 0) return 0;
    const int snapc = applySnapContext(toIo);
    if (snapc != 0) return snapc;
    librados::IoCtx src, dst;
    librados::IoCtx::from_rados_ioctx_t(fromIo, src);
    librados::IoCtx::from_rados_ioctx_t(toIo, dst);
    for (std::uint64_t done = 0; done < count;) {
        const std::uint64_t n = std::min(count - done, COPIES_IN_FLIGHT);
        const int rc = copyWindow(src, from, fromFirst + done, dst, to, toFirst + done, n);
        if (rc != 0) return rc;
        done += n;
    }
    return 0;
}

} // namespace radosstore
