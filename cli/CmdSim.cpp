// SPDX-License-Identifier: MIT
// sim: show and change the simulation the user's processes share, through
// its host. It loads no library and never starts a host.
#include <cstdio>

#include "cli/Commands.h"
#include "common/Device.h"
#include "sim/SimWire.h"

namespace wcantool {

int runSim(Context &, const Args &args) {
  const auto &words = args.positionals();
  if (words.empty())
    throw UsageError{"say what to do: status, unplug, replug, garble or stop"};
  const std::string &verb = words[0];
  const bool onAdapter = verb == "unplug" || verb == "replug" || verb == "garble";
  if (onAdapter) {
    args.expectPositionals(3, 3);
    checkedDeviceType(parseUnsigned(words[1], "TYPE", 0, ~0u));
    parseUnsigned(words[2], "INDEX", 0, 1000000);
  } else if (verb == "status" || verb == "stop") {
    args.expectPositionals(1, 1);
  } else {
    throw UsageError{"unknown action '" + verb + "'"};
  }
  std::string command = verb;
  for (size_t i = 1; i < words.size(); ++i)
    command += " " + words[i];
  std::string error;
  const auto answer = wcansim::wire::runCommand(command, error);
  if (!answer)
    throw ToolError{error};
  if (!answer->first)
    throw ToolError{answer->second};
  std::fprintf(out(), "%s\n", answer->second.c_str());
  return kExitOk;
}

} // namespace wcantool
