// keldv-disk-config: shows or replaces the configuration text of a disk
// storage server, through the storage framework as the service uses it.
//   keldv-disk-config get [Disk:HOST]          print the text
//   keldv-disk-config set [Disk:HOST] FILE     replace it ("-" reads stdin)
// SERVER defaults to Disk:<this host>.  Plug-ins are loaded from
// $KELDV_ROOT/lib (or /usr/keldv/lib).  A server made with a credential is
// opened with the one in $KELDV_DISK_CREDENTIAL, kept off the command line
// so that it never shows in the process list.
#include "DiskStore.h"
#include "DiskToolArguments.h"
#include "sts_plugin.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iostream>
#include <iterator>
#include <string>

namespace {

const char* const TOOL = "keldv-disk-config";

int failed(const char* what, int number, const char* detail = "")
{
    std::fprintf(stderr, "%s: %s failed with %d%s%s\n", TOOL, what, number, *detail ? ": " : "", detail);
    return 1;
}

bool readText(const std::string& file, std::string& text)
{
    if (file == "-") {
        text.assign(std::istreambuf_iterator<char>(std::cin), std::istreambuf_iterator<char>());
        return true;
    }
    std::ifstream in(file);
    if (!in) return false;
    text.assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    return true;
}

// The library, a session and the server, held open for one command.
class OpenServer {
public:
    int open(const std::string& server)
    {
        const char* root = std::getenv("KELDV_ROOT");
        const std::string lib = std::string(root != nullptr && *root != '\0' ? root : "/usr/keldv") + "/lib";
        int rc = stsm_init(STS_VERSION, lib.c_str(), &api_);
        if (rc != 0) return failed("loading the storage plug-ins", rc, lib.c_str());
        sts_session_def_t sd = {};
        sd.sd_id = const_cast<char*>(TOOL);
        rc = api_->stsa_open_session(&sd, &session_);
        if (rc != 0) return failed("opening a session", rc);
        sts_cred_t cred = {};
        if (const char* secret = std::getenv("KELDV_DISK_CREDENTIAL")) {
            std::strncpy(cred.cr_cert, secret, sizeof(cred.cr_cert) - 1);
            cred.cr_len = static_cast<sts_uint32_t>(std::strlen(cred.cr_cert));
        }
        rc = api_->stsa_open_server(session_, server.c_str(), &cred, "", &server_);
        if (rc == DISK_ECRED) return failed("opening the server", rc, "wrong or missing KELDV_DISK_CREDENTIAL");
        return rc == 0 ? 0 : failed("opening the server", rc, server.c_str());
    }
    ~OpenServer()
    {
        if (server_ != nullptr) api_->stsa_close_handle(server_, 0);
        if (session_ != nullptr) api_->stsa_close_handle(session_, 0);
        if (api_ != nullptr) stsm_terminate();
    }
    sts_api_t* api() const { return api_; }
    sts_handle_t handle() const { return server_; }

private:
    sts_api_t* api_ = nullptr;
    sts_handle_t session_ = nullptr;
    sts_handle_t server_ = nullptr;
};

int show(const OpenServer& s)
{
    sts_uint32_t needed = 0;
    char probe[1];
    int rc = s.api()->stsa_get_server_config(s.handle(), probe, sizeof(probe), &needed);
    if (rc != 0 && rc != STS_EBUFFER_SMALL) return failed("reading the configuration", rc);
    std::string text(needed, '\0');
    rc = s.api()->stsa_get_server_config(s.handle(), &text[0], needed, &needed);
    if (rc != 0) return failed("reading the configuration", rc);
    std::fputs(text.c_str(), stdout);
    return 0;
}

int replace(const OpenServer& s, const std::string& file)
{
    std::string text;
    if (!readText(file, text)) {
        std::fprintf(stderr, "%s: cannot read %s: %s\n", TOOL, file.c_str(), std::strerror(errno));
        return 1;
    }
    char msg[256] = {0};
    const int rc = s.api()->stsa_set_server_config(s.handle(), text.c_str(), msg, sizeof(msg));
    if (rc != 0) return failed("replacing the configuration", rc, msg);
    std::printf("configuration replaced\n");
    return 0;
}

} // namespace

int main(int argc, char** argv)
{
    CLI::App app{"Shows or replaces the configuration text of a disk storage server.\n"
                 "A server made with a credential is opened with the one in $KELDV_DISK_CREDENTIAL.",
                 TOOL};
    app.require_subcommand(1);
    app.validate_positionals();   // see addServerArgument
    std::string server;
    std::string file;
    CLI::App* get = app.add_subcommand("get", "print the text");
    CLI::App* set = app.add_subcommand("set", "replace the text");
    for (CLI::App* sub : {get, set}) {
        diskstore::addServerArgument(*sub, server);
    }
    set->add_option("FILE", file, "the new text (\"-\": standard input)")->required();
    int status = 0;
    if (!parseToolCommandLine(app, argc, argv, status)) return status;

    OpenServer s;
    if (const int rc = s.open(server)) return rc;
    return get->parsed() ? show(s) : replace(s, file);
}
