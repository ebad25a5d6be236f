/* The numbers the failure-injecting stand-in answers, and those tests ask
 * it to answer: none is the service's own (sts_types.h) or a real
 * plug-in's, so a test sees each passed through unchanged. */
#ifndef KELD_TESTS_FAULTNUMBERS_H
#define KELD_TESTS_FAULTNUMBERS_H

#define FAULT_EREFUSED 2060077   /* a wrong certificate (KELD_FAULT_CERT); the failure tests inject most */
#define FAULT_EOPEN 2060088      /* a failing open of a server a test injects */
#define FAULT_ECREATE 2060099    /* every create_server; a failing delete a test injects */

#endif
