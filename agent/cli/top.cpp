#include <fmt/chrono.h>
#include <fmt/format.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <deque>
#include <nlohmann/json.hpp>
#include <thread>

#include "cli/commands.h"
#include "cli/exit_code.h"
#include "cli/report_table.h"
#include "cli/sample_json.h"
#include "cli/sample_notes.h"
#include "cli/terminal.h"
#include "cli/top_screen.h"
#include "os/error.h"
#include "os/text.h"

namespace tolvane::agent {

namespace {

using Clock = std::chrono::steady_clock;
using Seconds = std::chrono::duration<double>;

ReportColumn columnNamed(const std::string& name) {
    std::vector<std::string> known;
    for (int i = 0; i < kReportColumns; ++i) {
        auto column = static_cast<ReportColumn>(i);
        std::string title = lower(splitWords(columnTitle(column)).front());
        if (title == lower(name)) return column;
        known.push_back(title);
    }
    fail(ErrorKind::kInvalidInput, "no column '{}'; the columns are {}", printable(name),
         listOf(known));
}

// The recent samples. Their time span covers at least one publication of a
// threaded server, which publishes once per interval.
class SampleWindow {
  public:
    void add(Sample sample) {
        samples_.push_back(std::move(sample));
        double interval = std::clamp(samples_.back().config.info->interval, 1, 120);
        Seconds window(std::max(interval, 5.0));
        while (samples_.size() > 2 && samples_.back().when - samples_[1].when >= window) {
            samples_.pop_front();
        }
    }
    const Sample& latest() const { return samples_.back(); }
    double seconds() const { return Seconds(samples_.back().when - samples_.front().when).count(); }
    // From sample to sample, since another agent may have reset counts in between.
    CountSet added() const {
        CountSet sum;
        for (std::size_t i = 1; i < samples_.size(); ++i) {
            addIncrease(sum, samples_[i - 1].records, samples_[i].records);
        }
        return sum;
    }

  private:
    std::deque<Sample> samples_;
};

struct View {
    ReportColumn sortBy = ReportColumn::kRate;
    bool ascending = false;
    bool categories = true;
    std::size_t offset = 0;  // rows scrolled away
};

// Returns false to end.
bool handleKey(Key key, View& view, std::size_t page) {
    auto step = [&](int by) {
        view.sortBy = static_cast<ReportColumn>(
            (static_cast<int>(view.sortBy) + kReportColumns + by) % kReportColumns);
    };
    switch (key) {
        case Key::kQuit:
            return false;
        case Key::kLeft:
            step(-1);
            break;
        case Key::kRight:
            step(1);
            break;
        case Key::kUp:
            view.offset -= std::min<std::size_t>(view.offset, 1);
            break;
        case Key::kDown:
            view.offset += 1;
            break;
        case Key::kPageUp:
            view.offset -= std::min(view.offset, page);
            break;
        case Key::kPageDown:
            view.offset += page;
            break;
        case Key::kHome:
            view.offset = 0;
            break;
        case Key::kReverse:
            view.ascending = !view.ascending;
            break;
        case Key::kCategories:
            view.categories = !view.categories;
            break;
        case Key::kNone:
        case Key::kOther:
            break;
    }
    return true;
}

std::string fitted(const std::string& text, int columns) {
    return columns > 0 ? cutToWidth(text, static_cast<std::size_t>(columns)) : text;
}

class Top {
  public:
    explicit Top(const TopOptions& options)
        : options_(options), server_(selectServer(findServers(), options.server)) {
        if (!options.sortBy.empty()) view_.sortBy = columnNamed(options.sortBy);
    }
    int run();

  private:
    // False when the server has ended.
    bool refresh();
    Report reportNow() const;
    void draw(TopScreen& screen);
    // A JSON object per update. A signal ends the program between two lines.
    void writeJson();
    // Waits for the next refresh and handles keys; false to end.
    bool pause(TopScreen& screen);
    std::vector<std::string> heading(int columns) const;

