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
std::string diskServerName();   // "Disk:<host>"
API::SessionDefinition session(const char* id);
API::Credential noCredential();
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
    API::StorageServer_ptr openDisk(API::UInt64 seq = 1, const char* id = "test");
    // An LSU made by the operator's way, on the default disk server.
    void makeLsu(const std::string& name) const;
    std::string lsuDir(const std::string& name) const;
    bool logHas(const std::string& text) const;
    size_t logCount(const std::string& text) const;

    TempRoot root;
    int port = freePort();
    std::unique_ptr<Child> service;
    API::StorageServerManager_var ssm;
};

} // namespace keldtest

#endif
