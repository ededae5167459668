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

// The events for which the collector waits between two rounds.
class Wakeups {
  public:
    // Constructed before the first thread, so that no thread receives a signal.
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

    // After this call a new handoff file ends the wait: a threaded worker reads its
    // configuration at its start, and then not for a minute. If the watch fails, the
    // next round finds the server.
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
        // Limits the rate of rounds when files are written repeatedly.
        if ((sources[1].revents & POLLIN) != 0) std::this_thread::sleep_for(kBetweenNewServers);
        while (handoffs_ >= 0 && ::read(handoffs_, events, sizeof events) > 0) any = true;
        return any ? Wakeup::kNewServer : Wakeup::kTime;
    }

  private:
    int signals_;
    int handoffs_;
};

// Waits for the time of the next round. Returns false to end.
bool waitUntil(Clock::time_point next, Wakeups& wakeups, Collector& collector) {
    // The service manager expects a message more often than a long interval. A fast
    // network passes 4 GiB, what a counter holds, in a few seconds.
    constexpr Clock::duration kSlice = std::chrono::seconds(1);
    for (;;) {
        Wakeup wakeup = wakeups.wait(std::min(next - Clock::now(), kSlice));
        tellServiceManager("WATCHDOG=1");
        if (wakeup == Wakeup::kEnd) return false;
        if (wakeup == Wakeup::kReload) collector.reload();
        if (wakeup == Wakeup::kNewServer) return true;
        if (Clock::now() >= next) return true;
        collector.collectEarly();
    }
}

}  // namespace

int serveCommand(const ServeOptions& options) {
    ListenAddress address = parseListenAddress(options.listen);
    Wakeups wakeups;
    Collector collector({options.configFile, options.stateDirectory, options.interval});
    wakeups.watchHandoffs();
    // The first scrape contains the saved totals and the segments' counts, so that no
    // counter is lower than in an earlier collector.
    collector.round();
    Pages pages([&](const auto& reader) { collector.read(reader); }, options.version);
    HttpServer server(
        address,
        [&](const HttpRequest& request) { return pages.answer(request, std::time(nullptr)); },
        options.allowedHosts);
    address.port = server.port();
    logLine("serving on http://{}/, collecting every {} s, saving the totals in {}",
            toString(address), options.interval, options.stateDirectory);
    tellServiceManager("READY=1");
    auto interval = std::chrono::duration_cast<Clock::duration>(
        std::chrono::duration<double>(options.interval));
    // At fixed times, so that a long round does not move all later ones.
    auto next = Clock::now() + interval;
    while (waitUntil(next, wakeups, collector)) {
        collector.round();
        // A round for a new server is in addition to the others.
        if (Clock::now() >= next) next = std::max(next + interval, Clock::now());
    }
    tellServiceManager("STOPPING=1");
    collector.round();
    bool saved = false;
    collector.read([&](const CollectorState& state) { saved = state.health.storeWorks; });
    if (!saved)
        fail(ErrorKind::kFailed, "ended; counts collected since the last write are not saved");
    logLine("ended; the totals are saved");
    return kExitOk;
}

}  // namespace tolvane::agent
