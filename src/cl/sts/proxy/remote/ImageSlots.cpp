// Images by name on their server, image objects (properties, group, flush,
// files, copy and include) and image lists.
#include "ProxyUtil.h"
#include "RemoteHandles.h"
#include "RemoteSlots.h"

#include <cstring>

namespace {

API::ImageDefinitionV13 contractImage(const sts_image_def_t& def)
{
    API::ImageDefinitionV13 imd;
    ZVS2CORBA(def, &imd);
    return imd;
}

// Create and open differ only in the operation.
template <typename Op>
int makeImage(const char* szWho, const sts_lsu_t* lsu, const sts_image_def_t* def, sts_handle_t* out, Op op)
{
    return onLsuServer(szWho, lsu, def == nullptr || out == nullptr, [&](ServerHandle* s, const std::string& name) {
        const API::ImageDefinitionV13 imd = contractImage(*def);
        API::Image_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = op(*s->server, seq, name.c_str(), imd);
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<ImageHandle>(IMAGE, s->server, ref, out);
    });
}

int createImage(sts_lsu_t* lsu, const sts_image_def_t* def, int flags, sts_handle_t* out)
{
    return makeImage("remote::createImage", lsu, def, out,
                     [&](RemoteServer& s, API::UInt64 seq, const char* name, const API::ImageDefinitionV13& imd) {
                         return s.ref->createImageV13(seq, name, imd, flags);
                     });
}

int openImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int mode, sts_handle_t* out)
{
    return makeImage("remote::openImage", lsu, def, out,
                     [&](RemoteServer& s, API::UInt64 seq, const char* name, const API::ImageDefinitionV13& imd) {
                         return s.ref->openImageV13(seq, name, imd, mode);
                     });
}

int deleteImage(const sts_lsu_t* lsu, const sts_image_def_t* def, int async)
{
    static const char* szWho = "remote::deleteImage";
    return onLsuServer(szWho, lsu, def == nullptr, [&](ServerHandle* s, const std::string& name) {
        const API::ImageDefinitionV13 imd = contractImage(*def);
        return s->server->call(szWho, [&](API::UInt64 seq) {
                   s->server->ref->deleteImageV13(seq, name.c_str(), imd, async);
                   return 0;
               }).code;
    });
}

int getImagePropByName(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_image_info_t* info)
{
    static const char* szWho = "remote::getImagePropByName";
    return onLsuServer(szWho, lsu, def == nullptr || info == nullptr, [&](ServerHandle* s, const std::string& name) {
        const API::ImageDefinitionV13 imd = contractImage(*def);
        API::ImageInformationV13_var out;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            return s->server->ref->getImagePropByNameV13(seq, name.c_str(), imd, out);
        });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

int getImageGroupByName(const sts_lsu_t* lsu, const sts_image_def_t* def, sts_uint32_t* group)
{
    static const char* szWho = "remote::getImageGroupByName";
    return onLsuServer(szWho, lsu, def == nullptr || group == nullptr, [&](ServerHandle* s, const std::string& name) {
        const API::ImageDefinitionV13 imd = contractImage(*def);
        API::UInt32 answer = 0;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            return s->server->ref->getImageGroupByNameV13(seq, name.c_str(), imd, answer);
        });
        if (o.code == 0) *group = answer;
        return o.code;
    });
}

int openImageList(const sts_lsu_t* lsu, int type, sts_handle_t* out)
{
    static const char* szWho = "remote::openImageList";
    return onLsuServer(szWho, lsu, out == nullptr, [&](ServerHandle* s, const std::string& name) {
        API::ImageList_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = s->server->ref->openImageListV12(seq, name.c_str(), type);
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<ImageListHandle>(IMAGE_LIST, s->server, ref, out);
    });
}

int openImageGroupList(const sts_lsu_t* lsu, const sts_image_def_t* def, int type, sts_handle_t* out)
{
    static const char* szWho = "remote::openImageGroupList";
    return onLsuServer(szWho, lsu, def == nullptr || out == nullptr, [&](ServerHandle* s, const std::string& name) {
        const API::ImageDefinitionV13 imd = contractImage(*def);
        API::ImageList_var ref;
        const CallOutcome o = s->server->call(szWho, [&](API::UInt64 seq) {
            ref = s->server->ref->openImageGroupListV13(seq, name.c_str(), imd, type);
            return 0;
        });
        if (o.code != 0) return o.code;
        return adoptChild<ImageListHandle>(IMAGE_LIST, s->server, ref, out);
    });
}

