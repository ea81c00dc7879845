// SPDX-License-Identifier: MIT
// The monitor's view of a CAN database: messages and signals by name,
// decoding of frames and encoding of signal values. The database is the one
// the DBC reader builds; without that reader the monitor runs without
// signals and says so.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool::web {

struct SignalInfo {
  std::string name;
  std::string unit;
  double minimum = 0, maximum = 0;
  std::vector<std::pair<int64_t, std::string>> valueNames;
};

struct MessageInfo {
  std::string name;
  uint32_t id = 0;
  bool extended = false;
  unsigned length = 0;
  std::vector<SignalInfo> signals;
};

struct SignalValue {
  const MessageInfo *message;
  size_t signal; // into message->signals
  double value;
};

class Signals {
public:
  Signals();
  ~Signals();
  Signals(const Signals &) = delete;
  Signals &operator=(const Signals &) = delete;

  // Whether DBC files can be read at all in this build.
  static bool available();
  // Replaces the database with the text's; false with the reason (the old
  // one stays).
  bool load(std::string_view text, std::string &error, std::vector<std::string> &warnings);
  bool loaded() const;
  const std::vector<MessageInfo> &messages() const { return messages_; }

  // Whether the database knows the frame's message; cheap.
  bool knows(const Frame &frame) const;
  // "EngineData: EngineSpeed=1234.5 rpm Gear=3", or empty for an unknown frame.
  std::string describe(const Frame &frame) const;
  // The frame's signal values (cleared first).
  void decode(const Frame &frame, std::vector<SignalValue> &out) const;
  // Builds the frame of a message from signal values given as numbers or
  // value names; false with the reason.
  bool encode(std::string_view message,
              const std::vector<std::pair<std::string, std::string>> &values, Frame &out,
              std::string &error) const;

private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
  std::vector<MessageInfo> messages_;
};

} // namespace wcantool::web
