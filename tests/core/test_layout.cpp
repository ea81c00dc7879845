// SPDX-License-Identifier: MIT
// Host programs built against the original record layout must work
// unchanged: every size and offset is pinned.
#include <gtest/gtest.h>

#include <cstddef>

#include "wcan.h"

#define AT(type, field, offset) static_assert(offsetof(type, field) == (offset), #type "." #field)

AT(_WCAN_CAN_OBJ, id, 0);
AT(_WCAN_CAN_OBJ, timeStamp, 4);
AT(_WCAN_CAN_OBJ, rawFlag, 8);
AT(_WCAN_CAN_OBJ, sendType, 9);
AT(_WCAN_CAN_OBJ, remoteFlag, 10);
AT(_WCAN_CAN_OBJ, externFlag, 11);
AT(_WCAN_CAN_OBJ, dataLen, 12);
AT(_WCAN_CAN_OBJ, reserved, 13);
AT(_WCAN_CAN_OBJ, data, 16);
static_assert(sizeof(_WCAN_CAN_OBJ) == 24);

AT(_WCAN_CANFD_OBJ, fdFlags, 8);
AT(_WCAN_CANFD_OBJ, dataLen, 12);
AT(_WCAN_CANFD_OBJ, data, 16);
static_assert(sizeof(_WCAN_CANFD_OBJ) == 80);

AT(_WCAN_INIT_CONFIG, param3, 12);
AT(_WCAN_INIT_CONFIG, timing0, 13);
AT(_WCAN_INIT_CONFIG, timing1, 14);
AT(_WCAN_INIT_CONFIG, mode, 15);
static_assert(sizeof(_WCAN_INIT_CONFIG) == 16);

AT(_WCAN_INITFD_CONFIG, dbitRate, 4);
AT(_WCAN_INITFD_CONFIG, abitTiming, 8);
AT(_WCAN_INITFD_CONFIG, dbitTiming, 12);
AT(_WCAN_INITFD_CONFIG, option0, 16);
AT(_WCAN_INITFD_CONFIG, fdEnable, 17);
AT(_WCAN_INITFD_CONFIG, option1, 18);
static_assert(sizeof(_WCAN_INITFD_CONFIG) == 56);

AT(_WCAN_BOARD_INFO, fwVersion, 2);
AT(_WCAN_BOARD_INFO, extVersion0, 4);
AT(_WCAN_BOARD_INFO, extVersion1, 6);
AT(_WCAN_BOARD_INFO, auxWord, 8);
AT(_WCAN_BOARD_INFO, canNum, 10);
AT(_WCAN_BOARD_INFO, serialNum, 11);
AT(_WCAN_BOARD_INFO, hwType, 31);
AT(_WCAN_BOARD_INFO, reserved, 72);
static_assert(sizeof(_WCAN_BOARD_INFO) == 76);

AT(_WCAN_FLITER_CONFIG, idMode, 1);
AT(_WCAN_FLITER_CONFIG, idType, 2);
AT(_WCAN_FLITER_CONFIG, startId, 4);
AT(_WCAN_FLITER_CONFIG, endId, 8);
AT(_WCAN_FLITER_CONFIG, filterIndex, 12);
static_assert(sizeof(_WCAN_FLITER_CONFIG) == 16);

AT(_WCAN_FLITER_INFO, filterState, 2);
static_assert(sizeof(_WCAN_FLITER_INFO) == 4);

AT(_WCAN_RECORD_CONFIG, recFlag1, 1);
AT(_WCAN_RECORD_CONFIG, abitParam, 4);
AT(_WCAN_RECORD_CONFIG, dbitParam, 5);
AT(_WCAN_RECORD_CONFIG, abitTiming, 8);
AT(_WCAN_RECORD_CONFIG, dbitTiming, 12);
AT(_WCAN_RECORD_CONFIG, recOptFlag0, 16);
AT(_WCAN_RECORD_CONFIG, recOptFlag1, 19);
AT(_WCAN_RECORD_CONFIG, recOptByte3, 20);
static_assert(sizeof(_WCAN_RECORD_CONFIG) == 24);

extern "C" void wcanRecordSizesSeenByC(unsigned sizes[8]);

TEST(Layout, CSeesTheSameRecordSizes) {
  unsigned sizes[8] = {};
  wcanRecordSizesSeenByC(sizes);
  const unsigned expected[8] = {24, 80, 16, 56, 76, 16, 4, 24};
  for (int i = 0; i < 8; ++i) {
    EXPECT_EQ(sizes[i], expected[i]) << "record " << i;
  }
}
