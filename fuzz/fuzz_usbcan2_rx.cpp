// SPDX-License-Identifier: MIT
// The classic adapter's receive reassembly over reads of random sizes (up to
// the worker's read size and beyond). Whatever the split, the records must be
// the same as when the bytes come in 64-byte reads, and every one in range.
#include <cstring>
#include <utility>

#include "FuzzSupport.h"
#include "devices/usbcan2/Usbcan2Wire.h"

namespace {

using namespace usbcan2wire;

struct Record {
  uint32_t channel;
  _WCAN_CAN_OBJ frame;
};

std::vector<Record> reassemble(const std::vector<uint8_t> &bytes, ReadSizes &&reads) {
  RxReassembler reassembler;
  std::vector<Record> out;
  auto sink = [&out](uint32_t channel, const _WCAN_CAN_OBJ &frame) {
    require(channel <= 1 && frame.dataLen <= 8 && frame.id <= 0x1FFFFFFF);
    require(frame.remoteFlag <= 1 && frame.externFlag <= 1);
    Record r{channel, frame};
    std::memset(r.frame.data + frame.dataLen, 0, sizeof r.frame.data - frame.dataLen);
    out.push_back(r);
  };
  reads.feed(bytes, 2 * kReadChunk, kReadChunk, [&](const uint8_t *data, size_t n) {
    reassembler.feed(data, n, sink);
    require(reassembler.pending() < kRecordSize);
  });
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  ReadSizes reads(in);
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  const std::vector<Record> reference = reassemble(bytes, ReadSizes());
  const std::vector<Record> got = reassemble(bytes, std::move(reads));
  require(reference.size() <= bytes.size() / kRecordSize);
  require(got.size() == reference.size());
  for (size_t i = 0; i < got.size(); ++i) {
    require(std::memcmp(&got[i], &reference[i], sizeof(Record)) == 0);
  }
  return 0;
}
