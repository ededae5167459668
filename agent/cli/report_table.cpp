#include "cli/report_table.h"

#include <fmt/format.h>

#include <algorithm>
#include <array>
#include <numeric>

#include "cli/terminal.h"
#include "os/text.h"

namespace tolvane::agent {

using Level = ReportRow::Level;

namespace {

using CounterMember = std::uint32_t CounterBlock::*;

struct ColumnStyle {
    const char* title;
    int importance;  // the lowest is left out first
    bool inCategories;
    CounterMember counter;  // null: a derived value
};

constexpr std::array<ColumnStyle, kReportColumns> kStyles = {{
    {"SITE / CATEGORY", 99, true, nullptr},
    {"REQUESTS", 98, true, &CounterBlock::requests},
    {"REQ/S", 97, true, nullptr},
    {"ERR%", 96, true, nullptr},
    {"MEAN ms", 95, true, nullptr},
    {"4XX", 60, false, &CounterBlock::clientErrors},
    {"5XX", 61, false, &CounterBlock::serverErrors},
    {"3XX", 50, false, &CounterBlock::redirects},
    {"DROPPED", 55, true, &CounterBlock::droppedRequests},
    {"CONNS", 58, false, &CounterBlock::connections},
    {"SENT", 70, true, &CounterBlock::bytesSent},
    {"RECEIVED", 40, false, &CounterBlock::bytesReceived},
    {"SENT/S", 65, true, nullptr},
}};

const ColumnStyle& style(ReportColumn column) {
    return kStyles[static_cast<std::size_t>(column)];
}

std::string withUnit(double bytes) {
    constexpr std::array<const char*, 5> kUnits = {"", "K", "M", "G", "T"};
    std::size_t unit = 0;
    while (bytes >= 1000 && unit + 1 < kUnits.size()) {
        bytes /= 1000;
        ++unit;
    }
    return unit == 0 ? fmt::format("{:.0f}", bytes) : fmt::format("{:.1f}{}", bytes, kUnits[unit]);
}

std::string counterText(const ReportRow& row, CounterMember counter, const ReportLayout& layout) {
    bool bytes = kTrafficCounters[counterIndex(counter)].unit == CounterUnit::kBytes;
    std::uint64_t count = row.counts[counter];
    return bytes && !layout.exactBytes ? withUnit(static_cast<double>(count))
                                       : fmt::format("{}", count);
}

std::string cell(const ReportRow& row, ReportColumn column, const ReportLayout& layout) {
    if (row.level == Level::kCategory && !style(column).inCategories) return "";
    if (style(column).counter != nullptr) return counterText(row, style(column).counter, layout);
    switch (column) {
        case ReportColumn::kName:
            return (row.level == Level::kCategory ? "  " : "") + row.name;
        case ReportColumn::kRate:
            return fmt::format("{:.1f}", row.requestsPerSecond);
        case ReportColumn::kErrorShare:
            return row.errorShare ? fmt::format("{:.1f}", *row.errorShare * 100) : "-";
        case ReportColumn::kMean:
            return row.meanResponse ? fmt::format("{:.2f}", *row.meanResponse * 1000) : "-";
        case ReportColumn::kSentRate:
            return withUnit(row.bytesSentPerSecond);
        default:
            return "";
    }
}

double sortKey(const ReportRow& row, ReportColumn column) {
    if (CounterMember counter = style(column).counter) {
        return static_cast<double>(row.counts[counter]);
    }
    switch (column) {
        case ReportColumn::kRate:
            return row.requestsPerSecond;
        case ReportColumn::kErrorShare:
            return row.errorShare.value_or(-1);
        case ReportColumn::kMean:
            return row.meanResponse.value_or(-1);
        case ReportColumn::kSentRate:
            return row.bytesSentPerSecond;
        default:
            return 0;
    }
}

bool before(const ReportRow& a, const ReportRow& b, ReportColumn column, bool ascending) {
    if (column == ReportColumn::kName) return ascending ? a.name > b.name : a.name < b.name;
    double left = sortKey(a, column);
    double right = sortKey(b, column);
    return ascending ? left < right : left > right;
}

std::string heading(ReportColumn column, const ReportLayout& layout) {
    std::string title = columnTitle(column);
    if (layout.sortBy == column) title += layout.ascending ? "\u25b2" : "\u25bc";
    return title;
}

struct Grid {
    std::vector<ReportColumn> columns;
    std::vector<std::size_t> widths;
    std::vector<std::vector<std::string>> lines;  // the heading first
};

Grid makeGrid(const Report& report, const ReportLayout& layout) {
    Grid grid;
    for (int i = 0; i < kReportColumns; ++i) grid.columns.push_back(static_cast<ReportColumn>(i));
    grid.widths.resize(grid.columns.size());
    auto addLine = [&](auto&& textOf) {
        std::vector<std::string> line;
        for (std::size_t i = 0; i < grid.columns.size(); ++i) {
            line.push_back(textOf(grid.columns[i]));
            grid.widths[i] = std::max(grid.widths[i], displayWidth(line.back()));
        }
        grid.lines.push_back(std::move(line));
    };
    addLine([&](ReportColumn column) { return heading(column, layout); });
    for (const ReportRow& row : report.rows) {
        if (row.level == Level::kCategory && !layout.categories) continue;
        addLine([&](ReportColumn column) { return cell(row, column, layout); });
    }
    return grid;
}

std::size_t lineWidth(const Grid& grid) {
    return std::accumulate(grid.widths.begin(), grid.widths.end(), 2 * (grid.widths.size() - 1));
}

void removeColumn(Grid& grid, std::size_t index) {
    auto at = static_cast<std::ptrdiff_t>(index);
    grid.columns.erase(grid.columns.begin() + at);
    grid.widths.erase(grid.widths.begin() + at);
    for (auto& line : grid.lines) line.erase(line.begin() + at);
}

// Shortens the names first, then drops columns.
void fitGrid(Grid& grid, std::size_t width) {
    constexpr std::size_t kShortestName = 18;
    auto shrinkName = [&](std::size_t shortest) {
        std::size_t wide = lineWidth(grid);
        if (wide <= width) return;
        std::size_t excess = wide - width;
        std::size_t name = grid.widths[0];
        std::size_t spare = name > shortest ? name - shortest : 0;
        grid.widths[0] = name - std::min(excess, spare);
    };
    shrinkName(kShortestName);
    while (lineWidth(grid) > width && grid.columns.size() > 1) {
        auto least = std::min_element(grid.columns.begin(), grid.columns.end(),
                                      [](ReportColumn a, ReportColumn b) {
                                          return style(a).importance < style(b).importance;
                                      });
        removeColumn(grid, static_cast<std::size_t>(least - grid.columns.begin()));
    }
    shrinkName(1);
}

std::string drawLine(const Grid& grid, const std::vector<std::string>& cells) {
    std::string line;
    for (std::size_t i = 0; i < cells.size(); ++i) {
        std::string text = cutToWidth(cells[i], grid.widths[i]);
        std::string blanks(grid.widths[i] - std::min(displayWidth(text), grid.widths[i]), ' ');
        if (i > 0) line += "  ";
        line += grid.columns[i] == ReportColumn::kName ? text + blanks : blanks + text;
    }
    line.erase(line.find_last_not_of(' ') + 1);
    return line;
}

}  // namespace

const char* columnTitle(ReportColumn column) {
    return style(column).title;
}

void sortReport(Report& report, ReportColumn column, bool ascending) {
    struct Group {
        ReportRow site;
        std::vector<ReportRow> categories;
    };
    std::vector<Group> groups;
    std::vector<ReportRow> sorted;
    for (ReportRow& row : report.rows) {
        if (row.level == Level::kTotal) {
            sorted.push_back(std::move(row));
        } else if (row.level == Level::kSite) {
            groups.push_back({std::move(row), {}});
        } else {
            groups.back().categories.push_back(std::move(row));
        }
    }
    auto order = [=](const ReportRow& a, const ReportRow& b) {
        return before(a, b, column, ascending);
    };
    std::stable_sort(groups.begin(), groups.end(),
                     [&](const Group& a, const Group& b) { return order(a.site, b.site); });
    for (Group& group : groups) {
        std::stable_sort(group.categories.begin(), group.categories.end(), order);
        sorted.push_back(std::move(group.site));
        std::move(group.categories.begin(), group.categories.end(), std::back_inserter(sorted));
    }
    report.rows = std::move(sorted);
}

std::vector<std::string> renderReport(const Report& report, const ReportLayout& layout) {
    Grid grid = makeGrid(report, layout);
    if (layout.width > 0) fitGrid(grid, static_cast<std::size_t>(layout.width));
    std::vector<std::string> lines;
    std::size_t at = 0;
    lines.push_back(coloured(drawLine(grid, grid.lines[at++]), Colour::kBold, layout.colour));
    for (const ReportRow& row : report.rows) {
        if (row.level == Level::kCategory && !layout.categories) continue;
        Colour colour = row.level == Level::kCategory ? Colour::kDim : Colour::kPlain;
        constexpr double kManyErrors = 0.05;
        if (row.errorShare.value_or(0) >= kManyErrors) colour = Colour::kYellow;
        if (row.counts[&CounterBlock::serverErrors] > 0 &&
            row.errorShare.value_or(0) >= kManyErrors) {
            colour = Colour::kRed;
        }
        lines.push_back(coloured(drawLine(grid, grid.lines[at++]), colour, layout.colour));
    }
    return lines;
}

}  // namespace tolvane::agent
