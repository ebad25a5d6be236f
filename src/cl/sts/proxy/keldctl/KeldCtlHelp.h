// What keldctl's command line tells people beyond CLI11's own: each
// command's help ends with the global options and the forms its arguments
// take, and a word that is no command is named with the closest one.
#ifndef KELD_CLIENT_KELDCTLHELP_H
#define KELD_CLIENT_KELDCTLHELP_H

#include <CLI/CLI.hpp>

#include <string>
#include <vector>

namespace keldctl {

// Gives every command under root (at any depth) a footer with root's
// options and the forms of the command's arguments.
void addHelpFooters(CLI::App& root);

// For words (the command line without the program's name) whose command
// word is none of root's commands (or of the chosen command's own):
// "unknown command "putt"; did you mean "put"?".  "" when every command
// word is known, or there is none.
std::string unknownCommand(const CLI::App& root, const std::vector<std::string>& words);

} // namespace keldctl

#endif
