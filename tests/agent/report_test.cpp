// The table: what its numbers are, and how it fits a terminal.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <fstream>
#include <limits>
#include <regex>

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

// The example in the README: its lines from the heading on, without the margin.
std::vector<std::string> exampleOfReadme() {
    std::ifstream readme(TOLVANE_SOURCE "/README.md");
    std::vector<std::string> lines;
    for (std::string line; std::getline(readme, line);) {
        if (line.starts_with("    SITE / CATEGORY") || !lines.empty()) {
            if (!line.starts_with("    ")) break;
            lines.push_back(line.substr(4));
        }
    }
    return lines;
}

double numberOf(const std::string& cell) {
    std::size_t end = 0;
    double number = std::stod(cell, &end);
    std::size_t unit = end < cell.size() ? std::string("KMGT").find(cell[end]) + 1 : 0;
    return number * std::pow(1000, unit);
}

void setCell(ReportRow& row, const std::string& title, const std::string& cell) {
    if (cell.empty()) return;
    if (title == "REQ/S") row.requestsPerSecond = numberOf(cell);
    if (title == "SENT/S") row.bytesSentPerSecond = numberOf(cell);
    if (title == "ERR%" && cell != "-") row.errorShare = numberOf(cell) / 100;
    if (title == "MEAN ms" && cell != "-") row.meanResponse = numberOf(cell) / 1000;
    std::pair<const char*, std::uint32_t CounterBlock::*> counters[] = {
        {"REQUESTS", &CounterBlock::requests},
        {"4XX", &CounterBlock::clientErrors},
        {"5XX", &CounterBlock::serverErrors},
        {"SENT", &CounterBlock::bytesSent},
    };
    for (const auto& [name, counter] : counters) {
        if (title == name) row.counts[counter] = static_cast<std::uint64_t>(numberOf(cell));
    }
}

// A cell ends below the last letter of its title.
ReportRow rowOf(const std::string& line, const std::string& heading) {
    using Level = ReportRow::Level;
    ReportRow row;
    row.level = line.starts_with("  ")            ? Level::kCategory
                : line.starts_with("all traffic") ? Level::kTotal
                                                  : Level::kSite;
    std::regex title("[^ ]+( [^ ]+)*");
    std::size_t begin = 0;
    for (std::sregex_iterator at(heading.begin(), heading.end(), title), end; at != end; ++at) {
        auto until = static_cast<std::size_t>(at->position() + at->length());
        std::string cell(trim(begin < line.size() ? line.substr(begin, until - begin) : ""));
        if (begin == 0) row.name = cell;
        setCell(row, at->str(), cell);
        begin = until;
    }
    return row;
}

TEST(Report, LooksAsTheReadmeShowsIt) {
    std::vector<std::string> example = exampleOfReadme();
    ASSERT_GT(example.size(), 5U);
    Report report;
    for (std::size_t i = 1; i < example.size(); ++i) {
        report.rows.push_back(rowOf(example[i], example[0]));
    }
    ReportLayout layout;
    layout.width = 80;
    EXPECT_EQ(renderReport(report, layout), example);
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
