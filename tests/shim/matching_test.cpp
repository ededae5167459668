// Host values against sites and URLs against categories, by tables and by a
// comparison with a plain matcher.
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstring>
#include <functional>
#include <memory>
#include <random>

#include "guarded_text.h"
#include "measured_process.h"
#include "shim_utils/configuration/configuration.h"
#include "shim_utils/matching/site_match.h"
#include "shim_utils/matching/url_categories.h"
#include "support/plain_matching.h"

namespace tolvane::test {
namespace {

std::unique_ptr<Configuration> prepared(const std::vector<Site>& sites) {
    auto config = std::make_unique<Configuration>();
    configure(config->info, sites);
    prepareConfiguration(*config);
    return config;
}

int siteOf(const Configuration& config, std::string_view host,
           ConnectionKind kind = kPlainRequest) {
    const GuardedText text(host);
    return getMatchWebSite(config, text.bytes(), kind);
}

TEST(SiteMatch, TakesTheFirstSiteWithSuchAName) {
    const std::string longest(127, 'x');
    auto config = prepared({{"a.test", {}},
                            {"a.test", {}, {"b.test"}},
                            {"", {}, {"c.test", "a.test", "d.test"}},
                            {"d.test", {}, {"b.test", longest}}});
    EXPECT_EQ(siteOf(*config, "a.test"), 0);
    EXPECT_EQ(siteOf(*config, "b.test"), 1);
    EXPECT_EQ(siteOf(*config, "c.test"), 2);
    EXPECT_EQ(siteOf(*config, "d.test"), 2);
    EXPECT_EQ(siteOf(*config, longest), 3);
    EXPECT_EQ(siteOf(*config, longest + "x"), -1);
    EXPECT_EQ(siteOf(*config, "e.test"), -1);
    EXPECT_EQ(siteOf(*config, ""), -1);
    EXPECT_EQ(getMatchWebSite(*config, {}, kPlainRequest), -1);

    config->info.numHosts[2] = 2;  // names beyond the count are not there
    prepareConfiguration(*config);
    EXPECT_EQ(siteOf(*config, "d.test"), 3);
    config->info.numSites = 0;
    prepareConfiguration(*config);
    EXPECT_EQ(siteOf(*config, "a.test"), -1);
}

std::vector<int> categoriesOf(const Configuration& config, std::string_view url, int site = 0) {
    const GuardedText text(url);
    RequestInfo request = {};
    request.siteIndex = site;
    request.numMatched = 7;
    matchCategory(config, text.bytes(), request);
    return {request.matched, request.matched + request.numMatched};
}

TEST(UrlCategories, ListsEveryCategoryOnceInOrder) {
    auto config = prepared({{"a.test", std::vector<std::string>(15, "/x")}});
    for (int c : {2, 7, 14}) config->info.categories[0][c].sections[0] = pattern("/a*");
    config->info.categories[0][7].numSections = 2;
    config->info.categories[0][7].sections[1] = pattern("*b");
    config->info.categories[0][9].numSections = 0;
    prepareConfiguration(*config);
    EXPECT_EQ(categoriesOf(*config, "/ab"), (std::vector<int>{2, 7, 14}));
    EXPECT_EQ(categoriesOf(*config, "/b"), (std::vector<int>{7}));
    EXPECT_EQ(categoriesOf(*config, ""), (std::vector<int>{}));
    EXPECT_EQ(categoriesOf(*config, std::string_view("/b\0/x", 5)), (std::vector<int>{7}));
}

// --------------------------------------- random ones against the plain matcher

class Dice {
  public:
    int below(int limit) { return static_cast<int>(generator_() % static_cast<unsigned>(limit)); }
    std::string text(std::string_view letters, int least, int most) {
        std::string text(static_cast<std::size_t>(least + below(most - least + 1)), ' ');
        for (char& c : text)
            c = letters[static_cast<std::size_t>(below(static_cast<int>(letters.size())))];
        return text;
    }

