// SPDX-License-Identifier: MIT
// Transmit batches of the CAN FD adapter.
#include "QDeviceUsbCanFd2.h"
#include "UsbCanFdInternal.h"
#include "api/QErrMgr.h"
#include "platform/QUserUtils.h"

using namespace usbcanfd;

// Batches of at most kMaxBatch; a batch the adapter does not take whole ends
// the call with the count sent so far.
template <class Obj, class SendBatch>
int QDeviceUsbCanFd2::transmitInBatches(Obj *frames, unsigned int count, SendBatch sendBatch) {
  if (isDeviceReady() != 0) {
    return 0;
  }
  unsigned sent = 0;
  for (unsigned position = 0; position < count; position += kMaxBatch) {
    const unsigned batch = std::min(count - position, kMaxBatch);
    const unsigned n = static_cast<unsigned>(sendBatch(frames + position, batch));
    sent += n;
    if (n != batch) {
      break;
    }
  }
  return static_cast<int>(sent);
}

int QDeviceUsbCanFd2::transmit(unsigned int channel, _WCAN_CAN_OBJ *frames, unsigned int count) {
  return transmitInBatches(frames, count, [this, channel](_WCAN_CAN_OBJ *batch, unsigned n) {
    return transmitSingle(channel, batch, n);
  });
}

int QDeviceUsbCanFd2::transmitFD(unsigned int channel, _WCAN_CANFD_OBJ *frames,
                                 unsigned int count) {
  return transmitInBatches(frames, count, [this, channel](_WCAN_CANFD_OBJ *batch, unsigned n) {
    return transmitSingleFD(channel, batch, n);
  });
}

uint8_t QDeviceUsbCanFd2::txHeader(unsigned int channel) const {
  return channel < kChannelSlots ? headerByte[channel] : 0;
}

namespace {

// A batch is written once; its acknowledgement, when one is awaited, echoes
// the batch.
constexpr ExchangeRules kBatchRules{{kEpDataOut, UsbTransfer::Bulk, kTransferTimeoutMs},
                                    {kEpAckIn, UsbTransfer::Bulk, kTransferTimeoutMs},
                                    ExchangeRules::Resend::Never,
                                    ExchangeRules::Answer::Echo};

} // namespace

// The whole batch counts as sent once the adapter acknowledges it, or once it
// is written while acknowledgements are not awaited. Batches are not
// serialised with the commands: they answer on an endpoint of their own.
int QDeviceUsbCanFd2::sendTxFrame(TxFrame &frame, size_t length, unsigned int count) {
  uint8_t reply[kCmdFrameRoom];
  int replyLength = sizeof reply;
  const uint32_t budgetMs = txAckWait.load(std::memory_order_relaxed) != 0 ? kTransmitBudgetMs : 0;
  return commands.run(&usbDevice, kBatchRules, CommandExchange::Access::Unserialised, frame.data(),
                      static_cast<int>(length), reply, replyLength, budgetMs)
                 .ok()
             ? static_cast<int>(count)
             : 0;
}

int QDeviceUsbCanFd2::transmitSingle(unsigned int channel, _WCAN_CAN_OBJ *frames,
                                     unsigned int count) {
  TxFrame frame;
  const size_t length = encodeCanBatch(txHeader(channel), channel, frames, count, frame);
  return sendTxFrame(frame, length, count);
}

int QDeviceUsbCanFd2::transmitSingleFD(unsigned int channel, _WCAN_CANFD_OBJ *frames,
                                       unsigned int count) {
  TxFrame frame;
  const size_t length = encodeCanFdBatch(txHeader(channel), channel, frames, count, frame);
  return sendTxFrame(frame, length, count);
}
