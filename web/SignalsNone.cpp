// SPDX-License-Identifier: MIT
// The monitor without a DBC reader: every database is refused with the reason.
#include "web/Signals.h"

namespace wcantool::web {

struct Signals::Impl {};

Signals::Signals() = default;
Signals::~Signals() = default;
bool Signals::available() { return false; }

bool Signals::load(std::string_view, std::string &error, std::vector<std::string> &) {
  error = "this build of wcan reads no DBC files";
  return false;
}

bool Signals::loaded() const { return false; }
bool Signals::knows(const Frame &) const { return false; }
std::string Signals::describe(const Frame &) const { return {}; }
void Signals::decode(const Frame &, std::vector<SignalValue> &out) const { out.clear(); }

bool Signals::encode(std::string_view, const std::vector<std::pair<std::string, std::string>> &,
                     Frame &, std::string &error) const {
  error = "this build of wcan reads no DBC files";
  return false;
}

} // namespace wcantool::web
