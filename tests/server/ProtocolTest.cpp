// SPDX-License-Identifier: MIT
// The protocol text: element framing over arbitrary reads, request parsing
// and the frame elements both sides write and read.
#include <gtest/gtest.h>

#include <random>
#include <string>
#include <vector>

#include "common/Args.h"
#include "net/Client.h"
#include "net/Protocol.h"
#include "server/Bus.h"
#include "tests/support/Frames.h"

namespace wcantool {
namespace {

using net::ElementReader;
using Kind = ElementReader::Kind;

struct Got {
  Kind kind;
  std::string text;
  bool operator==(const Got &o) const { return kind == o.kind && text == o.text; }
};

std::vector<Got> readAll(ElementReader &reader) {
  std::vector<Got> items;
  ElementReader::Item item;
  while (reader.next(item))
    items.push_back({item.kind, item.text});
  return items;
}

// Feeds `stream` in pieces cut at `cuts` and collects every item.
std::vector<Got> readInPieces(const std::string &stream, std::vector<size_t> cuts) {
  ElementReader reader;
  std::vector<Got> items;
  size_t from = 0;
  cuts.push_back(stream.size());
  for (size_t cut : cuts) {
    reader.feed(stream.data() + from, cut - from);
    from = cut;
    for (Got &g : readAll(reader))
      items.push_back(g);
  }
  return items;
}

TEST(ElementReader, GivesTheSameElementsHoweverTheBytesAreSplit) {
  const std::string stream = "< open wcan41-0-0 >< rawmode >\r\n<echo>  < send 123 1 AA >";
  const std::vector<Got> want = {{Kind::Element, " open wcan41-0-0 "},
                                 {Kind::Element, " rawmode "},
                                 {Kind::Element, "echo"},
                                 {Kind::Element, " send 123 1 AA "}};
  EXPECT_EQ(readInPieces(stream, {}), want);
  for (size_t cut = 1; cut < stream.size(); ++cut)
    EXPECT_EQ(readInPieces(stream, {cut}), want) << "cut at " << cut;
  std::mt19937 rng(7);
  for (int round = 0; round < 50; ++round) {
    std::vector<size_t> cuts;
    for (size_t p = 1 + rng() % 4; p < stream.size(); p += 1 + rng() % 4)
      cuts.push_back(p);
    EXPECT_EQ(readInPieces(stream, cuts), want) << "round " << round;
  }
}

TEST(ElementReader, ReportsStrayTextAndCutElementsAndGoesOn) {
  ElementReader reader;
  const std::string stream = "hello < echo < echo >";
  reader.feed(stream.data(), stream.size());
  const std::vector<Got> want = {
      {Kind::Stray, "hello"}, {Kind::Stray, " echo "}, {Kind::Element, " echo "}};
  EXPECT_EQ(readAll(reader), want);
}

TEST(ElementReader, StopsAtBytesThatAreNotText) {
  for (const std::string &stream :
       {std::string("< echo >< ec\x01ho >< echo >"), std::string("\xff< echo >"),
        std::string("< echo >\0< echo >", 17),
        // deep in a long element, among the plain text read eight at a time
        std::string("< frame 123 1.000001 0011223344\x7f >"),
        std::string("< frame 123 1.000001 0011223344556677\x80 >")}) {
    ElementReader reader;
    reader.feed(stream.data(), stream.size());
    std::vector<Got> items = readAll(reader);
    ASSERT_FALSE(items.empty());
    EXPECT_EQ(items.back().kind, Kind::Broken) << stream;
    reader.feed("< echo >", 8);
    EXPECT_TRUE(readAll(reader).empty()) << "items after a broken stream";
  }
}

TEST(ElementReader, EndsAnElementWithoutItsEndAtTheLimit) {
  const std::string longest = "<" + std::string(net::kMaxElement - 1, 'a') + ">";
  ElementReader ok;
  ok.feed(longest.data(), longest.size());
  EXPECT_EQ(readAll(ok),
            (std::vector<Got>{{Kind::Element, longest.substr(1, longest.size() - 2)}}));

  ElementReader reader;
  const std::string chunk(100, 'a');
  reader.feed("<", 1);
  std::vector<Got> items;
  for (size_t fed = 0; fed < 2 * net::kMaxElement && items.empty(); fed += chunk.size()) {
    reader.feed(chunk.data(), chunk.size());
    items = readAll(reader);
  }
  ASSERT_EQ(items.size(), 1u);
  EXPECT_EQ(items[0].kind, Kind::Broken);
  EXPECT_NE(items[0].text.find("without an end"), std::string::npos) << items[0].text;
}

using testframes::frame;
using testframes::remote;

TEST(Requests, ReadFramesAsTheProtocolWritesThem) {
  struct Case {
    const char *text;
    Frame want;
  } cases[] = {
      {"send 123 2 11 22", frame(0x123, false, {0x11, 0x22})},
      {" send  1AAAAAAA 2 1 f1 ", frame(0x1AAAAAAA, true, {0x01, 0xF1})},
      {"send 00000123 0", frame(0x123, true, {})},
      // A longer id than 11 bits is extended however it is written.
      {"send 18FEF1 1 0", frame(0x18FEF1, true, {0})},
      {"sendrtr 7FF 4", remote(0x7FF, false, 4)},
      {"sendfd 123 12 1 2 3 4 5 6 7 8 9 A B C",
       frame(0x123, false, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12}, true)},
      {"sendfd 123 1 AA 1", frame(0x123, false, {0xAA}, true, true)},
      {"sendfd 123 0", frame(0x123, false, {}, true)},
      // The other proposal's form: flags before the length, data separate or run together.
      {"fdsend 123 0x01 2 AA BB", frame(0x123, false, {0xAA, 0xBB}, true, true)},
      {"fdsend 123 0 12 00112233445566778899AABB",
       frame(0x123, false, {0, 0x11, 0x22, 0x33, 0x44, 0x55, 0x66, 0x77, 0x88, 0x99, 0xAA, 0xBB},
             true)},
      {"fdsend 12345678 2 1 5", frame(0x12345678, true, {5}, true)},
      {"fdsend 7FF 3 0", frame(0x7FF, false, {}, true, true)},
  };
  for (const Case &c : cases) {
    net::Request r;
    std::string why;
    ASSERT_TRUE(net::parseRequest(c.text, r, why)) << c.text << ": " << why;
    EXPECT_EQ(r.verb, net::Verb::Send) << c.text;
    EXPECT_EQ(r.frame, c.want) << c.text;
  }
}

TEST(Requests, RefuseBadOnesWithTheReason) {
  struct Case {
    const char *text;
    const char *reason;
  } cases[] = {
      {"", "unknown command"},
      {"frobnicate 1 2", "unknown command"},
      {"echo now", "usage: < echo >"},
      {"open", "usage: < open BUS >"},
      {"buses all", "usage: < buses >"},
      {"send 123", "usage: < send"},
      {"send 12G 1 00", "bad CAN id '12G'"},
      {"send 20000000 0", "bad CAN id"},
      {"send 123456789 0", "bad CAN id"},
      {"send 123 9 1 2 3 4 5 6 7 8 9", "bad length '9'"},
      {"send 123 2 11", "length 2 but 1 data bytes"},
      {"send 123 1 11 22", "length 1 but 2 data bytes"},
      {"send 123 1 123", "bad data byte '123'"},
      {"send 123 1 1 1", "length 1 but 2 data bytes"},
      {"sendrtr 123 9", "bad length '9'"},
      {"sendfd 123 9 1 2 3 4 5 6 7 8 9", "0..8, 12, 16"},
      {"sendfd 123 1 AA 12", "bad flag digit '12'"},
      {"fdsend 123 4 1 AA", "bad flags '4'"},
      {"fdsend 123 0x10 1 AA", "bad flags '0x10'"},
      {"fdsend 123 1 12 0011", "length 12 but 1 data bytes"},
      {"fdsend 123 1 2 AABBCC", "length 2 but 1 data bytes"},
      {"fdsend 123 1 2 AAXX", "bad data 'AAXX'"},
      {"fdsend 123 1", "usage: < fdsend ID FLAGS LEN DATA >"},
      {"add 0 10 123 0", "at least 100 us"},
      {"add x 0 123 0", "bad interval"},
      {"statistics -1", "bad interval '-1'"},
  };
  for (const Case &c : cases) {
    net::Request r;
    std::string why;
    EXPECT_FALSE(net::parseRequest(c.text, r, why)) << c.text;
    EXPECT_NE(why.find(c.reason), std::string::npos) << c.text << ": " << why;
  }
}

TEST(FrameElements, ComeBackAsTheFramesTheyCarryInBothForms) {
  const LogTime time{1700000000, 42};
  const Frame frames[] = {
      frame(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF}),
      frame(0x1FFFFFFF, true, {0, 1, 2, 3, 4, 5, 6, 7}),
      frame(0x7FF, false, {}),
      remote(0x321, false, 4),
      remote(0x12345678, true, 0),
      frame(0x456, false, std::vector<uint8_t>(64, 0xA5), true, true),
      frame(0x18FEF100, true, {1, 2, 3}, true, false),
      frame(0x10, false, {}, true, false),
  };
  for (const Frame &f : frames) {
    std::string raw, bcm;
    net::appendRawFrame(raw, time, f);
    net::appendBcmFrame(bcm, time, f);
    for (const std::string &text : {raw, f.fd || f.remote ? raw : bcm}) {
      ElementReader reader;
      reader.feed(text.data(), text.size());
      std::vector<Got> items = readAll(reader);
      ASSERT_EQ(items.size(), 1u) << text;
      Frame back;
      LogTime backTime;
      ASSERT_TRUE(net::parseFrameElement(items[0].text, back, backTime)) << text;
      EXPECT_EQ(back, f) << text;
      EXPECT_EQ(backTime.seconds, time.seconds);
      EXPECT_EQ(backTime.micros, time.micros);
    }
  }
}

