// How a process takes the agent's configuration: which versions, never a half
// written block, and nothing in it that could lead matching astray.
#include "shim_utils/configuration.h"

#include <gtest/gtest.h>
#include <sys/mman.h>

#include <climits>
#include <cstring>
#include <memory>
#include <random>

#include "guarded_text.h"
#include "measured_process.h"
#include "page_trap.h"
#include "shim_utils/site_match.h"
#include "shim_utils/url_categories.h"

namespace tolvane::test {
namespace {

void setOwnVersion(int version) {
    editConfiguration().version = version;
    useEditedConfiguration();
}

TEST(Configuration, IsTakenWhenItsVersionIsGreater) {
    const MeasuredProcess process(kApacheProcesses);
    const struct {
        int own;
        int segment;
        bool taken;
    } cases[] = {{0, 1, true},
                 {0, -1, false},
                 {0, -2, false},
                 {0, 0, false},
                 {5, 5, false},
                 {5, 4, false},
                 {5, 6, true},
                 {-1, 0, true},
                 {-1, -2, false},
                 {5, INT_MAX, true},
                 {INT_MAX, INT_MIN, false}};
    for (const auto& c : cases) {
        SCOPED_TRACE(testing::Message() << c.own << " / " << c.segment);
        setOwnVersion(c.own);
        shmConfig->version = c.segment;
        shmConfig->interval = 17;
        EXPECT_EQ(newerConfigurationThere(), c.taken);
        EXPECT_EQ(checkLatestConfigInfo(), c.taken);
        EXPECT_EQ(configInfo().info.version, c.taken ? c.segment : c.own);
        EXPECT_EQ(configInfo().info.interval, c.taken ? 17 : 0);
        EXPECT_FALSE(checkLatestConfigInfo());
        putIntoForce({});
    }
    setOwnVersion(5);
    shmConfig->version = -1;
    takeConfiguration();
    EXPECT_EQ(configInfo().info.version, -1);
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
        // The agent writes whenever the copy comes by.
        const void* places[] = {&shmConfig->categories[2], &shmConfig->categories[5]};
        PageTrap* armed = nullptr;
        PageTrap trap([&] {
            c.rewrite(*shmConfig);
            if (armed->sprung() < c.times) armed->set(places[armed->sprung() % 2], PROT_NONE);
        });
        armed = &trap;
        trap.set(places[0], PROT_NONE);
        EXPECT_EQ(checkLatestConfigInfo(), c.version != 8);
        trap.release();
        EXPECT_GE(trap.sprung(), c.times == 1 ? 1 : 2);
        EXPECT_EQ(configInfo().info.version, c.version);
        EXPECT_EQ(configInfo().info.interval, c.version);
    }
}

TEST(Configuration, OneLogLineNamesWhatWasOutOfRange) {
    const struct {
        const char* expected;  // empty: no line
        void (*spoil)(ConfigInfo&);
    } cases[] = {
        {"", [](ConfigInfo&) {}},
        {"numSites 11 ", [](ConfigInfo& c) { c.numSites = 11; }},
        {"numSites -1 ", [](ConfigInfo& c) { c.numSites = -1; }},
        {"numHosts[1] 7 ", [](ConfigInfo& c) { c.numHosts[1] = 7; }},
        {"numCategories[0] 16 ", [](ConfigInfo& c) { c.numCategories[0] = 16; }},
        {"numSections[0][1] 7 ", [](ConfigInfo& c) { c.categories[0][1].numSections = 7; }},
        {"numPieces[0][1][0] -5 ",
         [](ConfigInfo& c) { c.categories[0][1].sections[0].numPieces = -5; }},
        {"pieceLength[0][0][0][1] 48 ",
         [](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[1] = 48; }},
        {"piece[0][0][0][1] ",
         [](ConfigInfo& c) {
             std::memset(c.categories[0][0].sections[0].piece[1], 'x', kPieceSize);
         }},
        {"siteName[1] ", [](ConfigInfo& c) { std::memset(c.siteName[1], 'x', kNameSize); }},
        {"hostName[1][0] ", [](ConfigInfo& c) { std::memset(c.hostName[1][0], 'x', kNameSize); }},
        {"label[0][0] ",
         [](ConfigInfo& c) { std::memset(c.categories[0][0].label, 'x', kLabelSize); }},
        // The largest values and longest texts are in range.
        {"", [](ConfigInfo& c) { std::memset(c.siteName[1], 'x', kNameSize - 1); }},
        {"", [](ConfigInfo& c) { c.categories[0][0].sections[0].pieceLength[1] = 47; }},
        {"", [](ConfigInfo& c) { c.numSites = kMaxSites, c.numHosts[9] = kMaxExtraHosts; }},
    };
    const MeasuredProcess process(kApacheProcesses);
    LogTail log;
    for (const auto& c : cases) {
        SCOPED_TRACE(c.expected);
        putIntoForce({{"a.test", {"/a*b", "/c"}}, {"b.test", {}, {"c.test"}}});
        c.spoil(editConfiguration());
        useEditedConfiguration();
        const std::vector<std::string> lines = log.next();
        ASSERT_EQ(lines.size(), *c.expected == '\0' ? 0U : 1U);
        if (!lines.empty()) {
            EXPECT_NE(lines[0].find(std::string(": ") + c.expected), std::string::npos) << lines[0];
        }
    }
}

class Hostility {
  public:
    explicit Hostility(unsigned seed) : generator_(seed) {}

