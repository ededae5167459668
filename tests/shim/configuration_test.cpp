// How a process takes the agent's configuration: by its version, whole, and
// bounded.
#include "shim_utils/configuration/configuration.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <cstring>

#include "fake_clock.h"
#include "measured_process.h"
#include "page_trap.h"

namespace tolvane::test {
namespace {

void setOwnVersion(int version) {
    editConfiguration().version = version;
    useEditedConfiguration();
}

TEST(Configuration, IsTakenWhenItsVersionIsGreater) {
    const MeasuredProcess process(kApacheProcesses);
    for (const int own : {0, 5, INT_MAX}) {
        for (const int segment : {0, 1, -1, -2, 4, 5, 6, INT_MAX, INT_MIN}) {
            SCOPED_TRACE(testing::Message() << own << " / " << segment);
            const bool newer = segment > own;
            setOwnVersion(own);
            shmConfig->version = segment;
            shmConfig->interval = 17;
            EXPECT_EQ(newerConfigurationExists(), newer);
            EXPECT_EQ(copyConfiguration(), newer);
            EXPECT_EQ(configInfo().info.version, newer ? segment : own);
            EXPECT_EQ(configInfo().info.interval, newer ? 17 : 0);
            EXPECT_FALSE(copyConfiguration());
            putIntoForce({});
        }
    }
}

TEST(Configuration, IsTakenAtMostOnceASecond) {
    const MeasuredProcess process(kApacheProcesses);
    for (const int second : {1, 2, 3}) {
        for (const bool first : {true, false, false}) {
            ++shmConfig->version;
            EXPECT_EQ(checkLatestConfigInfo(), first) << second;
        }
        monotonicAhead += 1;
    }
    EXPECT_TRUE(checkLatestConfigInfo());
    monotonicAhead = 0;
}

TEST(Configuration, IsNeverTakenHalfWritten) {
    const struct {
        void (*rewrite)(ConfigInfo&);
        int times;
        int version;  // in force afterwards
    } cases[] = {
        {[](ConfigInfo& c) { c.interval = ++c.version; }, 1, 10},  // copied again
        {[](ConfigInfo& c) { c.version = 0; }, 1, 8},              // withdrawn
        {[](ConfigInfo& c) { c.version = kVersionRemoved; }, 1, 8},
        {[](ConfigInfo& c) { c.interval = ++c.version; }, INT_MAX, 8},  // never at rest
    };
    for (const auto& c : cases) {
        const MeasuredProcess process(kApacheProcesses);
        ConfigInfo& own = editConfiguration();
        own.version = own.interval = 8;
        useEditedConfiguration();
        shmConfig->version = 9;
        // The agent writes each time the copy reaches a page.
        const void* places[] = {&shmConfig->categories[2], &shmConfig->categories[5]};
        PageTrap* armed = nullptr;
        PageTrap trap([&] {
            c.rewrite(*shmConfig);
            if (armed->sprung() < c.times) armed->set(places[armed->sprung() % 2], PROT_NONE);
        });
        armed = &trap;
        trap.set(places[0], PROT_NONE);
        EXPECT_EQ(copyConfiguration(), c.version != 8);
        trap.release();
        EXPECT_GE(trap.sprung(), c.times == 1 ? 1 : 2);
        EXPECT_EQ(configInfo().info.version, c.version);
        EXPECT_EQ(configInfo().info.interval, c.version);
    }
}

template <std::size_t kSize>
void fill(char (&text)[kSize]) {
    std::memset(text, 'x', kSize);
}

TEST(Configuration, OneLogLineNamesWhatWasOutOfRange) {
    const struct {
        const char* expected;  // empty: no line
        void (*spoil)(ConfigInfo&);
    } cases[] = {
        {"", [](ConfigInfo&) {}},
        {"numSites 11 ", [](ConfigInfo& c) { c.numSites = 11; }},
        {"numSites -1 (0 to 10)", [](ConfigInfo& c) { c.numSites = -1; }},
        {"numHosts[1] 7 ", [](ConfigInfo& c) { c.numHosts[1] = 7; }},
        {"numCategories[0] 16 ", [](ConfigInfo& c) { c.numCategories[0] = 16; }},
        {"numSections[0][1] 7 ", [](ConfigInfo& c) { c.categories[0][1].numSections = 7; }},
        {"numPieces[0][1][0] -5 ",
         [](ConfigInfo& c) { c.categories[0][1].sections[0].numPieces = -5; }},
        {"pieceLength[0][0][0][1] 48 ",
         [](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[1] = 48; }},
        {"piece[0][0][0][1] ",
         [](ConfigInfo& c) { fill(c.categories[0][0].sections[0].piece[1]); }},
        {"siteName[1] ", [](ConfigInfo& c) { fill(c.siteName[1]); }},
        {"hostName[1][0] ", [](ConfigInfo& c) { fill(c.hostName[1][0]); }},
        // The shim does not check labels.
        {"", [](ConfigInfo& c) { fill(c.categories[0][0].label); }},
        // The largest values and longest texts are in range.
        {"", [](ConfigInfo& c) { fill(c.siteName[1]), c.siteName[1][kNameSize - 1] = '\0'; }},
        {"", [](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[1] = 47; }},
        {"", [](ConfigInfo& c) { c.numSites = kMaxSites, c.numHosts[9] = kMaxExtraHosts; }},
    };
    const MeasuredProcess process(kApacheProcesses);
    LogTail log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        putIntoForce({{"a.test", {"/a*b", "/c"}}, {"b.test", {}, {"c.test"}}});
        ConfigInfo& edited = editConfiguration();
        c.spoil(edited);
        const bool negative = edited.numSites < 0;
        char label[kLabelSize];
        std::memcpy(label, edited.categories[0][0].label, kLabelSize);
        useEditedConfiguration();
        EXPECT_EQ(std::memcmp(configInfo().info.categories[0][0].label, label, kLabelSize), 0);
        EXPECT_EQ(configInfo().info.numSites == 0, negative);
        const std::vector<std::string> lines = log.next();
        ASSERT_EQ(lines.size(), *c.expected == '\0' ? 0U : 1U);
        if (!lines.empty()) {
            EXPECT_NE(lines[0].find(std::string(": ") + c.expected), std::string::npos) << lines[0];
        }
    }
}

}  // namespace
}  // namespace tolvane::test
