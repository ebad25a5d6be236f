// The event channel the contract keeps.  Nothing in the service makes one
// (the manager refuses every open), but two of its operations are settled:
// the delivery of a queued event by polling, and the chain that ends a
// channel.  The producer side is empty: enQueue stores nothing.
#ifndef KELD_PROXY_EVENTCHANNELIMPL_H
#define KELD_PROXY_EVENTCHANNELIMPL_H

#include "ServantSupport.h"
#include "sts_api.h"

#include "Proxy.hh"

#include <ace/Map_Manager.h>
#include <ace/Thread_Mutex.h>
#include <deque>
#include <queue>

class ProxyLogger;
class EventChannelImpl;

// One queued event.
struct proxy_event_block_t {
    int ev_type;            // 0 a normal event, 1 a shutdown event
    sts_server_name_t ev_svn;
    sts_uint64_t ev_flags;
    sts_evpl_t ev_pl;
};

using EVC_MAP = ACE_Map_Manager<int, EventChannelImpl*, ACE_Thread_Mutex>;
using EventQueue = std::queue<proxy_event_block_t*, std::deque<proxy_event_block_t*>>;

// Every open channel by id.
extern EVC_MAP gs_EvcObjMap;
// Guards gs_EvcObjMap and gs_evcCount together.
extern ACE_Thread_Mutex gs_evchMutex;
// The count of channels; a close subtracts 1.
extern int gs_evcCount;

// The shape of the callback a channel open hands to the storage library;
// nothing is done with an event.
void evHandler(sts_handle_t evch, sts_event_t* event);

class EventChannelImpl : public virtual POA_API::EventChannel {
public:
    EventChannelImpl(const PortableServer::POA_ptr& poa, const API::EventChannelManager_ptr& evcMgr,
                     ProxyLogger* plog);
    ~EventChannelImpl() override;

    void closeEvchannelV12(API::UInt64 callsequence) override;
    CORBA::Long getPushEventV12(API::UInt64 callsequence, API::Event_out event) override;
    CORBA::Long getEvcIdV12(API::UInt64 callsequence) override;
    virtual CORBA::Long deleteEventV11(const API::Event& ev);   // not in the contract

    void openEvchannelV12();
    int enQueue(sts_event_t* event, int type);
    EventQueue* getQueue() { return m_mq; }

    PortableServer::POA_ptr _default_POA() override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    void closeEvchannel() override;
    CORBA::Long getEvent(API::Event_out event) override;
    CORBA::Long getEventV11(API::EventV11& event) override;
    CORBA::Long getEventV12(API::UInt64 callsequence, API::EventV11& event) override;
    CORBA::Long deleteEvent(const API::Event& event) override;
    CORBA::Long deleteEventV12(API::UInt64 callsequence, const API::Event& ev) override;
    CORBA::Long getPushEvent(API::Event_out event) override;
    CORBA::Long getEvcId() override;

    // Deactivation must not destroy a channel: whoever made it deletes it.
    // omniORB counts references of every servant, so counting is switched
    // off here, as a servant without a reference-counting base has it.
    void _add_ref() override {}
    void _remove_ref() override {}

protected:
    PortableServer::POA_var m_vobjPOA;
    API::EventChannelManager_var m_vobjEvcMgr;
    ProxyLogger* m_plog;
    bool m_bInited = false;
    sts_handle_t m_evch = nullptr;
    sts_uint32_t m_evcId = 0;
    sts_session_t m_ssn = nullptr;
    sts_session_def_t m_sd;
    int m_mode = 0;
    EventQueue* m_mq = nullptr;

private:
    void closeSession(const char* szWho);
    void terminateLibrary(const char* szWho);
};

#endif
