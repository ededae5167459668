#include "shim_utils/configuration/configuration.h"

#include <atomic>
#include <cstdint>
#include <cstring>
#include <ctime>

#include "shim_utils/platform/log.h"
#include "tolvane/internal/shim_tables.h"

namespace tolvane {
namespace {

// The copy in force and the spare copy, in which the next one is prepared. Pages
// never written cost no memory, and copying does not write equal pages.
Configuration copies[2];
std::atomic<Configuration*> inForce{&copies[0]};

Configuration& spare() {
    return inForce.load(std::memory_order_relaxed) == &copies[0] ? copies[1] : copies[0];
}

std::int32_t segmentVersion() {
    return std::atomic_ref<std::int32_t>(shmConfig->version).load(std::memory_order_acquire);
}

std::int32_t ownVersion() {
    return configInfo().info.version;
}

// Copies word by word, because an agent may be writing at the same time. A word is
// read atomically; the version shows whether the words belong together. Equal
// words are not written, so their pages stay shared.
void copyChangedWords(ConfigInfo& to, const ConfigInfo& from) {
    constexpr std::size_t kWords = sizeof(ConfigInfo) / sizeof(std::uint32_t);
    auto* target = reinterpret_cast<std::uint32_t*>(&to);
    auto* source = reinterpret_cast<std::uint32_t*>(const_cast<ConfigInfo*>(&from));
    for (std::size_t i = 0; i < kWords; ++i) {
        const auto word = std::atomic_ref(source[i]).load(std::memory_order_relaxed);
        if (target[i] != word) target[i] = word;
    }
}

// Copies the whole block of the segment to `to`. If the version changes during the
// copy, an agent has rewritten the block, and the copy is repeated. False if the
// version changed during every attempt or is not greater than `above`.
bool copyBlock(ConfigInfo& to, std::int32_t above) {
    constexpr int kTries = 16;
    for (int i = 0; i < kTries; ++i) {
        std::int32_t version = segmentVersion();
        if (version <= above) return false;
        copyChangedWords(to, *shmConfig);
        std::atomic_thread_fence(std::memory_order_acquire);
        to.version = version;
        if (segmentVersion() == version) return true;
    }
    return false;
}

// True at most once per second. Reads the clock without a system call.
bool aSecondHasPassed() {
    static std::int64_t next = INT64_MIN;  // milliseconds
    timespec time = {};
    clock_gettime(CLOCK_MONOTONIC_COARSE, &time);
    std::int64_t now = std::int64_t{time.tv_sec} * 1000 + time.tv_nsec / 1'000'000;
    if (now < next) return false;
    next = now + 1000;
    return true;
}

void logBounded(std::int32_t version, const Text<512>& report) {
    static Text<700> message;  // static: this runs on the stack of a server's send call
    message.clear();
    message.add("Configuration version ").add(version);
    message.add(" is out of range and was bounded: ").add(report.text());
    printErrorMsg(message.text());
}

void useSpare() {
    static Text<512> report;
    Configuration& config = spare();
    report.clear();
    boundConfiguration(config.info, report);
    if (report.length() > 0) logBounded(config.info.version, report);
    prepareConfiguration(config);
    inForce.store(&config, std::memory_order_release);
}

}  // namespace

const Configuration& configInfo() {
    return *inForce.load(std::memory_order_acquire);
}

bool newerConfigurationExists() {
    return segmentVersion() > ownVersion();
}

std::int32_t segmentInterval() {
    return std::atomic_ref<std::int32_t>(shmConfig->interval).load(std::memory_order_relaxed);
}

bool copyConfiguration() {
    if (!newerConfigurationExists() || !copyBlock(spare().info, ownVersion())) return false;
    useSpare();
    return true;
}

bool checkLatestConfigInfo() {
    return newerConfigurationExists() && aSecondHasPassed() && copyConfiguration();
}

ConfigInfo& editConfiguration() {
    copyChangedWords(spare().info, configInfo().info);
    return spare().info;
}

void useEditedConfiguration() {
    useSpare();
}

}  // namespace tolvane
