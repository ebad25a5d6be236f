// The image's operations beyond its data path: the server-side copy of an
// extent from another image, the include of a range of one, extraction and
// deletion of files, and the image's properties and group.
#include "ImageImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ProxyV9SVC.h"
#include "ServantFactory.h"
#include "ServantSite.h"
#include "StsBinding.h"

#include <ace/Guard_T.h>

namespace {

unsigned long long ull(API::UInt64 v)
{
    return static_cast<unsigned long long>(v);
}

// A copy in flight keeps the idle timer from ending the service.
class CopyInFlight {
public:
    CopyInFlight(const ServantSite& site, const char* name) : m_site(site)
    {
        ACE_Guard<ACE_Thread_Mutex> guard(gs_cecMutex);
        ++copy_extent_count;
        m_site.log(STS_ESDEBUG, "before called into sts_copy_extent for image %s, copy counter is %lld", name,
                   static_cast<long long>(copy_extent_count));
    }
    ~CopyInFlight()
    {
        ACE_Guard<ACE_Thread_Mutex> guard(gs_cecMutex);
        --copy_extent_count;
        m_site.log(STS_ESDEBUG, "sts_copy_extent returned, copy counter is %lld",
                   static_cast<long long>(copy_extent_count));
    }
    CopyInFlight(const CopyInFlight&) = delete;
    CopyInFlight& operator=(const CopyInFlight&) = delete;

private:
    const ServantSite& m_site;
};

} // namespace

// Only an image of this process, in this POA: a reference that is gone or
// of another kind is refused, never followed.
ImageImpl& ImageImpl::sourceImage(API::Image_ptr image, PortableServer::ServantBase_var& holder)
{
    return servantOf<ImageImpl>(m_vobjPOA, image, holder);
}

void ImageImpl::copyExtentV12(API::UInt64 callsequence, API::UInt64 to_offset, API::Image_ptr from_image,
                              API::UInt64 from_offset, API::UInt64 len, CORBA::Long flags,
                              API::UInt64& bytescopied)
{
    static const char* szWho = "ImageImpl::copyExtent";
    runSequenced(m_CallSeq, callsequence, szWho, &bytescopied, [](CallSequence&) {},
        [&](CallSequence& cs) {
            bytescopied = 0;   // logged on every way out
            try {
                PortableServer::ServantBase_var holder;
                ImageImpl& source = sourceImage(from_image, holder);
                const ServantGate::Pass sourceOpen(&source.gate());
                if (!sourceOpen) refuseCall(m_plog, cs, szWho, sourceOpen.refusal());
                // The source's definition, session and registry: the lines and
                // the session counted are the source's.
                const sts_image_def_t tmpImg = source.getImageDef();
                const sts_session_def_t tmpSd = source.getSession();
                SessionManager* tmpSm = source.getSessionManager();
                const ServantSite here = {m_plog, &tmpSd, szWho};
                here.log(STS_ESDEBUG, "got one request of copying extent for image %s", tmpImg.img_basename);
                int nErr = 0;
                {
                    // Both counters fall on every way out, in the reverse
                    // order of their rise, before the result is looked at.
                    CopyInFlight copying(here, tmpImg.img_basename);
                    SessionUse use(tmpSm, tmpSd, m_plog, szWho);
                    nErr = STS_CALL(stsa_copy_extent, m_imh, to_offset, source.getHandle(), from_offset, len,
                                    flags, &bytescopied);
                }
                if (nErr == STS_EBUSY_AGAIN || nErr == STS_EIN_USE) {
                    here.log(STS_ESWARN, "sts_copy_extent returned with EBUSY or EAGAIN, sts return %d, flags %d, bytesCopy %llu",
                             nErr, static_cast<int>(flags), ull(bytescopied));
                    failRecorded(cs, nErr, "sts_copy_extent returned with EBUSY or EAGAIN", bytescopied);
                }
                if (nErr != 0) {
                    here.log(STS_ESERROR, "sts_copy_extent failed, sts return %d, flags %d", nErr, static_cast<int>(flags));
                    failRecorded(cs, nErr, "sts_copy_extent failed");
                }
                here.log(STS_ESDEBUG, "sts_copy_extent has copied %llu bytes", ull(bytescopied));
                cs.recordCompletion(0, "ok", bytescopied);
            } catch (const API::STSError_val& e) {
                if (e.stsErrorNo != STS_EBUSY_AGAIN && e.stsErrorNo != STS_EIN_USE) {
                    site(szWho).log(STS_ESDEBUG, "sts_copy_extent failed: stsErrnoNo = %d, ex.bytesCopied %llu bytes",
                                    static_cast<int>(e.stsErrorNo), ull(e.bytesReturned));
                }
                throw;
            } catch (...) {
                site(szWho).log(STS_ESDEBUG, "sts_copy_extent failed, copyied %llu bytes", ull(bytescopied));
                throw;
            }
        });
}

