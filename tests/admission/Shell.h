// Runs a shell command for the admission tests; its exit status, and its
// standard output and error in out when given.
#ifndef KELD_TESTS_ADMISSION_SHELL_H
#define KELD_TESTS_ADMISSION_SHELL_H

#include <cstdio>
#include <string>
#include <sys/wait.h>

inline int shell(const std::string& command, std::string* out = nullptr)
{
    FILE* pipe = popen((command + " 2>&1").c_str(), "r");
    std::string text;
    char chunk[256];
    while (fgets(chunk, sizeof(chunk), pipe) != nullptr) text += chunk;
    const int status = pclose(pipe);
    if (out != nullptr) *out = text;
    return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

#endif
