// SPDX-License-Identifier: MIT
// The terminal of `wcan top`, taken over with curses for as long as the
// object lives and given back as it was on every way out: quitting, Ctrl-C,
// an exception, and a crash signal.
#pragma once

#include <string>
#include <vector>

#include "cli/TopView.h"

namespace wcantool {

class TopScreen {
public:
  // Throws ToolError when standard input or output is not a terminal curses
  // can drive.
  TopScreen();
  ~TopScreen();
  TopScreen(const TopScreen &) = delete;
  TopScreen &operator=(const TopScreen &) = delete;

  // The next key, or -1 when none is waiting; the arrow keys as below.
  int key();
  static constexpr int kKeyUp = -2;
  static constexpr int kKeyDown = -3;
  bool isResize(int key) const;

  struct Status {
    bool paused = false;
    std::string message;       // the last complaint or hint
    const std::string *prompt; // the filter being typed, or null
    bool help = false;
  };
  // Returns how many rows of the table the screen shows.
  size_t draw(const TopView &view, const std::vector<LiveChannel> &channels, int64_t nowUs,
              const Status &status);
};

} // namespace wcantool
