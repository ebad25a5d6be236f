// keldctl log: the service's own log lines, followed through the remote
// plug-in's control for the first hop's log (REMOTE_IOCTL_REMOTE_LOG): the
// first call opens a mailbox at the hop, lines written from then on arrive
// one a call, and the mailbox closes with the server.
#include "KeldCtlCommands.h"
#include "KeldCtlExit.h"
#include "KeldCtlOutput.h"
#include "KeldCtlPipeline.h"
#include "KeldCtlStorage.h"

#include "RemotePlugin.h"

#include <chrono>
#include <cstring>
#include <iostream>
#include <thread>

namespace keldctl {

int followLog(const Context& ctx, const std::string& server, double seconds)
{
    if (ctx.proxy.empty()) throw usageError("log follows the service's log: give --proxy");
    Storage st(ctx.proxy, ctx.verbose);
    const sts_handle_t h = st.openServer(server);
    const auto until = std::chrono::steady_clock::now() + std::chrono::duration<double>(seconds);
    // The mailbox is polled: an empty one is asked again after a pause.
    const auto pause = std::chrono::milliseconds(200);
    while (!interrupted() && (seconds <= 0 || std::chrono::steady_clock::now() < until)) {
        remote_log_line_t line;
        std::memset(&line, 0, sizeof(line));
        const int rc = st.api()->stsa_ioctl(h, REMOTE_IOCTL_REMOTE_LOG, &line);
        if (rc == STS_ENO_EVENT) {
            std::this_thread::sleep_for(pause);
            continue;
        }
        Storage::check(rc, "reading the service's log");
        std::string text = fieldText(line.rl_line);
        while (!text.empty() && text.back() == '\n') text.pop_back();
        if (ctx.json) {
            std::cout << json{{"origin", fieldText(line.rl_origin)}, {"line", text}}.dump(
                             -1, ' ', false, json::error_handler_t::replace)
                      << std::endl;
        } else {
            std::cout << text << std::endl;
        }
    }
    return 0;
}

} // namespace keldctl
