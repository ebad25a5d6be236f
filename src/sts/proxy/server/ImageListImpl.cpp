#include "ImageListImpl.h"

#include "ProxyLogger.h"
#include "ProxyUtil.h"
#include "ServantSite.h"
#include "StsBinding.h"

#include <cstring>

ImageListImpl::ImageListImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                             sts_session_def_t sd)
    : SessionServant(poa, plog, sd, server)
{
    reset();
    m_lsu.stl_server_handle = server.handle;
    m_plog->logMsg(&m_sd, "ImageListImpl::ImageListImpl", STS_ESDEBUG, "new instanse of object ImageList %p",
                   static_cast<void*>(this));
}

// No storage call: a list that was not closed keeps its plug-in handle.
ImageListImpl::~ImageListImpl()
{
    m_plog->logMsg(&m_sd, "ImageListImpl::~ImageListImpl", STS_ESDEBUG,
                   "the object of ImageListImpl is destroyed here %p", static_cast<void*>(this));
}

// After a failed open even the server handle is gone.
void ImageListImpl::keepListOpen()
{
    keepOpen([this] { abandonPluginHandle(m_ilh, 0, site("ImageListImpl::abandon"), "image list"); });
}

void ImageListImpl::reset()
{
    m_ilh = nullptr;
    m_lsu.stl_server_handle = nullptr;
    std::memset(m_lsu.stl_lsu_name.sln_name, 0, sizeof(m_lsu.stl_lsu_name.sln_name));
    m_plog->logMsg(&m_sd, "ImageListImpl::reset", STS_ESDEBUG, "init the lsu handle");
}

void ImageListImpl::openImageList(const char* lsu, CORBA::Long type, CallSequence& cs)
{
    const ServantSite here = site("ImageListImpl::openImageList");
    try {
        here.log(STS_ESDEBUG, "got one request of opening image list");
        toC(m_lsu.stl_lsu_name.sln_name, lsu, 1024);
        raiseOnFailure(STS_CALL(stsa_open_image_list, &m_lsu, type, &m_ilh), cs, here,
                       "fail to call sts_open_image_list", "sts_open_image_list failed, sts return %d");
        keepListOpen();
        here.log(STS_ESINFO, "succeed to open image list");
    } catch (...) {
        reset();
        throw;
    }
}

void ImageListImpl::openImageGroupListV13(const char* lsu, const API::ImageDefinitionV13& imdIn,
                                          CORBA::Long groupType, CallSequence& cs)
{
    const ServantSite here = site("ImageListImpl::openImageGroupListV13");
    try {
        here.log(STS_ESDEBUG, "got one request of opening image group list");
        sts_image_def_t imd = {};
        CORBA2ZVS(imdIn, &imd);
        toC(m_lsu.stl_lsu_name.sln_name, lsu, 1024);
        raiseOnFailure(STS_CALL(stsa_open_image_group_list, &m_lsu, &imd, groupType, &m_ilh), cs, here,
                       "fail to call sts_open_image_group_list", "sts_open_image_group_list failed, sts return %d");
        keepListOpen();
        here.log(STS_ESINFO, "succeed to open image group list");
    } catch (...) {
        reset();
        throw;
    }
}

// The end of the list is an answer, 2060013 with an empty definition, and
// nothing is recorded for it but the number: a retry raises it.
CORBA::Long ImageListImpl::listImageV13(API::UInt64 callsequence, API::ImageDefinitionV13_out imgDef)
{
    static const char* szWho = "ImageListImpl::listImage";
    return runSequenced(m_CallSeq, callsequence, szWho, nullptr,
        [&](CallSequence& cs) {
            if (!cs.getImageDef(imgDef)) imgDef = newOutRecord<API::ImageDefinitionV13>();
            return CORBA::Long(cs.getErrorCode());
        },
        [&](CallSequence& cs) {
            const ServantSite here = site(szWho);
            here.log(STS_ESDEBUG, "got one request of listing image");
            API::ImageDefinitionV13* def = newOutRecord<API::ImageDefinitionV13>();
            imgDef = def;
            sts_image_def_t cdef = {};
            const int nErr = STS_CALL(stsa_list_image, m_ilh, &cdef);
            if (nErr == STS_ENO_MORE) {
                here.log(STS_ESERROR, "reach the end of the image list");
                cs.recordCompletion(STS_ENO_MORE, "reach the end of the image list");
                return CORBA::Long(STS_ENO_MORE);
            }
            raiseOnFailure(nErr, cs, here, "fail to list image.", "sts_list_image failed, sts return %d");
            here.log(STS_ESDEBUG,
                     "get one ImageDef from underneath plugin\nbasename: %s\tdata: %s\tfulldata: %s\npolicy: %s\tsaveas: %d\tflag: %d\nstream_format: %s",
                     cdef.img_basename, cdef.img_date, cdef.img_fulldate, cdef.img_policy,
                     static_cast<int>(cdef.img_saveas), static_cast<int>(cdef.img_flags), cdef.img_format);
            ZVS2CORBA(cdef, def);
            cs.setImageDef(*def);
            here.log(STS_ESINFO, "success to list one image name.");
            cs.recordCompletion(0, "ok");
            return CORBA::Long(0);
        });
}

void ImageListImpl::closeHandle(CallSequence& cs, const char* szWho)
{
    const ServantSite here = site(szWho);
    static const CloseTexts texts = {"image list handle is NULL", "image list has not been opened",
                                     "fail to close image list", "sts_close_image_list failed, sts return %d"};
    const HandleClosing closing(*m_gate, cs, here);
    try {
        here.log(STS_ESDEBUG, "got one request of closing image list");
        closePluginHandle(m_ilh, cs, here, texts);
        here.log(STS_ESINFO, "succeed to close the image list");
    } catch (...) {
        reset();
        throw;
    }
}

void ImageListImpl::closeImageListX(CallSequence& cs)
{
    closeHandle(cs, "ImageListImpl::closeImageListX");
}

void ImageListImpl::closeImageListV12(API::UInt64 callsequence)
{
    static const char* szWho = "ImageListImpl::closeImageList";
    runSequenced(m_CallSeq, callsequence, szWho, nullptr, [](CallSequence&) {},
        [&](CallSequence& cs) {
            closeHandle(cs, szWho);
            cs.storeServantForDeactivate(this, m_vobjPOA);
            cs.recordCompletion(0, "ok");
        });
}
