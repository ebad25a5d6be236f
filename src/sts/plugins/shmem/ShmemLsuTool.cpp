// keldv-shmem-lsu: operator tool for the LSUs of the "ShMem:" server.
//   keldv-shmem-lsu create NAME [BYTES]   make an LSU (1 MiB by default)
//   keldv-shmem-lsu list                  one LSU name a line
//   keldv-shmem-lsu hold NAME             keep the LSU busy until killed
//   keldv-shmem-lsu remove NAME           delete it (refused while held)
#include "ShmemLsu.h"
#include "ToolCommandLine.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <string>
#include <unistd.h>

namespace {

std::string nameProblem(std::string& name)
{
    const bool valid = !name.empty() && name.find('/') == std::string::npos && name.size() < 200;
    return valid ? "" : "an LSU name is 1 to 199 characters, no '/'";
}

int fail(const char* what, const char* name, int err)
{
    std::fprintf(stderr, "keldv-shmem-lsu: %s %s: %s\n", what, name, std::strerror(err));
    return 1;
}

int list()
{
    for (const std::string& name : shmemlsu::listLsus()) std::printf("%s\n", name.c_str());
    return 0;
}

int create(const std::string& name, long bytes)
{
    const int err = shmemlsu::createLsu(name, bytes);
    return err == 0 ? 0 : fail("cannot create", name.c_str(), err);
}

int remove(const std::string& name)
{
    const int err = shmemlsu::removeLsu(name);
    return err == 0 ? 0 : fail("cannot remove", name.c_str(), err);
}

[[noreturn]] void hold(const std::string& name)
{
    const int fd = shmemlsu::holdLsu(name);
    if (fd < 0) std::exit(fail("cannot hold", name.c_str(), -fd));
    for (;;) pause();
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"The LSUs of the shared-memory server.", "keldv-shmem-lsu"};
    app.require_subcommand(1);
    const CLI::Validator lsuName(nameProblem, "NAME");
    std::string name;
    long bytes = 1L << 20;
    std::function<int()> action;
    CLI::App* createCmd = app.add_subcommand("create", "make an LSU");
    createCmd->add_option("NAME", name)->required()->check(lsuName);
    createCmd->add_option("BYTES", bytes, "its size (1 MiB by default)")->check(CLI::NonNegativeNumber);
    createCmd->callback([&] { action = [&] { return create(name, bytes); }; });
    app.add_subcommand("list", "one LSU name a line")->callback([&] { action = list; });
    CLI::App* holdCmd = app.add_subcommand("hold", "keep the LSU busy until killed");
    holdCmd->add_option("NAME", name)->required()->check(lsuName);
    holdCmd->callback([&] { action = [&]() -> int { hold(name); }; });
    CLI::App* removeCmd = app.add_subcommand("remove", "delete it (refused while held)");
    removeCmd->add_option("NAME", name)->required()->check(lsuName);
    removeCmd->callback([&] { action = [&] { return remove(name); }; });
    int status = 0;
    if (!parseToolCommandLine(app, argc, argv, status)) return status;
    return action();
}
