#include "os/text.h"

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>
#include <utf8proc.h>

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
    // A FIFO with that name must not block the reader.
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

// Two processes must not write the same temporary file.
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

// A character at the start of a text. A byte that is not valid UTF-8, or a control
// character, cannot be displayed.
struct Character {
    std::string_view bytes;
    std::size_t columns = 1;
    bool displayable = false;
};

// Removes the first character from the text.
Character takeCharacter(std::string_view& text) {
    utf8proc_int32_t point = -1;
    auto length = utf8proc_iterate(reinterpret_cast<const utf8proc_uint8_t*>(text.data()),
                                   static_cast<utf8proc_ssize_t>(text.size()), &point);
    Character character;
    character.bytes =
        text.substr(0, static_cast<std::size_t>(std::max<utf8proc_ssize_t>(length, 1)));
    text.remove_prefix(character.bytes.size());
    if (point < 0 || utf8proc_category(point) == UTF8PROC_CATEGORY_CC) return character;
    character.displayable = true;
    character.columns = static_cast<std::size_t>(std::max(utf8proc_charwidth(point), 0));
    return character;
}

}  // namespace

std::string printable(std::string_view text) {
    std::string result;
    while (!text.empty()) {
        Character character = takeCharacter(text);
        if (character.displayable) {
            result += character.bytes;
        } else {
            result.append(character.bytes.size(), '?');
        }
    }
    return result;
}

// By character, since the locale may be "C", in which wcswidth() supports ASCII only.
std::size_t displayWidth(std::string_view text) {
    std::size_t width = 0;
    while (!text.empty()) width += takeCharacter(text).columns;
    return width;
}

std::string cutToWidth(std::string_view text, std::size_t width) {
    if (displayWidth(text) <= width) return std::string(text);
    std::string result;
    for (std::size_t used = 1;;) {
        Character character = takeCharacter(text);
        used += character.columns;
        if (used > width) break;
        result += character.bytes;
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
