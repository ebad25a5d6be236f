// One ORB for the test process, with its root POA active, so that servants
// are called through real (collocated) references.
#ifndef KELD_TESTS_SERVANTS_SERVANTORB_H
#define KELD_TESTS_SERVANTS_SERVANTORB_H

#include "ServiceClient.h"

#include <omniORB4/CORBA.h>

#include <functional>
#include <gtest/gtest.h>

// The root POA; not to be released by the caller.
PortableServer::POA_ptr testPoa();

using keldtest::raises;

#endif
