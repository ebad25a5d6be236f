// A running keldpxy on a temporary install root with the disk plug-in, seen
// from a client in the test process over IIOP: the pieces every servant
// test needs, written once.
#ifndef KELD_TESTS_SERVICECLIENT_H
#define KELD_TESTS_SERVICECLIENT_H

#include "TestSupport.h"

#include "Proxy.hh"

#include <functional>
#include <gtest/gtest.h>
#include <memory>
#include <string>
#include <vector>

namespace keldtest {

namespace API = Orvanis::Keldrive::DiskMediaServer::STS::Proxy::API;

std::string hostName();
inline std::string diskServerName() { return "Disk:" + hostName(); }
API::SessionDefinition session(const char* id);
inline API::Credential noCredential() { return API::Credential(); }
// An image definition with every member set: base name, zeros elsewhere.
API::ImageDefinitionV13 imageDefinition(const char* baseName, const char* date = "");
// Disk plug-in open modes.
const CORBA::Long kOpenRead = 1;
const CORBA::Long kOpenWrite = 2;

// An STSError with this number (and text, when given) from call.
::testing::AssertionResult raises(int number, const std::function<void()>& call,
                                  const char* text = nullptr);
// The same for STSError_val, with its byte count.
::testing::AssertionResult raisesVal(int number, API::UInt64 bytes, const std::function<void()>& call);
// Any CORBA system exception (a marshalling refusal, BAD_PARAM, ...).
::testing::AssertionResult raisesSystem(const std::function<void()>& call);

// The client ORB of the test process, made once.
CORBA::ORB_ptr clientOrb();

class ServiceFixture : public ::testing::Test {
protected:
    // Starts the service and resolves the manager; env for the service.
    void start(const std::vector<std::string>& env = {}, const std::vector<std::string>& extraArgs = {});
    API::StorageServer_ptr openDisk(API::UInt64 seq = 1, const char* id = "test")
    {
        return ssm->openServerV12(seq, session(id), diskServerName().c_str(), noCredential(), "", 0);
    }
    // The same with the failure-injecting stand-in plug-in alone, serving
    // "Fault:" names, with debug lines, its calls written one a line
    // (faultCalls) and its controls read from a file (faultControl);
    // settings are more lines of the master configuration.
    void startWithFaultPlugin(const std::vector<std::string>& extraArgs = {}, const std::string& settings = "");
    API::StorageServer_ptr openFault(API::UInt64 seq, const char* id)
    {
        return ssm->openServerV12(seq, session(id), "Fault:test", noCredential(), "", 0);
    }
    void faultControl(const std::string& lines) const { root.writeFile("fault.control", lines); }   // KEY=VALUE lines
    size_t faultCalls(const std::string& prefix) const;   // calls logged so far
    // An LSU made by the operator's way, on the default disk server.
    void makeLsu(const std::string& name) const;
    std::string lsuDir(const std::string& name) const
    {
        return root.path() + "/keldrive/storage/" + hostName() + "/lsus/" + name;
    }
    bool logHas(const std::string& text) const { return root.readLog().find(text) != std::string::npos; }
    size_t logCount(const std::string& text) const;

    TempRoot root;
    int port = freePort();
    std::unique_ptr<Child> service;
    API::StorageServerManager_var ssm;
};

} // namespace keldtest

#endif