    const TopOptions& options_;
    Server server_;
    SampleWindow samples_;
    View view_;
    std::string farewell_;
};

bool Top::refresh() {
    for (const Server& server : findServers()) {
        if (server.handoff.path != server_.handoff.path) continue;
        if (server.handoff.shmid != server_.handoff.shmid || !server.ownsSegment) break;
        if (server.state != RunState::kLive) {
            farewell_ = fmt::format("Server {}: {}: {}", nameOf(server_),
                                    runStateName(server.state), server.reason);
            return false;
        }
        server_ = server;
        samples_.add(takeSample(server));
        return true;
    }
    farewell_ = fmt::format("Server {} has ended.", nameOf(server_));
    return false;
}

std::vector<std::string> Top::heading(int columns) const {
    std::vector<std::string> lines = {fitted(serverHeading(server_, samples_.latest()), columns)};
    double seconds = samples_.seconds();
    std::string rates =
        seconds > 0 ? fmt::format("rates of the last {:.{}f} s", seconds, seconds < 9.5 ? 1 : 0)
                    : "rates after the next update";
    std::string keys =
        columns > 0 ? "; keys: < > sort, r reverse, c categories, arrows scroll, q quit" : "";
    lines.push_back(
        fitted(fmt::format("{:%H:%M:%S}, {}{}", fmt::localtime(std::time(nullptr)), rates, keys),
               columns));
    bool colour = colourOn(STDOUT_FILENO);
    for (const std::string& note : sampleNotes(server_, samples_.latest())) {
        lines.push_back(coloured(fitted("Note: " + note, columns), Colour::kYellow, colour));
    }
    return lines;
}

Report Top::reportNow() const {
    const Sample& sample = samples_.latest();
    Report report = buildReport(*sample.config.info, countsOf(sample.records), samples_.added(),
                                samples_.seconds());
    sortReport(report, view_.sortBy, view_.ascending);
    return report;
}

void Top::writeJson() {
    for (int written = 0; options_.count == 0 || written < options_.count; ++written) {
        if (written > 0) std::this_thread::sleep_for(Seconds(options_.delay));
        if (!refresh()) break;
        auto json = sampleToJson(server_, samples_.latest(), reportNow(), samples_.seconds(),
                                 sampleNotes(server_, samples_.latest()));
        writeOut(json.dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) + "\n");
    }
    if (!farewell_.empty()) printError(farewell_);
}

void Top::draw(TopScreen& screen) {
    Report report = reportNow();
    ReportLayout layout;
    layout.width = screen.columns();
    layout.colour = colourOn(STDOUT_FILENO);
    layout.exactBytes = false;
    layout.categories = view_.categories;
    layout.sortBy = view_.sortBy;
    layout.ascending = view_.ascending;
    std::vector<std::string> table = renderReport(report, layout);
    std::vector<std::string> lines = heading(screen.columns());
    // The heading and the total are fixed; the rows below them scroll.
    constexpr std::size_t kFixed = 2;
    std::size_t room = screen.interactive() ? static_cast<std::size_t>(screen.rows()) : SIZE_MAX;
    std::size_t shown = room > lines.size() + kFixed ? room - lines.size() - kFixed : 0;
    std::size_t rest = table.size() - std::min(table.size(), kFixed);
    view_.offset = std::min(view_.offset, rest - std::min(rest, shown));
    for (std::size_t i = 0; i < table.size(); ++i) {
        if (i < kFixed || i >= kFixed + view_.offset) lines.push_back(table[i]);
    }
    screen.draw(lines);
}

bool Top::pause(TopScreen& screen) {
    auto until = Clock::now() + Seconds(options_.delay);
    for (;;) {
        auto left = std::chrono::duration_cast<std::chrono::milliseconds>(until - Clock::now());
        if (TopScreen::stopped()) return false;
        if (left.count() <= 0) return true;
        Key key = screen.waitForKey(left);
        if (key == Key::kNone) continue;
        if (!handleKey(key, view_, static_cast<std::size_t>(std::max(screen.rows() - 5, 1))))
            return false;
        draw(screen);
    }
}

int Top::run() {
    if (options_.json) {
        writeJson();
        return farewell_.empty() ? kExitOk : kExitFinding;
    }
    {
        TopScreen screen;
        for (int shown = 0; !TopScreen::stopped(); ++shown) {
            if (options_.count > 0 && shown == options_.count) break;
            if (shown > 0 && !pause(screen)) break;
            if (!refresh()) break;
            draw(screen);
        }
    }
    // The full-screen output has disappeared with the alternate screen.
    if (!farewell_.empty()) writeOut(farewell_ + "\n");
    return farewell_.empty() ? kExitOk : kExitFinding;
}

}  // namespace

int topCommand(const TopOptions& options) {
    return Top(options).run();
}

}  // namespace tolvane::agent
