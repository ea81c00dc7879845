// SPDX-License-Identifier: MIT
// --dbc for the traffic subcommands: signals under the dumped frames, and
// frames to send built from signal values.
#pragma once

#include <cstdio>
#include <optional>
#include <string>
#include <vector>

#include "common/Args.h"
#include "common/FrameSyntax.h"
#include "dbc/Dbc.h"

namespace wcantool {

// The database --dbc names, if given. Its warnings go to standard error; a
// file that cannot be read throws ToolError.
std::optional<dbc::Database> loadDbcOption(const Args &args, const char *command);

// Prints "  Message: Signal=value unit ..." for a frame the database knows.
void printSignals(const dbc::Database &db, const Frame &frame, FILE *to);

// The frame of "MESSAGE SIGNAL=VALUE..." (positionals from `first` on);
// values may be numbers or value names. Throws UsageError.
Frame encodeFrameArgs(const dbc::Database &db, const std::vector<std::string> &positionals,
                      size_t first);

} // namespace wcantool
