// SPDX-License-Identifier: MIT
#include "cli/TopScreen.h"

#include <curses.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <cstdio>
#include <cstdlib>

#include "common/Args.h"

namespace wcantool {
namespace {

constexpr int kMinColumns = 60;

SCREEN *activeScreen = nullptr;

// A crash must not leave the terminal raw and blank: give it back, then die
// of the same signal.
extern "C" void onCrashSignal(int sig) {
  if (activeScreen)
    endwin();
  std::signal(sig, SIG_DFL);
  std::raise(sig);
}

constexpr int kCrashSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL, SIGABRT};

const char *const kHelp[] = {
    "wcan top keys",
    "",
    "  i r c a    sort by identifier, rate, count or age",
    "  f + -      filter: +ID[/MASK] shows, -ID[/MASK] hides (hex);",
    "             an empty filter shows everything again",
    "  p space    pause or resume the display",
    "  up down    select a row",
    "  s Enter    the selected row's signals (with --dbc) on or off",
    "  x          clear the table",
    "  t          show or hide the ASCII column",
    "  h ?        this help (any key closes it)",
    "  q          quit",
};

void drawLine(int row, const std::string &text, attr_t attr = A_NORMAL) {
  attron(attr);
  mvaddnstr(row, 0, text.c_str(), COLS);
  attroff(attr);
}

// The data bytes, the ones that changed since the identifier's previous
// frame highlighted as cansniffer marks them.
void drawData(const IdEntry &e, bool faded) {
  const std::string hex = TopView::hexData(e);
  if (e.kind == FrameKind::Remote || faded) {
    addnstr(hex.c_str(), std::max(0, COLS - getcurx(stdscr)));
    return;
  }
  for (unsigned i = 0; i < e.len && getcurx(stdscr) + 3 <= COLS; ++i) {
    if (i > 0)
      addch(' ');
    const bool changed = (e.changed >> i) & 1u;
    if (changed)
      attron(A_REVERSE);
    addnstr(hex.c_str() + 3 * i, 2);
    if (changed)
      attroff(A_REVERSE);
  }
}

// The signals pane above the last line, at most half the screen; returns the
// lines it took.
int drawSignals(const TopView &view, const std::vector<TopRow> &rows) {
  if (!view.showSignals)
    return 0;
  const std::vector<std::string> lines = view.signalLines(rows);
  const int height = std::min(static_cast<int>(lines.size()), LINES / 2);
  const int top = LINES - 1 - height;
  for (int i = 0; i < height; ++i)
    drawLine(top + i, lines[static_cast<size_t>(i)], i == 0 ? A_BOLD : A_NORMAL);
  return height;
}

void drawHelp() {
  const int rows = static_cast<int>(sizeof kHelp / sizeof kHelp[0]);
  for (int i = 0; i < rows && i + 2 < LINES; ++i)
    drawLine(i + 1, kHelp[i], i == 0 ? A_BOLD : A_NORMAL);
}

} // namespace

TopScreen::TopScreen() {
  if (!isatty(STDIN_FILENO) || !isatty(STDOUT_FILENO))
    throw ToolError{"the full screen needs a terminal; use --once for plain text"};
  activeScreen = newterm(nullptr, stdout, stdin);
  if (!activeScreen)
    throw ToolError{"cannot drive this terminal (TERM=" +
                    std::string(std::getenv("TERM") ? std::getenv("TERM") : "") + ")"};
  for (int sig : kCrashSignals)
    std::signal(sig, onCrashSignal);
  cbreak();
  noecho();
  nodelay(stdscr, TRUE);
  keypad(stdscr, TRUE);
  curs_set(0);
}

TopScreen::~TopScreen() {
  endwin();
  delscreen(activeScreen);
  activeScreen = nullptr;
  for (int sig : kCrashSignals)
    std::signal(sig, SIG_DFL);
}

int TopScreen::key() {
  switch (const int k = getch()) {
  case ERR:
    return -1;
  case KEY_UP:
    return kKeyUp;
  case KEY_DOWN:
    return kKeyDown;
  case KEY_ENTER:
    return '\n';
  default:
    return k;
  }
}

bool TopScreen::isResize(int key) const { return key == KEY_RESIZE; }

size_t TopScreen::draw(const TopView &view, const std::vector<LiveChannel> &channels, int64_t nowUs,
                       const Status &status) {
  erase();
  const int headerRows = static_cast<int>(channels.size()) + 2;
  if (COLS < kMinColumns || LINES < headerRows + 2) {
    char buf[96];
    std::snprintf(buf, sizeof buf, "terminal too small: %dx%d, need %dx%d", COLS, LINES,
                  kMinColumns, headerRows + 2);
    drawLine(0, buf);
    refresh();
    return 0;
  }
  char title[160];
  std::snprintf(title, sizeof title, "wcan top  sort: %s  filter: %s%s   h: help  q: quit",
                sortName(view.sort), view.filterText().empty() ? "none" : view.filterText().c_str(),
                status.paused ? "  PAUSED" : "");
  drawLine(0, title, A_BOLD);
  if (status.help) {
    drawHelp();
    refresh();
    return 0;
  }
  for (size_t i = 0; i < channels.size(); ++i)
    drawLine(static_cast<int>(i) + 1, view.channelLine(i, channels[i]));
  drawLine(headerRows - 1, view.columnHeader(), A_REVERSE);
  // No more rows than lines can show.
  const std::vector<TopRow> rows = view.rows(nowUs, static_cast<size_t>(std::max(LINES, 0)));
  const int room = LINES - headerRows - 1 - drawSignals(view, rows);
  for (int i = 0; i < room && i < static_cast<int>(rows.size()); ++i) {
    const TopRow &r = rows[static_cast<size_t>(i)];
    const attr_t attr = (r.faded ? A_DIM : A_NORMAL) |
                        (view.selected == static_cast<size_t>(i) ? A_BOLD | A_UNDERLINE : A_NORMAL);
    attron(attr);
    mvaddnstr(headerRows + i, 0, view.columns(*r.entry, nowUs).c_str(), COLS);
    drawData(*r.entry, r.faded);
    if (view.ascii && getcurx(stdscr) + 3 < COLS)
      addnstr(("  " + TopView::asciiData(*r.entry)).c_str(), COLS - getcurx(stdscr));
    attroff(attr);
  }
  std::string last = status.prompt ? "filter> " + *status.prompt : status.message;
  if (!status.prompt && rows.size() > static_cast<size_t>(room))
    last += (last.empty() ? "" : "  ") + std::to_string(rows.size() - room) + " more rows";
  drawLine(LINES - 1, last);
  refresh();
  return static_cast<size_t>(std::max(0, std::min<int>(room, static_cast<int>(rows.size()))));
}

} // namespace wcantool
