/* SPDX-License-Identifier: MIT */
/* Every device type number the library knows, and the classic adapter's bit
 * rates, as X-macro tables. The library, the command line tools and the
 * Python package's build all expand these same lines, so a type added here
 * reaches each of them and none keeps a copy of its own. Plain C, so the C
 * program that writes the Python tables can read it too. Not installed: it
 * describes the library's internals to its own tools. */
#ifndef WCAN_DEVICE_TYPES_H
#define WCAN_DEVICE_TYPES_H

/* X(type, family, USB vendor id, USB product id, channels, controller clock
 * in MHz (CAN FD adapters), width of the frame time stamp counter in bits).
 * Families: CanFd, Classic, ClassicRefused (routed to the classic family,
 * which refuses them), Recorder. Types that share USB ids open the same
 * adapters; the first of them stands for the group in listings. */
#define WCAN_DEVICE_TYPES(X)                                                                       \
  X(41, CanFd, 0x3068, 0x0009, 2, 60, 32)                                                          \
  X(42, CanFd, 0x3068, 0x0009, 2, 60, 32)                                                          \
  X(43, CanFd, 0x3068, 0x0009, 2, 60, 32)                                                          \
  X(64, CanFd, 0x0471, 0x3014, 4, 60, 32)                                                          \
  X(65, CanFd, 0x0471, 0x2014, 4, 60, 32)                                                          \
  X(66, CanFd, 0x0471, 0x2018, 8, 80, 32)                                                          \
  X(67, CanFd, 0x0471, 0x3018, 8, 80, 32)                                                          \
  X(3, Classic, 0x0471, 0x1200, 2, 0, 24)                                                          \
  X(4, Classic, 0x0471, 0x1200, 2, 0, 24)                                                          \
  X(63, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(68, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(69, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(70, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(71, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(72, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(73, ClassicRefused, 0, 0, 0, 0, 0)                                                             \
  X(61, Recorder, 0x0471, 0x2601, 2, 0, 32)                                                        \
  X(62, Recorder, 0x0471, 0x2602, 2, 0, 32)

/* X(bit rate, timing register 0, timing register 1): the classic adapter's
 * controller at 16 MHz, single sampling, jump width 1; sample point 87.5 %
 * from 500 kbit/s down. */
#define WCAN_CLASSIC_BIT_RATES(X)                                                                  \
  X(1000000, 0x00, 0x14)                                                                           \
  X(800000, 0x00, 0x16)                                                                            \
  X(500000, 0x00, 0x1C)                                                                            \
  X(250000, 0x01, 0x1C)                                                                            \
  X(125000, 0x03, 0x1C)                                                                            \
  X(100000, 0x04, 0x1C)                                                                            \
  X(50000, 0x09, 0x1C)                                                                             \
  X(20000, 0x18, 0x1C)                                                                             \
  X(10000, 0x31, 0x1C)

#endif
