// SPDX-License-Identifier: MIT
// The DBC reader against hand-made frames: bit positions in both byte orders,
// values through encode and decode, a file shaped like the ones tools write,
// and the complaints about broken files.
#include <gtest/gtest.h>

#include <cmath>

#include "dbc/Dbc.h"

namespace wcantool::dbc {
namespace {

Database parseOrFail(const std::string &text, std::vector<std::string> *warnings = nullptr) {
  std::vector<std::string> ignored;
  return Database::parse(text, warnings ? *warnings : ignored);
}

// A 16-byte message M (id 1) with one signal S, given after "SG_ ".
Database oneSignal(const std::string &signal, const std::string &extra = "") {
  return parseOrFail("BO_ 1 M: 16 N\n SG_ " + signal + " N\n" + extra);
}

const Database &vehicle() {
  static const Database db = [] {
    std::vector<std::string> warnings;
    return Database::load(WCAN_TEST_DATA "/vehicle.dbc", warnings);
  }();
  return db;
}

std::vector<uint8_t> padTo16(std::vector<uint8_t> bytes) {
  bytes.resize(16);
  return bytes;
}

struct BitCase {
  const char *signal;
  std::vector<uint8_t> data;
  int64_t raw;
  bool exactAsDouble; // the raw value survives the trip through a double
};

TEST(DbcBits, RawValuesAtOddPositionsInBothByteOrders) {
  const BitCase cases[] = {
      {"S : 4|12@1+ (1,0) [0|0] \"\"", {0xA0, 0xBC}, 0xBCA, true},
      {"S : 13|7@1+ (1,0) [0|0] \"\"", {0, 0xE0, 0x0F}, 0x7F, true},
      {"S : 120|8@1+ (1,0) [0|0] \"\"",
       {0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0xAB},
       0xAB,
       true},
      {"S : 7|16@0+ (1,0) [0|0] \"\"", {0x12, 0x34}, 0x1234, true},
      {"S : 3|12@0+ (1,0) [0|0] \"\"", {0x0A, 0xBC}, 0xABC, true},
      {"S : 2|7@0+ (1,0) [0|0] \"\"", {0x05, 0x90}, 0x59, true},
      {"S : 0|1@0+ (1,0) [0|0] \"\"", {0x01}, 1, true},
      {"S : 0|4@1- (1,0) [0|0] \"\"", {0x0F}, -1, true},
      {"S : 7|12@0- (1,0) [0|0] \"\"", {0x80, 0x00}, -2048, true},
      {"S : 5|40@1- (1,0) [0|0] \"\"", {0xA0, 0xFF, 0xFF, 0xFF, 0xFF, 0x1F}, -3, true},
      {"S : 0|64@1+ (1,0) [0|0] \"\"", {1, 2, 3, 4, 5, 6, 7, 8}, 0x0807060504030201, false},
      {"S : 7|64@0+ (1,0) [0|0] \"\"", {1, 2, 3, 4, 5, 6, 7, 8}, 0x0102030405060708, false},
      // Sixty-four bits that spread over nine bytes.
      {"S : 3|64@1+ (1,0) [0|0] \"\"", {0x08, 0, 0, 0, 0, 0, 0, 0, 0x04}, INT64_MIN + 1, false},
      {"S : 4|64@0+ (1,0) [0|0] \"\"", {0x10, 0, 0, 0, 0, 0, 0, 0, 0x20}, INT64_MIN + 1, false},
  };
  for (const BitCase &c : cases) {
    SCOPED_TRACE(c.signal);
    const Database db = oneSignal(c.signal);
    const std::vector<uint8_t> data = padTo16(c.data);
    std::vector<DecodedSignal> out;
    ASSERT_NE(db.decode(1, false, data.data(), data.size(), out), nullptr);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_EQ(out[0].raw, c.raw);
    if (!c.exactAsDouble)
      continue;
    const EncodedFrame f = encode(*db.findMessage("M"), {{"S", static_cast<double>(c.raw)}});
    EXPECT_EQ(std::vector<uint8_t>(f.data.begin(), f.data.begin() + f.length), data);
  }
}

struct ValueCase {
  const char *signal;
  const char *extra;
  double value;
  double tolerance;
};

TEST(DbcValues, EncodeThenDecodeGivesTheValueBack) {
  const ValueCase cases[] = {
      {"S : 3|13@1- (0.1,-40) [-400|400] \"C\"", "", -12.3, 0.05},
      {"S : 22|20@0+ (0.05,0) [0|0] \"\"", "", 12345.65, 0.025},
      {"S : 9|32@1- (1,0) [0|0] \"\"", "SIG_VALTYPE_ 1 S : 1;", 3.25, 0},
      {"S : 7|64@0- (1,0) [0|0] \"\"", "SIG_VALTYPE_ 1 S : 2;", -2.5e10, 0},
      {"S : 64|64@1- (2,1) [0|0] \"\"", "SIG_VALTYPE_ 1 S : 2;", 1.0 / 3, 1e-15},
  };
  for (const ValueCase &c : cases) {
    SCOPED_TRACE(c.signal);
    const Database db = oneSignal(c.signal, c.extra);
    const EncodedFrame f = encode(*db.findMessage("M"), {{"S", c.value}});
    std::vector<DecodedSignal> out;
    db.decode(f.id, f.extended, f.data.data(), f.length, out);
    ASSERT_EQ(out.size(), 1u);
    EXPECT_NEAR(out[0].value, c.value, c.tolerance);
  }
}

std::string decodedText(const Database &db, const EncodedFrame &f) {
  std::vector<DecodedSignal> out;
  const Message *m = db.decode(f.id, f.extended, f.data.data(), f.length, out);
  return m ? formatDecoded(*m, out) : "unknown";
}

TEST(DbcValues, MultiplexedSignalsFollowTheMultiplexer) {
  const Message &diag = *vehicle().findMessage("Diagnostics");
  EXPECT_EQ(decodedText(vehicle(), encode(diag, {{"Service", 2}, {"Current", -1.5}})),
            "Diagnostics: Service=2 \"ReadCurrent\" Current=-1.5 A Counter=0");
  EXPECT_EQ(decodedText(vehicle(), encode(diag, {{"Service", 1}, {"Voltage", 12.5}})),
            "Diagnostics: Service=1 \"ReadVoltage\" Voltage=12.5 V Counter=0");
}

TEST(DbcFile, ReadsWhatToolsWriteAndWarnsAboutVendorKeywords) {
  std::vector<std::string> warnings;
  const Database db = Database::load(WCAN_TEST_DATA "/vehicle.dbc", warnings);
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_EQ(warnings[0], "line 99: skipped unknown keyword 'VENDOR_LAYOUT_'");
  EXPECT_EQ(warnings[1], "line 100: skipped unknown keyword 'VENDOR_NOTE_'");

  const Message *engine = db.findMessage(100, false);
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(engine->cycleTimeMs, 10.0);
  EXPECT_EQ(engine->comment, "Engine state,\nsent every 10 ms");
  EXPECT_EQ(engine->findSignal("EngineSpeed")->comment, "Crankshaft speed");
  EXPECT_EQ(db.comment(), "Bench network; \"quoted\" words");
  EXPECT_EQ(db.nodeComments().at("Engine"), "Engine control unit");
  EXPECT_EQ(db.findMessage("Diagnostics")->findSignal("Counter")->comment, "Rolling counter");

  const Message *speed = db.findMessage(0x18FEF100, true);
  ASSERT_NE(speed, nullptr);
  EXPECT_EQ(speed->cycleTimeMs, 100.0); // the default
  EXPECT_FALSE(speed->fd);
  EXPECT_FALSE(db.findMessage("Diagnostics")->cycleTimeMs);
  const Message *sensor = db.findMessage("SensorFrame");
  EXPECT_TRUE(sensor->fd && sensor->brs);
  EXPECT_EQ(db.findMessage(0, false), nullptr); // the holder of orphan signals

  const uint8_t engineBytes[] = {0xA5, 0x09, 0x03, 0x82, 0xFD, 0x80, 0, 0};
  std::vector<DecodedSignal> out;
  db.decode(100, false, engineBytes, sizeof engineBytes, out);
  EXPECT_EQ(formatDecoded(*engine, out), "EngineData: EngineSpeed=1234.5 rpm Gear=3 \"Drive\" "
                                         "CoolantTemp=90 degC Torque=-10 Nm");
  db.decode(100, false, engineBytes, 2, out); // a short frame: what fits
  EXPECT_EQ(formatDecoded(*engine, out), "EngineData: EngineSpeed=1234.5 rpm");
}

TEST(DbcFile, CanFdMessageWithFloatsAndANamedValueTable) {
  const Message &sensor = *vehicle().findMessage("SensorFrame");
  const double ready = parseSignalValue(*sensor.findSignal("State"), "Ready");
  const EncodedFrame f = encode(sensor, {{"Accel", -9.75}, {"Position", 1e-3}, {"State", ready}});
  EXPECT_TRUE(f.fd && f.brs && f.length == 64 && !f.extended && f.id == 1024);
  EXPECT_EQ(decodedText(vehicle(), f),
            "SensorFrame: Accel=-9.75 m/s2 Position=0.001 m State=2 \"Ready\"");
}

TEST(DbcEncode, RefusesValuesItCannotSend) {
  const struct {
    const char *message;
    std::vector<std::pair<std::string, double>> values;
    const char *error;
  } cases[] = {
      {"EngineData", {{"Gear", 8}}, "Gear=8 is outside 0..7"},
      {"EngineData", {{"Nope", 1}}, "message EngineData has no signal Nope"},
      {"Diagnostics", {{"Voltage", 1}}, "give the multiplexer Service"},
      {"Diagnostics", {{"Service", 2}, {"Voltage", 1}}, "multiplexer value 1, not 2"},
      {"VehicleSpeed", {{"Odometer", -1}}, "does not fit in the 32 bits of Odometer"},
      {"EngineData", {{"Gear", NAN}}, "is not a number"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.error);
    try {
      encode(*vehicle().findMessage(c.message), c.values);
      ADD_FAILURE() << "encoded";
    } catch (const EncodeError &e) {
      EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
    }
  }
  EXPECT_THROW(parseSignalValue(*vehicle().findMessage("EngineData")->findSignal("Gear"), "Sport"),
               EncodeError);
}

TEST(DbcErrors, SayWhereAndWhatWasExpected) {
  const std::string msg = "BO_ 1 M: 8 N\n";
  const struct {
    std::string text;
    unsigned line, column;
    const char *what;
  } cases[] = {
      {msg + " SG_ S : 0 8@1+ (1,0) [0|0] \"\" N\n", 2, 12, "expected '|' after the start bit"},
      {msg + " SG_ S : 0|8@2+ (1,0) [0|0] \"\" N\n", 2, 14, "expected byte order 0 or 1"},
      {msg + " SG_ S : 0|8@1 (1,0) [0|0] \"\" N\n", 2, 16, "expected '+' or '-'"},
      {msg + " SG_ S : 0|0@1+ (1,0) [0|0] \"\" N\n", 2, 12, "signal length must be 1..64"},
      {msg + " SG_ S : 0|65@1+ (1,0) [0|0] \"\" N\n", 2, 12, "expected a signal length"},
      {msg + " SG_ S : 60|8@1+ (1,0) [0|0] \"\" N\n", 2, 10, "does not fit in the 8 bytes"},
      {msg + " SG_ S : 63|16@0+ (1,0) [0|0] \"\" N\n", 2, 10, "does not fit"},
      {msg + " SG_ S : 0|8@1+ (1,a) [0|0] \"\" N\n", 2, 20, "expected an offset"},
      {msg + " SG_ S : 0|8@1+ (1,0) [0|0] N\n", 2, 29, "expected a unit string"},
      {msg + " SG_ S x1 : 0|8@1+ (1,0) [0|0] \"\" N\n", 2, 8, "multiplexer indicator"},
      {msg + " SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n SG_ S : 8|8@1+ (1,0) [0|0] \"\" N\n", 3, 2,
       "defined twice"},
      {msg + "BO_ 1 M2: 8 N\n", 2, 5, "defined twice"},
      {"BO_ 1 M: 65 N\n", 1, 10, "expected a message length"},
      {"BO_ 1 M 8 N\n", 1, 9, "expected ':' after the message name"},
      {"\n SG_ S : 0|8@1+ (1,0) [0|0] \"\" N\n", 2, 2, "SG_ outside a message"},
      {"CM_ \"never ends;\n", 1, 5, "unterminated string"},
      {"CM_ \"a\"\nCM_ \"b\";", 2, 1, "expected ';' after the comment"},
      {"BA_DEF_ BO_ \"X\" BOOL;", 1, 17, "expected INT, HEX, FLOAT, STRING or ENUM"},
      {msg + "VAL_ 1 S 1.5 \"x\" ;", 2, 10, "expected an integer value"},
      {"VERSION \"\"\n}", 2, 1, "expected a keyword"},
  };
  for (const auto &c : cases) {
    SCOPED_TRACE(c.text);
    try {
      parseOrFail(c.text);
      ADD_FAILURE() << "parsed";
    } catch (const ParseError &e) {
      EXPECT_EQ(std::make_pair(e.line(), e.column()), std::make_pair(c.line, c.column)) << e.what();
      EXPECT_NE(std::string(e.what()).find(c.what), std::string::npos) << e.what();
    }
  }
  try {
    parseOrFail(msg + " SG_ S : 0|16@1+ (1,0) [0|0] \"\" N\nSIG_VALTYPE_ 1 S : 1;\n");
    ADD_FAILURE() << "parsed";
  } catch (const ParseError &e) {
    EXPECT_STREQ(e.what(), "line 3, column 20: signal S of 16 bits cannot hold a float");
  }
}

} // namespace
} // namespace wcantool::dbc
