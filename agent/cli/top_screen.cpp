#include "cli/top_screen.h"

#include <poll.h>
#include <signal.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "cli/terminal.h"

namespace tolvane::agent {

namespace {

volatile sig_atomic_t stopRequested = 0;
volatile sig_atomic_t sizeChanged = 0;

void onStop(int) {
    stopRequested = 1;
}
void onResize(int) {
    sizeChanged = 1;
}

// Without SA_RESTART, so that poll returns.
void handle(int signal, void (*handler)(int)) {
    struct sigaction action {};
    action.sa_handler = handler;
    ::sigaction(signal, &action, nullptr);
}

}  // namespace

TopScreen::TopScreen()
    : interactive_(isTerminal(STDOUT_FILENO)), keys_(interactive_ && isTerminal(STDIN_FILENO)) {
    for (int signal : {SIGINT, SIGTERM, SIGHUP}) handle(signal, onStop);
    if (!interactive_) return;
    handle(SIGWINCH, onResize);
    if (keys_) {
        ::tcgetattr(STDIN_FILENO, &saved_);
        termios raw = saved_;
        raw.c_lflag &= ~static_cast<tcflag_t>(ICANON | ECHO);
        raw.c_cc[VMIN] = 0;
        raw.c_cc[VTIME] = 0;
        raw.c_cc[VSUSP] = _POSIX_VDISABLE;  // the shell would inherit this screen
        ::tcsetattr(STDIN_FILENO, TCSANOW, &raw);
    }
    writeOut("\x1b[?1049h\x1b[?25l");  // the alternate screen, without a cursor
}

TopScreen::~TopScreen() {
    if (!interactive_) return;
    constexpr std::string_view kBack = "\x1b[?25h\x1b[?1049l";
    // A closed terminal is not an error.
    if (::write(STDOUT_FILENO, kBack.data(), kBack.size()) < 0) return;
    if (keys_) ::tcsetattr(STDIN_FILENO, TCSANOW, &saved_);
}

int TopScreen::columns() const {
    return interactive_ ? terminalSize(STDOUT_FILENO).columns : 0;
}

int TopScreen::rows() const {
    return interactive_ ? terminalSize(STDOUT_FILENO).rows : 0;
}

void TopScreen::draw(const std::vector<std::string>& lines) {
    std::string text;
    if (!interactive_) {
        for (const std::string& line : lines) text += line + "\n";
        writeOut(text + "\n");
        return;
    }
    // Lines are overwritten in place, which does not flicker.
    text = "\x1b[H";
    auto room = static_cast<std::size_t>(std::max(rows(), 1));
    for (std::size_t i = 0; i < std::min(lines.size(), room); ++i) {
        text += (i > 0 ? "\r\n" : "") + lines[i] + "\x1b[K";
    }
    writeOut(text + "\x1b[J");
}

Key TopScreen::waitForKey(std::chrono::milliseconds limit) {
    if (!typed_.empty()) return nextKey();
    pollfd input{keys_ ? STDIN_FILENO : -1, POLLIN, 0};
    int ready = ::poll(&input, 1, static_cast<int>(std::max<long>(limit.count(), 0)));
    if (sizeChanged != 0) {
        sizeChanged = 0;
        return Key::kOther;
    }
    if (ready <= 0) return Key::kNone;
    char bytes[16];
    ssize_t got = ::read(STDIN_FILENO, bytes, sizeof bytes);
    // The terminal was closed.
    if (got <= 0) return Key::kQuit;
    typed_.assign(bytes, static_cast<std::size_t>(got));
    return nextKey();
}

Key TopScreen::nextKey() {
    struct Binding {
        std::string_view bytes;
        Key key;
    };
    static constexpr Binding kBindings[] = {
        {"q", Key::kQuit},       {"Q", Key::kQuit},         {"\x1b[D", Key::kLeft},
        {"<", Key::kLeft},       {"\x1b[C", Key::kRight},   {">", Key::kRight},
        {"\x1b[A", Key::kUp},    {"k", Key::kUp},           {"\x1b[B", Key::kDown},
        {"j", Key::kDown},       {"\x1b[5~", Key::kPageUp}, {"\x1b[6~", Key::kPageDown},
        {"\x1b[H", Key::kHome},  {"g", Key::kHome},         {"r", Key::kReverse},
        {"c", Key::kCategories},
    };
    for (const Binding& binding : kBindings) {
        if (typed_.compare(0, binding.bytes.size(), binding.bytes) != 0) continue;
        typed_.erase(0, binding.bytes.size());
        return binding.key;
    }
    // Skips the whole sequence of an unknown key: its letters are not commands.
    bool sequence = typed_.compare(0, 2, "\x1b[") == 0;
    std::size_t end = sequence ? typed_.find_first_not_of("0123456789;", 2) : 0;
    typed_.erase(0, end == std::string::npos ? end : end + 1);
    return Key::kOther;
}

bool TopScreen::stopped() {
    return stopRequested != 0;
}

}  // namespace tolvane::agent