// 0 with a definition, or the end of the list (2060013) as a result.
int listImage(sts_handle_t list, sts_image_def_t* def)
{
    static const char* szWho = "remote::listImage";
    return guarded(szWho, [&] {
        ImageListHandle* l = remoteHandle<ImageListHandle>(list, IMAGE_LIST);
        if (l == nullptr) return STSP_EBADHANDLE;
        if (def == nullptr) return STS_EINVAL_ARG;
        API::ImageDefinitionV13_var out;
        const CallOutcome o = l->call(szWho, [&](API::UInt64 seq) { return l->ref->listImageV13(seq, out); });
        if (o.code == 0) {
            std::memset(def, 0, sizeof(*def));
            CORBA2ZVS(out.in(), def);
        }
        return o.code;
    });
}

ImageHandle* imageOf(sts_handle_t h)
{
    return remoteHandle<ImageHandle>(h, IMAGE);
}

int getImageProp(sts_handle_t h, sts_image_info_t* info)
{
    static const char* szWho = "remote::getImageProp";
    return guarded(szWho, [&] {
        ImageHandle* img = imageOf(h);
        if (img == nullptr) return STSP_EBADHANDLE;
        if (info == nullptr) return STS_EINVAL_ARG;
        API::ImageInformationV13_var out;
        const CallOutcome o = img->call(szWho, [&](API::UInt64 seq) { return img->ref->getImagePropV13(seq, out); });
        if (o.code != 0) return o.code;
        std::memset(info, 0, sizeof(*info));
        CORBA2ZVS(out.in(), info);
        return 0;
    });
}

int getImageGroup(sts_handle_t h, sts_uint32_t* group)
{
    static const char* szWho = "remote::getImageGroup";
    return guarded(szWho, [&] {
        ImageHandle* img = imageOf(h);
        if (img == nullptr) return STSP_EBADHANDLE;
        if (group == nullptr) return STS_EINVAL_ARG;
        API::UInt32 answer = 0;
        const CallOutcome o = img->call(szWho, [&](API::UInt64 seq) { return img->ref->getImageGroupV12(seq, answer); });
        if (o.code == 0) *group = answer;
        return o.code;
    });
}

int flush(sts_handle_t h)
{
    static const char* szWho = "remote::flush";
    return guarded(szWho, [&] {
        ImageHandle* img = imageOf(h);
        if (img == nullptr) return STSP_EBADHANDLE;
        return img->call(szWho, [&](API::UInt64 seq) {
                   img->ref->flushV12(seq);
                   return 0;
               }).code;
    });
}

int extractFiles(sts_handle_t h, const sts_lsu_name_t* lsu, int async)
{
    static const char* szWho = "remote::extractFiles";
    return guarded(szWho, [&] {
        ImageHandle* img = imageOf(h);
        if (img == nullptr) return STSP_EBADHANDLE;
        if (lsu == nullptr) return STS_EINVAL_ARG;
        const std::string name = fieldText(lsu->sln_name);
        return img->call(szWho, [&](API::UInt64 seq) { return img->ref->extractFilesV12(seq, name.c_str(), async); })
            .code;
    });
}

int deleteFiles(sts_handle_t h, const char** names, sts_uint32_t count)
{
    static const char* szWho = "remote::deleteFiles";
    return guarded(szWho, [&] {
        ImageHandle* img = imageOf(h);
        if (img == nullptr) return STSP_EBADHANDLE;
        if (names == nullptr && count > 0) return STS_EINVAL_ARG;
        API::StringSeq paths;
        paths.length(count);
        for (sts_uint32_t i = 0; i < count; ++i) paths[i] = CORBA::string_dup(names[i] != nullptr ? names[i] : "");
        return img->call(szWho, [&](API::UInt64 seq) {
                   img->ref->deleteFilesV12(seq, paths, static_cast<CORBA::Long>(count));
                   return 0;
               }).code;
    });
}

