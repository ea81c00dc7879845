// SPDX-License-Identifier: MIT
#include "platform/CommandExchange.h"

#include <algorithm>
#include <chrono>
#include <optional>
#include <thread>

#include "platform/AdapterWorker.h"
#include "platform/QUserUtils.h"

namespace {

// A failed transfer that came back sooner than this is not followed by the
// next one before this long has passed.
constexpr uint32_t kMinFailedAttemptUs = 1000;

// A handle whose device vanished never works again: only a reopen helps.
bool deviceGone(int result) { return result == LIBUSB_ERROR_NO_DEVICE; }

// Counts the exchange as in flight for as long as it runs.
class InFlight {
public:
  explicit InFlight(std::atomic<int> &count) : count_(count) {
    count_.fetch_add(1, std::memory_order_relaxed);
  }
  ~InFlight() { count_.fetch_sub(1, std::memory_order_relaxed); }
  InFlight(const InFlight &) = delete;
  InFlight &operator=(const InFlight &) = delete;

private:
  std::atomic<int> &count_;
};

// The transfers of one exchange over an open adapter.
class Transfers {
public:
  Transfers(QUserLibUsb &usb, const ExchangeRules &rules, uint8_t *command, int length)
      : usb_(usb), rules_(rules), command_(command), length_(length) {}

  int write() const {
    const UsbPipe &out = rules_.out;
    return out.kind == UsbTransfer::Bulk
               ? usb_.bulkWriteUSBDevice(command_, length_, out.endpoint, out.timeoutMs)
               : usb_.WriteUSBDevice(command_, length_, out.endpoint, out.timeoutMs);
  }
  // Never waits longer than `leftUs` (rounded up, so the budget is spent
  // when it times out) nor than the rules' read time-out.
  int read(uint8_t *reply, int room, uint64_t leftUs) const {
    const UsbPipe &in = rules_.in;
    const auto timeoutMs =
        static_cast<unsigned>(std::clamp<uint64_t>((leftUs + 999) / 1000, 1, in.timeoutMs));
    return in.kind == UsbTransfer::Bulk
               ? usb_.bulkReadUSBDevice(reply, room, in.endpoint, timeoutMs)
               : usb_.ReadUSBDevice(reply, room, in.endpoint, timeoutMs);
  }
  bool answers(const uint8_t *reply, int got) const {
    return rules_.answer == ExchangeRules::Answer::AnyReply
               ? got > 0
               : got >= 3 && reply[0] == command_[0] && reply[1] == command_[1];
  }
  bool resend() const { return rules_.resend == ExchangeRules::Resend::EveryAttempt; }

private:
  QUserLibUsb &usb_;
  const ExchangeRules &rules_;
  uint8_t *command_;
  int length_;
};

// Microseconds of the budget left; 0 once it is spent.
uint64_t budgetLeft(uint32_t started, uint64_t budgetUs) {
  const uint64_t spent = getLapseMicroSec(started);
  return spent < budgetUs ? budgetUs - spent : 0;
}

void pauseAfterFailure(uint32_t attemptStarted, uint64_t leftUs) {
  const uint32_t spent = getLapseMicroSec(attemptStarted);
  if (spent < kMinFailedAttemptUs) {
    pauseFor(std::chrono::microseconds(std::min<uint64_t>(kMinFailedAttemptUs - spent, leftUs)));
  }
}

// Writes (when the rules resend) and reads until an answer comes, the budget
// is spent or the adapter is gone. The outcome is that of the last attempt.
void awaitAnswer(const Transfers &transfers, uint8_t *reply, int &replyLength, uint32_t budgetMs,
                 ExchangeOutcome &outcome) {
  const uint32_t started = getCurMicroSec();
  const uint64_t budgetUs = static_cast<uint64_t>(budgetMs) * 1000u;
  for (uint64_t leftUs = budgetUs; leftUs > 0; leftUs = budgetLeft(started, budgetUs)) {
    const uint32_t attemptStarted = getCurMicroSec();
    int result = transfers.resend() ? transfers.write() : 1;
    if (result < 1) {
      outcome.kind = ExchangeOutcome::Kind::WriteFailed;
    } else {
      result = transfers.read(reply, replyLength, budgetLeft(started, budgetUs));
      outcome.lastRead = result;
      outcome.kind = ExchangeOutcome::Kind::Unanswered;
      if (transfers.answers(reply, result)) {
        replyLength = result;
        outcome.kind = ExchangeOutcome::Kind::Answered;
        return;
      }
      if (result > 0) {
        continue; // someone else's reply: ask again, or read on, at once
      }
    }
    if (deviceGone(result)) {
      return;
    }
    pauseAfterFailure(attemptStarted, budgetLeft(started, budgetUs));
  }
}

} // namespace

CommandExchange::CommandExchange(const LinkRecovery *link) : link_(link) {
  initRecursivePiMutex(&serial_);
}

CommandExchange::~CommandExchange() { pthread_mutex_destroy(&serial_); }

bool CommandExchange::refused(Access access) const {
  return access == Access::Command && link_ != nullptr && link_->faulted();
}

// The exchange counts as in flight before it waits for the other commands,
// and the link is looked at once it no longer waits: a command queued
// behind another is refused if the link was lost meanwhile.
ExchangeOutcome CommandExchange::run(QUserLibUsb *usb, const ExchangeRules &rules, Access access,
                                     uint8_t *command, int commandLength, uint8_t *reply,
                                     int &replyLength, uint32_t budgetMs) {
  const InFlight inFlight(inFlight_);
  std::optional<QUserMutex> serialised;
  if (access != Access::Unserialised) {
    serialised.emplace(serial_);
  }
  using Kind = ExchangeOutcome::Kind;
  ExchangeOutcome outcome{Kind::Unanswered, budgetMs != 0};
  auto ended = [&outcome](Kind kind) {
    outcome.kind = kind;
    return outcome;
  };
  if (refused(access)) {
    return ended(Kind::Refused);
  }
  // With nothing open every write would fail at once: fail the same way
  // without waiting out the budget.
  if (usb == nullptr || !usb->isOpen()) {
    return ended(Kind::WriteFailed);
  }
  const Transfers transfers(*usb, rules, command, commandLength);
  if (budgetMs == 0 || !transfers.resend()) {
    if (transfers.write() < 1) {
      return ended(Kind::WriteFailed);
    }
    if (budgetMs == 0) {
      return ended(Kind::Sent);
    }
  }
  awaitAnswer(transfers, reply, replyLength, budgetMs, outcome);
  return outcome;
}
