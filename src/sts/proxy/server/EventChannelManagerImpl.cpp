#include "EventChannelManagerImpl.h"

#include "ProxyKeyMgr.h"
#include "ProxyLogger.h"
#include "PublicKey.h"
#include "RemoteLoggerImpl.h"
#include "ServantSite.h"

#include <cerrno>
#include <new>

EventChannelManagerImpl::EventChannelManagerImpl(const CORBA::ORB_ptr& orb,
                                                 const PortableServer::POA_ptr& poa,
                                                 ProxyLogger* plog)
    : m_vobjORB(CORBA::ORB::_duplicate(orb)),
      m_vobjPOA(PortableServer::POA::_duplicate(poa)),
      m_plog(plog)
{
    m_plog->logMsg(nullptr, "EventChannelManagerImpl::EventChannelManagerImpl", STS_ESDEBUG,
                   "EventChannelManagerImpl object had been inited here");
}

EventChannelManagerImpl::~EventChannelManagerImpl()
{
    m_plog->logMsg(nullptr, "EventChannelManagerImpl::~EventChannelManagerImpl", STS_ESDEBUG,
                   "object of EventChannelManagerImpl is destroyed here");
}

PortableServer::POA_ptr EventChannelManagerImpl::_default_POA()
{
    return PortableServer::POA::_duplicate(m_vobjPOA);
}

// A second call with the same number makes a second logger: nothing is
// recorded for a retry here.
API::RemoteLogger_ptr EventChannelManagerImpl::openRmtLoggerV12(API::UInt64)
{
    static const char* szWho = "EventChannelManagerImpl::openRmtLogger";
    const UnsequencedCall call;
    RemoteLoggerImpl* servant = new (std::nothrow) RemoteLoggerImpl(m_plog);
    if (servant == nullptr) {
        errno = ENOMEM;
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "new RemoteLoggerImpl failed");
        throw API::STSError(STS_ENOMEM_OBJ, "fail to new one instance of RemoteLogger on server side");
    }
    PortableServer::ObjectId_var id = m_vobjPOA->activate_object(servant);
    CORBA::Object_var obj = m_vobjPOA->id_to_reference(id);
    if (CORBA::is_nil(obj)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "POA object is nil");
        throw API::STSError(STS_ESEQUENCE, "fail to get reference to CORBA Object on server side.");
    }
    API::RemoteLogger_var logger = API::RemoteLogger::_narrow(obj);
    if (CORBA::is_nil(logger)) {
        m_plog->logMsg(nullptr, szWho, STS_ESERROR, "RmtLogger object is nil");
        throw API::STSError(STS_ESEQUENCE, "fail to get reference to RemoteLogger object on server side");
    }
    m_plog->logMsg(nullptr, szWho, STS_ESINFO, "succeed to get the reference RemoteLogger on server side");
    servant->openRmtLogger();
    return logger._retn();
}

void EventChannelManagerImpl::increaseCounterV12(API::UInt64)
{
    ++m_evcCounter;
}

void EventChannelManagerImpl::decreaseCounterV12(API::UInt64)
{
    --m_evcCounter;
}

char* EventChannelManagerImpl::getString()
{
    return CORBA::string_dup("EventChannelManagerImpl::getString");
}

API::Bytes* EventChannelManagerImpl::getPublicKey()
{
    return publicKeyBytes();
}

void EventChannelManagerImpl::shutdownV12(API::UInt64)
{
    m_plog->logMsg(nullptr, "EventChannelManagerImpl::shutdown", STS_ESINFO, "let us shutdown this server");
    m_vobjPOA->destroy(true, false);
    if (!CORBA::is_nil(m_vobjORB)) m_vobjORB->shutdown(false);
}
