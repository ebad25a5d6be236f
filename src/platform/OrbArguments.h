// The ORB's share of a command line.  Operators and scripts give listen
// endpoints in the form "-ORBListenEndPoints iiop://host:port"; the ORB
// underneath wants "-ORBendPoint giop:tcp:host:port".  Both helpers are pure
// so that the rewriting can be checked on its own.
#ifndef KELD_PLATFORM_ORBARGUMENTS_H
#define KELD_PLATFORM_ORBARGUMENTS_H

#include <functional>
#include <string>
#include <vector>

// Port a service listens on when the command line names no endpoint.
constexpr int kDefaultOrbPort = 10001;

// Moves every "-ORB..." word and the value after it out of argv (argv[0]
// stays) and returns them in order.  argc shrinks and argv[argc] is null.
std::vector<std::string> extractOrbArguments(int& argc, char** argv);

// Rewrites "-ORBListenEndPoints iiop://..." (also -ORBEndpoint with an iiop
// URL, any case, several addresses separated by ';' or blanks) into one
// "-ORBendPoint giop:tcp:host:port" pair per address, and "ssliop://..."
// likewise into "giop:ssl:host:port"; every other option
// passes through unchanged.  Without any listen endpoint the result gets
// "-ORBendPoint giop:tcp::10001".  Throws std::invalid_argument for an option
// without value or an address that is not iiop.
std::vector<std::string> translateOrbArguments(const std::vector<std::string>& orbWords);

// Keeps the options the ORB knows, each pair under its own spelling (the
// ORB wants "-ORBgiopMaxMsgSize", an operator may type any case), and moves
// the others into passedOver: a command line written for another ORB
// ("-ORBDottedDecimalAddresses 1") still starts the service.  spellingOf
// gives the ORB's spelling of an option, or "" for one it does not know.
std::vector<std::string> keepKnownOptions(const std::vector<std::string>& words,
                                          const std::function<std::string(const std::string&)>& spellingOf,
                                          std::vector<std::string>& passedOver);

// One "iiop://..." URL into its giop:tcp endpoints ("iiop://a:1;b:2"), or
// one "ssliop://..." URL into giop:ssl endpoints.
std::vector<std::string> translateIiopUrl(const std::string& url);

#endif
