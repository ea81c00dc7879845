// SPDX-License-Identifier: MIT
// The reply decoders of the classic adapter and of the recorder on any reply
// bytes and any received count: no read outside the reply, and every result
// within the range its caller relies on.
#include <cstring>

#include "FuzzSupport.h"
#include "devices/canrecord/CanRecordWire.h"
#include "devices/usbcan2/Usbcan2Wire.h"

namespace {

void classicReplies(const std::vector<uint8_t> &bytes, size_t received) {
  using namespace usbcan2wire;
  // The driver always hands over a buffer, even for an empty reply.
  static const uint8_t none = 0;
  const ByteReader reply(bytes.empty() ? &none : bytes.data(), bytes.size());
  (void)initAccepted(reply);
  (void)versionWord(reply);
  (void)lastByte(reply, received);
  char text[41];
  std::memset(text, 0x7E, sizeof text);
  const size_t copied = copyText(reply, text, 40);
  require(copied <= 40 && copied <= bytes.size() && text[40] == 0x7E);
  const bool long5 = received >= 5 && bytes.size() >= 5;
  require(!decodeRelayGet(reply, received) || long5);
  require(!relaySetAccepted(reply, received) || long5);
  require(!decodeBaudPara(reply, received) || (received >= 9 && bytes.size() >= 9));
  require(!decodeChState(reply, received) || (received >= 12 && bytes.size() >= 12));
}

void recorderReplies(const std::vector<uint8_t> &bytes, int exchangeResult, int length) {
  using namespace canrecord;
  Reply reply;
  std::copy_n(bytes.begin(), std::min(bytes.size(), reply.bytes.size()), reply.bytes.begin());
  reply.length = length;
  const uint8_t request[2] = {reply.bytes[0], reply.bytes[1]};
  require(!replyMatches(request, reply.bytes.data(), length) || length >= 3);
  (void)decodeVersion(reply);
  (void)decodeChannelCount(reply);
  _WCAN_RECORD_CONFIG settings{};
  if (settingsReadSucceeded(exchangeResult, reply)) {
    decodeSettings(reply, settings);
    require(settings.recFlag1 <= 1 && settings.recFlag2 <= 1 && settings.recFlag3 <= 1);
    require(settings.recOptFlag0 <= 1 && settings.recOptFlag1 <= 1);
  }
  _WCAN_FLITER_INFO info{};
  require(!decodeFilterInfo(exchangeResult, reply, info) || length >= kFilterInfoReplyMin);
  _WCAN_FLITER_CONFIG filter{};
  require(!decodeFilterSetting(exchangeResult, reply, filter) || length >= kFilterSettingReplyMin);
  require(passThroughReplySize(reply) <= kPassThroughPayload);
  const BitTimingFields fields = splitBitTiming(reply.reader().u32le(8));
  (void)joinBitTiming(fields);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  const size_t received = in.ConsumeIntegralInRange<size_t>(0, 80);
  const int exchangeResult = in.ConsumeIntegralInRange<int>(-2, 0);
  const int length = in.ConsumeIntegralInRange<int>(-1, 80);
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();
  // The reply exactly as long as what came, so a read past it is caught.
  classicReplies(bytes, received);
  recorderReplies(bytes, exchangeResult, length);
  return 0;
}
