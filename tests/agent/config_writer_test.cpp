// Writing into a segment that others copy, write and remove meanwhile.
#include "configuration/config_writer.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/file.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <cstring>
#include <optional>
#include <thread>

#include "fake_server.h"
#include "os/error.h"

namespace tolvane::agent::test {
namespace {

// A block with the same mark in every word.
std::unique_ptr<ConfigInfo> markedBlock(std::int32_t mark) {
    auto block = std::make_unique<ConfigInfo>();
    auto* words = reinterpret_cast<std::int32_t*>(block.get());
    for (std::size_t i = 0; i < sizeof(ConfigInfo) / sizeof(std::int32_t); ++i) words[i] = mark;
    return block;
}

// As a server's process does it.
std::optional<std::int32_t> takeCopy(const ConfigInfo* shared, std::int32_t own, ConfigInfo& copy) {
    std::atomic_ref<std::int32_t> version(const_cast<ConfigInfo*>(shared)->version);
    std::int32_t before = version.load(std::memory_order_acquire);
    if (before <= own) return std::nullopt;
    const auto* from = reinterpret_cast<const std::int32_t*>(shared);
    auto* to = reinterpret_cast<std::int32_t*>(&copy);
    for (std::size_t i = 0; i < sizeof copy / sizeof *to; ++i) {
        to[i] = std::atomic_ref(const_cast<std::int32_t&>(from[i])).load(std::memory_order_relaxed);
    }
    std::atomic_thread_fence(std::memory_order_acquire);
    if (version.load(std::memory_order_relaxed) != before) return std::nullopt;
    return before;
}

// The first word of the block that differs from the others; 0: all are the same.
std::size_t firstMixedWord(const ConfigInfo& copy) {
    const auto* words = reinterpret_cast<const std::int32_t*>(&copy);
    constexpr std::size_t kVersionWord = offsetof(ConfigInfo, version) / 4;
    for (std::size_t i = 1; i < offsetof(ConfigInfo, parentPid) / 4; ++i) {
        if (i != kVersionWord && words[i] != words[0]) return i;
    }
    return 0;
}

TEST(ConfigWriter, NoReaderTakesAMixedBlock) {
    FakeServer server;
    Segment segment(server.shmid(), 1, Segment::Access::kWrite);
    std::atomic<bool> stop{false};
    std::atomic<int> taken{0};
    std::atomic<std::size_t> mixed{0};
    std::vector<std::thread> processes;
    for (int i = 0; i < 2; ++i) {
        processes.emplace_back([&] {
            auto copy = std::make_unique<ConfigInfo>();
            std::int32_t own = 0;
            while (!stop) {
                auto version = takeCopy(segment.config(), own, *copy);
                if (!version) continue;
                own = *version;
                ++taken;
                if (std::size_t word = firstMixedWord(*copy)) mixed = word;
            }
        });
    }
    auto odd = markedBlock(0x11111111);
    auto even = markedBlock(0x22222222);
    for (int i = 1; i <= 1000 || taken < 20; ++i) {
        // Between back to back and longer than a copy takes.
        std::this_thread::sleep_for(std::chrono::microseconds(i % 8 * 50));
        EXPECT_EQ(writeConfiguration(segment, i % 2 == 0 ? *even : *odd).version, i);
    }
    stop = true;
    for (std::thread& process : processes) process.join();
    EXPECT_EQ(mixed, 0U);
    EXPECT_EQ(segment.parentPid(), server.pid());
}

TEST(ConfigWriter, DerivesTheVersionFromTheEarlierOne) {
    struct Case {
        std::int32_t before;
        std::optional<std::int32_t> after;  // nothing: refused, and left as it was
    };
    const Case cases[] = {
        {kVersionCreated, 1},
        {1, 2},
        {41, 42},
        {rewritingVersion(0), 1},    // a first writer was killed half way
        {rewritingVersion(41), 42},  // a later one was
        {kVersionRemoved, std::nullopt},
        {kMaxVersion, std::nullopt},
        {2147483647, std::nullopt},
        {-2147483647 - 1, std::nullopt},
    };
    for (const Case& c : cases) {
        FakeServer server;
        server.edit([&](ConfigInfo& config, ResultStruct*) { config.version = c.before; });
        Segment segment(server.shmid(), 1, Segment::Access::kWrite);
        auto block = markedBlock(7);
        if (c.after) {
            EXPECT_EQ(writeConfiguration(segment, *block).version, *c.after);
            EXPECT_EQ(segment.config()->numSites, 7);
        } else {
            EXPECT_THROW(writeConfiguration(segment, *block), Error) << c.before;
            EXPECT_EQ(segment.config()->numSites, 0) << c.before;
        }
        EXPECT_EQ(segment.version(), c.after.value_or(c.before));
    }
}

TEST(ConfigWriter, WaitsForAnotherWriterAndThenReplacesItsMark) {
    FakeServer server;
    Segment segment(server.shmid(), 1, Segment::Access::kWrite);
    std::atomic_ref<std::int32_t> version(segment.config()->version);
    version = -7;
    std::thread agent([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(100));
        version = 41;
    });
    EXPECT_EQ(writeConfiguration(segment, *markedBlock(7)).version, 42);
    agent.join();
    version = 0;
    EXPECT_GT(writeConfiguration(segment, *markedBlock(7)).version, 1700000000);
}

TEST(ConfigWriter, TerminatedWriterFinishesTheBlock) {
    FakeServer server;
    Segment segment(server.shmid(), 1, Segment::Access::kWrite);
    auto block = markedBlock(7);
    writeConfiguration(segment, *block);  // a busy machine may end the first writer before it wrote
    for (int i = 0; i < 20; ++i) {
        pid_t writer = fork();
        if (writer == 0) {
            for (;;) writeConfiguration(segment, *block);
        }
        std::this_thread::sleep_for(std::chrono::milliseconds(5));
        kill(writer, SIGTERM);
        waitpid(writer, nullptr, 0);
        EXPECT_GT(segment.version(), 0);
    }
}

TEST(ConfigWriter, KeepsTheVersionOfAStoppedServer) {
    FakeServer server;
    Segment segment(server.shmid(), 1, Segment::Access::kWrite);
    auto block = markedBlock(7);
    std::thread ending([&] {
        std::this_thread::sleep_for(std::chrono::milliseconds(20));
        std::atomic_ref(segment.config()->version).store(kVersionRemoved);
    });
    try {
        for (;;) writeConfiguration(segment, *block);
    } catch (const Error& error) {
        EXPECT_NE(std::string(error.what()).find("stopped"), std::string::npos);
    }
    ending.join();
    EXPECT_EQ(segment.version(), kVersionRemoved);
}

TEST(ConfigWriter, ConcurrentWritersTakeTurns) {
    FakeServer server;
    constexpr int kWriters = 4;
    constexpr int kTimes = 50;
    std::vector<pid_t> writers;
    for (int w = 0; w < kWriters; ++w) {
        writers.push_back(fork());
        if (writers.back() != 0) continue;
        auto block = markedBlock(w + 1);
        Segment segment(server.shmid(), 1, Segment::Access::kWrite);
        for (int i = 0; i < kTimes; ++i) {
            ConfigLock lock(server.handoff());
            writeConfiguration(segment, *block);
            if (firstMixedWord(*segment.config()) != 0) _exit(1);
        }
        _exit(0);
    }
    for (pid_t writer : writers) {
        int status = 0;
        waitpid(writer, &status, 0);
        EXPECT_EQ(status, 0);
    }
    server.edit(
        [&](ConfigInfo& config, ResultStruct*) { EXPECT_EQ(config.version, kWriters * kTimes); });
}

}  // namespace
}  // namespace tolvane::agent::test
