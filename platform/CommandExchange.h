// SPDX-License-Identifier: MIT
// The command exchange every adapter family runs with its adapter: a command
// is written and replies are read until one answers it or the budget runs
// out. What differs between the families (endpoints, transfer kinds and
// time-outs, whether the command is written again after an unanswered read,
// what counts as an answer) is given as ExchangeRules; what a family returns
// and which last error it sets, it derives from the ExchangeOutcome.
//
// An exchange that waits for an answer reads only until its budget is spent
// (each read is cut to what is left), never reads again once the adapter is
// gone (its handle never works again), and lets a transfer that failed at
// once be followed by the next only after a short pause, so a vanished
// handle never turns the exchange into a busy loop.
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "platform/QUserLibUsb.h"

class LinkRecovery;

enum class UsbTransfer { Interrupt, Bulk };

// One direction of an exchange: the endpoint, how it is moved, and how long
// one transfer may take.
struct UsbPipe {
  uint8_t endpoint;
  UsbTransfer kind;
  unsigned timeoutMs;
};

struct ExchangeRules {
  // Written once and then only replies read; or written again before every
  // read, so an adapter that missed it is asked again.
  enum class Resend { Never, EveryAttempt };
  // Any reply answers; or only one of at least three bytes that starts with
  // the command's first two (other replies are someone else's and passed
  // over).
  enum class Answer { AnyReply, Echo };

  UsbPipe out;
  UsbPipe in; // its time-out is cut to what is left of the budget
  Resend resend;
  Answer answer;
};

struct ExchangeOutcome {
  enum class Kind { Answered, Sent, Refused, WriteFailed, Unanswered };
  Kind kind = Kind::Unanswered;
  // The budget was not zero: the caller wanted an answer.
  bool replyAwaited = false;
  // What the last read returned (bytes, or a negative libusb error); 0 when
  // nothing was read.
  int lastRead = 0;

  bool ok() const { return kind == Kind::Answered || kind == Kind::Sent; }
  // 0 done, -1 refused or not written, -2 written but not answered.
  int code() const { return ok() ? 0 : kind == Kind::Unanswered ? -2 : -1; }
  // A command let through to the adapter that did not get its answer.
  bool failedAwaitingReply() const { return replyAwaited && !ok() && kind != Kind::Refused; }
};

class CommandExchange {
public:
  enum class Access {
    // Serialised with the other commands, refused while the link is being
    // restored.
    Command,
    // Serialised, and let through while the link is being restored: the
    // restoring itself goes this way.
    Recovery,
    // Neither waits for the other commands nor is refused.
    Unserialised,
  };

  // Commands are refused while `link` is restoring the adapter; without one
  // they never are.
  explicit CommandExchange(const LinkRecovery *link = nullptr);
  ~CommandExchange();
  CommandExchange(const CommandExchange &) = delete;
  CommandExchange &operator=(const CommandExchange &) = delete;

  // Whether no exchange is in flight: link recovery waits for that.
  bool idle() const { return inFlight_.load(std::memory_order_relaxed) == 0; }

  // Exchanges `command` over `usb` (null when nothing is open). `replyLength`
  // is the room in `reply` and, once answered, the answer's length; otherwise
  // it is left as it was. A zero budget only writes the command.
  ExchangeOutcome run(QUserLibUsb *usb, const ExchangeRules &rules, Access access, uint8_t *command,
                      int commandLength, uint8_t *reply, int &replyLength, uint32_t budgetMs);

private:
  bool refused(Access access) const;

  const LinkRecovery *link_;
  pthread_mutex_t serial_;
  std::atomic<int> inFlight_{0};
};
