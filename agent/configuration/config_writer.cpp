#include "configuration/config_writer.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <signal.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <ctime>
#include <thread>

#include "os/error.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

// Blocks the signals that end a program while the block is incomplete.
class SignalsHeld {
  public:
    SignalsHeld() {
        sigset_t held;
        ::sigemptyset(&held);
        for (int signal : {SIGINT, SIGTERM, SIGHUP}) ::sigaddset(&held, signal);
        ::pthread_sigmask(SIG_BLOCK, &held, &before_);
    }
    ~SignalsHeld() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }
    SignalsHeld(const SignalsHeld&) = delete;
    SignalsHeld& operator=(const SignalsHeld&) = delete;

  private:
    sigset_t before_;
};

bool isOthersMark(std::int32_t version) {
    return isBeingWritten(version) && !isRewriting(version);
}

// Waits until another agent has removed its mark, or until the patience ends.
// Returns the version.
std::int32_t awaitOthersMark(std::atomic_ref<std::int32_t> version, std::chrono::seconds patience,
                             const WaitNotice& notice) {
    auto deadline = std::chrono::steady_clock::now() + patience;
    std::int32_t current = version.load();
    while (isOthersMark(current) && std::chrono::steady_clock::now() < deadline) {
        if (notice) notice("waiting for another agent that is writing the configuration");
        std::this_thread::sleep_for(20ms);
        current = version.load();
    }
    return current;
}

// The highest version that was valid before `current`. Another agent's mark does
// not contain it; the present time is above any version that agents use, a count or a
// time.
std::int32_t highestBefore(std::int32_t current) {
    if (!isOthersMark(current)) return highestVersion(current);
    return static_cast<std::int32_t>(std::min<std::time_t>(std::time(nullptr), kMaxVersion - 1));
}

// Marks the block as being rewritten, also when `abandoned` is the mark of another
// agent. Returns the highest valid version so far.
std::int32_t beginRewriting(std::atomic_ref<std::int32_t> version, std::int32_t abandoned) {
    std::int32_t current = version.load();
    for (;;) {
        if (current == kVersionRemoved) fail(ErrorKind::kFailed, "the server has stopped");
        if (isOthersMark(current) && current != abandoned) {
            fail(ErrorKind::kFailed,
                 "another agent is rewriting the configuration (version {}); try again", current);
        }
        std::int32_t highest = highestBefore(current);
        if (highest >= kMaxVersion) {
            fail(ErrorKind::kFailed,
                 "version {} is the highest possible version; restart the server", current);
        }
        if (version.compare_exchange_strong(current, rewritingVersion(highest))) return highest;
    }
}

// The words [from, to) of the block, as bytes of offset.
void copyRange(ConfigInfo* to, const ConfigInfo& from, std::size_t begin, std::size_t end) {
    auto* target = reinterpret_cast<std::uint32_t*>(to);
    const auto* source = reinterpret_cast<const std::uint32_t*>(&from);
    for (std::size_t i = begin / sizeof(std::uint32_t); i < end / sizeof(std::uint32_t); ++i) {
        std::atomic_ref(target[i]).store(source[i], std::memory_order_relaxed);
    }
}

}  // namespace

ConfigLock::ConfigLock(const std::string& handoffPath, std::chrono::seconds patience,
                       const WaitNotice& notice)
    : fd_(::open(handoffPath.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0) fail(ErrorKind::kFailed, "{}: {}", handoffPath, std::strerror(errno));
    auto deadline = std::chrono::steady_clock::now() + patience;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        if (error == EINTR) continue;
        if (error != EWOULDBLOCK || std::chrono::steady_clock::now() > deadline) {
            ::close(fd_);
            if (error != EWOULDBLOCK)
                fail(ErrorKind::kFailed, "{}: {}", handoffPath, std::strerror(error));
            fail(ErrorKind::kFailed,
                 "another 'tolvane configure' is still writing after {} s; try again",
                 patience.count());
        }
        if (notice) notice("waiting for another 'tolvane configure'");
        std::this_thread::sleep_for(20ms);
    }
}

ConfigLock::~ConfigLock() {
    ::close(fd_);
}

WrittenConfiguration writeConfiguration(Segment& segment, const ConfigInfo& block,
                                        std::chrono::seconds patience, const WaitNotice& notice) {
    ConfigInfo* shared = segment.config();
    std::atomic_ref<std::int32_t> version(shared->version);
    std::int32_t abandoned = awaitOthersMark(version, patience, notice);
    SignalsHeld held;
    std::int32_t highest = beginRewriting(version, abandoned);
    // The mark must become visible before any word of the block.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    std::atomic_ref(shared->numSites).store(0, std::memory_order_relaxed);
    copyRange(shared, block, offsetof(ConfigInfo, numCategories), offsetof(ConfigInfo, parentPid));
    std::atomic_ref(shared->interval).store(block.interval, std::memory_order_relaxed);
    std::atomic_ref(shared->numSites).store(block.numSites, std::memory_order_relaxed);
    // The server may write its last version at any time; that must not be replaced.
    std::int32_t expected = rewritingVersion(highest);
    if (version.compare_exchange_strong(expected, highest + 1)) {
        return {highest + 1, isOthersMark(abandoned) ? abandoned : 0};
    }
    if (expected == kVersionRemoved) fail(ErrorKind::kFailed, "the server has stopped");
    fail(ErrorKind::kFailed,
         "another agent wrote a configuration at the same time (version {}); the two may "
         "be mixed, so configure again",
         expected);
}

}  // namespace tolvane::agent
