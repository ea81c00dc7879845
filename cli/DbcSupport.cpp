// SPDX-License-Identifier: MIT
#include "cli/DbcSupport.h"

#include <algorithm>

namespace wcantool {

std::optional<dbc::Database> loadDbcOption(const Args &args, const char *command) {
  const std::optional<std::string> path = args.value("--dbc");
  if (!path)
    return std::nullopt;
  std::vector<std::string> warnings;
  try {
    dbc::Database db = dbc::Database::load(*path, warnings);
    for (const std::string &w : warnings)
      std::fprintf(stderr, "wcan %s: %s: %s\n", command, path->c_str(), w.c_str());
    return db;
  } catch (const std::runtime_error &e) {
    throw ToolError{*path + ": " + e.what()};
  }
}

void printSignals(const dbc::Database &db, const Frame &frame, FILE *to) {
  if (frame.remote)
    return;
  std::vector<dbc::DecodedSignal> decoded;
  if (const dbc::Message *m =
          db.decode(frame.id, frame.extended, frame.data.data(), frame.len, decoded))
    std::fprintf(to, "  %s\n", dbc::formatDecoded(*m, decoded).c_str());
}

Frame encodeFrameArgs(const dbc::Database &db, const std::vector<std::string> &positionals,
                      size_t first) {
  const std::string &name = positionals.at(first);
  const dbc::Message *m = db.findMessage(name);
  if (!m)
    throw UsageError{"the DBC file has no message " + name};
  std::vector<std::pair<std::string, double>> values;
  try {
    for (size_t i = first + 1; i < positionals.size(); ++i) {
      const std::string &arg = positionals[i];
      const size_t eq = arg.find('=');
      if (eq == std::string::npos)
        throw UsageError{"expected SIGNAL=VALUE, not '" + arg + "'"};
      const std::string signal = arg.substr(0, eq);
      const dbc::Signal *s = m->findSignal(signal);
      if (!s)
        throw UsageError{"message " + m->name + " has no signal " + signal};
      values.emplace_back(signal, dbc::parseSignalValue(*s, arg.substr(eq + 1)));
    }
    const dbc::EncodedFrame e = dbc::encode(*m, values);
    Frame f;
    f.id = e.id;
    f.extended = e.extended;
    f.fd = e.fd;
    f.brs = e.brs;
    f.len = e.length;
    std::copy(e.data.begin(), e.data.end(), f.data.begin());
    return f;
  } catch (const dbc::EncodeError &e) {
    throw UsageError{e.what()};
  }
}

} // namespace wcantool
