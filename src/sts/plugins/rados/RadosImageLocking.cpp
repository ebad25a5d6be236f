// What the image slots do with the write lock of an image: take it when a
// writer opens or creates the image, hold every write to it, give it up at
// the close.  A refusal names the image and who holds it in the session's
// log, since the storage API carries only the number.
#include "RadosPluginParts.h"

#include <cerrno>

using namespace radosstore;

namespace radosplugin {

int lockForWriting(const Server* s, const std::string& lsu, const std::string& image, std::shared_ptr<HeldLock>& lock)
{
    std::string holder;
    const int rc = s->cluster->writeLocks().take(lsuNamespace(s->config.name, lsu), image, s->config.lockSeconds,
                                                 lock, holder);
    if (rc == -EBUSY) {
        const std::string line = "rados plug-in: image " + image + " of " + s->serverName + "/" + lsu +
                                 " is open for writing by " + (holder.empty() ? "another writer" : holder) +
                                 "; it can be opened for writing once that writer closes it or its lease of " +
                                 std::to_string(s->config.lockSeconds) + " s runs out";
        stsp_log(s->session, STS_ESERROR, line.c_str());
        return RADOS_EBUSY;
    }
    return rc == 0 ? 0 : failure(s->session, "locking image " + image + " for writing", rc);
}

int leaseHeld(const Image* img, const std::string& doing)
{
    if (!img->writeLock || !img->writeLock->lost()) return 0;
    const std::string line = "rados plug-in: " + doing + " refused: the write lock of image " + img->name +
                             " ran out before it was renewed, and another writer may have the image now";
    stsp_log(img->session, STS_ESERROR, line.c_str());
    return RADOS_EBUSY;
}

void releaseLock(Image* img)
{
    if (img->writeLock) img->cluster->writeLocks().release(img->writeLock);
    img->writeLock.reset();
}

} // namespace radosplugin
