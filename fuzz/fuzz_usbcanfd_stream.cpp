// SPDX-License-Identifier: MIT
// The CAN FD adapter's receive stream through the stream buffer, in reads of
// random sizes as the bulk endpoint hands them over. The first input byte
// picks the shape: hostile bytes as they come, or well-formed data frames
// (built from the input) with foreign bytes between them, which must come out
// exactly as they went in whatever the read sizes.
#include <tuple>

#include "FuzzSupport.h"
#include "devices/usbcanfd/UsbCanFdWire.h"

namespace {

using namespace usbcanfd;

// What a record decodes to, classic or CAN FD, with the data up to its length.
struct Decoded {
  bool fd;
  unsigned queue;
  uint32_t id, timeStamp;
  uint8_t remoteFlag, externFlag, fdFlags;
  std::vector<uint8_t> data;

  bool operator==(const Decoded &o) const {
    return std::tie(fd, queue, id, timeStamp, remoteFlag, externFlag, fdFlags, data) ==
           std::tie(o.fd, o.queue, o.id, o.timeStamp, o.remoteFlag, o.externFlag, o.fdFlags,
                    o.data);
  }
};

struct CheckingSink {
  std::vector<Decoded> records;

  void can(unsigned queue, const _WCAN_CAN_OBJ &obj) { keep(false, queue, obj, 0); }
  void canFd(unsigned queue, const _WCAN_CANFD_OBJ &obj) {
    require((obj.fdFlags & ~WCAN_FDFLAG_BRS) == 0);
    keep(true, queue, obj, obj.fdFlags);
  }
  template <typename Obj> void keep(bool fd, unsigned queue, const Obj &obj, uint8_t fdFlags) {
    require(queue < kChannelSlots && obj.dataLen <= sizeof obj.data && obj.id <= 0x1FFFFFFF);
    require(obj.remoteFlag <= 1 && obj.externFlag <= 1);
    records.push_back({fd, queue, obj.id, obj.timeStamp, obj.remoteFlag, obj.externFlag, fdFlags,
                       std::vector<uint8_t>(obj.data, obj.data + obj.dataLen)});
  }
};

// Feeds `bytes` in reads of up to 5000 bytes (the rest in one read once the
// sizes run out) and returns what came out; whole frames leave nothing behind.
std::vector<Decoded> decode(const std::vector<uint8_t> &bytes, ReadSizes &reads, bool whole) {
  StreamAssembler stream;
  CheckingSink sink;
  reads.feed(bytes, 5000, bytes.size(), [&](const uint8_t *data, size_t n) {
    stream.feed(data, n, sink);
    require(stream.pending() <= kStreamBufferLen);
  });
  require(!whole || stream.pending() == 0);
  return sink.records;
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
    const unsigned queue = std::min<unsigned>(channel, kChannelSlots - 1);
    const uint8_t remote = (flags & kWireRemote) ? 1 : 0,
                  extended = (flags & kWireExtended) ? 1 : 0;
    const uint8_t brs = fd && (flags & kWireFlag10) ? WCAN_FDFLAG_BRS : 0;
    Decoded d{fd, queue, id & 0x1FFFFFFF, stamp, remote, extended, brs, {}};
    for (size_t k = 0; k < room; ++k) {
      records.push_back(in.ConsumeIntegral<uint8_t>());
      if (k < len) {
        d.data.push_back(records.back());
      }
    }
    expected.push_back(d);
  }
  const size_t n = records.size();
  out.insert(out.end(), {kFrameStart, kDataFrameCode, 0, 0, static_cast<uint8_t>(n),
                         static_cast<uint8_t>(n >> 8), static_cast<uint8_t>(count)});
  out.insert(out.end(), records.begin(), records.end());
}

void hostileStream(FuzzedDataProvider &in) {
  ReadSizes reads(in);
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  require(decode(bytes, reads, false).size() <= bytes.size() / kCanRecordLen);
}

void wellFormedStream(FuzzedDataProvider &in) {
  ReadSizes reads(in);
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
  require(decode(bytes, reads, true) == expected);
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
