#include "cli/terminal.h"

#include <fmt/format.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>

#include "os/error.h"

namespace tolvane::agent {

bool isTerminal(int fd) {
    return ::isatty(fd) == 1;
}

TerminalSize terminalSize(int fd) {
    winsize size{};
    if (::ioctl(fd, TIOCGWINSZ, &size) != 0 || size.ws_col == 0 || size.ws_row == 0)
        return {80, 24};
    return {size.ws_col, size.ws_row};
}

bool colourOn(int fd) {
    const char* off = std::getenv("NO_COLOR");
    const char* terminal = std::getenv("TERM");
    return isTerminal(fd) && (off == nullptr || *off == '\0') &&
           (terminal == nullptr || std::string_view(terminal) != "dumb");
}

std::string coloured(std::string_view text, Colour colour, bool on) {
    if (!on || colour == Colour::kPlain) return std::string(text);
    int code = 0;
    switch (colour) {
        case Colour::kBold:
            code = 1;
            break;
        case Colour::kDim:
            code = 2;
            break;
        case Colour::kRed:
            code = 31;
            break;
        case Colour::kGreen:
            code = 32;
            break;
        case Colour::kYellow:
            code = 33;
            break;
        case Colour::kPlain:
            break;
    }
    return fmt::format("\x1b[{}m{}\x1b[0m", code, text);
}

Progress::Progress() : on_(isTerminal(STDERR_FILENO)) {}

Progress::~Progress() {
    clear();
}

void Progress::clear() {
    // Not with fmt, which throws when it cannot write; a destructor calls this.
    if (shown_) std::fputs("\r\x1b[K", stderr);
    shown_ = false;
}

void Progress::show(std::string_view text) {
    if (!on_) return;
    auto width = static_cast<std::size_t>(std::max(terminalSize(STDERR_FILENO).columns - 1, 0));
    fmt::print(stderr, "\r\x1b[K{}", text.substr(0, width));
    shown_ = true;
}

void writeOut(std::string_view text) {
    while (!text.empty()) {
        ssize_t put = ::write(STDOUT_FILENO, text.data(), text.size());
        if (put < 0 && errno == EINTR) continue;
        if (put < 0 && errno == EPIPE) throw ReaderGone{};
        if (put <= 0) fail(ErrorKind::kFailed, "standard output cannot be written");
        text.remove_prefix(static_cast<std::size_t>(put));
    }
}

void printError(std::string_view message) {
    std::string line = coloured("tolvane:", Colour::kRed, colourOn(STDERR_FILENO));
    line.append(" ").append(message).append("\n");
    // Not with fmt, which throws when it cannot write; the exit code has to be right even then.
    std::fputs(line.c_str(), stderr);
}

}  // namespace tolvane::agent
