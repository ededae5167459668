// The line parser shared by all readers of server configuration files.
#pragma once

namespace tolvane {

// Size of the buffer for one line, terminating NUL included. A longer line is read
// in pieces, and each piece is parsed as a line.
inline constexpr int kLineSize = 1025;

// A directive, as pointers into its line.
struct Directive {
    const char* keyword;
    int keywordLength;
    const char* value;  // the text after the keyword, without leading blanks
};

// Splits `line`. False for comments, empty lines and lines without a keyword.
bool scanLine(const char* line, Directive& directive);

// Whether the keyword is exactly `name`, in any case.
bool keywordIs(const Directive& directive, const char* name);

const char* skipBlanks(const char* text);

// The decimal digits at `text` as a number; 0 if there are none, INT_MAX if too large.
int numberValue(const char* text);

// The word at `text` (up to the next blank), cut to the size of `word`.
template <int N>
void wordValue(const char* text, char (&word)[N]);

// Length of the word at `text`.
int wordLength(const char* text);

// Whether the two NUL-terminated texts are equal, in any case.
bool equalIgnoringCase(const char* a, const char* b);

// Copies `length` characters of `text`, cut to `size` - 1, and terminates them.
void copyText(char* to, int size, const char* text, int length);

template <int N>
void wordValue(const char* text, char (&word)[N]) {
    copyText(word, N, text, wordLength(text));
}

}  // namespace tolvane
