// The storage server's image operations: the factories and closes of the
// image and image list servants, the operations on an image by name, and
// the server's own properties, hosts, storage elements and configuration.
#include "StorageServerImpl.h"

#include "ImageImpl.h"
#include "ImageListImpl.h"
#include "Orb.h"
#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantFactory.h"
#include "StsBinding.h"

#include <cstring>
#include <new>
#include <vector>

namespace {

const FactoryTexts kOpenImageTexts = {
    "new ImageImpl failed", "fail to new one instance of Image on server side",
    "Image object is nil", "fail to get reference to Image object on server side",
    "succeed to get reference of Image object", STS_ESDEBUG};

const FactoryTexts kCreateImageTexts = {
    "new ImageImpl failed", "fail to new one instance of Image on server side",
    "Image object is nil", "fail to get reference to Image object on server side",
    "succeed to get reference of image object", STS_ESDEBUG};

const FactoryTexts kImageListTexts = {
    "new ImageListImpl failed", "fail to new one instance of ImageList on server side.",
    "ImageList object is nil", "fail to get ref to ImageList object on server side.",
    "succeed to get reference of ImageList object", STS_ESDEBUG};

const FactoryTexts kImageGroupListTexts = {
    "new ImageListImpl failed", "fail to new one instance of ImageList on server side.",
    "ImageList object is nil", "fail to get ref to ImageList object on server side.",
    "succeed to get reference ImageList object", STS_ESDEBUG};

} // namespace

ImageImpl* StorageServerImpl::newImage()
{
    return new (std::nothrow) ImageImpl(m_vobjPOA, link(), m_plog, m_sd, m_sm);
}

ImageListImpl* StorageServerImpl::newImageList()
{
    return new (std::nothrow) ImageListImpl(m_vobjPOA, link(), m_plog, m_sd);
}

API::Image_ptr StorageServerImpl::createImageV13(API::UInt64 callsequence, const char* lsu,
                                                 const API::ImageDefinitionV13& imd, CORBA::Long flags)
{
    return runFactory<API::Image>(m_CallSeq, callsequence, site("StorageServerImpl::createImage"),
        kCreateImageTexts, [&] { return newImage(); },
        [&](ImageImpl& image, CallSequence& cs) { image.createImageV13(lsu, imd, flags, cs); });
}

API::Image_ptr StorageServerImpl::openImageV13(API::UInt64 callsequence, const char* lsu,
                                               const API::ImageDefinitionV13& imd, CORBA::Long mode)
{
    return runFactory<API::Image>(m_CallSeq, callsequence, site("StorageServerImpl::openImage"), kOpenImageTexts,
        [&] { return newImage(); },
        [&](ImageImpl& image, CallSequence& cs) { image.openImageV13(lsu, imd, mode, cs); });
}

API::ImageList_ptr StorageServerImpl::openImageListV12(API::UInt64 callsequence, const char* lsu, CORBA::Long type)
{
    return runFactory<API::ImageList>(m_CallSeq, callsequence, site("StorageServerImpl::openImageList"),
        kImageListTexts, [&] { return newImageList(); },
        [&](ImageListImpl& list, CallSequence& cs) { list.openImageList(lsu, type, cs); });
}

API::ImageList_ptr StorageServerImpl::openImageGroupListV13(API::UInt64 callsequence, const char* lsu,
                                                           const API::ImageDefinitionV13& imd,
                                                           CORBA::Long groupType)
{
    return runFactory<API::ImageList>(m_CallSeq, callsequence, site("StorageServerImpl::openImageGroupList"),
        kImageGroupListTexts, [&] { return newImageList(); },
        [&](ImageListImpl& list, CallSequence& cs) { list.openImageGroupListV13(lsu, imd, groupType, cs); });
}

void StorageServerImpl::closeImageV12(API::UInt64 callsequence, API::Image_ptr img_to_close, CORBA::Long flag,
                                      CORBA::Long reserved)
{
    runClose<ImageImpl>(m_CallSeq, callsequence, "StorageServerImpl::closeImageV12", m_vobjPOA, img_to_close,
        [&](ImageImpl& image, CallSequence& cs) { image.closeImageX(flag, reserved, cs); });
}