TEST(FrameElements, AreWrittenAsClientsOfTheProtocolReadThem) {
  struct Case {
    Frame frame;
    bool bcm;
    std::string text;
    LogTime time = {1700000000, 424242};
  } cases[] = {
      {frame(0x123, false, {0x1A, 0x22, 0x03, 0x44}), false,
       "< frame 123 1700000000.424242 1A220344 >"},
      // An empty frame keeps both blanks around the missing data.
      {frame(0x123, false, {}), false, "< frame 123 1700000000.424242  >"},
      {frame(0x1AB, true, {0xF1}), false, "< frame 000001AB 1700000000.424242 F1 >"},
      {remote(0x7FF, false, 3), false, "< rtr 7FF 1700000000.424242 3 >"},
      {frame(0x123, false, {1, 2}, true, true), false, "< fdframe 123 1700000000.424242 0102 1 >"},
      {frame(0x123, false, {1, 2}, true, false), false, "< fdframe 123 1700000000.424242 0102 >"},
      {frame(0x123, false, {0x11, 0x22}), true, "< frame 123 1700000000.424242 11 22 >"},
      // Microseconds keep their leading zeros; seconds have none.
      {frame(0x5, false, {0xAB}), false, "< frame 005 0.000007 AB >", {0, 7}},
      {frame(0x5, false, {0xAB}),
       true,
       "< frame 005 18446744073709551615.999999 AB >",
       {UINT64_MAX, 999999}},
      {frame(0x1FFFFFFF, true, std::vector<uint8_t>(64, 0), true, true), false,
       "< fdframe 1FFFFFFF 1700000000.424242 " + std::string(128, '0') + " 1 >"},
  };
  for (const Case &c : cases) {
    std::string text;
    (c.bcm ? net::appendBcmFrame : net::appendRawFrame)(text, c.time, c.frame);
    EXPECT_EQ(text, c.text);
  }
}

