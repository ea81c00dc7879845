// SPDX-License-Identifier: MIT
// top: the identifiers on the bus, one row each, updated in place.
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>

#include "cli/Commands.h"
#include "cli/DbcSupport.h"
#include "cli/LiveFeed.h"
#include "cli/TopScreen.h"
#include "cli/TopView.h"
#include "common/DeviceClock.h"

namespace wcantool {
namespace {

using Clock = std::chrono::steady_clock;

constexpr auto kRedraw = std::chrono::milliseconds(100); // at most 10 a second
constexpr auto kLoadInterval = std::chrono::seconds(1);
constexpr int kEscape = 27;

struct TopOptions {
  double timeout = 10;
  bool once = false;
  double interval = 1;
  std::vector<std::string> filters;
};

TopOptions parseTopOptions(const Args &args) {
  TopOptions o;
  if (auto v = args.value("-t"))
    o.timeout = *v == "0" ? 0 : parseSeconds(*v, "-t");
  o.once = args.flag("--once");
  if (auto v = args.value("--interval"))
    o.interval = parseSeconds(*v, "--interval");
  o.filters = args.values("--filter");
  return o;
}

IdFilter parseFilters(const std::vector<std::string> &filters) {
  IdFilter filter;
  for (const std::string &f : filters) {
    std::string why;
    if (!filter.add(f, why))
      throw UsageError{why};
  }
  return filter;
}

// Feeds the view until `until` or a stop request, looking at the links (and
// a server's counters) once a second on the way.
void collect(LiveFeed &feed, TopView &view, Clock::time_point until) {
  std::vector<LiveFrame> frames;
  auto lastCheck = Clock::now();
  while (!stopRequested() && Clock::now() < until) {
    frames.clear();
    feed.poll(frames, 20);
    view.add(frames);
    if (Clock::now() - lastCheck >= kLoadInterval) {
      feed.checkLink();
      lastCheck = Clock::now();
    }
  }
}

int printOnce(LiveFeed &feed, TopView &view, double interval) {
  const auto start = Clock::now();
  collect(feed, view,
          start +
              std::chrono::duration_cast<Clock::duration>(std::chrono::duration<double>(interval)));
  view.closeInterval(std::chrono::duration<double>(Clock::now() - start).count());
  feed.checkLink();
  std::fputs(view.plainText(feed.channels(), hostEpochUs()).c_str(), out());
  return kExitOk;
}

// The keys of the full screen; false on quit.
class KeyHandler {
public:
  KeyHandler(TopView &view, TopScreen::Status &status) : view_(view), status_(status) {}

  // The rows on screen, for moving the selection.
  void setRowCount(size_t rows) { rowCount_ = rows; }

  bool handle(int key) {
    if (prompting_)
      return editPrompt(key), true;
    if (status_.help) {
      status_.help = false;
      return true;
    }
    status_.message.clear();
    switch (key) {
    case 'q':
    case 'Q':
      return false;
    case 'i':
      view_.sort = SortKey::Id;
      break;
    case 'r':
      view_.sort = SortKey::Rate;
      break;
    case 'c':
      view_.sort = SortKey::Count;
      break;
    case 'a':
      view_.sort = SortKey::Age;
      break;
    case 'p':
    case ' ':
      status_.paused = !status_.paused;
      break;
    case 'x':
      view_.clear();
      break;
    case TopScreen::kKeyUp:
    case TopScreen::kKeyDown:
      view_.moveSelection(key == TopScreen::kKeyUp ? -1 : 1, rowCount_);
      break;
    case 's':
    case '\n':
    case '\r':
      view_.showSignals = !view_.showSignals;
      break;
    case 't':
      view_.ascii = !view_.ascii;
      break;
    case 'h':
    case '?':
      status_.help = true;
      break;
    case 'f':
    case '+':
    case '-':
      prompting_ = true;
      input_ = key == 'f' ? "" : std::string(1, static_cast<char>(key));
      status_.prompt = &input_;
      break;
    default:
      break;
    }
    return true;
  }

private:
  void editPrompt(int key) {
    if (key == '\n' || key == '\r' || key == kEscape) {
      if (key != kEscape)
        applyPrompt();
      prompting_ = false;
      status_.prompt = nullptr;
    } else if ((key == 127 || key == 8 || key == 263) && !input_.empty()) {
      input_.pop_back();
    } else if (key >= 0x20 && key < 0x7F && input_.size() < 64) {
      input_ += static_cast<char>(key);
    }
  }

  void applyPrompt() {
    if (input_.find_first_not_of(' ') == std::string::npos) {
      view_.filter().clear();
      return;
    }
    std::string why;
    if (!view_.filter().add(input_, why))
      status_.message = why;
  }

  TopView &view_;
  TopScreen::Status &status_;
  bool prompting_ = false;
  std::string input_;
  size_t rowCount_ = 0;
};

int runScreen(LiveFeed &feed, TopView &view) {
  TopScreen screen;
  TopScreen::Status status;
  status.prompt = nullptr;
  KeyHandler keys(view, status);
  std::vector<LiveFrame> frames;
  auto lastDraw = Clock::time_point{};
  auto intervalStart = Clock::now();
  bool dirty = true;
  while (!stopRequested()) {
    frames.clear();
    feed.poll(frames, 20);
    view.add(frames);
    for (int k = screen.key(); k != -1; k = screen.key()) {
      if (!screen.isResize(k) && !keys.handle(k))
        return kExitOk;
      dirty = true;
    }
    const auto now = Clock::now();
    if (now - intervalStart >= kLoadInterval) {
      view.closeInterval(std::chrono::duration<double>(now - intervalStart).count());
      intervalStart = now;
      feed.checkLink();
    }
    if (now - lastDraw < kRedraw || (status.paused && !dirty))
      continue;
    const int64_t nowUs = hostEpochUs();
    if (!status.paused)
      view.expire(nowUs);
    keys.setRowCount(screen.draw(view, feed.channels(), nowUs, status));
    lastDraw = now;
    dirty = false;
  }
  return kExitOk;
}

} // namespace

int runTop(Context &ctx, const Args &args) {
  const TopOptions o = parseTopOptions(args);
  const IdFilter filter = parseFilters(o.filters);
  if (!o.once && (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO)))
    throw ToolError{"the full screen needs a terminal; use --once for plain text"};
  const std::optional<dbc::Database> db = loadDbcOption(args, "top");
  // The library's console lines would land in the middle of the screen; the
  // channel lines show what they would say (a lost adapter). Set before the
  // library loads, which reads it once.
  if (!o.once)
    setenv("WCAN_LOG_CONSOLE", "none", 1);
  std::unique_ptr<LiveFeed> feed = openLiveFeed(ctx, args);
  TopView view(feed->channels(), o.timeout, db ? &*db : nullptr);
  view.filter() = filter;
  return o.once ? printOnce(*feed, view, o.interval) : runScreen(*feed, view);
}

} // namespace wcantool