void StorageServerImpl::closeImageListV12(API::UInt64 callsequence, API::ImageList_ptr imagelist_to_close)
{
    runClose<ImageListImpl>(m_CallSeq, callsequence, "StorageServerImpl::closeImageListV12", m_vobjPOA,
        imagelist_to_close, [](ImageListImpl& list, CallSequence& cs) { list.closeImageListX(cs); });
}

void StorageServerImpl::deleteImageV13(API::UInt64 callsequence, const char* lsuname,
                                       const API::ImageDefinitionV13& imdIn, CORBA::Long asyncflag)
{
    const ServantSite here = site("StorageServerImpl::deleteImage");
    runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, [](CallSequence&) {}, [&](CallSequence& cs) {
        here.log(STS_ESDEBUG, "get one request of deleting image");
        const sts_lsu_t lsu = lsuNamed(lsuname);
        sts_image_def_t imd = {};
        CORBA2ZVS(imdIn, &imd);
        here.log(STS_ESDEBUG, "lsu name: %s", lsu.stl_lsu_name.sln_name);
        here.log(STS_ESDEBUG, "image name: %s", imd.img_basename);
        raiseOnFailure(STS_CALL(stsa_delete_image, &lsu, &imd, asyncflag), cs, here, "fail to call sts_delete_image",
                       "sts_delete_image failed for %s, sts return %d", imd.img_basename);
        cs.recordCompletion(0, "ok");
    });
}

