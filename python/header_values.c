/* SPDX-License-Identifier: MIT */
/* Writes the Python module wcan/_header.py: the size and field offsets of
 * every record of wcan.h and the value of every constant, as this compiler
 * lays them out. The package compares its ctypes records against these at
 * import, so a header change that the Python side missed fails loudly
 * instead of corrupting memory. */
#include <stddef.h>
#include <stdio.h>
#include <string.h>

#include "wcan.h"
#include "wcan_device_types.h"

#define RECORD(type) printf("    \"%s\": (%zu, {\n", &(#type)[1], sizeof(type));
#define FIELD(type, field) printf("        \"%s\": %zu,\n", #field, offsetof(type, field));
#define END_RECORD() printf("    }),\n");
#define CONSTANT(name) printf("    \"%s\": %lld,\n", #name, (long long)(name));

static void printRecords(void) {
  printf("# Size and field offsets of each record, by record name.\nRECORDS = {\n");
  RECORD(_WCAN_CAN_OBJ)
  FIELD(_WCAN_CAN_OBJ, id)
  FIELD(_WCAN_CAN_OBJ, timeStamp)
  FIELD(_WCAN_CAN_OBJ, rawFlag)
  FIELD(_WCAN_CAN_OBJ, sendType)
  FIELD(_WCAN_CAN_OBJ, remoteFlag)
  FIELD(_WCAN_CAN_OBJ, externFlag)
  FIELD(_WCAN_CAN_OBJ, dataLen)
  FIELD(_WCAN_CAN_OBJ, reserved)
  FIELD(_WCAN_CAN_OBJ, data)
  END_RECORD()
  RECORD(_WCAN_CANFD_OBJ)
  FIELD(_WCAN_CANFD_OBJ, id)
  FIELD(_WCAN_CANFD_OBJ, timeStamp)
  FIELD(_WCAN_CANFD_OBJ, fdFlags)
  FIELD(_WCAN_CANFD_OBJ, sendType)
  FIELD(_WCAN_CANFD_OBJ, remoteFlag)
  FIELD(_WCAN_CANFD_OBJ, externFlag)
  FIELD(_WCAN_CANFD_OBJ, dataLen)
  FIELD(_WCAN_CANFD_OBJ, reserved)
  FIELD(_WCAN_CANFD_OBJ, data)
  END_RECORD()
  RECORD(_WCAN_INIT_CONFIG)
  FIELD(_WCAN_INIT_CONFIG, param0)
  FIELD(_WCAN_INIT_CONFIG, param1)
  FIELD(_WCAN_INIT_CONFIG, param2)
  FIELD(_WCAN_INIT_CONFIG, param3)
  FIELD(_WCAN_INIT_CONFIG, timing0)
  FIELD(_WCAN_INIT_CONFIG, timing1)
  FIELD(_WCAN_INIT_CONFIG, mode)
  END_RECORD()
  RECORD(_WCAN_INITFD_CONFIG)
  FIELD(_WCAN_INITFD_CONFIG, abitRate)
  FIELD(_WCAN_INITFD_CONFIG, dbitRate)
  FIELD(_WCAN_INITFD_CONFIG, abitTiming)
  FIELD(_WCAN_INITFD_CONFIG, dbitTiming)
  FIELD(_WCAN_INITFD_CONFIG, option0)
  FIELD(_WCAN_INITFD_CONFIG, fdEnable)
  FIELD(_WCAN_INITFD_CONFIG, option1)
  FIELD(_WCAN_INITFD_CONFIG, reserved)
  END_RECORD()
  RECORD(_WCAN_BOARD_INFO)
  FIELD(_WCAN_BOARD_INFO, hwVersion)
  FIELD(_WCAN_BOARD_INFO, fwVersion)
  FIELD(_WCAN_BOARD_INFO, extVersion0)
  FIELD(_WCAN_BOARD_INFO, extVersion1)
  FIELD(_WCAN_BOARD_INFO, auxWord)
  FIELD(_WCAN_BOARD_INFO, canNum)
  FIELD(_WCAN_BOARD_INFO, serialNum)
  FIELD(_WCAN_BOARD_INFO, hwType)
  FIELD(_WCAN_BOARD_INFO, reserved)
  END_RECORD()
  RECORD(_WCAN_FLITER_CONFIG)
  FIELD(_WCAN_FLITER_CONFIG, filterCmd)
  FIELD(_WCAN_FLITER_CONFIG, idMode)
  FIELD(_WCAN_FLITER_CONFIG, idType)
  FIELD(_WCAN_FLITER_CONFIG, startId)
  FIELD(_WCAN_FLITER_CONFIG, endId)
  FIELD(_WCAN_FLITER_CONFIG, filterIndex)
  END_RECORD()
  RECORD(_WCAN_FLITER_INFO)
  FIELD(_WCAN_FLITER_INFO, filterCount)
  FIELD(_WCAN_FLITER_INFO, filterState)
  END_RECORD()
  RECORD(_WCAN_RECORD_CONFIG)
  FIELD(_WCAN_RECORD_CONFIG, reserved0)
  FIELD(_WCAN_RECORD_CONFIG, recFlag1)
  FIELD(_WCAN_RECORD_CONFIG, recFlag2)
  FIELD(_WCAN_RECORD_CONFIG, recFlag3)
  FIELD(_WCAN_RECORD_CONFIG, abitParam)
  FIELD(_WCAN_RECORD_CONFIG, dbitParam)
  FIELD(_WCAN_RECORD_CONFIG, abitTiming)
  FIELD(_WCAN_RECORD_CONFIG, dbitTiming)
  FIELD(_WCAN_RECORD_CONFIG, recOptFlag0)
  FIELD(_WCAN_RECORD_CONFIG, recOptByte1)
  FIELD(_WCAN_RECORD_CONFIG, recOptByte2)
  FIELD(_WCAN_RECORD_CONFIG, recOptFlag1)
  FIELD(_WCAN_RECORD_CONFIG, recOptByte3)
  END_RECORD()
  printf("}\n\n");
}

