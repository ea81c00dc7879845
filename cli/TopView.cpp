// SPDX-License-Identifier: MIT
#include "cli/TopView.h"

#include <algorithm>
#include <cstdio>

namespace wcantool {
namespace {

// "12.3" for values that fit, "-" for none.
std::string millis(double us) {
  if (us <= 0)
    return "-";
  char buf[32];
  std::snprintf(buf, sizeof buf, "%.1f", us / 1000.0);
  return buf;
}

// "Name" for an identifier the database knows, else blank.
std::string messageName(const dbc::Database *db, const IdEntry &e) {
  const dbc::Message *m = db ? db->findMessage(e.id, e.extended) : nullptr;
  return m ? m->name : "";
}

std::string lostText(const LiveChannel &ch) { return ch.lost ? std::to_string(*ch.lost) : "-"; }

} // namespace

TopView::TopView(const std::vector<LiveChannel> &channels, double timeoutSeconds,
                 const dbc::Database *db)
    : table_(timeoutSeconds), db_(db) {
  for (const LiveChannel &ch : channels) {
    loads_.emplace_back(ch.rates);
  }
}

void TopView::add(const LiveFrame &f) {
  loads_[f.channel].add(f.frame);
  table_.add(f.channel, f.frame, f.timeUs);
}

void TopView::add(const std::vector<LiveFrame> &frames) {
  constexpr size_t kAhead = 8;
  for (size_t i = 0; i < frames.size(); ++i) {
    if (i + 2 * kAhead < frames.size())
      table_.prefetchPlace(frames[i + 2 * kAhead].channel, frames[i + 2 * kAhead].frame);
    if (i + kAhead < frames.size())
      table_.prefetch(frames[i + kAhead].channel, frames[i + kAhead].frame);
    add(frames[i]);
  }
}

void TopView::closeInterval(double seconds) {
  for (ChannelLoad &l : loads_)
    l.close(seconds);
}

std::string TopView::channelLine(size_t channel, const LiveChannel &ch) const {
  const ChannelLoad &l = loads_[channel];
  char buf[256];
  std::snprintf(buf, sizeof buf,
                "%-14s %-10s %7.0f frames/s  load %3.0f%% peak %3.0f%%  lost %s  %s",
                ch.name.c_str(), formatRates(ch.rates).c_str(), l.last().framesPerSecond(),
                l.last().percent(), l.peak(), lostText(ch).c_str(),
                ch.link == LinkState::Up ? "link up" : "adapter lost, recovering");
  return buf;
}

std::string TopView::columnHeader() const {
  char buf[160];
  std::snprintf(buf, sizeof buf, "%-2s %-8s %s%-6s %3s %9s %8s %9s %9s %7s  %s", "CH", "ID",
                db_ ? "NAME             " : "", "KIND", "LEN", "COUNT", "RATE/s", "PERIOD/ms",
                "JITTER/ms", "AGE/s", ascii ? "DATA / ASCII" : "DATA");
  return buf;
}

std::vector<TopRow> TopView::rows(int64_t nowUs, size_t ordered) const {
  const std::vector<const IdEntry *> entries = table_.rows(filter_, sort, ordered);
  std::vector<TopRow> out(entries.size());
  for (size_t i = 0; i < entries.size(); ++i)
    out[i] = {entries[i], i < ordered && table_.faded(*entries[i], nowUs)};
  return out;
}

std::string TopView::columns(const IdEntry &e, int64_t nowUs) const {
  char buf[192];
  const double age = std::max<int64_t>(0, nowUs - e.lastUs) / 1e6;
  char name[24] = "";
  if (db_)
    std::snprintf(name, sizeof name, "%-16.16s ", messageName(db_, e).c_str());
  std::snprintf(buf, sizeof buf, "%-2u %-8s %s%-6s %3u %9llu %8.1f %9s %9s %7.1f  ", e.channel,
                formatId(e.id, e.extended).c_str(), name, kindName(e.kind), e.len,
                static_cast<unsigned long long>(e.count), e.rate(), millis(e.meanPeriodUs).c_str(),
                millis(e.jitterUs()).c_str(), age);
  return buf;
}

std::string TopView::hexData(const IdEntry &e) {
  if (e.kind == FrameKind::Remote)
    return "remote request";
  std::string s;
  char buf[4];
  for (unsigned i = 0; i < e.len; ++i) {
    std::snprintf(buf, sizeof buf, i ? " %02X" : "%02X", e.data[i]);
    s += buf;
  }
  return s;
}

std::string TopView::asciiData(const IdEntry &e) {
  std::string s;
  for (unsigned i = 0; e.kind != FrameKind::Remote && i < e.len; ++i)
    s += e.data[i] >= 0x20 && e.data[i] < 0x7F ? static_cast<char>(e.data[i]) : '.';
  return s;
}

void TopView::moveSelection(int by, size_t rowCount) {
  if (rowCount == 0) {
    selected = 0;
    return;
  }
  const long next = static_cast<long>(std::min(selected, rowCount - 1)) + by;
  selected = static_cast<size_t>(std::clamp<long>(next, 0, static_cast<long>(rowCount) - 1));
}

std::vector<std::string> TopView::signalLines(const std::vector<TopRow> &rows) const {
  if (!db_)
    return {"no signals without --dbc FILE"};
  if (rows.empty())
    return {"no identifier selected"};
  const IdEntry &e = *rows[std::min(selected, rows.size() - 1)].entry;
  std::vector<dbc::DecodedSignal> decoded;
  const dbc::Message *m = e.kind == FrameKind::Remote
                              ? nullptr
                              : db_->decode(e.id, e.extended, e.data.data(), e.len, decoded);
  const std::string id = formatId(e.id, e.extended);
  if (!m)
    return {id + ": not a data frame the DBC file knows"};
  std::vector<std::string> lines{m->name + " (" + id + ")"};
  // One signal at a time through the dump's formatting, without its
  // "Message: " prefix.
  for (const dbc::DecodedSignal &d : decoded)
    lines.push_back("  " + dbc::formatDecoded(*m, {d}).substr(m->name.size() + 2));
  return lines;
}

std::string TopView::plainText(const std::vector<LiveChannel> &channels, int64_t nowUs) const {
  std::string s;
  for (size_t i = 0; i < channels.size(); ++i)
    s += channelLine(i, channels[i]) + "\n";
  s += columnHeader() + "\n";
  for (const TopRow &r : rows(nowUs)) {
    s += columns(*r.entry, nowUs) + hexData(*r.entry);
    if (ascii)
      s += "  " + asciiData(*r.entry);
    s += "\n";
  }
  return s;
}

} // namespace wcantool
