// SPDX-License-Identifier: MIT
// The monitor's signals over the shared DBC reader.
#include <optional>

#include "dbc/Dbc.h"
#include "web/Signals.h"

namespace wcantool::web {

struct Signals::Impl {
  std::optional<dbc::Database> db;
  mutable std::vector<dbc::DecodedSignal> scratch;
};

Signals::Signals() : impl_(std::make_unique<Impl>()) {}
Signals::~Signals() = default;
bool Signals::available() { return true; }

namespace {

MessageInfo describeMessage(const dbc::Message &m) {
  MessageInfo info{m.name, m.id, m.extended, m.length, {}};
  for (const dbc::Signal &s : m.signals) {
    SignalInfo si{s.name, s.unit, s.minimum, s.maximum, {}};
    for (const dbc::ValueName &v : s.valueNames)
      si.valueNames.emplace_back(v.raw, v.name);
    info.signals.push_back(std::move(si));
  }
  return info;
}

} // namespace

bool Signals::load(std::string_view text, std::string &error, std::vector<std::string> &warnings) {
  try {
    dbc::Database db = dbc::Database::parse(text, warnings);
    std::vector<MessageInfo> messages;
    for (const dbc::Message &m : db.messages())
      messages.push_back(describeMessage(m));
    impl_->db = std::move(db);
    messages_ = std::move(messages);
    return true;
  } catch (const dbc::ParseError &e) {
    error = "line " + std::to_string(e.line()) + ", column " + std::to_string(e.column()) + ": " +
            e.what();
  } catch (const std::exception &e) {
    error = e.what();
  }
  return false;
}

bool Signals::loaded() const { return impl_->db.has_value(); }

bool Signals::knows(const Frame &frame) const {
  return impl_->db && !frame.remote && impl_->db->findMessage(frame.id, frame.extended);
}

std::string Signals::describe(const Frame &frame) const {
  if (!knows(frame))
    return {};
  const dbc::Message *m =
      impl_->db->decode(frame.id, frame.extended, frame.data.data(), frame.len, impl_->scratch);
  return m ? dbc::formatDecoded(*m, impl_->scratch) : std::string();
}

void Signals::decode(const Frame &frame, std::vector<SignalValue> &out) const {
  out.clear();
  if (!knows(frame))
    return;
  const dbc::Message *m =
      impl_->db->decode(frame.id, frame.extended, frame.data.data(), frame.len, impl_->scratch);
  if (!m)
    return;
  const MessageInfo &info = messages_[static_cast<size_t>(m - impl_->db->messages().data())];
  for (const dbc::DecodedSignal &d : impl_->scratch)
    out.push_back({&info, static_cast<size_t>(d.signal - m->signals.data()), d.value});
}

bool Signals::encode(std::string_view message,
                     const std::vector<std::pair<std::string, std::string>> &values, Frame &out,
                     std::string &error) const {
  const dbc::Message *m = impl_->db ? impl_->db->findMessage(message) : nullptr;
  if (!m) {
    error = impl_->db ? "the DBC file has no message '" + std::string(message) + "'"
                      : "no DBC file is loaded";
    return false;
  }
  try {
    std::vector<std::pair<std::string, double>> physical;
    for (const auto &v : values) {
      const dbc::Signal *s = m->findSignal(v.first);
      if (!s)
        throw dbc::EncodeError(m->name + " has no signal '" + v.first + "'");
      physical.emplace_back(v.first, dbc::parseSignalValue(*s, v.second));
    }
    const dbc::EncodedFrame f = dbc::encode(*m, physical);
    out = Frame{};
    out.id = f.id;
    out.extended = f.extended;
    out.fd = f.fd;
    out.brs = f.brs;
    out.len = f.length;
    out.data = f.data;
    return true;
  } catch (const std::exception &e) {
    error = e.what();
  }
  return false;
}

} // namespace wcantool::web
