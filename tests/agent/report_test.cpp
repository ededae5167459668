// The table: what its numbers are, and how it fits a terminal.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>

#include "cli/report_table.h"
#include "os/text.h"

namespace tolvane::agent {
namespace {

ConfigInfo twoSites() {
    ConfigInfo config{};
    config.numSites = 2;
    std::strcpy(config.siteName[0], "shop.example");
    std::strcpy(config.siteName[1], "blog.example");
    config.numCategories[0] = 2;
    std::strcpy(config.categories[0][0].label, "cart");
    std::strcpy(config.categories[0][1].label, "pages");
    return config;
}

Report sampleReport() {
    CountSet counts;
    counts.total[&CounterBlock::requests] = 100;
    counts.total[&CounterBlock::errors] = 5;
    counts.site[0][&CounterBlock::requests] = 40;
    counts.site[1][&CounterBlock::requests] = 60;
    counts.category[0][0] = {10, 2000, 1, 1, 4.0};
    counts.category[0][1] = {30, 3000, 0, 0, 0.3};
    CountSet added;
    added.total[&CounterBlock::requests] = 50;
    added.total[&CounterBlock::bytesSent] = 1000;
    return buildReport(twoSites(), counts, added, 10);
}

TEST(Report, DerivesRatesSharesAndMeans) {
    Report report = sampleReport();
    ASSERT_EQ(report.rows.size(), 5U);
    const ReportRow& total = report.rows[0];
    EXPECT_DOUBLE_EQ(total.requestsPerSecond, 5);
    EXPECT_DOUBLE_EQ(total.bytesSentPerSecond, 100);
    EXPECT_DOUBLE_EQ(*total.errorShare, 0.05);
    // Of ten requests one failed and one was dropped: eight responses took 4 s.
    EXPECT_DOUBLE_EQ(*report.rows[2].meanResponse, 0.5);
    EXPECT_DOUBLE_EQ(*report.rows[1].meanResponse, 4.3 / 38);
    EXPECT_FALSE(report.rows[4].meanResponse);
}

TEST(Report, InvalidSumsGiveNoMean) {
    for (double sum : {std::numeric_limits<double>::quiet_NaN(), -1.0}) {
        CountSet counts;
        counts.category[0][0] = {5, 0, 0, 0, sum};
        EXPECT_FALSE(buildReport(twoSites(), counts, {}, 1).rows[2].meanResponse) << sum;
    }
    CountSet allFailed;
    allFailed.category[0][0] = {5, 0, 5, 3, 1.0};
    EXPECT_FALSE(buildReport(twoSites(), allFailed, {}, 0).rows[2].meanResponse);
}

TEST(Report, SortsCategoriesWithinTheirSite) {
    struct Case {
        ReportColumn column;
        bool ascending;
        std::vector<std::string> order;
    };
    const Case cases[] = {
        {ReportColumn::kRequests,
         false,
         {"all traffic", "blog.example", "shop.example", "pages", "cart"}},
        {ReportColumn::kRequests,
         true,
         {"all traffic", "shop.example", "cart", "pages", "blog.example"}},
        {ReportColumn::kMean,
         false,
         {"all traffic", "shop.example", "cart", "pages", "blog.example"}},
        {ReportColumn::kName,
         false,
         {"all traffic", "blog.example", "shop.example", "cart", "pages"}},
    };
    for (const Case& c : cases) {
        Report report = sampleReport();
        sortReport(report, c.column, c.ascending);
        std::vector<std::string> order;
        for (const ReportRow& row : report.rows) order.push_back(row.name);
        EXPECT_EQ(order, c.order) << columnTitle(c.column);
    }
}

TEST(Report, FitsEveryWidth) {
    Report report = sampleReport();
    report.rows[1].name = std::string(127, 'x');
    report.rows[2].name = "K\xC3\xA4se";
    for (int width = 1; width <= 250; ++width) {
        ReportLayout layout;
        layout.width = width;
        auto lines = renderReport(report, layout);
        ASSERT_EQ(lines.size(), 6U);
        for (const std::string& line : lines) {
            EXPECT_LE(displayWidth(line), static_cast<std::size_t>(width)) << line;
        }
    }
}

TEST(Text, IsCutByTheColumnsThatItTakes) {
    EXPECT_EQ(displayWidth("\u5546\u54C1 e\u0301"), 6U);
    EXPECT_EQ(displayWidth("\U0001FA80\u05B0"), 2U);
    EXPECT_EQ(cutToWidth("\u5546\u54C1\u5238", 4), "\u5546~");
    EXPECT_EQ(cutToWidth("\u5546\u54C1\u5238", 5), "\u5546\u54C1~");
}

TEST(Text, IsMadeSafeForATerminal) {
    const std::pair<std::string, const char*> cases[] = {
        {"plain", "plain"},
        {"K\xC3\xA4se", "K\xC3\xA4se"},
        {"a\x1b[31mb", "a?[31mb"},
        {"bad\xFF\xC3", "bad??"},
        {"\xC2\x9Bm", "??m"},
        {"tab\there", "tab?here"},
        {std::string("nul\0x", 5), "nul?x"},
    };
    for (const auto& [text, expected] : cases) EXPECT_EQ(printable(text), expected);
}

}  // namespace
}  // namespace tolvane::agent
