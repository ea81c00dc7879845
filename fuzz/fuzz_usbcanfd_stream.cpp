// The CAN FD adapter's receive stream through the stream buffer, in reads of
// random sizes as the bulk endpoint hands them over. The first input byte
// picks the shape: hostile bytes as they come, or well-formed data frames
// (built from the input) with foreign bytes between them, which must come out
// exactly as they went in whatever the read sizes.
#include <fuzzer/FuzzedDataProvider.h>

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "devices/usbcanfd/UsbCanFdWire.h"

namespace {

using namespace usbcanfd;

void require(bool condition) {
  if (!condition) {
    __builtin_trap();
  }
}

struct Decoded {
  bool fd;
  unsigned queue;
  _WCAN_CANFD_OBJ obj; // a classic record is kept in the first fields
};

struct CheckingSink {
  std::vector<Decoded> records;

  void can(unsigned queue, const _WCAN_CAN_OBJ &obj) {
    require(queue < kChannelSlots);
    require(obj.dataLen <= 8 && obj.id <= 0x1FFFFFFF);
    require(obj.remoteFlag <= 1 && obj.externFlag <= 1);
    Decoded d{false, queue, {}};
    d.obj.id = obj.id;
    d.obj.timeStamp = obj.timeStamp;
    d.obj.remoteFlag = obj.remoteFlag;
    d.obj.externFlag = obj.externFlag;
    d.obj.dataLen = obj.dataLen;
    std::memcpy(d.obj.data, obj.data, obj.dataLen);
    records.push_back(d);
  }
  void canFd(unsigned queue, const _WCAN_CANFD_OBJ &obj) {
    require(queue < kChannelSlots);
    require(obj.dataLen <= 64 && obj.id <= 0x1FFFFFFF);
    require(obj.remoteFlag <= 1 && obj.externFlag <= 1 && (obj.fdFlags & ~0x08) == 0);
    Decoded d{true, queue, {}};
    d.obj = obj;
    std::memset(d.obj.data + obj.dataLen, 0, sizeof d.obj.data - obj.dataLen);
    records.push_back(d);
  }
};

// Feeds `bytes` in reads whose sizes the provider chooses.
void feedSplit(StreamAssembler &stream, const std::vector<uint8_t> &bytes,
               FuzzedDataProvider &split, CheckingSink &sink) {
  size_t at = 0;
  while (at < bytes.size()) {
    // Once the split sizes run out, the rest comes in one read.
    const size_t n =
        split.remaining_bytes() > 0 ? split.ConsumeIntegralInRange<size_t>(1, 5000) : bytes.size();
    const size_t take = std::min(n, bytes.size() - at);
    stream.feed(bytes.data() + at, take, sink);
    require(stream.pending() <= kStreamBufferLen);
    at += take;
  }
}

void putU32(std::vector<uint8_t> &out, uint32_t v) {
  for (int i = 0; i < 4; ++i) {
    out.push_back(static_cast<uint8_t>(v >> (8 * i)));
  }
}

// One data frame of 1..10 records as the adapter sends it; the expected
// decoding of each record is appended to `expected`.
void buildFrame(FuzzedDataProvider &in, std::vector<uint8_t> &out, std::vector<Decoded> &expected) {
  std::vector<uint8_t> records;
  const unsigned count = in.ConsumeIntegralInRange<unsigned>(1, 10);
  for (unsigned i = 0; i < count; ++i) {
    const bool fd = in.ConsumeBool();
    const uint8_t channel = in.ConsumeIntegralInRange<uint8_t>(0, 15);
    const uint8_t flags =
        static_cast<uint8_t>((in.ConsumeIntegral<uint8_t>() & 0x1E) | (fd ? 1 : 0));
    const uint32_t stamp = in.ConsumeIntegral<uint32_t>();
    const uint32_t id = in.ConsumeIntegral<uint32_t>();
    const uint8_t len = in.ConsumeIntegral<uint8_t>();
    const size_t room = fd ? 64 : 8;
    records.push_back(static_cast<uint8_t>(channel << 4));
    records.push_back(flags);
    putU32(records, stamp);
    putU32(records, id);
    records.push_back(len);
    Decoded d{fd, std::min<unsigned>(channel, kChannelSlots - 1), {}};
    d.obj.id = id & 0x1FFFFFFF;
    d.obj.timeStamp = stamp;
    d.obj.remoteFlag = (flags & kWireRemote) ? 1 : 0;
    d.obj.externFlag = (flags & kWireExtended) ? 1 : 0;
    d.obj.fdFlags = fd && (flags & kWireFlag10) ? 0x08 : 0;
    d.obj.dataLen = static_cast<uint8_t>(std::min<size_t>(len, room));
    for (size_t k = 0; k < room; ++k) {
      const uint8_t b = in.ConsumeIntegral<uint8_t>();
      records.push_back(b);
      if (k < d.obj.dataLen) {
        d.obj.data[k] = b;
      }
    }
    expected.push_back(d);
  }
  const uint8_t header[7] = {kFrameStart,
                             kDataFrameCode,
                             0,
                             0,
                             static_cast<uint8_t>(records.size()),
                             static_cast<uint8_t>(records.size() >> 8),
                             static_cast<uint8_t>(count)};
  out.insert(out.end(), header, header + sizeof header);
  out.insert(out.end(), records.begin(), records.end());
}

bool sameRecord(const Decoded &a, const Decoded &b) {
  return a.fd == b.fd && a.queue == b.queue && a.obj.id == b.obj.id &&
         a.obj.timeStamp == b.obj.timeStamp && a.obj.remoteFlag == b.obj.remoteFlag &&
         a.obj.externFlag == b.obj.externFlag && a.obj.fdFlags == b.obj.fdFlags &&
         a.obj.dataLen == b.obj.dataLen && std::memcmp(a.obj.data, b.obj.data, a.obj.dataLen) == 0;
}

void hostileStream(FuzzedDataProvider &in) {
  const std::vector<uint8_t> splits = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 64));
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  FuzzedDataProvider split(splits.data(), splits.size());
  StreamAssembler stream;
  CheckingSink sink;
  feedSplit(stream, bytes, split, sink);
  require(sink.records.size() <= bytes.size() / kCanRecordLen);
}

void wellFormedStream(FuzzedDataProvider &in) {
  const std::vector<uint8_t> splits = in.ConsumeBytes<uint8_t>(in.ConsumeIntegralInRange(0, 64));
  std::vector<uint8_t> bytes;
  std::vector<Decoded> expected;
  const unsigned frames = in.ConsumeIntegralInRange<unsigned>(1, 8);
  for (unsigned f = 0; f < frames && in.remaining_bytes() > 0; ++f) {
    // Foreign bytes between frames; none can start a header.
    const size_t gap = in.ConsumeIntegralInRange<size_t>(0, 3);
    for (size_t g = 0; g < gap; ++g) {
      const uint8_t b = in.ConsumeIntegral<uint8_t>();
      bytes.push_back(b == kFrameStart ? 0 : b);
    }
    buildFrame(in, bytes, expected);
  }
  FuzzedDataProvider split(splits.data(), splits.size());
  StreamAssembler stream;
  CheckingSink sink;
  feedSplit(stream, bytes, split, sink);
  require(sink.records.size() == expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    require(sameRecord(sink.records[i], expected[i]));
  }
  require(stream.pending() == 0);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  if (in.ConsumeBool()) {
    wellFormedStream(in);
  } else {
    hostileStream(in);
  }
  return 0;
}
