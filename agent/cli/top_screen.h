// The terminal while `top` runs: full-screen with single keys when it is one,
// plain blocks of text when the output goes elsewhere.
#pragma once

#include <termios.h>

#include <chrono>
#include <string>
#include <vector>

namespace tolvane::agent {

enum class Key {
    kNone,
    kQuit,
    kLeft,
    kRight,
    kUp,
    kDown,
    kPageUp,
    kPageDown,
    kHome,
    kReverse,
    kCategories,
    kOther
};

class TopScreen {
  public:
    TopScreen();
    ~TopScreen();
    TopScreen(const TopScreen&) = delete;
    TopScreen& operator=(const TopScreen&) = delete;

    bool interactive() const { return interactive_; }
    int columns() const;  // 0 when the output is no terminal
    int rows() const;

    // Replaces what is shown, cut to the terminal's size.
    void draw(const std::vector<std::string>& lines);

    // The next key, or kNone when the time is up or the terminal changed.
    Key waitForKey(std::chrono::milliseconds limit);

    // A signal asked us to end.
    static bool stopped();

  private:
    // Takes the first key from what was typed.
    Key nextKey();

    bool interactive_;
    bool keys_;
    termios saved_{};
    std::string typed_;  // keys that were read and not yet handed out
};

}  // namespace tolvane::agent