CORBA::Long StorageServerImpl::getImagePropByNameV13(API::UInt64 callsequence, const char* lsuName,
                                                     const API::ImageDefinitionV13& imdIn,
                                                     API::ImageInformationV13_out imgInfoOut)
{
    const ServantSite here = site("StorageServerImpl::getImagePropByName");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getImageInfo(imgInfoOut);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            API::ImageInformationV13* info = newOutRecord<API::ImageInformationV13>();
            imgInfoOut = info;
            here.log(STS_ESDEBUG, "get one request of getting image prop byname");
            const sts_lsu_t lsu = lsuNamed(lsuName);
            sts_image_def_t imgDef = {};
            CORBA2ZVS(imdIn, &imgDef);
            sts_image_info_t imgInfo = {};
            raiseOnFailure(STS_CALL(stsa_get_image_prop_byname, &lsu, &imgDef, &imgInfo), cs, here,
                           "fail to call sts_get_image_prop_byname",
                           "sts_get_image_prop_byname failed for %s, sts return %d", imgDef.img_basename);
            here.log(STS_ESDEBUG, "get prop from underneath plugin for image: %s in LSU: %s", imgDef.img_basename,
                     lsu.stl_lsu_name.sln_name);
            here.log(STS_ESDEBUG, "Image size is: %llu", static_cast<unsigned long long>(imgInfo.imo_size));
            ZVS2CORBA(imgInfo, info);
            cs.setImageInfo(*info);
            here.log(STS_ESINFO, "succeed to get image prop byname");
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

// Takes a number and ignores it: being a read, it simply runs again.
CORBA::Long StorageServerImpl::getImageGroupByNameV13(API::UInt64, const char* lsuName,
                                                      const API::ImageDefinitionV13& imdIn, API::UInt32& groupOut)
{
    const ServantSite here = site("StorageServerImpl::getImageGroupByName");
    const UnsequencedCall call(*m_gate, here);
    here.log(STS_ESDEBUG, "get one request of getting image group byname");
    const sts_lsu_t lsu = lsuNamed(lsuName);
    sts_image_def_t imgDef = {};
    CORBA2ZVS(imdIn, &imgDef);
    sts_uint32_t group = 0;
    const int nErr = STS_CALL(stsa_get_image_group_byname, &lsu, &imgDef, &group);
    if (nErr != 0) {
        here.log(STS_ESERROR, "sts_get_image_group_byname failed for %s, sts return %d", imgDef.img_basename, nErr);
        throw API::STSError(nErr, "fail to call sts_get_image_group_byname");
    }
    groupOut = group;
    here.log(STS_ESDEBUG, "group type is: %d", static_cast<int>(group));
    here.log(STS_ESINFO, "succeed to get image group byname");
    return 0;
}

CORBA::Long StorageServerImpl::getServerPropV12(API::UInt64 callsequence, API::ServerInformation_out svrInfoOut)
{
    const ServantSite here = site("StorageServerImpl::getServerPropV12");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getServerInfo(svrInfoOut);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of getting server prop");
            API::ServerInformation* info = newOutRecord<API::ServerInformation>();
            svrInfoOut = info;
            sts_server_info_t svrInfo = {};
            raiseOnFailure(STS_CALL(stsa_get_server_prop, m_svh, &svrInfo), cs, here, "fail to call sts_get_server_prop",
                           "sts_get_server_prop failed, sts return %d");
            ZVS2CORBA(svrInfo, info);
            cs.setServerInfo(*info);
            here.log(STS_ESDEBUG, "storage server name is %s", svrInfo.srv_server);
            here.log(STS_ESDEBUG, "storage server current connect is: %d", static_cast<int>(svrInfo.srv_nconnect));
            here.log(STS_ESINFO, "succeed to get server prop");
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

CORBA::Long StorageServerImpl::getStorelPropV12(API::UInt64 callsequence, const char* storelName,
                                                API::StorelInformation_out storelInfoOut)
{
    const ServantSite here = site("StorageServerImpl::getStorelProp");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getStorelInfo(storelInfoOut);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "get one request of getting storel prop");
            API::StorelInformation* info = newOutRecord<API::StorelInformation>();
            storelInfoOut = info;
            sts_storel_name_v7_t steName = {};
            toC(steName, storelName, sizeof(steName));
            sts_storel_info_t steInfo = {};
            raiseOnFailure(STS_CALL(stsa_get_storel_prop, m_svh, steName, &steInfo), cs, here,
                           "fail to call sts_get_storel_prop", "sts_get_storel_prop failed, sts return %d");
            ZVS2CORBA(steInfo, info);
            cs.setStorelInfo(*info);
            here.log(STS_ESDEBUG, "sti_owner is: %s", steInfo.sti_owner.sln_name);
            here.log(STS_ESDEBUG, "sti_assignee is: %s", steInfo.sti_assignee.sln_name);
            here.log(STS_ESINFO, "succeed to get storage element prop for %s", steName);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

// Unlike the storage elements, the counts are not recorded: a retry gets
// the names, and zero for both counts.
API::HostNameSeq* StorageServerImpl::getHostV12(API::UInt64 callsequence, CORBA::Long nhost, CORBA::Long returnall,
                                                CORBA::Long& rethost, CORBA::Long& maxhost)
{
    const ServantSite here = site("StorageServerImpl::getHost");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            rethost = 0;
            maxhost = 0;
            API::HostNameSeq* names = nullptr;
            if (!cs.getHostNameSeq(names)) names = new API::HostNameSeq;
            return names;
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of getting host");
            checkListingCount(nhost);
            API::HostNameSeq_var names = new API::HostNameSeq(static_cast<CORBA::ULong>(nhost));
            names->length(static_cast<CORBA::ULong>(nhost));
            std::vector<sts_host_name_v9_t> hosts(static_cast<size_t>(nhost));
            int nReturned = 0;
            int nAvailable = 0;
            raiseOnFailure(STS_CALL(stsa_get_host, m_svh, hosts.data(), static_cast<int>(nhost), returnall, &nReturned,
                                    &nAvailable), cs, here, "fail to call sts_get_host", "sts_get_host failed, sts return %d");
            rethost = nReturned;
            maxhost = nAvailable;
            here.log(STS_ESDEBUG, "rethost: %d; maxhost: %d", nReturned, nAvailable);
            for (int i = 0; i < nReturned && i < nhost; ++i) names[static_cast<CORBA::ULong>(i)] = dupField(hosts[static_cast<size_t>(i)]);
            here.log(STS_ESINFO, "succeed to get hosts");
            cs.setHostNameSeq(names.in());
            cs.recordCompletion(0, "ok");
            return names._retn();
        });
}