    // Random bytes throughout, with counts that are in range now and then.
    void fill(ConfigInfo& config) {
        auto* words = reinterpret_cast<std::uint32_t*>(&config);
        for (std::size_t i = 0; i < sizeof config / 4; ++i)
            words[i] = static_cast<std::uint32_t>(generator_());
        config.numSites = static_cast<std::int32_t>(5 + generator_() % 8);
        for (int s = 0; s < kMaxSites; ++s) {
            count(config.numHosts[s], kMaxExtraHosts);
            count(config.numCategories[s], kMaxCategories);
            for (CategoryConfig& category : config.categories[s]) fillCategory(category);
        }
    }
    std::string text() {
        std::string text(1 + generator_() % 20, ' ');
        for (char& c : text) c = static_cast<char>(generator_());
        return text;
    }

  private:
    void fillCategory(CategoryConfig& category) {
        count(category.numSections, kMaxSections);
        for (UrlSection& section : category.sections) {
            count(section.numPieces, kMaxPieces);
            for (int p = 0; p < kMaxPieces; ++p) {
                count(section.pieceLength[p], kPieceSize - 1);
                if (generator_() % 2 == 0) section.piece[p][generator_() % 4] = '\0';
            }
        }
    }
    void count(std::int32_t& value, int limit) {
        if (generator_() % 4 == 0) return;
        value = static_cast<std::int32_t>(generator_() % (static_cast<unsigned>(limit) + 2));
    }
    std::mt19937 generator_;
};

TEST(Configuration, HostileBlockIsBoundedAndSafeToMatchAgainst) {
    const auto config = std::make_unique<Configuration>();
    for (unsigned seed = 1; seed <= 40; ++seed) {
        SCOPED_TRACE(seed);
        Hostility hostility(seed);
        hostility.fill(config->info);
        Text<512> report;
        boundConfiguration(config->info, report);
        EXPECT_GT(report.length(), 0U);
        report.clear();
        boundConfiguration(config->info, report);
        EXPECT_STREQ(report.text(), "");
        prepareConfiguration(*config);
        for (int i = 0; i < 20; ++i) {
            const GuardedText url(hostility.text());
            const GuardedText host(hostility.text());
            const int site = getMatchWebSite(*config, host.bytes(), kPlainRequest);
            EXPECT_LT(site, config->info.numSites);
            RequestInfo request = {};
            for (int s = 0; s < config->info.numSites; ++s) {
                request.siteIndex = s;
                matchCategory(*config, url.bytes(), request);
                EXPECT_LE(request.numMatched, config->info.numCategories[s]);
            }
        }
        if (HasFailure()) return;
    }
}

}  // namespace
}  // namespace tolvane::test
