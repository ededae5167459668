// The output of `top`: a full screen with single keys on a terminal, blocks of text
// elsewhere.
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

    // Whether a signal requested the end.
    static bool stopped();

  private:
    // Takes the first key off `typed_`.
    Key nextKey();

    bool interactive_;
    bool keys_;
    termios saved_{};
    std::string typed_;  // keys that were read and not yet returned
};

}  // namespace tolvane::agent