static void printConstants(void) {
  printf("# The header's constants, by name.\nCONSTANTS = {\n");
  CONSTANT(WCAN_DEV_USBCAN2_A)
  CONSTANT(WCAN_DEV_USBCAN2_B)
  CONSTANT(WCAN_DEV_USBCANFD_41)
  CONSTANT(WCAN_DEV_USBCANFD_42)
  CONSTANT(WCAN_DEV_USBCANFD_43)
  CONSTANT(WCAN_DEV_USBCANFD_64)
  CONSTANT(WCAN_DEV_USBCANFD_65)
  CONSTANT(WCAN_DEV_USBCANFD_66)
  CONSTANT(WCAN_DEV_USBCANFD_67)
  CONSTANT(WCAN_DEV_CANRECORD_61)
  CONSTANT(WCAN_DEV_CANRECORD_62)
  CONSTANT(WCAN_ERR_OK)
  CONSTANT(WCAN_ERR_DEVICE_NOT_EXIST)
  CONSTANT(WCAN_ERR_USB_TRANSPORT)
  CONSTANT(WCAN_ERR_PACKAGE_FORMAT)
  CONSTANT(WCAN_ERR_DEVICE_INFO_GET)
  CONSTANT(WCAN_ERR_DEVICE_TYPE_NOT_SUPPORTED)
  CONSTANT(WCAN_ERR_DEVICE_NOT_OPENED)
  CONSTANT(WCAN_ERR_PARAMETER)
  CONSTANT(WCAN_ERR_MEMORY_MALLOC)
  CONSTANT(WCAN_ERR_PARAMETER_NOT_SUPPORTED)
  CONSTANT(WCAN_ERR_BAUD_RATE_NOT_SUPPORTED)
  CONSTANT(WCAN_ERR_USB_COMMAND)
  CONSTANT(WCAN_ERR_CAN_NOT_INITIALIZED)
  CONSTANT(WCAN_ERR_CAN_FORMAT)
  CONSTANT(WCAN_FRAMES_CAN)
  CONSTANT(WCAN_FRAMES_CANFD)
  CONSTANT(WCAN_FRAMES_ALL)
  CONSTANT(WCAN_FDFLAG_BRS)
  CONSTANT(WCAN_FDFLAG_FDF)
  CONSTANT(WCAN_RECORD_FILTER_CLEAR)
  CONSTANT(WCAN_RECORD_FILTER_ADD)
  CONSTANT(WCAN_RECORD_FILTER_ENABLE)
  CONSTANT(WCAN_RECORD_FILTER_DISABLE)
  CONSTANT(WCAN_RECORD_FILTER_INFO_GET)
  CONSTANT(WCAN_RECORD_FILTER_SETTING_GET)
  printf("}\n");
}

/* The library's device-type and classic bit-rate tables, so the package
 * keeps no copy of its own. */
#define TYPE_ROW(type, family, vendorId, productId, channels, clockMHz, counterBits)               \
  if (strcmp(#family, "ClassicRefused") != 0)                                                      \
    printf("    (%d, \"%s\", 0x%04X, 0x%04X, %d, %d),\n", type, #family, vendorId, productId,      \
           channels, counterBits);
#define RATE_ROW(bitRate, timing0, timing1)                                                        \
  printf("    %d: (0x%02X, 0x%02X),\n", bitRate, timing0, timing1);

static void printTables(void) {
  printf("# (type, family, USB vendor id, USB product id, channels, time stamp counter bits)\n");
  printf("DEVICE_TYPES = (\n");
  WCAN_DEVICE_TYPES(TYPE_ROW)
  printf(")\n\n# Classic adapter bit rate -> (timing0, timing1).\nCLASSIC_TIMINGS = {\n");
  WCAN_CLASSIC_BIT_RATES(RATE_ROW)
  printf("}\n");
}

int main(void) {
  printf("# Generated at build time from wcan.h by header_values.c; do not edit.\n\n");
  printRecords();
  printConstants();
  printf("\n");
  printTables();
  return 0;
}
