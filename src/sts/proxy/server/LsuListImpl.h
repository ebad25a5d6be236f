// A cursor over the LSUs of a server (or of one pool), walked one name a
// call until the plug-in says the list is at its end (2060013, returned as
// a result, not raised).  It owns the plug-in's list handle.
#ifndef KELD_PROXY_LSULISTIMPL_H
#define KELD_PROXY_LSULISTIMPL_H

#include "SequencedServant.h"
#include "ServantSupport.h"
#include "sts_api.h"

#include "Proxy.hh"

class ProxyLogger;

class LsuListImpl : public SessionServant<POA_API::LsuList> {
public:
    LsuListImpl(const PortableServer::POA_ptr& poa, const ServerLink& server, ProxyLogger* plog,
                sts_session_def_t sd);
    ~LsuListImpl() override;

    void closeLsuListV12(API::UInt64 callsequence) override;
    CORBA::Long listLsuV12(API::UInt64 callsequence, API::LsuName_out lsuName) override;

    // Refused, each with 2060016 (RefusedForms.cpp).
    void closeLsuList() override;
    CORBA::Long listLsu(API::LsuName_out lsuname) override;

    // The server's factories: a failed open is recorded in the server's
    // record.  A definition named "NULL_LSUDEF" is the wire form of none.
    virtual void openLsuListV12(const API::LsuDefinitionV11& lsudef, CallSequence& cs);
    virtual void openDynamicLsuListV12(const char* lsuname, CallSequence& cs);
    // The server's close: records only a failure, in the server's record.
    void closeLsuListX(CallSequence& cs);
    void reset();

private:
    void closeHandle(CallSequence& cs, const char* szWho);
    void keepListOpen();

    sts_server_handle_t m_svh;
    sts_lsu_list_handle_t m_llh = nullptr;
};

#endif
