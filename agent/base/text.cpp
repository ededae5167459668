#include "base/text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <cstring>

#include "base/error.h"

namespace tolvane::agent {

std::optional<std::string> readFile(const std::string& path, std::size_t limit) {
    // A FIFO planted under a name we read must not hold us up.
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK);
    if (fd < 0) return std::nullopt;
    std::string content;
    char buffer[16384];
    int error = 0;
    for (;;) {
        ssize_t got = ::read(fd, buffer, sizeof buffer);
        if (got < 0 && errno == EINTR) continue;
        if (got < 0) error = errno;
        if (got <= 0) break;
        content.append(buffer, static_cast<std::size_t>(got));
        if (content.size() > limit) {
            error = EFBIG;
            break;
        }
    }
    ::close(fd);
    if (error != 0) {
        errno = error;
        return std::nullopt;
    }
    return content;
}

void replaceFile(const std::string& path, std::string_view content) {
    if (auto old = readFile(path); old && *old == content) return;
    std::string temporary = path + ".new";
    ::unlink(temporary.c_str());
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0) fail(kExitFailed, "{}: cannot be written: {}", temporary, std::strerror(errno));
    ::fchmod(fd, 0644);
    bool written = true;
    while (!content.empty() && written) {
        ssize_t put = ::write(fd, content.data(), content.size());
        if (put < 0 && errno == EINTR) continue;
        written = put > 0;
        if (written) content.remove_prefix(static_cast<std::size_t>(put));
    }
    int error = errno;
    ::close(fd);
    if (!written || ::rename(temporary.c_str(), path.c_str()) != 0) {
        if (written) error = errno;
        ::unlink(temporary.c_str());
        fail(kExitFailed, "{}: cannot be written: {}", path, std::strerror(error));
    }
}

std::vector<std::string_view> splitLines(std::string_view text) {
    std::vector<std::string_view> lines;
    while (!text.empty()) {
        std::size_t end = text.find('\n');
        lines.push_back(text.substr(0, end));
        if (end == std::string_view::npos) break;
        text.remove_prefix(end + 1);
    }
    return lines;
}

std::vector<std::string> splitWords(std::string_view line) {
    std::vector<std::string> words;
    std::size_t at = 0;
    while (at < line.size()) {
        at = line.find_first_not_of(" \t\r\n\v\f", at);
        if (at == std::string_view::npos) break;
        std::size_t end = std::min(line.find_first_of(" \t\r\n\v\f", at), line.size());
        words.emplace_back(line.substr(at, end - at));
        at = end;
    }
    return words;
}

std::string_view trim(std::string_view text) {
    constexpr std::string_view kBlanks = " \t\r\n\v\f";
    std::size_t first = text.find_first_not_of(kBlanks);
    if (first == std::string_view::npos) return {};
    return text.substr(first, text.find_last_not_of(kBlanks) - first + 1);
}

std::string lower(std::string_view text) {
    std::string result(text);
    for (char& c : result) {
        if (c >= 'A' && c <= 'Z') c = static_cast<char>(c - 'A' + 'a');
    }
    return result;
}

bool equalIgnoringCase(std::string_view a, std::string_view b) {
    return lower(a) == lower(b);
}

std::optional<std::int32_t> parseInt32(std::string_view text) {
    std::int32_t value = 0;
    auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
    return value;
}

namespace {

// Length of the UTF-8 sequence at the start of the text, 0 when there is none.
std::size_t sequenceLength(std::string_view text) {
    auto first = static_cast<unsigned char>(text[0]);
    std::size_t length = 0;
    if (first < 0x80) return 1;
    if (first >= 0xC2 && first <= 0xDF) length = 2;
    if (first >= 0xE0 && first <= 0xEF) length = 3;
    if (first >= 0xF0 && first <= 0xF4) length = 4;
    if (length == 0 || text.size() < length) return 0;
    for (std::size_t i = 1; i < length; ++i) {
        if ((static_cast<unsigned char>(text[i]) & 0xC0) != 0x80) return 0;
    }
    // U+0080 to U+009F are control characters that some terminals obey.
    if (first == 0xC2 && static_cast<unsigned char>(text[1]) < 0xA0) return 0;
    return length;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        std::size_t length = sequenceLength(text);
        auto first = static_cast<unsigned char>(text[0]);
        if (length == 0 || first < 0x20 || first == 0x7F) {
            result += '?';
            text.remove_prefix(1);
        } else {
            result += text.substr(0, length);
            text.remove_prefix(length);
        }
    }
    return result;
}

std::size_t displayWidth(std::string_view text) {
    return static_cast<std::size_t>(std::count_if(text.begin(), text.end(), [](char c) {
        return (static_cast<unsigned char>(c) & 0xC0) != 0x80;
    }));
}

std::string plural(std::size_t count, std::string_view noun) {
    return fmt::format("{} {}{}", count, noun, count == 1 ? "" : "s");
}

std::string listOf(const std::vector<std::string>& items) {
    std::string result;
    for (std::size_t i = 0; i < items.size(); ++i) {
        if (i > 0) result += i + 1 == items.size() ? " and " : ", ";
        result += items[i];
    }
    return result;
}

}  // namespace tolvane::agent
