// SPDX-License-Identifier: MIT
// The set of simulated adapters in this process and the cables between their
// channels. One instance lives for the whole process (it is never destroyed,
// so libraries unloading at exit may still close their devices).
//
// Frames cross the buses in real time (see PacedBus) unless pacing is off;
// then a frame reaches its receivers before the transfer that sent it returns.
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <vector>

#include "PacedBus.h"
#include "SimAdapter.h"

namespace wcansim {

class Testbed final : private BusWiring {
public:
  static Testbed &instance();
  Testbed() : bus_(*this) {}

  void reset();
  AdapterId plugIn(unsigned devType);
  void unplug(AdapterId id);
  std::shared_ptr<Adapter> adapter(AdapterId id) const;
  // Plugged adapters as the host lists them: the replugged ones first, most
  // recent first, then the others in the order they were plugged in.
  std::vector<std::shared_ptr<Adapter>> pluggedAdapters() const;
  bool anyPlugged() const;
  // Every read waiting on an adapter asks the read-wait policy again.
  void wakeReaders() const;

  bool pacing() const { return bus_.enabled(); }
  void setPacing(bool on) { bus_.setEnabled(on); }

  // Before a write of frames: wait, as the adapter does when its transmit
  // queue is full. Returns 0 or a negative libusb error (time-out, gone).
  int awaitTransmitRoom(const Adapter &adapter, uint32_t generation, unsigned timeoutMs);
  // The adapter forgets the frames it has not sent yet (USB reset).
  void dropUnsent(AdapterId adapter) { bus_.drop(adapter); }

  // Carry frames that left `from` to every channel cabled to theirs. Must be
  // called with no adapter lock held.
  void route(const std::shared_ptr<Adapter> &from, const BusFrames &frames);
  // A foreign node on the bus of (adapter, channel); returns once the frame
  // went over the bus.
  void inject(AdapterId adapter, unsigned channel, const CanFrame &frame);

private:
  using Link = std::pair<BusPort, BusPort>; // stored with first < second
  struct Destination {
    std::shared_ptr<Adapter> adapter;
    unsigned channel;
  };

  static Link makeLink(BusPort a, BusPort b);
  std::vector<Destination> linkedTo(BusPort from, bool includeSelf) const;
  bool isCurrent(const Adapter &adapter) const;

  // BusWiring
  std::vector<BusPort> busOf(BusPort port) const override;
  void carry(const Transmission &t, std::chrono::steady_clock::time_point end) override;

  // Lock order: the bus's lock, then this one, then an adapter's; the bus is
  // never called with this lock held.
  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Adapter>> adapters_; // index = AdapterId
  std::set<Link> links_;
  PacedBus bus_;
};

} // namespace wcansim
