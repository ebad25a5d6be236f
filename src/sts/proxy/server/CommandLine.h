// The command line of keldpxy.  Options match without regard to case and
// only as whole words; an option with a value takes the next word.  Words
// that are not options of ours (the ORB's -ORB... options among them) stay
// in the argument vector in their order.
#ifndef KELD_PROXY_COMMANDLINE_H
#define KELD_PROXY_COMMANDLINE_H

// A year in minutes: an idle interval beyond it (from -exit or the touch
// file) is taken as a year, never wrapped into a negative or zero one.
constexpr long kMaxIdleMinutes = 525600;

struct CommandLine {
    bool isStart = false;
    bool isStop = false;
    bool install = false;   // accepted, no effect
    bool remove = false;    // accepted, no effect
    bool bTimer = false;
    bool bCleanup = false;
    bool consoleMode = false;
    int interval = 0;       // seconds
    bool intervalClamped = false;   // -exit asked for more than kMaxIdleMinutes
    char lsuname[1024] = {0};
    char serviceName[128] = {0};
};

// Parses argv in place: consumed option words leave the vector and argc
// shrinks with them.
CommandLine parseCommandLine(int& argc, char** argv);

#endif
