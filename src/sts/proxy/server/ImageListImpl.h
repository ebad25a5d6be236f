// One open list of images or image groups, walked one definition a call.
// Older forms of its operations are refused; operations whose work is not
// built yet answer CORBA::NO_IMPLEMENT.
#ifndef KELD_PROXY_IMAGELISTIMPL_H
#define KELD_PROXY_IMAGELISTIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class ImageListImpl : public SequencedServant<POA_API::ImageList> {
public:
    ImageListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog);
    ~ImageListImpl() override;

    void closeImageList() override;
    void closeImageListV12(API::UInt64 callsequence) override;
    CORBA::Long listImageV9(API::ImageDefinitionV9_out imgdef) override;
    CORBA::Long listImageV10(API::ImageDefinitionV10_out imgdef) override;
    CORBA::Long listImageV12(API::UInt64 callsequence, API::ImageDefinitionV10_out imgdef) override;
    CORBA::Long listImageV13(API::UInt64 callsequence, API::ImageDefinitionV13_out imgDef) override;
};

#endif
