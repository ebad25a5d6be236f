// Whole data objects of one image copied onto those of another inside the
// cluster: the OSDs move the bytes, the plug-in sends one small request per
// object.  Only librados' C++ interface offers this copy, so it lives in a
// unit of its own; the rest of the store stays on the C interface.
#ifndef KELD_RADOS_OBJECT_COPY_H
#define KELD_RADOS_OBJECT_COPY_H

#include <rados/librados.h>

#include <cstdint>
#include <string>

namespace radosstore {

// Copies count data objects, from index fromFirst of image `from` onto index
// toFirst of image `to`, each one whole (several in flight).  A source
// object that is not there (never written) leaves the target object absent,
// so that it reads as zeros.  The target's writes carry its LSU's snapshot
// context; toIo's header must already allow for every object reached.
// 0 or librados' negative errno.
int copyObjects(rados_ioctx_t fromIo, const std::string& from, std::uint64_t fromFirst, rados_ioctx_t toIo,
                const std::string& to, std::uint64_t toFirst, std::uint64_t count);

} // namespace radosstore

#endif