TEST(FrameElements, SendRequestsReadBackAsTheFrame) {
  const Frame frames[] = {
      frame(0x123, false, {0x11}),
      frame(0x00000001, true, {}),
      remote(0x7FF, false, 8),
      frame(0x123, false, std::vector<uint8_t>(48, 7), true, true),
      frame(0x1FFFFFFF, true, {}, true),
  };
  for (const Frame &f : frames) {
    const std::string text = net::sendRequest(f);
    net::Request r;
    std::string why;
    ASSERT_TRUE(net::parseRequest(text.substr(1, text.size() - 2), r, why)) << text << ": " << why;
    EXPECT_EQ(r.frame, f) << text;
  }
}

TEST(FrameElements, ReadWhateverBlanksAndDigitCaseAServerUses) {
  const struct {
    const char *text;
    Frame frame;
  } cases[] = {
      {"frame  123\t1.000001   deadBEEF ", frame(0x123, false, {0xDE, 0xAD, 0xBE, 0xEF})},
      {"frame 123 1.000001 de ad", frame(0x123, false, {0xDE, 0xAD})},
      {"fdframe 123 1.000001 0011 1", frame(0x123, false, {0x00, 0x11}, true, true)},
      {"fdframe 123 1.000001 00 11", frame(0x123, false, {0x00, 0x11}, true, false)},
      {"rtr 12345678 1.000001 8", remote(0x12345678, true, 8)},
  };
  for (const auto &c : cases) {
    Frame f;
    LogTime t;
    ASSERT_TRUE(net::parseFrameElement(c.text, f, t)) << c.text;
    EXPECT_EQ(f, c.frame) << c.text;
  }
}