  private:
    std::mt19937 generator_{20240229};
};

TEST(SiteMatch, AgreesWithThePlainMatcher) {
    Dice dice;
    const auto config = prepared({{"", {}}});
    int matches = 0;
    for (int i = 0; i < 20'000; ++i) {
        // Letters only have two cases: '`' and '@' are as far apart as 'a' and 'A'.
        const auto randomName = [&] { return dice.text("aA`@", 0, 2) + dice.text(":804", 0, 4); };
        const std::string host = randomName();
        std::string name = dice.below(2) ? host : randomName();
        if (dice.below(3) == 0) name.resize((name.size() + 1) / 2);
        if (dice.below(3) == 0) name += dice.below(2) ? ":80" : ":443";
        const auto kind = dice.below(2) ? kPlainRequest : kReportedRequest;
        const bool expected = plainHostMatch(host, name, kind);
        matches += expected;
        std::memcpy(config->info.siteName[0], name.c_str(), name.size() + 1);
        prepareConfiguration(*config);
        ASSERT_EQ(siteOf(*config, host, kind), expected ? 0 : -1)
            << host << " / " << name << " / " << kind;
    }
    EXPECT_GT(matches, 2000);
    EXPECT_LT(matches, 18'000);
}

// Texts of up to `most` letters; where `odd`, many are empty or of another length
// than stated.
UrlSection randomSection(Dice& dice, std::string_view letters, int most, bool odd) {
    UrlSection section = {};
    section.numPieces = dice.below(8) == 0 ? dice.below(kMaxPieces + 1) : 1 + dice.below(2);
    section.leadingWildcard = dice.below(2) ? dice.below(3) - 1 : 0;
    section.trailingWildcard = dice.below(2);
    for (int i = 0; i < section.numPieces; ++i) {
        const std::string piece = dice.text(letters, odd && dice.below(4) == 0 ? 0 : 1, most);
        std::memcpy(section.piece[i], piece.data(), piece.size());
        section.pieceLength[i] = odd && dice.below(4) == 0
                                     ? dice.below(dice.below(2) ? 5 : kPieceSize)
                                     : static_cast<int>(piece.size());
    }
    return section;
}

TEST(UrlCategories, AgreesWithThePlainMatcher) {
    Dice dice;
    const Site site = {"a.test", std::vector<std::string>(kMaxCategories, "x")};
    auto config = prepared({site, site});
    std::size_t matches = 0;
    for (int i = 0; i < 3000; ++i) {
        const std::string_view letters = i % 4 == 0 ? "abcdefghijkl" : i % 4 == 1 ? "a" : "abB";
        const int most = dice.below(8) == 0 ? kPieceSize - 1 : 3 + dice.below(4);
        const bool odd = dice.below(2) != 0;
        for (auto* categories : {config->info.categories[0], config->info.categories[1]}) {
            for (int c = 0; c < kMaxCategories; ++c) {
                categories[c].numSections = 1 + dice.below(8) / 7;
                for (int k = 0; k < categories[c].numSections; ++k)
                    categories[c].sections[k] = randomSection(dice, letters, most, odd);
            }
        }
        prepareConfiguration(*config);
        for (int longest : {0, 8, 30, 300}) {
            std::string url = dice.text(letters, 1, std::max(longest, 1));
            if (longest == 0) url[0] = '\0';
            for (int s : {0, 1}) {
                const std::vector<int> expected = plainCategories(config->info, url, s);
                matches += expected.size();
                ASSERT_EQ(categoriesOf(*config, url, s), expected)
                    << url << ", configuration " << i;
            }
        }
    }
    EXPECT_GT(matches, 40'000U);
    EXPECT_LT(matches, 320'000U);
}

// Ten sites of 540 pieces each: first long pieces with distinct beginnings, then
// as many children per node as need the most rows.
TEST(UrlCategories, MatchesTheLargestConfiguration) {
    Dice dice;
    auto config = prepared({});
    ConfigInfo& info = config->info;
    info.numSites = kMaxSites;
    for (int last : {kPieceSize - 1, 4}) {
        for (int s = 0; s < kMaxSites; ++s) {
            info.numCategories[s] = kMaxCategories;
            for (int c = 0; c < kMaxCategories; ++c) {
                info.categories[s][c].numSections = kMaxSections;
                for (int k = 0; k < kMaxSections; ++k) {
                    std::string text;
                    for (int p = 0; p < kMaxPieces; ++p) {
                        const int number = (c * kMaxSections + k) * kMaxPieces + p;
                        std::string piece = dice.text("abcdefg", last, last);
                        int rest = number;
                        for (std::size_t i = 0; i < 4; ++i, rest /= 7)
                            piece[i] = static_cast<char>('a' + rest % 7);
                        text += piece + "*";
                    }
                    info.categories[s][c].sections[k] = pattern("*" + text);
                }
            }
        }
        prepareConfiguration(*config);
        EXPECT_LE(config->patterns.numNodes, PatternIndex::kNodes);
        EXPECT_LE(config->patterns.numRows, PatternIndex::kRows);
        for (int s = 0; s < kMaxSites; ++s) {
            for (int c = 0; c < kMaxCategories; ++c) {
                const UrlSection& section = info.categories[s][c].sections[c % kMaxSections];
                std::string url = "/";
                for (const char* piece : section.piece) url += std::string(piece) + "-";
                EXPECT_EQ(categoriesOf(*config, url, s), (std::vector<int>{c})) << url;
                url.resize(url.size() - 2);
                EXPECT_EQ(categoriesOf(*config, url, s), (std::vector<int>{})) << url;
            }
        }
    }
}

#if !defined(__SANITIZE_ADDRESS__) && !defined(__SANITIZE_THREAD__)
// Hostile patterns with URLs of 8 KB, which take long if any text is searched for
// twice. The limit is several times the measured time.
TEST(UrlCategories, NoPatternIsExpensive) {
    const auto run = [](int length, char letter = 'a') {
        return std::string(static_cast<std::size_t>(length), letter);
    };
    struct Case {
        const char* name;
        std::function<std::string(int number, int piece)> text;
        std::function<int(int length)> stated;
        std::function<std::string(int part)> url;  // in parts
    };
    const auto same = [](int length) { return length; };
    const std::vector<Case> cases = {
        {"wrong lengths", [&](int, int) { return run(46) + "b"; }, [](int) { return 46; },
         [&](int) { return run(64); }},
        {"no lengths",
         [&](int n, int p) { return p % 2 ? run(23) + char('b' + n % 20) : run(47 - p); },
         [](int) { return 0; }, [&](int part) { return run(48) + char('b' + part % 25); }},
        {"nested ends", [&](int n, int p) { return p == 0 ? "zzz" : run(1 + n % 47); }, same,
         [&](int) { return run(64); }},
        {"nested ends, waited for",
         [&](int n, int p) { return p == 0   ? run(1 + n % 47)
                                    : p == 1 ? "zzz"
                                             : run(47 - n % 40); },
         same, [&](int part) { return part == 60 ? "zzz" : run(64); }},
        {"too soon",
         [&](int n, int p) {
             return p % 2 ? run(47 - n % 24) : std::string(1, char('b' + n % 20));
         },
         same, [&](int part) { return run(40 + part % 8) + char('b' + part % 20); }},
        {"empty", [&](int n, int) { return n % 2 ? "" : "aab"; }, [](int) { return 47; },
         [&](int) { return run(64); }},
    };
    for (const Case& hostile : cases) {
        auto config = prepared({{"a.test", std::vector<std::string>(kMaxCategories, "x")}});
        for (int number = 0; number < kMaxCategories * kMaxSections; ++number) {
            CategoryConfig& category = config->info.categories[0][number / kMaxSections];
            category.numSections = kMaxSections;
            UrlSection& section = category.sections[number % kMaxSections];
            section = {};
            section.leadingWildcard = section.trailingWildcard = 1;
            for (int p = 0; p < kMaxPieces; ++p) {
                const std::string text = hostile.text(number, p);
                std::memcpy(section.piece[p], text.data(), text.size());
                section.pieceLength[p] = hostile.stated(static_cast<int>(text.size()));
            }
            section.numPieces = kMaxPieces;
        }
        prepareConfiguration(*config);
        std::string url;
        for (int part = 0; url.size() < 8192; ++part) url += hostile.url(part);
        RequestInfo request = {};
        auto fastest = std::chrono::nanoseconds::max();
        for (int i = 0; i < 20; ++i) {
            const auto before = std::chrono::steady_clock::now();
            matchCategory(*config, {url.data(), 8192}, request);
            fastest = std::min(fastest,
                               std::chrono::nanoseconds(std::chrono::steady_clock::now() - before));
        }
        EXPECT_LT(fastest, std::chrono::microseconds(300)) << hostile.name;
    }
}
#endif

}  // namespace
}  // namespace tolvane::test
