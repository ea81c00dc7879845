// SPDX-License-Identifier: MIT
// wcan: command line front end of the library, for real or simulated adapters.
#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "cli/Commands.h"
#include "cli/LiveFeed.h"
#include "cli/RecordFields.h"
#include "common/DeviceTypes.h"

namespace wcantool {
namespace {

const char kProgramUsage[] =
    "usage: wcan [-q|-v] [--sim SPEC] COMMAND [ARGS...]\n"
    "       wcan --version\n"
    "\n"
    "Commands:\n"
    "%s"
    "\n"
    "Adapters are found through libusb. With --sim SPEC, or when the environment\n"
    "variable WCAN_SIM is set, simulated adapters are used instead: SPEC is a\n"
    "comma-separated list of device types, e.g. --sim 41,4,61. In a simulated\n"
    "adapter, channel 0 is cabled to channel 1 (and 2 to 3, ...).\n"
    "\n"
    "The library's own log lines are shown only when they are warnings or\n"
    "errors, on standard error. -v shows all of them; -q shows none and no\n"
    "progress either: only the command's output and its errors.\n"
    "\n"
    "Run 'wcan COMMAND --help' for the arguments of a command.\n";

const char kListUsage[] = "usage: wcan list\n"
                          "\n"
                          "Lists the attached adapters of every supported type with their type\n"
                          "numbers, index, USB ids, bus position and channel count.\n";

const char kInfoUsage[] = "usage: wcan info TYPE INDEX\n"
                          "\n"
                          "Opens adapter INDEX of device type TYPE and prints its board "
                          "information.\n";

const char kDumpUsage[] =
    "usage: wcan dump TYPE INDEX CHANNEL [options]\n"
    "       wcan dump --connect HOST[:PORT] BUS [options]\n"
    "\n"
    "Initialises and starts a channel and prints every received frame as a\n"
    "candump -L log line, e.g. (1700000000.123456) wcan41-0-1 123#DEADBEEF,\n"
    "until Ctrl-C, --count or --timeout ends it. Each frame carries the\n"
    "adapter's own time stamp as host time. With --connect the frames come\n"
    "from bus BUS (e.g. wcan41-0-1) of a 'wcan serve' server (port 29536\n"
    "unless given), with the server's time stamps and channel settings.\n"
    "\n"
    "Options:\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --fd             open the channel for CAN FD (CAN FD adapters)\n"
    "  --listen-only    receive without acknowledging frames on the bus\n"
    "  --count N        stop after N frames\n"
    "  --timeout MS     stop when no frame arrived for MS milliseconds; the exit\n"
    "                   status is 1 if --count frames had not arrived by then\n"
    "  --log FILE       also write the frames to FILE as log lines\n"
    "  --filter ID:MASK show only frames whose id agrees with ID under MASK\n"
    "                   (hex; ID~MASK: that disagrees; 8 digits: extended id);\n"
    "                   repeatable, a frame passing any filter is shown\n"
    "  -t a|d|z|A       human-readable lines with absolute, delta, relative to\n"
    "                   the first frame, or date-and-time stamps\n"
    "  -a               human-readable lines with an ASCII column\n"
    "  -L               log lines (the default)\n"
    "  --dbc FILE       decode the frames with the DBC file FILE: the signals of a\n"
    "                   known message follow its line, indented; under log lines\n"
    "                   on standard error, so that standard output and the --log\n"
    "                   file stay candump logs\n"
    "  --tx CH:FRAME    once the channel runs, start channel CH of the same adapter\n"
    "                   alike and send FRAME on it (repeatable): a loopback test\n"
    "                   through a cable between two ports, or the simulation\n"
    "  --connect HOST[:PORT]  use bus BUS of a server instead of a local adapter\n"
    "\n"
    "Capture (Wireshark reads the files and the stream):\n"
    "  CHANNEL may list several channels (0,1) or be 'all'; with --connect several\n"
    "  BUS names may follow. Their frames come in one stream, in time order.\n"
    "  -w FILE          write pcapng (link type 227) to FILE ('-': standard output)\n"
    "  --format F       text (candump -L lines) or pcapng, on standard output\n"
    "  -C SIZE          start a new file (FILE1, FILE2, ...) before FILE passes SIZE\n"
    "                   millions of bytes (or SIZE with k, M, G)\n"
    "  -G SECONDS       start a new file every SECONDS seconds\n";

const char kPlayUsage[] =
    "usage: wcan play FILE TYPE INDEX CHANNEL [options]\n"
    "       wcan play FILE --connect HOST[:PORT] BUS [options]\n"
    "\n"
    "Sends the frames of a candump -L log or a pcapng capture on a channel, or on\n"
    "bus BUS of a 'wcan serve' server, keeping the recorded gaps between them.\n"
    "\n"
    "Options:\n"
    "  --speed X        play X times as fast (0.5: half speed)\n"
    "  --fast           send back to back, ignoring the time stamps\n"
    "  --loop N         play the file N times\n"
    "  --map SRC=DST    send what was recorded on bus SRC to channel (or server\n"
    "                   bus) DST; repeatable. With --map, buses without a route are\n"
    "                   skipped and counted, and CHANNEL or BUS may be left out\n"
    "  --skip-bad       report a bad log line or block and go on (default: stop)\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --connect HOST[:PORT]  use a server instead of a local adapter\n";

const char kSendUsage[] =
    "usage: wcan send TYPE INDEX CHANNEL FRAME... [options]\n"
    "       wcan send --connect HOST[:PORT] BUS FRAME...\n"
    "       wcan send ... --dbc FILE MESSAGE [SIGNAL=VALUE...]\n"
    "\n"
    "Initialises and starts a channel and sends the frames, given in cansend\n"
    "syntax, or sends them on bus BUS of a 'wcan serve' server:\n"
    "  123#DEADBEEF     standard id, up to 8 data bytes ('.' may separate bytes)\n"
    "  12345678#0102    extended id (8 hex digits)\n"
    "  123#R  123#R4    remote frame, optional length\n"
    "  123##1AABBCC     CAN FD frame; flag digit 1 = bit-rate switch, 0 = none;\n"
    "                   0..8, 12, 16, 20, 24, 32, 48 or 64 data bytes\n"
    "With --dbc the one frame of message MESSAGE is built from signal values:\n"
    "numbers in physical units or names from the value table, e.g.\n"
    "  --dbc car.dbc EngineData EngineSpeed=800 Gear=Drive\n"
    "Signals not given are sent as zero bits.\n"
    "\n"
    "Options:\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --fd             open the channel for CAN FD even without CAN FD frames\n"
    "  --dbc FILE       build the frame from signal values with the DBC file FILE\n"
    "  --connect HOST[:PORT]  use bus BUS of a server instead of a local adapter\n";

const char kGenUsage[] =
    "usage: wcan gen TYPE INDEX CHANNEL [options]\n"
    "       wcan gen --connect HOST[:PORT] BUS [options]\n"
    "\n"
    "Sends generated frames until Ctrl-C or --count, showing the progress on a\n"
    "terminal and a summary line at the end; with --connect on bus BUS of a\n"
    "'wcan serve' server.\n"
    "\n"
    "Options:\n"
    "  --count N        stop after N frames (default: run until Ctrl-C)\n"
    "  --rate FPS       frames per second (default: as fast as possible)\n"
    "  --fd             send CAN FD frames\n"
    "  --brs            CAN FD frames with bit-rate switch\n"
    "  --extended       extended (29-bit) ids\n"
    "  --id ID|r|i      fixed hex id, r random (default), i incrementing\n"
    "  --len N|r|i      fixed length, r random (default), i incrementing\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --connect HOST[:PORT]  use bus BUS of a server instead of a local adapter\n";

const char kRecordUsage[] =
    "usage: wcan record TYPE INDEX CHANNEL ACTION [ARGS] [ACTION [ARGS]]...\n"
    "\n"
    "Reads and writes the recording settings of a CAN recorder channel and\n"
    "manages its recording filters. Several actions run in order on one\n"
    "opening of the recorder. Actions:\n"
    "  show                       print the recording settings\n"
    "  set FIELD=VALUE...         change settings (read, change, write back)\n"
    "  filter-info                number of stored filters and filter state\n"
    "  filter-show N              stored filter number N\n"
    "  filter-add FIRST LAST      add an id range (hex ids) [--id-type N]\n"
    "  filter-clear               remove every filter\n"
    "  filter-enable              record only frames that pass the filters\n"
    "  filter-disable             record every frame\n"
    "\n"
    "Settings fields: %s\n";

const char kSimUsage[] =
    "usage: wcan sim status\n"
    "       wcan sim unplug|replug|garble TYPE INDEX\n"
    "       wcan sim stop\n"
    "\n"
    "Shows and changes the simulated adapters and buses that every process of\n"
    "this user running with --sim or WCAN_SIM shares (unless WCAN_SIM_PRIVATE=1),\n"
    "through the simulation host in $XDG_RUNTIME_DIR (else /tmp/wcan-sim-UID).\n"
    "\n"
    "  status             the adapters, their channels and bit rates, and the\n"
    "                     processes (pid, program) that use them\n"
    "  unplug TYPE INDEX  pull adapter INDEX of that type out of its USB port\n"
    "  replug TYPE INDEX  plug it in again\n"
    "  garble TYPE INDEX  send garbage on the adapter's receive stream\n"
    "  stop               end the host (processes still using it start a new one)\n";

const char kDemoUsage[] =
    "usage: wcan demo [--rounds N] [--quiet]\n"
    "\n"
    "Attaches a simulated CAN FD adapter (type 41) and a simulated classic\n"
    "adapter (type 4), prints their board information, starts channels 0 and 1\n"
    "of each at 500 kbit/s (CAN FD data phase 2 Mbit/s), sends a burst of\n"
    "classic and CAN FD frames from channel 0, prints what channel 1 receives\n"
    "as candump -L lines and ends with a summary table. Exits 1 if a frame was\n"
    "lost.\n"
    "\n"
    "Options:\n"
    "  --rounds N       send the burst N times (default 1)\n"
    "  --quiet          do not print the received frames\n";

const char kServeUsage[] =
    "usage: wcan serve [options]\n"
    "\n"
    "Serves every channel of every attached adapter as a bus of the socketcand\n"
    "text protocol, named wcan<TYPE>-<INDEX>-<CHANNEL> (wcan41-0-1). A client's\n"
    "'< open BUS >' opens the adapter once for all clients and starts the\n"
    "channel with the server's bit rates; it stops when its last client leaves\n"
    "and the adapter closes with its last channel. Clients on one bus each get\n"
    "every frame, the others' sent frames included. Runs until Ctrl-C or\n"
    "SIGTERM. The protocol has no authentication: reach a remote server\n"
    "through an SSH tunnel rather than with --bind.\n"
    "\n"
    "Options:\n"
    "  --bind ADDR      listen on this IP address (default 127.0.0.1)\n"
    "  --port N         TCP port (default 29536; 0 picks a free one, which the log\n"
    "                   names)\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --fd             open the channels of CAN FD adapters for CAN FD\n"
    "  --client-buffer N  bytes of output a client may leave unread before it\n"
    "                   misses frames (default 1048576)\n"
    "  --web [ADDR:]PORT  also serve a bus monitor to browsers on this port\n"
    "                   (address 127.0.0.1 unless given; port 0 picks a free\n"
    "                   one); the address to open, printed at start, holds the\n"
    "                   access token\n";

const char kBusloadUsage[] =
    "usage: wcan busload TYPE INDEX [CHANNEL...] [options]\n"
    "       wcan busload --connect HOST[:PORT] BUS... [options]\n"
    "\n"
    "Starts the channels (all of the adapter's when none is named) and prints\n"
    "one line per channel and interval, as canbusload does: the bus with its\n"
    "bit rates, frames, bits on the wire (stuff bits counted from each frame's\n"
    "bits), payload bits, bits sent at the data bit rate and the load.\n"
    "\n"
    "Options:\n"
    "  -i SECONDS       interval (default 1)\n"
    "  -b               add a bar graph of the load\n"
    "  -s               add the minimum, maximum and 1/5/15-minute load averages\n"
    "  --count N        stop after N intervals\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --fd             open the channels for CAN FD (CAN FD adapters)\n"
    "  --listen-only    receive without acknowledging frames on the bus\n"
    "  --connect HOST[:PORT]  watch buses of a 'wcan serve' server; --bitrate and\n"
    "                   --dbitrate then give their rates\n";

const char kTopUsage[] =
    "usage: wcan top TYPE INDEX [CHANNEL...] [options]\n"
    "       wcan top --connect HOST[:PORT] BUS... [options]\n"
    "\n"
    "Shows the channels' load and one row per identifier and channel, updated\n"
    "in place: kind, length, count, rate, mean period and jitter, time since\n"
    "the last frame and the data, with the bytes that changed highlighted.\n"
    "Keys: i r c a sort by identifier, rate, count, age; f + - filter;\n"
    "up/down select a row; s or Enter its signals (--dbc); p pause; x clear;\n"
    "t ASCII column; h help; q quit.\n"
    "\n"
    "Options:\n"
    "  -t SECONDS       identifiers unseen for half this time dim, and leave at\n"
    "                   it (default 10; 0 keeps them)\n"
    "  --filter F       +ID[/MASK] or -ID[/MASK] (hex), repeatable\n"
    "  --once           print the table once as plain text after --interval\n"
    "  --interval S     seconds to collect for --once (default 1)\n"
    "  --dbc FILE       message names from a DBC file, and signals on s/Enter\n"
    "  --bitrate N      nominal (arbitration) bit rate, default 500000\n"
    "  --dbitrate N     CAN FD data bit rate, default 2000000\n"
    "  --fd             open the channels for CAN FD (CAN FD adapters)\n"
    "  --listen-only    receive without acknowledging frames on the bus\n"
    "  --connect HOST[:PORT]  watch buses of a 'wcan serve' server\n";

std::vector<OptionSpec> withLiveFeed(std::vector<OptionSpec> options) {
  std::vector<OptionSpec> feed = liveFeedOptions();
  options.insert(options.end(), feed.begin(), feed.end());
  return options;
}

const std::vector<Command> &commands() {
  static const std::vector<Command> table = {
      {"list", "list the attached adapters", kListUsage, {}, runList},
      {"info", "print an adapter's board information", kInfoUsage, {}, runInfo},
      {"dump",
       "print received frames as candump -L lines",
       kDumpUsage,
       {{"--bitrate", true},
        {"--dbitrate", true},
        {"--fd", false},
        {"--listen-only", false},
        {"--count", true},
        {"--timeout", true},
        {"--log", true},
        {"--tx", true},
        {"--connect", true},
        {"--dbc", true},
        {"-w", true},
        {"--format", true},
        {"-C", true},
        {"-G", true},
        {"--filter", true},
        {"-t", true},
        {"-a", false},
        {"-L", false}},
       runDump},
      {"play",
       "replay a candump log or pcapng capture",
       kPlayUsage,
       {{"--speed", true},
        {"--fast", false},
        {"--loop", true},
        {"--map", true},
        {"--skip-bad", false},
        {"--bitrate", true},
        {"--dbitrate", true},
        {"--fd", false},
        {"--connect", true}},
       runPlay},
      {"send",
       "send frames given in cansend syntax",
       kSendUsage,
       {{"--bitrate", true},
        {"--dbitrate", true},
        {"--fd", false},
        {"--dbc", true},
        {"--connect", true}},
       runSend},
      {"gen",
       "generate traffic",
       kGenUsage,
       {{"--count", true},
        {"--rate", true},
        {"--fd", false},
        {"--brs", false},
        {"--extended", false},
        {"--id", true},
        {"--len", true},
        {"--bitrate", true},
        {"--dbitrate", true},
        {"--connect", true}},
       runGen},
      {"record", "configure a CAN recorder", kRecordUsage, {{"--id-type", true}}, runRecord},
      {"serve",
       "serve the adapters' channels over TCP",
       kServeUsage,
       {{"--bind", true},
        {"--port", true},
        {"--bitrate", true},
        {"--dbitrate", true},
        {"--fd", false},
        {"--client-buffer", true},
        {"--web", true}},
       runServe},
      {"busload", "print the load of a bus", kBusloadUsage,
       withLiveFeed({{"-i", true}, {"-b", false}, {"-s", false}, {"--count", true}}), runBusload},
      {"top", "watch the identifiers on a bus", kTopUsage,
       withLiveFeed({{"-t", true},
                     {"--filter", true},
                     {"--once", false},
                     {"--interval", true},
                     {"--dbc", true}}),
       runTop},
      {"sim", "show and change the shared simulation", kSimUsage, {}, runSim},
      {"demo",
       "run the demonstration on simulated adapters",
       kDemoUsage,
       {{"--rounds", true}, {"--quiet", false}},
       runDemo},
  };
  return table;
}

void printProgramUsage(FILE *out) {
  std::string list;
  for (const Command &c : commands()) {
    char line[128];
    std::snprintf(line, sizeof line, "  %-9s %s\n", c.name, c.summary);
    list += line;
  }
  std::fprintf(out, kProgramUsage, list.c_str());
}

const Command *findCommand(const std::string &name) {
  for (const Command &c : commands())
    if (name == c.name)
      return &c;
  return nullptr;
}

// -q and -v wherever they stand before "--"; the last one counts.
Verbosity takeVerbosity(std::vector<std::string> &argv) {
  Verbosity v = Verbosity::Normal;
  for (size_t i = 0; i < argv.size() && argv[i] != "--";) {
    if (argv[i] == "-q" || argv[i] == "-v" || argv[i] == "--verbose") {
      v = argv[i] == "-q" ? Verbosity::Quiet : Verbosity::Verbose;
      argv.erase(argv.begin() + static_cast<long>(i));
    } else {
      ++i;
    }
  }
  return v;
}

// The simulated adapters are device type numbers; anything else would be
// ignored by the simulation and leave the user with no adapter.
void checkSimSpec(const std::string &spec, const char *source) {
  if (spec.empty())
    return; // the simulation without adapters
  size_t pos = 0;
  while (pos <= spec.size()) {
    const size_t comma = std::min(spec.find(',', pos), spec.size());
    const std::string item = spec.substr(pos, comma - pos);
    const bool digits = !item.empty() && item.size() < 10 &&
                        item.find_first_not_of("0123456789") == std::string::npos;
    if (!digits || !findDeviceType(static_cast<unsigned>(std::stoul(item))))
      throw UsageError{std::string(source) + " names " +
                       (item.empty() ? std::string("an empty item") : "'" + item + "'") +
                       ", which is no device type; the types are " + supportedTypesText()};
    pos = comma + 1;
  }
}

int usageError(const std::string &who, const std::string &message, const std::string &helpCall) {
  std::fprintf(stderr, "%s: %s\nRun '%s' for its usage.\n", who.c_str(), message.c_str(),
               helpCall.c_str());
  return kExitUsage;
}

bool wantsHelp(const std::vector<std::string> &args) {
  for (const std::string &a : args) {
    if (a == "--")
      return false;
    if (a == "--help" || a == "-h")
      return true;
  }
  return false;
}

} // namespace

std::string formatUsage(const Command &cmd) {
  if (cmd.run == runRecord) {
    std::string fields = recordFieldNames();
    std::vector<char> buf(std::strlen(cmd.usage) + fields.size() + 1);
    std::snprintf(buf.data(), buf.size(), cmd.usage, fields.c_str());
    return buf.data();
  }
  return cmd.usage;
}

int runMain(std::vector<std::string> argv) {
  std::optional<std::string> sim;
  const Verbosity verbosity = takeVerbosity(argv);
  try {
    sim = takeSimOption(argv);
    if (sim)
      checkSimSpec(*sim, "--sim");
  } catch (const UsageError &e) {
    return usageError("wcan", e.message, "wcan --help");
  }
  if (argv.empty()) {
    printProgramUsage(stderr);
    return kExitUsage;
  }
  if (argv[0] == "--version") {
    std::fprintf(stdout, "wcan %s\n", WCAN_VERSION);
    return kExitOk;
  }
  if (argv[0] == "--help" || argv[0] == "-h" || argv[0] == "help") {
    const Command *cmd = argv.size() > 1 ? findCommand(argv[1]) : nullptr;
    if (cmd)
      std::fputs(formatUsage(*cmd).c_str(), out());
    else
      printProgramUsage(stdout);
    return kExitOk;
  }
  const Command *cmd = findCommand(argv[0]);
  if (!cmd)
    return usageError("wcan", "unknown command '" + argv[0] + "'", "wcan --help");
  std::vector<std::string> rest(argv.begin() + 1, argv.end());
  if (wantsHelp(rest)) {
    std::fputs(formatUsage(*cmd).c_str(), out());
    return kExitOk;
  }
  const std::string name = std::string("wcan ") + cmd->name;
  if (!sim) {
    if (const char *env = std::getenv("WCAN_SIM"))
      sim = std::string(env);
    try {
      if (sim)
        checkSimSpec(*sim, "WCAN_SIM");
    } catch (const UsageError &e) {
      return usageError("wcan", e.message, "wcan --help");
    }
  }
  separateLibraryLog(verbosity);
  Context ctx(sim);
  try {
    Args args(rest, cmd->options);
    installStopHandler();
    return cmd->run(ctx, args);
  } catch (const UsageError &e) {
    return usageError(name, e.message, name + " --help");
  } catch (const ToolError &e) {
    std::fflush(out());
    std::fprintf(stderr, "wcan %s: %s\n", cmd->name, e.message.c_str());
    return kExitFailure;
  } catch (const LoadError &e) {
    std::fflush(out());
    std::fprintf(stderr, "wcan %s: %s\n", cmd->name, e.message.c_str());
    return kExitFailure;
  }
}

} // namespace wcantool

int main(int argc, char **argv) {
  std::vector<std::string> args(argv + 1, argv + argc);
  // Installed a second time, as Wireshark's capture program.
  const char *slash = argc > 0 ? std::strrchr(argv[0], '/') : nullptr;
  if (argc > 0 && std::strcmp(slash ? slash + 1 : argv[0], "wcan-extcap") == 0)
    return wcantool::runExtcap(std::move(args));
  return wcantool::runMain(std::move(args));
}
