// SPDX-License-Identifier: MIT
// The pcapng reader on any bytes: it never reads outside the buffer, always
// ends, and every frame it hands out survives being written and read again.
#include "FuzzSupport.h"
#include "capture/Pcapng.h"

using namespace wcantool::capture;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  PcapngReader reader(data, size);
  Packet packet;
  for (size_t steps = 0;; ++steps) {
    require(steps <= size / 12 + 1);
    const PcapngReader::Result r = reader.next(packet);
    if (r == PcapngReader::Result::End || (r == PcapngReader::Result::Bad && reader.fatal()))
      break;
    if (r != PcapngReader::Result::Packet)
      continue;
    uint8_t bytes[kFdPacketSize];
    const size_t n = encodeSocketCan(packet.frame, bytes);
    wcantool::Frame again;
    bool errorFrame = true;
    std::string why;
    require(decodeSocketCan(bytes, n, again, errorFrame, why) && !errorFrame);
    require(again == packet.frame);
  }
  return 0;
}
