#include <fmt/format.h>
#include <poll.h>
#include <signal.h>
#include <sys/inotify.h>
#include <sys/signalfd.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "cli/commands.h"
#include "cli/exit_code.h"
#include "collector/collector.h"
#include "collector/log.h"
#include "export/pages.h"
#include "http/http_server.h"
#include "os/error.h"
#include "os/service_manager.h"
#include "tolvane/segment_format.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kBetweenNewServers = std::chrono::milliseconds(100);

enum class Wakeup { kTime, kEnd, kReload, kNewServer };

// What the collector waits for between two rounds.
class Wakeups {
  public:
    // Before the first thread is made, so that none of them gets a signal.
    Wakeups() {
        sigset_t set;
        ::sigemptyset(&set);
        for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&set, signal);
        ::pthread_sigmask(SIG_BLOCK, &set, nullptr);
        signals_ = ::signalfd(-1, &set, SFD_CLOEXEC | SFD_NONBLOCK);
        handoffs_ = ::inotify_init1(IN_CLOEXEC | IN_NONBLOCK);
        if (signals_ < 0) fail(ErrorKind::kFailed, "signalfd: {}", std::strerror(errno));
    }
    ~Wakeups() {
        ::close(signals_);
        ::close(handoffs_);
    }
    Wakeups(const Wakeups&) = delete;
    Wakeups& operator=(const Wakeups&) = delete;

    // From now on a handoff file wakes us: a threaded worker looks for its
    // configuration when it starts, and then not for a minute. Where watching is
    // not possible, the next round finds the server.
    void watchHandoffs() {
        ::inotify_add_watch(handoffs_, kHandoffDirectory, IN_CLOSE_WRITE | IN_MOVED_TO);
    }

    Wakeup wait(Clock::duration limit) {
        auto milliseconds = std::chrono::ceil<std::chrono::milliseconds>(limit).count();
        pollfd sources[] = {{signals_, POLLIN, 0}, {handoffs_, POLLIN, 0}};
        ::poll(sources, 2, static_cast<int>(std::max<long>(milliseconds, 0)));
        signalfd_siginfo signal{};
        if (::read(signals_, &signal, sizeof signal) == sizeof signal) {
            return signal.ssi_signo == SIGHUP ? Wakeup::kReload : Wakeup::kEnd;
        }
        char events[4096];
        bool any = false;
        // Files that are written again and again do not keep us busy.
        if ((sources[1].revents & POLLIN) != 0) std::this_thread::sleep_for(kBetweenNewServers);
        while (handoffs_ >= 0 && ::read(handoffs_, events, sizeof events) > 0) any = true;
        return any ? Wakeup::kNewServer : Wakeup::kTime;
    }

  private:
    int signals_;
    int handoffs_;
};

// Waits for the time of the next round. False: it is time to end.
bool waitUntil(Clock::time_point next, Wakeups& wakeups, Collector& collector) {
    // The manager hears of us more often than an unusually long interval would
    // let it.
    constexpr Clock::duration kSlice = std::chrono::seconds(10);
    for (;;) {
        Wakeup wakeup = wakeups.wait(std::min(next - Clock::now(), kSlice));
        tellServiceManager("WATCHDOG=1");
        if (wakeup == Wakeup::kEnd) return false;
        if (wakeup == Wakeup::kReload) collector.reload();
        if (wakeup == Wakeup::kNewServer) return true;
        if (Clock::now() >= next) return true;
    }
}

}  // namespace

int serveCommand(const ServeOptions& options) {
    ListenAddress address = parseListenAddress(options.listen);
    Wakeups wakeups;
    Collector collector({options.configFile, options.stateDirectory, options.interval});
    wakeups.watchHandoffs();
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
    while (waitUntil(next, wakeups, collector)) {
        collector.round();
        // A round that a new server brought about comes on top of the others.
        if (Clock::now() >= next) next = std::max(next + interval, Clock::now());
    }
    tellServiceManager("STOPPING=1");
    collector.round();
    bool kept = false;
    collector.read([&](const CollectorState& state) { kept = state.health.storeWorks; });
    if (!kept) fail(ErrorKind::kFailed, "ended; what was taken since the last write is not kept");
    logLine("ended; the totals are kept");
    return kExitOk;
}

}  // namespace tolvane::agent
