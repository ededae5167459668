#include <fmt/format.h>
#include <signal.h>

#include <algorithm>
#include <chrono>
#include <ctime>

#include "base/error.h"
#include "base/service_manager.h"
#include "collector/collector.h"
#include "collector/log.h"
#include "commands/commands.h"
#include "web/http_server.h"
#include "web/pages.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;

// The signals that steer the collector, taken one at a time between two rounds.
class Signals {
  public:
    // Before the first thread is made, so that none of them gets one.
    Signals() {
        ::sigemptyset(&set_);
        for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&set_, signal);
        ::pthread_sigmask(SIG_BLOCK, &set_, nullptr);
    }

    // The next one; 0 when there was none in that time.
    int wait(std::chrono::nanoseconds limit) const {
        limit = std::max(limit, std::chrono::nanoseconds(0));
        timespec time = {static_cast<std::time_t>(limit.count() / 1000000000),
                         static_cast<long>(limit.count() % 1000000000)};
        return std::max(::sigtimedwait(&set_, nullptr, &time), 0);
    }

  private:
    sigset_t set_;
};

// Waits for the time of the next round. False: it is time to end.
bool waitUntil(Clock::time_point next, const Signals& signals, Collector& collector) {
    // The manager hears of us more often than an unusually long interval would
    // let it.
    constexpr std::chrono::nanoseconds kSlice = std::chrono::seconds(10);
    for (;;) {
        int signal = signals.wait(std::min<std::chrono::nanoseconds>(next - Clock::now(), kSlice));
        if (signal == SIGINT || signal == SIGTERM) return false;
        if (signal == SIGHUP) collector.reload();
        tellServiceManager("WATCHDOG=1");
        if (signal == 0 && Clock::now() >= next) return true;
    }
}

}  // namespace

int serveCommand(const ServeOptions& options) {
    ListenAddress address = parseListenAddress(options.listen);
    Signals signals;
    Collector collector({options.configFile, options.stateDirectory, options.interval});
    // The first scrape is to find what the kept totals and the segments say
    // together, not less than an earlier collector has shown.
    collector.round();
    Pages pages([&](const auto& reader) { collector.read(reader); }, options.version);
    HttpServer server(address, [&](const HttpRequest& request) {
        return pages.answer(request, std::time(nullptr));
    });
    address.port = server.port();
    logLine("serving on http://{}/, taking counts every {} s, keeping them in {}",
            toString(address), options.interval, options.stateDirectory);
    tellServiceManager("READY=1");
    auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.interval));
    // At fixed times, so that a long round does not move all later ones.
    auto next = Clock::now() + interval;
    while (waitUntil(next, signals, collector)) {
        collector.round();
        next = std::max(next + interval, Clock::now());
    }
    tellServiceManager("STOPPING=1");
    collector.round();
    logLine("ended; the totals are kept");
    return kExitOk;
}

}  // namespace tolvane::agent
