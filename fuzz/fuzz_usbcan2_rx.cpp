// The classic adapter's receive reassembly over reads of random sizes (up to
// the worker's read size and beyond). Whatever the split, the records must be
// the same as when the bytes come in 64-byte reads, and every one in range.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "devices/usbcan2/Usbcan2Wire.h"

namespace {

using namespace usbcan2wire;

void require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

struct Record {
  uint32_t channel;
  _WCAN_CAN_OBJ frame;
};

std::vector<Record> reassemble(const std::vector<uint8_t> &bytes, FuzzedDataProvider *split) {
  RxReassembler reassembler;
  std::vector<Record> out;
  auto sink = [&out](uint32_t channel, const _WCAN_CAN_OBJ &frame) {
    require(channel <= 1 && frame.dataLen <= 8 && frame.id <= 0x1FFFFFFF);
    require(frame.remoteFlag <= 1 && frame.externFlag <= 1);
    Record r{channel, frame};
    std::memset(r.frame.data + frame.dataLen, 0, sizeof r.frame.data - frame.dataLen);
    out.push_back(r);
  };
  size_t at = 0;
  while (at < bytes.size()) {
    // Once the split sizes run out, the rest comes in reads of the usual size.
    const size_t n = split && split->remaining_bytes() > 0
                         ? split->ConsumeIntegralInRange<size_t>(1, 2 * kReadChunk)
                         : kReadChunk;
    const size_t take = std::min(n, bytes.size() - at);
    reassembler.feed(bytes.data() + at, take, sink);
    require(reassembler.pending() < kRecordSize);
    at += take;
  }
  return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  const std::vector<uint8_t> splits = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 64));
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  FuzzedDataProvider split(splits.data(), splits.size());
  const std::vector<Record> reference = reassemble(bytes, nullptr);
  const std::vector<Record> got = reassemble(bytes, &split);
  require(reference.size() <= bytes.size() / kRecordSize);
  require(got.size() == reference.size());
  for (size_t i = 0; i < got.size(); ++i) {
    require(std::memcmp(&got[i], &reference[i], sizeof(Record)) == 0);
  }
  return 0;
}