// Copy and include run at the service between two of its images.  A busy
// answer with a partial count goes on from that count under a new number;
// a busy answer with no progress waits and tries again, up to retry_tries.
template <typename Op>
int moveBetween(const char* szWho, sts_handle_t to, sts_handle_t from, sts_uint64_t toOff, sts_uint64_t fromOff,
                sts_uint64_t len, sts_uint64_t* moved, Op op)
{
    return guarded(szWho, [&] {
        ImageHandle* target = imageOf(to);
        ImageHandle* source = imageOf(from);
        if (target == nullptr || source == nullptr) return STSP_EBADHANDLE;
        if (moved == nullptr) return STS_EINVAL_ARG;
        *moved = 0;
        for (int idle = 0;;) {
            API::UInt64 done = 0;
            const CallOutcome o = target->call(szWho, [&](API::UInt64 seq) {
                op(*target, seq, toOff + *moved, source->ref.in(), fromOff + *moved, len - *moved, done);
                return 0;
            });
            if (o.code == 0) {
                *moved += done;
                return 0;
            }
            if (o.withBytes) *moved += o.bytes;
            if (!busyAnswer(o.code) || *moved >= len) return o.code;
            idle = o.bytes > 0 ? 0 : idle + 1;
            if (idle >= remote::settings().retryTries) return o.code;
            if (idle > 0) remote::pauseBeforeTry(idle);
        }
    });
}

int copyExtent(sts_handle_t to, sts_uint64_t toOff, sts_handle_t from, sts_uint64_t fromOff, sts_uint64_t len,
               int flags, sts_uint64_t* copied)
{
    return moveBetween("remote::copyExtent", to, from, toOff, fromOff, len, copied,
                       [&](ImageHandle& t, API::UInt64 seq, sts_uint64_t tOff, API::Image_ptr src,
                           sts_uint64_t sOff, sts_uint64_t n, API::UInt64& done) {
                           t.ref->copyExtentV12(seq, tOff, src, sOff, n, flags, done);
                       });
}

int includeInImage(sts_handle_t to, sts_uint64_t toOff, sts_handle_t from, sts_uint64_t fromOff, sts_uint64_t len,
                   sts_uint64_t* included)
{
    return moveBetween("remote::includeInImage", to, from, toOff, fromOff, len, included,
                       [&](ImageHandle& t, API::UInt64 seq, sts_uint64_t tOff, API::Image_ptr src,
                           sts_uint64_t sOff, sts_uint64_t n, API::UInt64& done) {
                           t.ref->includeInImageV12(seq, tOff, src, sOff, n, done);
                       });
}

} // namespace

int closeImageHandle(sts_handle_t h, sts_uint32_t flags)
{
    static const char* szWho = "remote::closeImage";
    ImageHandle* img = imageOf(h);
    if (img == nullptr) return STSP_EBADHANDLE;
    const CORBA::Long flag = static_cast<CORBA::Long>(flags);
    const int nErr = guarded(szWho, [&] {
        RemoteServer& s = *img->server;
        return s.open ? s.call(szWho, [&](API::UInt64 seq) {
                             s.ref->closeImageV12(seq, img->ref, flag, 0);
                             return 0;
                         }).code
                      : img->call(szWho, [&](API::UInt64 seq) {
                             img->ref->closeImageV12(seq, flag, 0);
                             return 0;
                         }).code;
    });
    delete img;
    return nErr;
}

int closeImageListHandle(sts_handle_t h)
{
    static const char* szWho = "remote::closeImageList";
    ImageListHandle* l = remoteHandle<ImageListHandle>(h, IMAGE_LIST);
    if (l == nullptr) return STSP_EBADHANDLE;
    const int nErr = guarded(szWho, [&] {
        RemoteServer& s = *l->server;
        return s.open ? s.call(szWho, [&](API::UInt64 seq) {
                             s.ref->closeImageListV12(seq, l->ref);
                             return 0;
                         }).code
                      : l->call(szWho, [&](API::UInt64 seq) {
                             l->ref->closeImageListV12(seq);
                             return 0;
                         }).code;
    });
    delete l;
    return nErr;
}

void fillImageSlots(sts_api_t& a)
{
    a.stsa_create_image = createImage;
    a.stsa_open_image = openImage;
    a.stsa_delete_image = deleteImage;
    a.stsa_get_image_prop_byname = getImagePropByName;
    a.stsa_get_image_group_byname = getImageGroupByName;
    a.stsa_open_image_list = openImageList;
    a.stsa_open_image_group_list = openImageGroupList;
    a.stsa_list_image = listImage;
    a.stsa_get_image_prop = getImageProp;
    a.stsa_get_image_group = getImageGroup;
    a.stsa_flush = flush;
    a.stsa_extract_files = extractFiles;
    a.stsa_delete_files = deleteFiles;
    a.stsa_copy_extent = copyExtent;
    a.stsa_include_in_image = includeInImage;
}