TEST(FrameElements, OthersAreNotFrames) {
  for (const char *text :
       {"ok", "frame 123", "frame 123 17.5 ABC", "frame 123 x.1 AA",
        "fdframe 123 1.000001 00112233445566778899", "rtr 123 1.000001 9",
        "frame 123 1.000001 001122334455667788", "stat 1 2 3 4 0", "frame 123 1.000001 0G",
        "fdframe 123 1.000001 001 1", "fdframe 123 1.000001 0011 x", "rtr 123 1.000001 4 00"}) {
    Frame f;
    LogTime t;
    EXPECT_FALSE(net::parseFrameElement(text, f, t)) << text;
  }
}

TEST(BusNames, NameOneChannelOfOneAdapter) {
  struct Case {
    const char *name;
    bool valid;
    unsigned type, index, channel;
  } cases[] = {
      {"wcan41-0-1", true, 41, 0, 1},  {"wcan4-12-0", true, 4, 12, 0},
      {"wcan041-0-1", false, 0, 0, 0}, {"wcan41-0", false, 0, 0, 0},
      {"wcan41-0-1x", false, 0, 0, 0}, {"can0", false, 0, 0, 0},
      {"wcan-1-0-0", false, 0, 0, 0},  {"wcan41--0-0", false, 0, 0, 0},
  };
  for (const Case &c : cases) {
    const auto bus = serve::parseBusName(c.name);
    EXPECT_EQ(bus.has_value(), c.valid) << c.name;
    if (bus && c.valid) {
      EXPECT_EQ(bus->type, c.type);
      EXPECT_EQ(bus->index, c.index);
      EXPECT_EQ(bus->channel, c.channel);
    }
  }
}

TEST(ServerAddresses, TakeAnOptionalPort) {
  struct Case {
    const char *text;
    const char *host;
    unsigned port;
  } cases[] = {
      {"localhost", "localhost", 29536},
      {"127.0.0.1:4000", "127.0.0.1", 4000},
      {"[::1]:5000", "::1", 5000},
      {"[::1]", "::1", 29536},
      {"::1", "::1", 29536},
  };
  for (const Case &c : cases) {
    const net::ServerAddress a = net::parseServerAddress(c.text, 29536);
    EXPECT_EQ(a.host, c.host) << c.text;
    EXPECT_EQ(a.port, c.port) << c.text;
  }
  for (const char *bad : {"", ":4000", "host:", "host:0", "host:70000", "[::1]x", "host:port"})
    EXPECT_THROW(net::parseServerAddress(bad, 29536), UsageError) << bad;
}

} // namespace
} // namespace wcantool
