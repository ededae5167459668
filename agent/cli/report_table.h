// The table of sites and categories that `show` and `top` print.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "counts/report.h"

namespace tolvane::agent {

enum class ReportColumn {
    kName,
    kRequests,
    kRate,
    kErrorShare,
    kMean,
    kClientErrors,
    kServerErrors,
    kRedirects,
    kDropped,
    kConnections,
    kSent,
    kReceived,
    kSentRate,
};
inline constexpr int kReportColumns = 13;

struct ReportLayout {
    int width = 0;  // columns of the terminal; 0: unlimited
    bool colour = false;
    bool exactBytes = true;  // false: with a unit, such as 12.5M
    bool categories = true;
    std::optional<ReportColumn> sortBy;  // marked in the heading
    bool ascending = false;
};

// Sorts the sites, and the categories within their site.
void sortReport(Report& report, ReportColumn column, bool ascending);

// The heading and one line per row. Columns that do not fit are left out, the
// least important first.
std::vector<std::string> renderReport(const Report& report, const ReportLayout& layout);

const char* columnTitle(ReportColumn column);

}  // namespace tolvane::agent
