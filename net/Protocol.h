// SPDX-License-Identifier: MIT
// The text protocol of CAN-over-TCP servers such as `wcan serve`: elements
// "< ... >" in ASCII, the requests a client sends and the frame elements a
// server writes. Pure functions over strings, shared by the server and the
// tools' client side.
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <string_view>
#include <vector>

#include "common/FrameSyntax.h"

namespace wcantool::net {

constexpr unsigned kDefaultPort = 29536;
// Longest bus name a client may open.
constexpr size_t kMaxBusName = 16;
// An element longer than this without its '>' ends the connection.
constexpr size_t kMaxElement = 4096;

// Cuts a byte stream into elements. Bytes arrive in pieces of any size; an
// element may span pieces and a piece may hold several elements.
class ElementReader {
public:
  enum class Kind {
    Element, // text: what stands between '<' and '>'
    Stray,   // text outside an element, or an element cut short by a new '<'
    Broken,  // not protocol text or no '>' in time: text says why; nothing follows
  };
  struct Item {
    Kind kind;
    std::string text;
  };

  void feed(const char *data, size_t size);
  // The next item; false when more bytes are needed. After Broken it keeps
  // returning false.
  bool next(Item &item);
  // The same without a copy: `text` points into the reader and stays valid
  // until the next call of feed(), next() or nextView(). A busy bus brings
  // tens of thousands of elements a second to a client.
  bool nextView(Kind &kind, std::string_view &text);
  size_t buffered() const { return buffer_.size() - start_; }

private:
  bool fail(Kind &kind, std::string_view &text, std::string why);
  void compact();

  std::string buffer_;
  std::string why_;    // of Broken
  size_t start_ = 0;   // first byte not yet returned
  size_t scanned_ = 0; // bytes after start_ already checked for an element end
  bool broken_ = false;
};

// The words of an element, split at blanks.
std::vector<std::string_view> splitWords(std::string_view element);

enum class Verb {
  Open,
  Buses, // the buses a client may open
  Echo,
  RawMode,
  BcmMode,
  ControlMode,
  IsoTpMode,
  Send,   // also sendrtr, sendfd and fdsend: the frame says which
  Add,    // cyclic transmission
  Update, // new data for a cyclic transmission
  Delete, // end a cyclic transmission
  Subscribe,
  Filter, // subscription that forwards content changes only
  Unsubscribe,
  Statistics,
};

struct Request {
  Verb verb = Verb::Echo;
  std::string bus;         // Open
  Frame frame;             // Send, Add, Update; Filter: the mask; others: id and format
  uint64_t intervalUs = 0; // Add, Subscribe, Filter; Statistics (0 = off)
};

// Shortest period of a cyclic transmission: no CAN bus carries frames faster.
constexpr uint64_t kMinCycleUs = 100;

// Reads one element's text. On failure returns false with the reason for the
// error reply ("unknown command" when the first word names no request).
bool parseRequest(std::string_view element, Request &out, std::string &error);

// Ids in requests: hex; extended when written with 8 digits or above 7FF.
bool parseFrameId(std::string_view text, Frame &out);

// Frame elements as a server writes them (each appended to out):
//   raw:  < frame 123 1700000000.000001 11223344 >      classic data frame
//         < fdframe 123 1700000000.000001 1122 1 >      CAN FD; the flag digit
//                                                        (1 = bit-rate switch)
//                                                        only when not 0
//         < rtr 123 1700000000.000001 4 >               remote frame and length
//   bcm:  < frame 123 1700000000.000001 11 22 33 44 >
// Standard ids have 3 hex digits, extended ones 8.
void appendRawFrame(std::string &out, LogTime time, const Frame &frame);
void appendBcmFrame(std::string &out, LogTime time, const Frame &frame);

// A frame element from a server (raw or bcm form). False for other elements.
bool parseFrameElement(std::string_view element, Frame &out, LogTime &time);

// The request that sends a frame: send, sendrtr or sendfd.
std::string sendRequest(const Frame &frame);

// "< text >"
std::string element(std::string_view text);
std::string errorElement(std::string_view reason);

} // namespace wcantool::net