// The copy's plain sibling: no counters, and every failure tells how far it
// got.
void ImageImpl::includeInImageV12(API::UInt64 callsequence, API::UInt64 offset_to, API::Image_ptr image_from_handle,
                                  API::UInt64 offset_from, API::UInt64 len, API::UInt64& byteincluded)
{
    const ServantSite here = site("ImageImpl::includeInImage");
    runSequenced(m_CallSeq, callsequence, here.szWho, &byteincluded, [](CallSequence&) {},
        [&](CallSequence& cs) {
            byteincluded = 0;   // logged on every way out
            try {
                PortableServer::ServantBase_var holder;
                ImageImpl& source = sourceImage(image_from_handle, holder);
                const ServantGate::Pass sourceOpen(&source.gate());
                if (!sourceOpen) refuseCall(m_plog, cs, here.szWho, sourceOpen.refusal());
                here.log(STS_ESDEBUG, "got one request of including in image");
                const int nErr = STS_CALL(stsa_include_in_image, m_imh, offset_to, source.getHandle(), offset_from,
                                          len, &byteincluded);
                if (nErr != 0) {
                    here.log(STS_ESERROR, "sts_include_in_image failed, sts return %d", nErr);
                    failRecorded(cs, nErr, "fail to call sts_include_in_image", byteincluded);
                }
                here.log(STS_ESINFO, "succeed to call include in image");
                cs.recordCompletion(0, "ok", byteincluded);
            } catch (const API::STSError_val& e) {
                here.log(STS_ESDEBUG, "sts_include_in_image failed: stsErrorNo = %d, ex.bytesInclude %llu bytes.",
                         static_cast<int>(e.stsErrorNo), ull(e.bytesReturned));
                throw;
            }
        });
}

CORBA::Long ImageImpl::extractFilesV12(API::UInt64 callsequence, const char* lsuname, CORBA::Long asyncflag)
{
    const ServantSite here = site("ImageImpl::extractFiles");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [](CallSequence& cs) { return CORBA::Long(cs.getErrorCode()); },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of extracting files");
            sts_lsu_name_t name = {};
            toC(name.sln_name, lsuname, 1024);
            raiseOnFailure(STS_CALL(stsa_extract_files, m_imh, &name, asyncflag), cs, here,
                           "fail to call sts_extract_files ", "sts_extract_files failed for %s, sts return %d",
                           name.sln_name);
            here.log(STS_ESINFO, "succeed to extract files from image %s to lsu %s", m_imd.img_basename, name.sln_name);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

void ImageImpl::deleteFilesV12(API::UInt64 callsequence, const API::StringSeq& pathseq, CORBA::Long npath)
{
    const ServantSite here = site("ImageImpl::deleteFiles");
    runSequenced(m_CallSeq, callsequence, here.szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of deleting files");
            // The count is the client's word: never more paths than it sent,
            // or the plug-in would read past the array.
            if (npath < 0 || static_cast<CORBA::ULong>(npath) > pathseq.length()) {
                here.log(STS_ESERROR, "a deletion of %d files came with %lu names", static_cast<int>(npath),
                         static_cast<unsigned long>(pathseq.length()));
                failRecorded(cs, STS_EINVAL_ARG, "file count does not match the names sent");
            }
            const char** paths = const_cast<const char**>(pathseq.get_buffer());
            raiseOnFailure(STS_CALL(stsa_delete_files, m_imh, paths, static_cast<sts_uint32_t>(npath)), cs, here,
                           "fail to call sts_delete_files", "sts_delete_files failed, sts return %d");
            here.log(STS_ESINFO, "succeed to call delete files");
            cs.recordCompletion(0, "ok");
        });
}

CORBA::Long ImageImpl::getImageGroupV12(API::UInt64 callsequence, API::UInt32& groupOut)
{
    const ServantSite here = site("ImageImpl::getImageGroup");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getUInt32(&groupOut);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of getting image group");
            sts_uint32_t group = 0;
            raiseOnFailure(STS_CALL(stsa_get_image_group, m_imh, &group), cs, here, "fail to call sts_get_image_group",
                           "sts_get_image_group failed, sts return %d");
            groupOut = group;
            cs.setUInt32(group);
            here.log(STS_ESDEBUG, "group type is %d", static_cast<int>(group));
            here.log(STS_ESINFO, "succeed to get image group");
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

CORBA::Long ImageImpl::getImagePropV13(API::UInt64 callsequence, API::ImageInformationV13_out imgInfoOut)
{
    const ServantSite here = site("ImageImpl::getImageProp");
    return runSequenced(m_CallSeq, callsequence, here.szWho, nullptr,
        [&](CallSequence& cs) {
            cs.getImageInfo(imgInfoOut);
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            here.log(STS_ESDEBUG, "got one request of getting image prop for image: %s", m_imd.img_basename);
            API::ImageInformationV13* info = newOutRecord<API::ImageInformationV13>();
            imgInfoOut = info;
            sts_image_info_t cinfo = {};
            int nErr = 0;
            {
                SessionUse use(m_sm, m_sd, m_plog, here.szWho);
                nErr = STS_CALL(stsa_get_image_prop, m_imh, &cinfo);
            }
            raiseOnFailure(nErr, cs, here, "fail to call sts_get_image_prop", "sts_get_image_prop failed, sts return %d");
            here.log(STS_ESDEBUG, "get prop from underneath plugin for image: %s, image size is %llu",
                     cinfo.imo_def.img_basename, ull(cinfo.imo_size));
            ZVS2CORBA(cinfo, info);
            cs.setImageInfo(*info);
            here.log(STS_ESINFO, "succeed to get image prop for image %s", m_imd.img_basename);
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

// Kept with no effect: it takes nothing, raises nothing and logs nothing.
void ImageImpl::includeInImageV9(API::UInt64, API::Image_ptr, API::UInt64, API::UInt64)
{
}
