// The terminal while a command repeats itself in place: frame after frame on the alternate screen,
// which gives way to what was there before when the command ends, is interrupted or suspended.
#pragma once

#include <ostream>
#include <string>

namespace Navctl {

// The terminal of standard output.
struct Terminal {
    size_t columns = 0, rows = 0;  // 0: none

    // As it is now; it can be resized at any time.
    static Terminal now();
};

// One at a time. REQUIRES: standard output is a terminal that understands ECMA-48.
class Screen {
  public:
    explicit Screen(std::ostream& out);
    ~Screen();
    Screen(const Screen&) = delete;
    Screen& operator=(const Screen&) = delete;

    // Replaces what is shown. The title and what fits below it are shown; the last line says how
    // many lines do not fit, and how many of those begin with a mark of a change.
    void draw(const std::string& title, const std::string& text);
    // Waits for a second, or until the terminal has another size.
    static void wait();

  private:
    std::ostream& out_;
};

}  // namespace Navctl
