// `tolvane top` in terminals of different sizes, and without one.
#include <gtest/gtest.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstring>

#include "fake_server.h"
#include "os/text.h"

namespace tolvane::agent::test {
namespace {

class TopInTerminal {
  public:
    TopInTerminal(unsigned short columns, unsigned short rows) {
        winsize size = {rows, columns, 0, 0};
        pid_ = forkpty(&terminal_, nullptr, nullptr, &size);
        if (pid_ == 0) {
            setenv("TERM", "xterm", 1);
            execl(TOLVANE_PROGRAM, "tolvane", "top", "--delay", "60", nullptr);
            _exit(127);
        }
    }
    ~TopInTerminal() {
        if (pid_ > 0) {
            kill(pid_, SIGKILL);
            waitpid(pid_, nullptr, 0);
        }
        close(terminal_);
    }
    TopInTerminal(const TopInTerminal&) = delete;
    TopInTerminal& operator=(const TopInTerminal&) = delete;

    // What it writes until it has been quiet for a while.
    std::string screen() {
        std::string text;
        pollfd input = {terminal_, POLLIN, 0};
        for (int wait = 3000; poll(&input, 1, wait) > 0; wait = 200) {
            char bytes[4096];
            ssize_t got = read(terminal_, bytes, sizeof bytes);
            if (got <= 0) break;
            text.append(bytes, static_cast<std::size_t>(got));
        }
        return text;
    }
    void press(std::string_view key) {
        EXPECT_EQ(write(terminal_, key.data(), key.size()), ssize_t(key.size()));
    }
    void resize(unsigned short columns, unsigned short rows) {
        winsize size = {rows, columns, 0, 0};
        ioctl(terminal_, TIOCSWINSZ, &size);
    }
    void signal(int number) { kill(pid_, number); }
    // The exit code; -1 when it does not end.
    int end() {
        screen();
        int status = 0;
        for (int i = 0; i < 300; ++i) {
            if (waitpid(pid_, &status, WNOHANG) == pid_) {
                pid_ = 0;
                return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
            }
            usleep(10000);
        }
        return -1;
    }

  private:
    int terminal_ = -1;
    pid_t pid_ = -1;
};

// The lines of the last refresh, without escape sequences.
std::vector<std::string> lastLines(const std::string& screen) {
    std::string text =
        screen.substr(screen.rfind("\x1b[H") == std::string::npos ? 0 : screen.rfind("\x1b[H"));
    std::string plain;
    for (std::size_t i = 0; i < text.size(); ++i) {
        if (text[i] != '\x1b') {
            if (text[i] != '\r') plain += text[i];
            continue;
        }
        while (i + 1 < text.size() && std::isalpha(static_cast<unsigned char>(text[i])) == 0) ++i;
    }
    std::vector<std::string> lines;
    for (std::string_view line : splitLines(plain)) lines.emplace_back(line);
    return lines;
}

void fillServer(const FakeServer& server) {
    server.edit([](ConfigInfo& config, ResultStruct* records) {
        config.numSites = 10;
        for (int s = 0; s < 10; ++s) {
            std::string name = "site" + std::to_string(s) + ".example";
            std::memcpy(config.siteName[s], name.c_str(), name.size());
            config.numCategories[s] = 15;
            for (int c = 0; c < 15; ++c)
                config.categories[s][c].label[0] = static_cast<char>('a' + c);
            records[0].site[s].requests = static_cast<std::uint32_t>(s) * 10;
        }
        records[0].totalDirty = records[0].sitesDirty = records[0].categoriesDirty = 1;
        config.version = 1;
    });
}

TEST(Top, FitsATerminalOfAnySize) {
    FakeServer server;
    fillServer(server);
    for (auto [columns, rows] : {std::pair<unsigned short, unsigned short>{80, 24},
                                 {200, 60},
                                 {40, 10},
                                 {10, 5},
                                 {1, 1},
                                 {300, 2}}) {
        TopInTerminal top(columns, rows);
        auto lines = lastLines(top.screen());
        EXPECT_LE(lines.size(), rows) << columns << "x" << rows;
        for (const std::string& line : lines) EXPECT_LE(displayWidth(line), columns) << line;
        top.press("q");
        EXPECT_EQ(top.end(), 0);
    }
}

TEST(Top, HandlesKeysResizingAndSignals) {
    FakeServer server;
    fillServer(server);
    TopInTerminal top(100, 30);
    auto find = [](const std::vector<std::string>& lines, const std::string& text) {
        for (std::size_t i = 0; i < lines.size(); ++i) {
            if (lines[i].find(text) != std::string::npos) return static_cast<int>(i);
        }
        return -1;
    };
    auto lines = lastLines(top.screen());
    EXPECT_GE(find(lines, "REQ/S\u25bc"), 0);
    top.press("<");
    lines = lastLines(top.screen());
    EXPECT_GE(find(lines, "REQUESTS\u25bc"), 0);
    EXPECT_EQ(find(lines, "site9.example"), 4);  // most requests first
    top.press("r");
    lines = lastLines(top.screen());
    EXPECT_EQ(find(lines, "site0.example"), 4);
    top.press("c");
    lines = lastLines(top.screen());
    EXPECT_EQ(find(lines, "site1.example"), 5);  // its categories are folded away
    top.resize(100, 8);
    lines = lastLines(top.screen());
    EXPECT_LE(lines.size(), 8U);
    EXPECT_EQ(find(lines, "site9.example"), -1);
    top.press("\x1b[6~");
    top.press("\x1b[6~");
    top.press("\x1b[6~");
    top.screen();
    top.press("j");
    lines = lastLines(top.screen());
    EXPECT_GE(find(lines, "site9.example"), 0);
    EXPECT_GE(find(lines, "all traffic"), 0);
    top.signal(SIGTERM);
    EXPECT_EQ(top.end(), 0);
}

TEST(Top, WritesPlainBlocksIntoAPipe) {
    FakeServer server;
    fillServer(server);
    Outcome outcome = tolvane({"top", "--count", "2", "--delay", "0.1", "--sort", "requests"});
    EXPECT_EQ(outcome.code, 0);
    EXPECT_EQ(outcome.output.find('\x1b'), std::string::npos);
    std::size_t first = outcome.output.find("all traffic");
    EXPECT_NE(outcome.output.find("all traffic", first + 1), std::string::npos);
    EXPECT_EQ(outcome.output.find("last 0 s"), std::string::npos);
    EXPECT_EQ(tolvane({"top", "--sort", "colour"}).code, 2);
}

TEST(Top, EndsWithTheServer) {
    FakeServer server;
    fillServer(server);
    server.edit([](ConfigInfo& config, ResultStruct*) { config.version = kVersionRemoved; });
    EXPECT_EQ(tolvane({"top", "--count", "1"}).code, 1);
    server.edit([](ConfigInfo& config, ResultStruct*) { config.version = 1; });
    TopInTerminal top(80, 24);
    top.screen();
    server.kill();
    top.press("x");
    top.signal(SIGINT);
    EXPECT_EQ(top.end(), 0);
}

}  // namespace
}  // namespace tolvane::agent::test
