/* SPDX-License-Identifier: MIT */
/* Compiled as C99 (-pedantic): the public header must stay plain C, and the
 * C compiler must lay the records out as the C++ one does. */
#include "wcan.h"

void wcanRecordSizesSeenByC(unsigned sizes[8]) {
  sizes[0] = sizeof(_WCAN_CAN_OBJ);
  sizes[1] = sizeof(_WCAN_CANFD_OBJ);
  sizes[2] = sizeof(_WCAN_INIT_CONFIG);
  sizes[3] = sizeof(_WCAN_INITFD_CONFIG);
  sizes[4] = sizeof(_WCAN_BOARD_INFO);
  sizes[5] = sizeof(_WCAN_FLITER_CONFIG);
  sizes[6] = sizeof(_WCAN_FLITER_INFO);
  sizes[7] = sizeof(_WCAN_RECORD_CONFIG);
}
