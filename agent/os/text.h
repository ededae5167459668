// Small text helpers: reading whole files with a bound, splitting, numbers.
#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace tolvane::agent {

inline constexpr std::size_t kMaxTextFile = 4U << 20;

// The file's content, or nothing if it cannot be read (with errno). At
// most `limit` bytes are read; a longer file counts as unreadable (EFBIG). A
// pipe without a writer reads as empty, unless kAwaited waits for the writer.
enum class PipeWriter { kIgnored, kAwaited };
std::optional<std::string> readFile(const std::string& path, std::size_t limit = kMaxTextFile,
                                    PipeWriter writer = PipeWriter::kIgnored);

// Writes a temporary file and renames it, so that a reader sees either the old or
// the new content. Throws Error.
void replaceFile(const std::string& path, std::string_view content);

// Creates or replaces a symbolic link. Throws Error.
void replaceLink(const std::string& path, const std::string& target);

// The absolute path without links; nothing, with errno, if there is no such file.
std::optional<std::string> realPath(const std::string& path);

// The text after the last slash.
std::string_view baseName(std::string_view path);

std::vector<std::string_view> splitLines(std::string_view text);
std::vector<std::string> splitWords(std::string_view line);
std::string_view trim(std::string_view text);
std::string lower(std::string_view text);

// The whole text as a decimal number that fits; signs and blanks are rejected
// except for a leading '-'.
std::optional<std::int32_t> parseInt32(std::string_view text);

// The text as valid UTF-8 without control characters: each byte of another kind
// becomes '?', so that the text never becomes longer. Applied wherever text is
// read from a file, a segment or the command line and shown later.
std::string printable(std::string_view text);

// Width of the text on a terminal, in columns.
std::size_t displayWidth(std::string_view text);

// The text cut to that many columns; '~' replaces the rest.
std::string cutToWidth(std::string_view text, std::size_t width);

// "1 server", "3 servers".
std::string plural(std::size_t count, std::string_view noun);

// "a", "a and b", "a, b and c".
std::string listOf(const std::vector<std::string>& items);

}  // namespace tolvane::agent
