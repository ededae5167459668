#include "os/text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <cerrno>
#include <charconv>
#include <climits>
#include <cstdlib>
#include <cstring>
#include <random>

#include "os/error.h"

namespace tolvane::agent {

std::optional<std::string> readFile(const std::string& path, std::size_t limit, PipeWriter writer) {
    // A FIFO planted under a name we read must not hold us up.
    int waiting = writer == PipeWriter::kIgnored ? O_NONBLOCK : 0;
    int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC | waiting);
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

namespace {

// Two starts at the same time are not to write into one file.
std::string temporaryBeside(const std::string& path) {
    return fmt::format("{}.{:08x}.new", path, std::random_device{}());
}

}  // namespace

void replaceFile(const std::string& path, std::string_view content) {
    if (auto old = readFile(path); old && *old == content) return;
    std::string temporary = temporaryBeside(path);
    int fd = ::open(temporary.c_str(), O_WRONLY | O_CREAT | O_EXCL | O_CLOEXEC, 0644);
    if (fd < 0)
        fail(ErrorKind::kFailed, "{}: cannot be written: {}", temporary, std::strerror(errno));
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
        fail(ErrorKind::kFailed, "{}: cannot be written: {}", path, std::strerror(error));
    }
}

void replaceLink(const std::string& path, const std::string& target) {
    char present[PATH_MAX];
    ssize_t length = ::readlink(path.c_str(), present, sizeof present);
    if (length > 0 && target == std::string_view(present, static_cast<std::size_t>(length))) return;
    std::string temporary = temporaryBeside(path);
    if (::symlink(target.c_str(), temporary.c_str()) != 0 ||
        ::rename(temporary.c_str(), path.c_str()) != 0) {
        int error = errno;
        ::unlink(temporary.c_str());
        fail(ErrorKind::kFailed, "{}: cannot be created: {}", path, std::strerror(error));
    }
}

std::optional<std::string> realPath(const std::string& path) {
    char* real = ::realpath(path.c_str(), nullptr);
    if (real == nullptr) return std::nullopt;
    std::string result(real);
    std::free(real);
    return result;
}

std::string_view baseName(std::string_view path) {
    return path.substr(path.rfind('/') + 1);
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
    auto second = static_cast<unsigned char>(text[1]);
    // Longer forms of what has a shorter one, surrogates, and what lies beyond
    // the last character.
    bool overlong = (first == 0xE0 && second < 0xA0) || (first == 0xF0 && second < 0x90);
    bool none = (first == 0xED && second >= 0xA0) || (first == 0xF4 && second >= 0x90);
    // U+0080 to U+009F are control characters that some terminals obey.
    bool control = first == 0xC2 && second < 0xA0;
    return overlong || none || control ? 0 : length;
}

// Of a sequence that sequenceLength accepts.
std::uint32_t codePoint(std::string_view sequence) {
    constexpr std::uint32_t kFirstBits[] = {0, 0x7F, 0x1F, 0x0F, 0x07};
    std::uint32_t point = static_cast<unsigned char>(sequence[0]) & kFirstBits[sequence.size()];
    for (char c : sequence.substr(1)) point = point << 6 | (static_cast<unsigned char>(c) & 0x3F);
    return point;
}

// The locale may be "C", in which wcwidth() knows ASCII only.
std::size_t columnsOf(std::uint32_t point) {
    struct Range {
        std::uint32_t first, last;
        std::size_t columns;
    };
    static constexpr Range kUnusual[] = {
        {0x0300, 0x036F, 0},   {0x1100, 0x115F, 2},   {0x200B, 0x200F, 0},   {0x20D0, 0x20F0, 0},
        {0x2E80, 0x303E, 2},   {0x3041, 0xA4CF, 2},   {0xA960, 0xA97C, 2},   {0xAC00, 0xD7A3, 2},
        {0xF900, 0xFAFF, 2},   {0xFE00, 0xFE0F, 0},   {0xFE20, 0xFE2F, 0},   {0xFE30, 0xFE6F, 2},
        {0xFF00, 0xFF60, 2},   {0xFFE0, 0xFFE6, 2},   {0x1F300, 0x1F64F, 2}, {0x1F680, 0x1F6FF, 2},
        {0x1F900, 0x1F9FF, 2}, {0x20000, 0x3FFFD, 2},
    };
    for (const Range& range : kUnusual) {
        if (point >= range.first && point <= range.last) return range.columns;
    }
    return 1;
}

// Takes the first character off; a byte that is not UTF-8 counts as one.
std::string_view takeCharacter(std::string_view& text) {
    std::string_view character = text.substr(0, std::max<std::size_t>(sequenceLength(text), 1));
    text.remove_prefix(character.size());
    return character;
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
    std::size_t width = 0;
    while (!text.empty()) width += columnsOf(codePoint(takeCharacter(text)));
    return width;
}

std::string cutToWidth(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) return std::string(text);
    std::string result;
    for (std::size_t taken = 1;;) {
        std::string_view character = takeCharacter(text);
        taken += columnsOf(codePoint(character));
        if (taken > width) break;
        result += character;
    }
    return result + (width > 0 ? "~" : "");
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
