// keldv-shmem-lsu: operator tool for the LSUs of the "ShMem:" server.
//   keldv-shmem-lsu create NAME [BYTES]   make an LSU (1 MiB by default)
//   keldv-shmem-lsu list                  one LSU name a line
//   keldv-shmem-lsu hold NAME             keep the LSU busy until killed
//   keldv-shmem-lsu remove NAME           delete it (refused while held)
#include "ShmemLsu.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <unistd.h>

namespace {

int usage()
{
    std::fprintf(stderr, "usage: keldv-shmem-lsu create NAME [BYTES] | list | hold NAME | remove NAME\n");
    return 2;
}

bool validName(const char* name)
{
    return name[0] != '\0' && std::strchr(name, '/') == nullptr && std::strlen(name) < 200;
}

int fail(const char* what, const char* name, int err)
{
    std::fprintf(stderr, "keldv-shmem-lsu: %s %s: %s\n", what, name, std::strerror(err));
    return 1;
}

} // namespace

int main(int argc, char** argv)
{
    if (argc == 2 && std::strcmp(argv[1], "list") == 0) {
        for (const std::string& name : shmemlsu::listLsus()) std::printf("%s\n", name.c_str());
        return 0;
    }
    if (argc < 3 || !validName(argv[2])) return usage();
    const std::string cmd = argv[1];
    const char* name = argv[2];
    if (cmd == "create" && argc <= 4) {
        const long size = argc == 4 ? std::atol(argv[3]) : 1L << 20;
        const int err = shmemlsu::createLsu(name, size);
        return err == 0 ? 0 : fail("cannot create", name, err);
    }
    if (cmd == "remove" && argc == 3) {
        const int err = shmemlsu::removeLsu(name);
        return err == 0 ? 0 : fail("cannot remove", name, err);
    }
    if (cmd == "hold" && argc == 3) {
        const int fd = shmemlsu::holdLsu(name);
        if (fd < 0) return fail("cannot hold", name, -fd);
        for (;;) pause();
    }
    return usage();
}
