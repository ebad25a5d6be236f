#include "FileListImpl.h"

FileListImpl::FileListImpl(PortableServer::POA_ptr poa, ProxyLogger* plog)
    : m_vobjPOA(PortableServer::POA::_duplicate(poa)), m_plog(plog)
{
}

FileListImpl::~FileListImpl() = default;

PortableServer::POA_ptr FileListImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

void FileListImpl::closeSnapChangeListV11()
{
    notImplementedYet();
}

CORBA::Long FileListImpl::listFileV11(API::UInt32, const API::STSPathNameSeq&, API::FileAttrV11_out)
{
    notImplementedYet();
}
