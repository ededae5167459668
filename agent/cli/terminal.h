// Output to a terminal or a file, and colour.
#pragma once

#include <string>
#include <string_view>

namespace tolvane::agent {

struct TerminalSize {
    int columns;
    int rows;
};

bool isTerminal(int fd);

// The size of the terminal at fd; 80 by 24 when unknown.
TerminalSize terminalSize(int fd);

// Colour is for terminals only, and not when NO_COLOR is set.
enum class Colour { kPlain, kBold, kDim, kRed, kGreen, kYellow };
bool colourOn(int fd);
std::string coloured(std::string_view text, Colour colour, bool on);

// A progress line on standard error, removed at the end. Nothing is written unless
// standard error is a terminal.
class Progress {
  public:
    Progress();
    ~Progress();
    Progress(const Progress&) = delete;
    Progress& operator=(const Progress&) = delete;
    void show(std::string_view text);
    void clear();

  private:
    bool on_;
    bool shown_ = false;
};

// Thrown when the reader of standard output has gone: the program ends without
// a message.
struct ReaderGone {};

// Writes text to standard output. Throws ReaderGone or Error.
void writeOut(std::string_view text);

// Writes a message to standard error, if that can be written to.
void printError(std::string_view message);

}  // namespace tolvane::agent
