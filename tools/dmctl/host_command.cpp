// The subcommand that mirrors this machine until it is told to stop.
#include "tools/dmctl/commands.h"
#include "tools/dmctl/host_mirror.h"

#include <cmath>
#include <csignal>
#include <cstdio>

namespace qdb
{

namespace
{

void MirrorHost(Client &client, const Invocation &invocation)
{
    // A pass is never cut off in the middle.
    const sigset_t signals = BlockStopSignals();
    Host host;
    HostMirror mirror(client);
    for (uint32_t pass = 1;; pass++)
    {
        for (const std::string &refusal :
             mirror.Update(host.Look(time(nullptr))))
        {
            fprintf(stderr, "dmctl: %s\n", refusal.c_str());
        }
        if (pass == invocation.passes ||
            WaitForStop(signals, invocation.interval))
        {
            return;
        }
    }
}

} // namespace

sigset_t BlockStopSignals()
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    return signals;
}

bool WaitForStop(const sigset_t &signals, double seconds)
{
    timespec timeout;
    timeout.tv_sec = static_cast<time_t>(seconds);
    timeout.tv_nsec = static_cast<long>((seconds - std::floor(seconds)) * 1e9);
    return sigtimedwait(&signals, nullptr, &timeout) > 0;
}

void AddHostCommand(CLI::App &app, Invocation *pInvocation)
{
    CLI::App *host = AddSubcommand(
        app, pInvocation, "host", "mirror this machine as objects", MirrorHost);
    host->add_option("--interval", pInvocation->interval,
                     "seconds between two looks")
        ->check(CLI::Range(0.01, 86400.0));
    host->add_option("--count", pInvocation->passes,
                     "how many looks; default: until SIGINT or SIGTERM");
}

} // namespace qdb
