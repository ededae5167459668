#include "config/config_writer.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <chrono>
#include <cstring>
#include <thread>

#include "base/error.h"
#include "base/terminal.h"

namespace tolvane::agent {

namespace {

using namespace std::chrono_literals;

// Marks the block as being rewritten; returns the highest valid version so far.
std::int32_t beginRewriting(std::atomic_ref<std::int32_t> version) {
    std::int32_t current = version.load();
    for (;;) {
        if (current == kVersionRemoved) fail(kExitFailed, "the server has stopped");
        if (current != kVersionCreated && current <= 0 && !isRewriting(current)) {
            fail(kExitFailed,
                 "another agent is rewriting the configuration (version {}); try again", current);
        }
        std::int32_t highest = highestVersion(current);
        if (highest < 0 || highest >= kMaxVersion) {
            fail(kExitFailed, "the version {} leaves no room for a higher one; restart the server",
                 current);
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

ConfigLock::ConfigLock(const std::string& handoffPath)
    : fd_(::open(handoffPath.c_str(), O_RDONLY | O_CLOEXEC)) {
    if (fd_ < 0) fail(kExitFailed, "{}: {}", handoffPath, std::strerror(errno));
    constexpr auto kPatience = 10s;
    auto deadline = std::chrono::steady_clock::now() + kPatience;
    Progress progress;
    while (::flock(fd_, LOCK_EX | LOCK_NB) != 0) {
        int error = errno;
        if (error == EINTR) continue;
        if (error != EWOULDBLOCK || std::chrono::steady_clock::now() > deadline) {
            ::close(fd_);
            if (error != EWOULDBLOCK)
                fail(kExitFailed, "{}: {}", handoffPath, std::strerror(error));
            fail(kExitFailed,
                 "another 'tolvane configure' has been writing for {} seconds; try again",
                 kPatience.count());
        }
        progress.show("waiting for another 'tolvane configure'");
        std::this_thread::sleep_for(20ms);
    }
}

ConfigLock::~ConfigLock() {
    ::close(fd_);
}

std::int32_t writeConfiguration(Segment& segment, const ConfigInfo& block) {
    ConfigInfo* shared = segment.config();
    std::atomic_ref<std::int32_t> version(shared->version);
    std::int32_t highest = beginRewriting(version);
    // No word of the block may become visible before the mark does.
    std::atomic_thread_fence(std::memory_order_seq_cst);
    std::atomic_ref(shared->numSites).store(0, std::memory_order_relaxed);
    copyRange(shared, block, offsetof(ConfigInfo, numCategories), offsetof(ConfigInfo, parentPid));
    std::atomic_ref(shared->interval).store(block.interval, std::memory_order_relaxed);
    std::atomic_ref(shared->numSites).store(block.numSites, std::memory_order_relaxed);
    // The server writes its last version at any moment; it must stand.
    std::int32_t expected = rewritingVersion(highest);
    if (version.compare_exchange_strong(expected, highest + 1)) return highest + 1;
    if (expected == kVersionRemoved) fail(kExitFailed, "the server has stopped");
    fail(kExitFailed,
         "another agent wrote a configuration at the same time (version {}); the two may "
         "be mixed, so configure again",
         expected);
}

}  // namespace tolvane::agent
