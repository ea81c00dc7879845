// SPDX-License-Identifier: MIT
#include <csignal>
#include <cstdarg>
#include <cstdio>
#include <cstdlib>

#include "cli/Commands.h"

namespace wcantool {
namespace {

volatile std::sig_atomic_t stopFlag = 0;
Verbosity verbosityChosen = Verbosity::Normal;

extern "C" void onStopSignal(int) { stopFlag = 1; }

} // namespace

Runtime &Context::runtime() {
  if (!runtime_) {
    LoadOptions options;
    options.simulate = simSpec_.has_value();
    options.simSpec = simSpec_.value_or("");
    runtime_ = std::make_unique<Runtime>(options);
  }
  return *runtime_;
}

Runtime &Context::emptySimulation() {
  if (!runtime_) {
    LoadOptions options;
    options.simulate = true;
    runtime_ = std::make_unique<Runtime>(options);
  }
  if (!runtime_->simulated())
    throw LoadError{"the demo needs the simulated adapters"};
  return *runtime_;
}

void separateLibraryLog(Verbosity verbosity) {
  verbosityChosen = verbosity;
  if (verbosity == Verbosity::Quiet) {
    setenv("WCAN_LOG_CONSOLE", "none", 1);
    return;
  }
  // Unless the user chose a destination, the library's console lines go to
  // standard error, where they never mix with frame lines or tables.
  setenv("WCAN_LOG_CONSOLE", "stderr", 0);
  if (verbosity == Verbosity::Verbose)
    setenv("WCAN_LOG_CONSOLE_LEVEL", "trace", 1);
  else
    setenv("WCAN_LOG_CONSOLE_LEVEL", "warn", 0);
}

bool quiet() { return verbosityChosen == Verbosity::Quiet; }

void note(const char *format, ...) {
  if (quiet())
    return;
  va_list args;
  va_start(args, format);
  std::vfprintf(stderr, format, args);
  va_end(args);
}

FILE *out() { return stdout; }

void installStopHandler() {
  struct sigaction sa {};
  sa.sa_handler = onStopSignal;
  sigemptyset(&sa.sa_mask);
  // No SA_RESTART: a pending wait returns early so the loop sees the flag.
  sa.sa_flags = 0;
  sigaction(SIGINT, &sa, nullptr);
  sigaction(SIGTERM, &sa, nullptr);
  // A reader that went away (`wcan dump ... | head`) ends the run through a
  // failed write, so the adapter is still closed properly.
  std::signal(SIGPIPE, SIG_IGN);
}

bool stopRequested() { return stopFlag != 0; }

} // namespace wcantool
