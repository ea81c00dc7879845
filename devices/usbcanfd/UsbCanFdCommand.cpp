// SPDX-License-Identifier: MIT
// Command exchanges of the CAN FD adapter and the raw pass-through.
#include <cstring>

#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

namespace {

// Every command is written again after a reply that is not its own: the
// adapter may have missed it.
constexpr ExchangeRules kCommandRules{{kEpCmdOut, UsbTransfer::Interrupt, kTransferTimeoutMs},
                                      {kEpCmdIn, UsbTransfer::Interrupt, kTransferTimeoutMs},
                                      ExchangeRules::Resend::EveryAttempt,
                                      ExchangeRules::Answer::Echo};

} // namespace

// The command exchange is serialised, so a reply is always read by the
// thread whose command it answers.
int QDeviceUsbCanFd2::sendCommand(const CmdFrame &frame, uint8_t *reply, int *replyLength,
                                  uint32_t timeoutMs, bool skipReadyCheck) {
  CmdFrame copy = frame;
  const ExchangeOutcome outcome = commands.run(
      &usbDevice, kCommandRules,
      skipReadyCheck ? CommandExchange::Access::Recovery : CommandExchange::Access::Command,
      copy.bytes.data(), copy.len, reply, *replyLength, timeoutMs);
  if (outcome.failedAwaitingReply()) {
    setLastError(WCAN_ERR_USB_COMMAND);
  }
  return outcome.code();
}

// The reply payload is copied over the caller's buffer, which must hold the
// longest reply (62 bytes).
int QDeviceUsbCanFd2::transmitData(unsigned char *data, unsigned int length, bool skipReadyCheck) {
  uint8_t reply[kCmdFrameRoom] = {};
  int replyLength = sizeof reply;
  if (sendCommand(encodeRawExchange(data, length), reply, &replyLength, kQueryBudgetMs,
                  skipReadyCheck) != 0) {
    return 0;
  }
  std::memcpy(data, reply + 2, static_cast<size_t>(replyLength - 2));
  return replyLength - 2;
}
