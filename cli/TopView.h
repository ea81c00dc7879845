// SPDX-License-Identifier: MIT
// What `wcan top` shows, apart from how: the channels' load and the
// identifier table, fed with frames, as text lines that the full screen and
// `--once` both print.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "cli/LiveFeed.h"
#include "common/BusStats.h"
#include "dbc/Dbc.h"

namespace wcantool {

struct TopRow {
  const IdEntry *entry;
  bool faded;
};

class TopView {
public:
  // `db`, when given, names the identifiers it knows and decodes their
  // signals; it must outlive the view.
  TopView(const std::vector<LiveChannel> &channels, double timeoutSeconds,
          const dbc::Database *db = nullptr);

  void add(const LiveFrame &f);
  void add(const std::vector<LiveFrame> &frames);
  // Closes the load interval of every channel (about once a second).
  void closeInterval(double seconds);
  void expire(int64_t nowUs) { table_.expire(nowUs); }
  void clear() { table_.clear(); }

  IdFilter &filter() { return filter_; }
  std::string filterText() const { return filter_.describe(); }
  SortKey sort = SortKey::Id;
  bool ascii = false;
  // The highlighted row (an index into rows()) and whether its signals show.
  size_t selected = 0;
  bool showSignals = false;
  void moveSelection(int by, size_t rowCount);

  // One line per channel: rates, frames/s, load now and peak, frames lost,
  // link state.
  std::string channelLine(size_t channel, const LiveChannel &ch) const;
  std::string columnHeader() const;
  // Filtered, the first `ordered` sorted (a screen's worth: the rest are
  // only counted); cheap enough for a table of thousands 10 times a second,
  // as long as only the rows shown are formatted.
  std::vector<TopRow> rows(int64_t nowUs, size_t ordered = SIZE_MAX) const;
  // A row's columns from channel to age, fixed widths.
  std::string columns(const IdEntry &e, int64_t nowUs) const;
  // The data bytes of a row in hex ("DE AD BE EF"), and as ASCII.
  static std::string hexData(const IdEntry &e);
  static std::string asciiData(const IdEntry &e);
  // The selected row's message and one line per signal with its latest value
  // and unit; a word why there is none when the DBC does not know it.
  std::vector<std::string> signalLines(const std::vector<TopRow> &rows) const;
  // The plain text of everything, as `--once` prints it.
  std::string plainText(const std::vector<LiveChannel> &channels, int64_t nowUs) const;

private:
  std::vector<ChannelLoad> loads_;
  IdTable table_;
  IdFilter filter_;
  const dbc::Database *db_;
};

} // namespace wcantool
