// SPDX-License-Identifier: MIT
// Transmit and the auxiliary services (relays, baud parameters, channel
// state, direct transfer) of the classic family.
#include <cstring>

#include "api/QErrMgr.h"
#include "devices/usbcan2/Usbcan2Device.h"
#include "devices/usbcan2/Usbcan2Wire.h"
#include "devices/usbcan2/usbcan2.h"

using namespace usbcan2wire;

namespace {

constexpr uint32_t kDataTimeoutMs = 1000;
constexpr uint32_t kAuxTimeoutMs = 1000;
constexpr uint32_t kDirectTimeoutMs = 3000;
constexpr size_t kAckCapacity = 10;

// One exchange of an auxiliary service: the reply buffer and its fill.
struct AuxReply {
  uint8_t bytes[64] = {};
  int len = sizeof bytes;
  bool sent = false;
  ByteReader reader() const { return ByteReader(bytes, sizeof bytes); }
  size_t received() const { return static_cast<size_t>(len); }
};

AuxReply auxExchange(devInfo *info, Command cmd) {
  AuxReply reply;
  reply.sent =
      usbCmdSend(info, cmd.data(), cmd.length(), reply.bytes, &reply.len, kAuxTimeoutMs) >= 0;
  return reply;
}

// An auxiliary query decoded by `decode`; nothing when the exchange failed or
// the reply does not decode.
template <class Decode>
auto auxQuery(devInfo *info, Command cmd, Decode decode)
    -> decltype(decode(ByteReader(nullptr, 0), size_t{})) {
  const AuxReply reply = auxExchange(info, cmd);
  if (!reply.sent) {
    return std::nullopt;
  }
  return decode(reply.reader(), reply.received());
}

// A packet is written once; while acknowledgements are awaited, the first
// reply on the command endpoint is its acknowledgement.
constexpr ExchangeRules kPacketRules{{kDataOutEp, UsbTransfer::Bulk, kDataTimeoutMs},
                                     {kCmdInEp, UsbTransfer::Interrupt, kDataTimeoutMs},
                                     ExchangeRules::Resend::Never,
                                     ExchangeRules::Answer::AnyReply};

bool sendPacket(devInfo *info, uint8_t *packet, size_t size, uint8_t (&ack)[kAckCapacity]) {
  const std::shared_ptr<QUserLibUsb> dev = usbcan2Device(info);
  int ackLen = sizeof ack;
  const uint32_t budgetMs = info->txAckMode == 1 ? kDataTimeoutMs : 0;
  return info->commands
      .run(dev.get(), kPacketRules, CommandExchange::Access::Unserialised, packet,
           static_cast<int>(size), ack, ackLen, budgetMs)
      .ok();
}

// The public forms are only meaningful on an open device of the table.
devInfo *openRecord(uint32_t index) {
  if (index >= kFamily.tableSize) {
    setLastError(WCAN_ERR_PARAMETER);
    return nullptr;
  }
  devInfo *info = &usbcan2Record(index);
  if (!usbcan2Device(info)) {
    setLastError(WCAN_ERR_DEVICE_NOT_OPENED);
    return nullptr;
  }
  return info;
}

} // namespace

// Packets of up to three records. A format error returns 0 even when earlier
// packets are already on the bus, and the count is taken to 16 bits: both as
// host programs have always seen them.
uint32_t usbcan2Transmit(uint32_t type, uint32_t index, uint32_t channel,
                         const _WCAN_CAN_OBJ *frames, uint32_t count) {
  if (!usbcan2IsInit(type, index, channel)) {
    setLastError(WCAN_ERR_CAN_NOT_INITIALIZED);
    return 0;
  }
  if (!frames) {
    setLastError(WCAN_ERR_PARAMETER);
    return 0;
  }
  devInfo *info = &usbcan2Record(index);
  if (info->linkFaulted()) {
    return 0;
  }
  const uint16_t total = static_cast<uint16_t>(count);
  uint16_t done = 0;
  uint32_t sent = 0;
  std::array<uint8_t, kPacketCapacity> packet;
  while (done < total) {
    const size_t batch = std::min<size_t>(total - done, kFramesPerPacket);
    const std::optional<size_t> size = encodeTxPacket(frames + done, batch, channel, packet);
    if (!size) {
      setLastError(WCAN_ERR_CAN_FORMAT);
      return 0;
    }
    uint8_t ack[kAckCapacity] = {};
    if (!sendPacket(info, packet.data(), *size, ack)) {
      setLastError(WCAN_ERR_USB_TRANSPORT);
      return sent;
    }
    done = static_cast<uint16_t>(done + batch);
    sent += info->txAckMode == 0 ? static_cast<uint32_t>(batch) : ack[2];
  }
  return sent;
}

