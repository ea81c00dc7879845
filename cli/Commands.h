// SPDX-License-Identifier: MIT
// The subcommands of `wcan`. Each checks its arguments before it asks for the
// libraries, so bad arguments are reported without touching any adapter.
#pragma once

#include <cstdio>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "common/Args.h"
#include "common/DeviceTypes.h"
#include "common/Runtime.h"

namespace wcantool {

// Exit codes.
constexpr int kExitOk = 0;
constexpr int kExitFailure = 1;
constexpr int kExitUsage = 2;

class Context {
public:
  explicit Context(std::optional<std::string> simSpec) : simSpec_(std::move(simSpec)) {}

  // Loads the libraries on first use: the simulated adapters with --sim or
  // WCAN_SIM, else the real libusb.
  Runtime &runtime();
  // Loads the simulation layer without any adapter plugged in (the demo
  // plugs in its own).
  Runtime &emptySimulation();

private:
  std::optional<std::string> simSpec_;
  std::unique_ptr<Runtime> runtime_;
};

struct Command {
  const char *name;
  const char *summary;
  const char *usage;
  std::vector<OptionSpec> options;
  int (*run)(Context &, const Args &);
};

int runList(Context &ctx, const Args &args);
int runInfo(Context &ctx, const Args &args);
int runDump(Context &ctx, const Args &args);
int runSend(Context &ctx, const Args &args);
int runGen(Context &ctx, const Args &args);
int runRecord(Context &ctx, const Args &args);
int runDemo(Context &ctx, const Args &args);
int runServe(Context &ctx, const Args &args);
int runBusload(Context &ctx, const Args &args);
int runTop(Context &ctx, const Args &args);
int runPlay(Context &ctx, const Args &args);

// The Wireshark capture program: `wcan` run under the name wcan-extcap.
int runExtcap(std::vector<std::string> argv);

// How much the tool says besides its results: -q only the results and
// errors, the default adds the library's warnings and errors, -v every line
// the library logs.
enum class Verbosity { Quiet, Normal, Verbose };

// The tool's results go to standard output; the library's log lines go to
// standard error, filtered by the verbosity (WCAN_LOG_CONSOLE and
// WCAN_LOG_CONSOLE_LEVEL, set before the library is loaded; a user's own
// setting wins unless -q or -v asks otherwise).
void separateLibraryLog(Verbosity verbosity);
FILE *out();
// Progress and summary lines on standard error, unless -q.
void note(const char *format, ...) __attribute__((format(printf, 1, 2)));
bool quiet();

// Ctrl-C and SIGTERM ask the running subcommand to stop; it then closes the
// adapter as on a normal end.
void installStopHandler();
bool stopRequested();

} // namespace wcantool
