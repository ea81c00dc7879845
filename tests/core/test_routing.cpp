// SPDX-License-Identifier: MIT
// The exported layer: which driver slot each call reaches for each kind of
// device type, and which errors the layer itself sets.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <string>

#include "api/QErrMgr.h"
#include "api/QWCANDevMgr.h"
#include "wcan.h"

using ::testing::_;
using ::testing::Return;

namespace {

class MockDevice : public QDevice {
public:
  MOCK_METHOD(int, openDevice, (unsigned, unsigned, unsigned), (override));
  MOCK_METHOD(int, closeDevice, (), (override));
  MOCK_METHOD(int, initCAN, (unsigned, _WCAN_INIT_CONFIG *), (override));
  MOCK_METHOD(int, initCANFD, (unsigned, _WCAN_INITFD_CONFIG *), (override));
  MOCK_METHOD(int, getBoardInf, (_WCAN_BOARD_INFO *), (override));
  MOCK_METHOD(int, isDeviceOnLine, (), (override));
  MOCK_METHOD(int, transmit, (unsigned, _WCAN_CAN_OBJ *, unsigned), (override));
  MOCK_METHOD(int, transmitFD, (unsigned, _WCAN_CANFD_OBJ *, unsigned), (override));
  MOCK_METHOD(int, receiveFD, (unsigned, _WCAN_CANFD_OBJ *, unsigned, int), (override));
  MOCK_METHOD(int, receive, (unsigned, _WCAN_CAN_OBJ *, unsigned, int), (override));
  MOCK_METHOD(int, start, (unsigned), (override));
  MOCK_METHOD(int, stop, (unsigned), (override));
  MOCK_METHOD(int, clearBuffer, (unsigned), (override));
  MOCK_METHOD(int, getReceiveNum, (unsigned, unsigned char), (override));
  MOCK_METHOD(int, transmitData, (unsigned char *, unsigned), (override));
  MOCK_METHOD(int, setFliter, (unsigned, _WCAN_FLITER_CONFIG *), (override));
  MOCK_METHOD(int, RecordSettingSet, (unsigned, _WCAN_RECORD_CONFIG *), (override));
  MOCK_METHOD(int, RecordSettingGet, (unsigned, _WCAN_RECORD_CONFIG *), (override));
  MOCK_METHOD(int, RecordCmdExecute,
              (unsigned, unsigned, _WCAN_FLITER_INFO *, _WCAN_FLITER_CONFIG *), (override));
};

constexpr int kSentinel = WCAN_ERR_CAN_FORMAT; // "untouched" marker
constexpr unsigned kFd = 41, kRec = 61;

_WCAN_CAN_OBJ canFrames[4];
_WCAN_CANFD_OBJ fdFrames[4];
_WCAN_BOARD_INFO board;
_WCAN_FLITER_CONFIG filter;
_WCAN_FLITER_INFO filterInfo;
_WCAN_RECORD_CONFIG recordConfig;
_WCAN_INITFD_CONFIG fdConfig;
unsigned char raw[8];

// What a call does for one family: reach the driver, or fail with an error
// (or return 0 with the last error left untouched: kSentinel).
struct Outcome {
  bool reachesDriver;
  int error;
};

// Outcomes on an open CAN FD device, an open recorder, a closed CAN FD device
// and a closed recorder.
struct Expectation {
  Outcome fdOpen, recOpen, fdClosed, recClosed;
};

const Expectation kEveryFamily{{true, 0}, {true, 0}, {false, 7}, {false, 7}};
const Expectation kCanOnly{{true, 0}, {false, 6}, {false, 7}, {false, 6}};
const Expectation kRecorderOnly{
    {false, kSentinel}, {true, 0}, {false, kSentinel}, {false, kSentinel}};

// One exported call on (type, 0) with fixed arguments; the expectation it
// should meet on a registered device is set by `expect`.
struct Route {
  std::string name;
  std::function<int(unsigned type)> call;
  std::function<void(MockDevice &)> expect;
  Expectation outcome;
};

// A route whose driver slot must see exactly these arguments and whose
// result (5) must pass through.
#define ROUTE(name, exported, slot, outcome)                                                       \
  Route {                                                                                          \
    name, [](unsigned t) { return exported; },                                                     \
        [](MockDevice &d) { EXPECT_CALL(d, slot).WillOnce(Return(5)); }, outcome                   \
  }

std::vector<Route> objectRoutes() {
  const Expectation clear{{true, 0}, {false, 6}, {false, kSentinel}, {false, 6}};
  const Expectation settingSet{{false, kSentinel}, {true, 0}, {false, kSentinel}, {false, 7}};
  return {
      ROUTE("BoardInfoGet", WCAN_BoardInfoGet(t, 0, &board), getBoardInf(&board), kEveryFamily),
      ROUTE("DataDirectTransfer", WCAN_DataDirectTransfer(t, 0, raw, 7), transmitData(raw, 7u),
            kEveryFamily),
      ROUTE("SetFliter", WCAN_SetFliter(t, 0, 3, &filter), setFliter(3u, &filter), kCanOnly),
      ROUTE("GetReceiveNum", WCAN_GetReceiveNum(t, 0, 2, 1), getReceiveNum(2u, 1), kCanOnly),
      ROUTE("Start", WCAN_Start(t, 0, 6), start(6u), kCanOnly),
      ROUTE("Stop", WCAN_Stop(t, 0, 6), stop(6u), kCanOnly),
      ROUTE("ClearBuffer", WCAN_ClearBuffer(t, 0, 1), clearBuffer(1u), clear),
      ROUTE("Receive", WCAN_Receive(t, 0, 1, canFrames, 4, 9), receive(1u, canFrames, 4u, 9),
            kCanOnly),
      ROUTE("ReceiveFD", WCAN_ReceiveFD(t, 0, 1, fdFrames, 4, -1), receiveFD(1u, fdFrames, 4u, -1),
            kCanOnly),
      ROUTE("Transmit", WCAN_Transmit(t, 0, 1, canFrames, 0), transmit(1u, canFrames, 0u),
            kCanOnly),
      ROUTE("TransmitFD", WCAN_TransmitFD(t, 0, 1, fdFrames, 3), transmitFD(1u, fdFrames, 3u),
            kCanOnly),
      ROUTE("RecordSettingSet", WCAN_RecordSettingSet(t, 0, 1, &recordConfig),
            RecordSettingSet(1u, &recordConfig), settingSet),
      ROUTE("RecordSettingGet", WCAN_RecordSettingGet(t, 0, 1, &recordConfig),
            RecordSettingGet(1u, &recordConfig), kRecorderOnly),
      ROUTE("RecordFliterClr", WCAN_RecordFliterClr(t, 0, 1),
            RecordCmdExecute(1u, 0u, nullptr, nullptr), kRecorderOnly),
      ROUTE("RecordFliterAdd", WCAN_RecordFliterAdd(t, 0, 1, &filter),
            RecordCmdExecute(1u, 1u, nullptr, &filter), kRecorderOnly),
      ROUTE("RecordFliterEnable", WCAN_RecordFliterEnable(t, 0, 1),
            RecordCmdExecute(1u, 2u, nullptr, nullptr), kRecorderOnly),
      ROUTE("RecordFliterDisable", WCAN_RecordFliterDisable(t, 0, 1),
            RecordCmdExecute(1u, 3u, nullptr, nullptr), kRecorderOnly),
      ROUTE("RecordFliterInfoGet", WCAN_RecordFliterInfoGet(t, 0, 1, &filterInfo),
            RecordCmdExecute(1u, 4u, &filterInfo, nullptr), kRecorderOnly),
      ROUTE("RecordFliterSettingGet", WCAN_RecordFliterSettingGet(t, 0, 1, 7, &filter),
            RecordCmdExecute(1u, 5u, nullptr, &filter), kRecorderOnly),
  };
}
#undef ROUTE

// Keeps a mock registered for the life of the guard.
struct Registered {
  Registered(unsigned type, MockDevice &device) : type(type) {
    wcanDevMgr.deviceAdd(type, 0, &device);
  }
  ~Registered() { wcanDevMgr.deviceDel(type, 0); }
  unsigned type;
};

class Routing : public ::testing::Test {
protected:
  void SetUp() override { setLastError(kSentinel); }
  void check(const Route &route, unsigned type, bool open, const Outcome &outcome) {
    SCOPED_TRACE(route.name + " type " + std::to_string(type) + (open ? " open" : " closed"));
    setLastError(kSentinel);
    MockDevice device;
    EXPECT_CALL(device, closeDevice()).WillRepeatedly(Return(1));
    if (open) {
      wcanDevMgr.deviceAdd(type, 0, &device);
    }
    if (outcome.reachesDriver) {
      route.expect(device);
      EXPECT_EQ(route.call(type), 5) << "driver result passes through";
      EXPECT_EQ(WCAN_GetLastError(), kSentinel);
    } else {
      EXPECT_EQ(route.call(type), 0);
      EXPECT_EQ(WCAN_GetLastError(), outcome.error);
    }
    if (open) {
      wcanDevMgr.deviceDel(type, 0);
    }
  }
};

TEST_F(Routing, EveryObjectCallFollowsTheTable) {
  for (const Route &route : objectRoutes()) {
    const Expectation &row = route.outcome;
    check(route, kFd, true, row.fdOpen);
    check(route, kRec, true, row.recOpen);
    check(route, kFd, false, row.fdClosed);
    check(route, kRec, false, row.recClosed);
  }
}

TEST_F(Routing, UnknownTypesAreUnsupportedExceptForRecordCalls) {
  for (unsigned type : {0u, 5u, 40u, 44u, 60u, 74u, 1000u}) {
    for (const Route &route : objectRoutes()) {
      SCOPED_TRACE(route.name + " type " + std::to_string(type));
      setLastError(kSentinel);
      EXPECT_EQ(route.call(type), 0);
      const bool recordCall = route.name.rfind("Record", 0) == 0;
      EXPECT_EQ(WCAN_GetLastError(), recordCall ? kSentinel : WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
    }
    setLastError(kSentinel);
    EXPECT_EQ(WCAN_OpenDevice(type, 0), 0);
    EXPECT_EQ(WCAN_GetLastError(), WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED);
  }
}

TEST_F(Routing, InitCanFdStartsTheChannelOnlyAfterSuccess) {
  MockDevice device;
  EXPECT_CALL(device, closeDevice()).WillRepeatedly(Return(1));
  Registered registered(kFd, device);
  {
    ::testing::InSequence order;
    EXPECT_CALL(device, initCANFD(2u, &fdConfig)).WillOnce(Return(1));
    EXPECT_CALL(device, start(2u)).WillOnce(Return(7));
  }
  EXPECT_EQ(WCAN_InitCANFD(kFd, 0, 2, &fdConfig), 7);

  EXPECT_CALL(device, initCANFD(2u, &fdConfig)).WillOnce(Return(-2));
  EXPECT_CALL(device, start(_)).Times(0);
  EXPECT_EQ(WCAN_InitCANFD(kFd, 0, 2, &fdConfig), -2);
}

TEST_F(Routing, FilterSettingGetStoresTheIndexAsAZeroExtendedWord) {
  _WCAN_FLITER_CONFIG config;
  memset(&config, 0xEE, sizeof config);
  WCAN_RecordFliterSettingGet(kRec, 0, 0, static_cast<unsigned short>(0x12345), &config);
  EXPECT_EQ(config.filterIndex, 0x2345);
  const unsigned char *bytes = reinterpret_cast<const unsigned char *>(&config);
  EXPECT_EQ(bytes[14], 0);
  EXPECT_EQ(bytes[15], 0);
  EXPECT_EQ(bytes[11], 0xEE) << "bytes before the field are untouched";
}

// The classic family's own checks made by the exported layer, before any
// driver call.
TEST_F(Routing, ClassicLayerChecks) {
  struct Case {
    const char *name;
    std::function<int()> call;
    int error;
  } cases[] = {
      {"Receive count 0", [] { return WCAN_Receive(4, 0, 0, canFrames, 0, 100); },
       WCAN_ERR_PARAMETER},
      {"Transmit count 0", [] { return WCAN_Transmit(3, 0, 0, canFrames, 0); }, WCAN_ERR_PARAMETER},
      {"InitCANFD silent type", [] { return WCAN_InitCANFD(63, 0, 0, &fdConfig); }, kSentinel},
      {"Receive silent type", [] { return WCAN_Receive(70, 0, 0, canFrames, 4, 0); }, kSentinel},
      {"Transmit silent type", [] { return WCAN_Transmit(73, 0, 0, canFrames, 4); }, kSentinel},
      {"GetReceiveNum FD kind", [] { return WCAN_GetReceiveNum(3, 0, 0, 1); }, kSentinel},
      {"InitCANFD core type", [] { return WCAN_InitCANFD(3, 0, 0, &fdConfig); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"ReceiveFD core type", [] { return WCAN_ReceiveFD(4, 0, 0, fdFrames, 1, 0); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"SetFliter core type", [] { return WCAN_SetFliter(3, 0, 0, &filter); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"InitCAN FD type", [] { return WCAN_InitCAN(41, 0, 0, nullptr); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"Relay on silent type", [] { return WCAN_DevRelayStatusSet(68, 0, 1, 1); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"Relay on FD type", [] { return WCAN_DevRelayStatusSet(41, 0, 1, 1); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"Baud on recorder", [] { return WCAN_DevBaudParaGet(61, 0, 0, raw, raw); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"ChState on silent type", [] { return WCAN_DevChStateGet(69, 0, 0, raw, raw, raw); },
       WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED},
      {"Record call on classic", [] { return WCAN_RecordSettingSet(3, 0, 0, &recordConfig); },
       kSentinel},
  };
  for (const Case &c : cases) {
    SCOPED_TRACE(c.name);
    setLastError(kSentinel);
    EXPECT_EQ(c.call(), 0);
    EXPECT_EQ(WCAN_GetLastError(), c.error);
  }
}

} // namespace