int usbcan2DevRelayStatusSetExcute(devInfo *info, uint8_t relay1, uint8_t relay2) {
  const AuxReply reply = auxExchange(info, encodeRelaySet(relay1, relay2));
  return reply.sent && relaySetAccepted(reply.reader(), reply.received()) ? 1 : 0;
}

int usbcan2DevRelayStatusGetExcute(devInfo *info, uint8_t *relay1, uint8_t *relay2) {
  const std::optional<RelayStatus> status = auxQuery(info, encodeRelayGet(), decodeRelayGet);
  if (!status) {
    return 0;
  }
  *relay1 = status->relay1;
  *relay2 = status->relay2;
  return 1;
}

int usbcan2DevBaudParaGetExcute(devInfo *info, uint32_t channel, uint8_t *para1, uint8_t *para2) {
  const std::optional<BaudPara> para =
      auxQuery(info, encodeBaudParaGet(static_cast<uint8_t>(channel)), decodeBaudPara);
  if (!para) {
    return 0;
  }
  *para1 = para->para1;
  *para2 = para->para2;
  return 1;
}

int usbcan2DevChStateGetExcute(devInfo *info, uint32_t channel, uint8_t *state1, uint8_t *state2,
                               uint8_t *state3) {
  const std::optional<ChState> state =
      auxQuery(info, encodeChStateGet(static_cast<uint8_t>(channel)), decodeChState);
  if (!state) {
    return 0;
  }
  *state1 = state->state1;
  *state2 = state->state2;
  *state3 = state->state3;
  return 1;
}

// The answer, less its lead byte and echo, replaces the caller's payload; the
// buffer must hold 62 bytes for the longest answer.
int usbcan2DevDataTransferExcute(devInfo *info, uint8_t *buffer, int32_t length, bool direct) {
  Command cmd = encodeDirectTransfer(buffer, length);
  uint8_t answer[64] = {};
  int answerLen = sizeof answer;
  const int32_t sent =
      usbCmdSend(info, cmd.data(), cmd.length(), answer, &answerLen, kDirectTimeoutMs, direct);
  if (sent < 0 || answerLen <= 2) {
    return 0;
  }
  std::memcpy(buffer, answer + 2, static_cast<size_t>(answerLen - 2));
  return answerLen - 2;
}

int usbcan2DevRelayStatusSet(uint32_t, uint32_t index, uint8_t relay1, uint8_t relay2) {
  devInfo *info = openRecord(index);
  return info ? usbcan2DevRelayStatusSetExcute(info, relay1, relay2) : 0;
}

int usbcan2DevRelayStatusGet(uint32_t, uint32_t index, uint8_t *relay1, uint8_t *relay2) {
  devInfo *info = openRecord(index);
  return info && relay1 && relay2 ? usbcan2DevRelayStatusGetExcute(info, relay1, relay2) : 0;
}

int usbcan2DevBaudParaGet(uint32_t, uint32_t index, uint32_t channel, uint8_t *para1,
                          uint8_t *para2) {
  devInfo *info = openRecord(index);
  return info && para1 && para2 ? usbcan2DevBaudParaGetExcute(info, channel, para1, para2) : 0;
}

int usbcan2DevChStateGet(uint32_t, uint32_t index, uint32_t channel, uint8_t *state1,
                         uint8_t *state2, uint8_t *state3) {
  devInfo *info = openRecord(index);
  return info && state1 && state2 && state3
             ? usbcan2DevChStateGetExcute(info, channel, state1, state2, state3)
             : 0;
}

int usbcan2DevDataTransfer(uint32_t, uint32_t index, uint8_t *buffer, int32_t length) {
  devInfo *info = openRecord(index);
  return info && buffer ? usbcan2DevDataTransferExcute(info, buffer, length, false) : 0;
}
