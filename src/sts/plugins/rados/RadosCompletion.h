// A completion of librados' C++ interface, released when its owner goes:
// for the units of the store that use that interface (copies inside the
// cluster, reads ahead).  Whoever holds one waits for it before letting go.
#ifndef KELD_RADOS_COMPLETION_H
#define KELD_RADOS_COMPLETION_H

#include <rados/librados.hpp>

#include <memory>

namespace radosstore {

struct CompletionReleaser {
    void operator()(librados::AioCompletion* c) const { c->release(); }
};
using Completion = std::unique_ptr<librados::AioCompletion, CompletionReleaser>;

} // namespace radosstore

#endif