API::StorageElementSeq* StorageServerImpl::getStorelV12(API::UInt64 callsequence, CORBA::Long nstorel,
                                                        CORBA::Long& retstorel, CORBA::Long& maxstorel)
{
    return runCountedListing<API::StorageElementSeq, sts_storel_t>(
        m_CallSeq, callsequence, site("StorageServerImpl::getStorel"), kStorelListing, nstorel, retstorel, maxstorel,
        [&](sts_storel_t* items, int n, int* ret, int* max) {
            return STS_CALL(stsa_get_storel, m_svh, items, n, ret, max);
        });
}

// A buffer too small is answered with the length needed, in the count of
// an STSError_val; the client asks again with that much.
void StorageServerImpl::getServerConfigV12(API::UInt64 callsequence, API::Bytes_out buf, API::UInt32 u32BufLen,
                                           API::UInt32& u32MaxLen)
{
    const ServantSite here = site("StorageServerImpl::getServerConfig");
    runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getUInt32(&u32MaxLen);
            if (!cs.getBytes(buf)) buf = new API::Bytes;
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "enter");
            if (u32BufLen > Orb::maxPayloadBytes()) {
                here.log(STS_ESERROR, "a configuration buffer of %lu bytes is larger than a reply may carry",
                         static_cast<unsigned long>(u32BufLen));
                failRecorded(cs, STS_EINVAL_ARG, "buffer length is larger than the service can send");
            }
            API::Bytes_var bytes;
            try {
                bytes = new API::Bytes(u32BufLen);
            } catch (const std::bad_alloc&) {
                errno = ENOMEM;
                here.log(STS_ESERROR, "new Bytes failed");
                throw API::STSError(STS_ENOMEM_OBJ, "fail to malloc Bytes.");
            }
            try {
                bytes->length(u32BufLen);
                if (u32BufLen > 0) std::memset(bytes->get_buffer(), 0, u32BufLen);
                sts_uint32_t maxlen = 0;
                const int nErr = STS_CALL(stsa_get_server_config, m_svh, reinterpret_cast<char*>(bytes->get_buffer()),
                                          u32BufLen, &maxlen);
                if (nErr == STS_EBUFFER_SMALL) {
                    here.log(STS_ESERROR, "buffer is not large enough, return maxlen %d", static_cast<int>(maxlen));
                    failRecorded(cs, nErr, "buffer is not large enough", maxlen);
                }
                raiseOnFailure(nErr, cs, here, "fail to call sts_get_server_config",
                               "sts_get_server_config failed, sts return %d");
                u32MaxLen = maxlen;
                cs.setUInt32(maxlen);
                cs.setBytes(bytes.in());
                buf = bytes._retn();
                here.log(STS_ESDEBUG, "storage server config max length is %d", static_cast<int>(maxlen));
                here.log(STS_ESINFO, "succeed to get server config");
                cs.recordCompletion(0, "ok");
            } catch (const API::STSError_val& e) {
                here.log(STS_ESERROR, "sts_get_server_config failed: stsErrnoNo = %d, ex.maxLen %llu bytes.",
                         static_cast<int>(e.stsErrorNo), static_cast<unsigned long long>(e.bytesReturned));
                throw;
            } catch (...) {
                here.log(STS_ESERROR, "sts_get_server_config failed, maxlen is %d", static_cast<int>(u32MaxLen));
                throw;
            }
        });
}

// Answers ok and configures nothing: the plug-in is not asked, and the
// message buffer goes back empty.
void StorageServerImpl::setServerConfigV12(API::UInt64 callsequence, const API::Bytes&, API::Bytes_out msgbuf,
                                           API::UInt32)
{
    const ServantSite here = site("StorageServerImpl::setServerConfig");
    runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            if (!cs.getBytes(msgbuf)) msgbuf = new API::Bytes;
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "enter");
            msgbuf = new API::Bytes;
            cs.recordCompletion(0, "ok");
        });
}
