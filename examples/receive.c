/* SPDX-License-Identifier: MIT */
/* Opens the first CAN FD adapter, starts channel 0 and prints what arrives. */
#include <stdio.h>
#include <wcan.h>

int main(void) {
  _WCAN_INITFD_CONFIG cfg = {.abitRate = 500000, .dbitRate = 2000000, .fdEnable = 1};
  _WCAN_CANFD_OBJ rx[16];
  if (!WCAN_OpenDevice(41, 0) || !WCAN_InitCANFD(41, 0, 0, &cfg)) {
    fprintf(stderr, "wcan: %s\n", WCAN_GetLastErrorStr());
    return 1;
  }
  int n = WCAN_ReceiveFD(41, 0, 0, rx, 16, 1000); /* wait up to 1 s */
  for (int i = 0; i < n; i++)
    printf("%03X [%u]\n", rx[i].id, rx[i].dataLen);
  WCAN_CloseDevice(41, 0);
  return 0;
}
