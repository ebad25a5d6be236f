// One ORB for the test process, with its root POA active, so that servants
// are called through real (collocated) references.
#ifndef KELD_TESTS_SERVANTS_SERVANTORB_H
#define KELD_TESTS_SERVANTS_SERVANTORB_H

#include <omniORB4/CORBA.h>

#include <functional>
#include <gtest/gtest.h>

// The root POA; not to be released by the caller.
PortableServer::POA_ptr testPoa();

// Expects STSError number (and text, when given) from call.
::testing::AssertionResult raises(int number, const std::function<void()>& call, const char* text = nullptr);

#endif
