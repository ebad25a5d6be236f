// How the small operator tools read their command line (CLI11): --help
// prints the usage and ends the tool with 0; a line that cannot be used
// says why on standard error and ends it with 2, like any other misuse.
#ifndef KELD_PLATFORM_TOOLCOMMANDLINE_H
#define KELD_PLATFORM_TOOLCOMMANDLINE_H

#include <CLI/CLI.hpp>

#include <cstdio>

// True when the tool goes on with what app read; false when it ends, with
// its exit status in status.
inline bool parseToolCommandLine(CLI::App& app, int argc, char** argv, int& status)
{
    try {
        app.parse(argc, argv);
        return true;
    } catch (const CLI::ParseError& e) {
        // CLI11 would only say that a command is required: name the word
        // that was taken for one.
        if (app.get_subcommands().empty() && !app.remaining().empty()) {
            std::fprintf(stderr, "%s: unknown command \"%s\"\nRun with --help for more information.\n",
                         app.get_name().c_str(), app.remaining().front().c_str());
            status = 2;
            return false;
        }
        status = app.exit(e) == 0 ? 0 : 2;
        return false;
    }
}

#endif
