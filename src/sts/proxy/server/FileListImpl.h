// One open list of changed files of a snapshot.
// Older forms of its operations are refused; operations whose work is not
// built yet answer CORBA::NO_IMPLEMENT.
#ifndef KELD_PROXY_FILELISTIMPL_H
#define KELD_PROXY_FILELISTIMPL_H

#include "ServantSupport.h"

#include "Proxy.hh"

class ProxyLogger;

class FileListImpl : public virtual POA_API::FileList {
public:
    FileListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog);
    ~FileListImpl() override;

    void closeSnapChangeListV11() override;
    CORBA::Long listFileV11(API::UInt32 npaths, const API::STSPathNameSeq& path_filter_seq, API::FileAttrV11_out Attr) override;
    PortableServer::POA_ptr _default_POA() override;

private:
    PortableServer::POA_var m_vobjPOA;
    ProxyLogger* m_plog;
};

#endif
