// A cursor over the images of an LSU, or of one image group, walked one
// V13 definition a call until the plug-in says the list is at its end
// (2060013, returned as a result, not raised).  It owns the plug-in's list
// handle.  Older record forms are refused, not converted down.
#ifndef KELD_PROXY_IMAGELISTIMPL_H
#define KELD_PROXY_IMAGELISTIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"
#include "sts_api.h"

#include "Proxy.hh"

class ProxyLogger;

class ImageListImpl : public SessionServant<POA_API::ImageList> {
public:
    ImageListImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                  sts_session_def_t sd);
    ~ImageListImpl() override;

    void closeImageListV12(API::UInt64 callsequence) override;
    CORBA::Long listImageV13(API::UInt64 callsequence, API::ImageDefinitionV13_out imgDef) override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    void closeImageList() override;
    CORBA::Long listImageV9(API::ImageDefinitionV9_out imgdef) override;
    CORBA::Long listImageV10(API::ImageDefinitionV10_out imgdef) override;
    CORBA::Long listImageV12(API::UInt64 callsequence, API::ImageDefinitionV10_out imgdef) override;

    // The server's factories: a failed open is recorded in the server's record.
    void openImageList(const char* lsu, CORBA::Long type, CallSequence& cs);
    void openImageGroupListV13(const char* lsu, const API::ImageDefinitionV13& imdIn, CORBA::Long groupType,
                               CallSequence& cs);
    // The server's close: records only a failure, in the server's record.
    void closeImageListX(CallSequence& cs);
    void reset();

private:
    void closeHandle(CallSequence& cs, const char* szWho);
    void keepListOpen();

    sts_lsu_t m_lsu = {};
    sts_image_list_handle_t m_ilh = nullptr;
};

#endif
