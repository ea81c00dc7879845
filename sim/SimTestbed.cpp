// SPDX-License-Identifier: MIT
#include "SimTestbed.h"

#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <cstdio>
#include <new>

#include "BusTiming.h"
#include "SimEvents.h"

namespace wcansim {

namespace {

// Storage for an object that must outlive every static destructor.
template <class T> class NeverDestroyed {
public:
  NeverDestroyed() { ::new (static_cast<void *>(storage_)) T(); }
  T &get() { return *std::launder(reinterpret_cast<T *>(storage_)); }

private:
  alignas(T) unsigned char storage_[sizeof(T)];
};

} // namespace

Testbed &Testbed::instance() {
  static NeverDestroyed<Testbed> testbed;
  return testbed.get();
}

void Testbed::reset() {
  std::vector<std::shared_ptr<Adapter>> gone;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    gone.swap(adapters_);
    links_.clear();
  }
  for (const auto &a : gone)
    a->remove();
  bus_.dropAll();
}

AdapterId Testbed::plugIn(unsigned devType) {
  std::unique_ptr<DeviceModel> model = makeModel(devType);
  if (!model)
    return -1;
  std::lock_guard<std::mutex> lock(mutex_);
  const AdapterId id = static_cast<AdapterId>(adapters_.size());
  auto adapter = std::make_shared<Adapter>(id, devType, std::move(model));
  // The two ports of each channel pair are joined, as by a cable.
  for (unsigned ch = 0; ch + 1 < adapter->channelCount(); ch += 2)
    links_.insert(makeLink({id, ch}, {id, ch + 1}));
  adapters_.push_back(std::move(adapter));
  usbPlugEventHappened();
  return id;
}

bool Testbed::plugInShared(const std::string &spec, const std::vector<unsigned> &types) {
  std::vector<SharedBus::Request> requests;
  std::vector<std::unique_ptr<DeviceModel>> models;
  for (unsigned type : types) {
    std::unique_ptr<DeviceModel> model = makeModel(type);
    if (!model)
      continue;
    SharedBus::Request r{type, model->vendorId(), model->productId(), 0, model->channelCount()};
    // The index in the group of its USB ids, as the library counts devices.
    for (const SharedBus::Request &earlier : requests)
      r.index += earlier.vendor == r.vendor && earlier.product == r.product ? 1 : 0;
    requests.push_back(r);
    models.push_back(std::move(model));
  }
  auto shared = std::make_unique<SharedBus>(spec);
  std::vector<std::optional<SharedBus::Granted>> granted;
  std::string error;
  if (!shared->attach(requests, granted, error)) {
    std::fprintf(stderr, "wcan-sim: %s; simulating in this process only\n", error.c_str());
    return false;
  }
  for (size_t i = 0; i < requests.size(); ++i) {
    if (!granted[i])
      continue;
    requests[i].slot = granted[i]->slot;
    std::shared_ptr<Adapter> adapter;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto id = static_cast<AdapterId>(adapters_.size());
      adapter = std::make_shared<Adapter>(id, requests[i].devType, std::move(models[i]),
                                          granted[i]->slot);
      adapters_.push_back(adapter);
    }
    adapter->setPluggedAt(
        std::chrono::steady_clock::time_point(std::chrono::nanoseconds(granted[i]->pluggedAtNs)));
    if (!granted[i]->plugged)
      adapter->unplug();
    shared->bind(adapter, requests[i]);
  }
  shared_.store(shared.get(), std::memory_order_release);
  sharedOwner_ = std::move(shared);
  return true;
}

SharedBus *Testbed::sharedFor(AdapterId adapter) const {
  SharedBus *shared = shared_.load(std::memory_order_acquire);
  return shared != nullptr && shared->owns(adapter) ? shared : nullptr;
}

void Testbed::dropUnsent(AdapterId adapter) {
  if (SharedBus *shared = sharedFor(adapter))
    shared->drop(adapter);
  else
    bus_.drop(adapter);
}

// What the bus finished before the unplug still reaches the adapter and
// leaves it; what it was still carrying is cut off.
void Testbed::unplug(AdapterId id) {
  if (auto a = adapter(id)) {
    bus_.catchUp();
    a->unplug();
    bus_.drop(id);
  }
}

std::shared_ptr<Adapter> Testbed::adapter(AdapterId id) const {
  std::lock_guard<std::mutex> lock(mutex_);
  if (id < 0 || static_cast<size_t>(id) >= adapters_.size())
    return nullptr;
  return adapters_[static_cast<size_t>(id)];
}

std::vector<std::shared_ptr<Adapter>> Testbed::pluggedAdapters() const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<std::shared_ptr<Adapter>> plugged;
  for (const auto &a : adapters_)
    if (a->isPlugged())
      plugged.push_back(a);
  std::stable_sort(plugged.begin(), plugged.end(), [](const auto &x, const auto &y) {
    return x->replugOrder() > y->replugOrder();
  });
  return plugged;
}

bool Testbed::anyPlugged() const { return !pluggedAdapters().empty(); }

void Testbed::wakeReaders() const {
  std::vector<std::shared_ptr<Adapter>> all;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    all = adapters_;
  }
  for (const auto &a : all)
    a->wakeReaders();
}

Testbed::Link Testbed::makeLink(BusPort a, BusPort b) { return b < a ? Link{b, a} : Link{a, b}; }

std::vector<Testbed::Destination> Testbed::linkedTo(BusPort from, bool includeSelf) const {
  std::vector<Destination> to;
  auto add = [&](BusPort p) {
    if (p.adapter >= 0 && static_cast<size_t>(p.adapter) < adapters_.size())
      to.push_back({adapters_[static_cast<size_t>(p.adapter)], p.channel});
  };
  if (includeSelf)
    add(from);
  for (const Link &l : links_) {
    if (l.first == from)
      add(l.second);
    else if (l.second == from)
      add(l.first);
  }
  return to;
}

// Cables are not transitive for delivery (a frame reaches the channels
// cabled to its own), but every channel reachable over cables shares the
// bus's time.
std::vector<BusPort> Testbed::busOf(BusPort port) const {
  std::lock_guard<std::mutex> lock(mutex_);
  std::vector<BusPort> bus{port};
  for (size_t i = 0; i < bus.size(); ++i) {
    for (const Link &l : links_) {
      const BusPort *other = l.first == bus[i]    ? &l.second
                             : l.second == bus[i] ? &l.first
                                                  : nullptr;
      if (other != nullptr && std::find(bus.begin(), bus.end(), *other) == bus.end())
        bus.push_back(*other);
    }
  }
  return bus;
}

bool Testbed::isCurrent(const Adapter &adapter) const {
  const auto id = static_cast<size_t>(adapter.id());
  return id < adapters_.size() && adapters_[id].get() == &adapter;
}

int Testbed::awaitTransmitRoom(const Adapter &adapter, uint32_t generation, unsigned timeoutMs) {
  if (SharedBus *shared = sharedFor(adapter.id()))
    return shared->awaitRoom(adapter, generation, timeoutMs);
  if (!pacing())
    return 0;
  switch (bus_.awaitRoom(adapter.id(), timeoutMs, [&] { return adapter.isCurrent(generation); })) {
  case PacedBus::Room::Free:
    return 0;
  case PacedBus::Room::TimedOut:
    return LIBUSB_ERROR_TIMEOUT;
  case PacedBus::Room::Gone:
    break;
  }
  return LIBUSB_ERROR_NO_DEVICE;
}

void Testbed::carry(const Transmission &t, std::chrono::steady_clock::time_point end) {
  std::vector<Destination> to;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    // An adapter removed by a reset is cabled to nothing any more.
    if (t.sender && !isCurrent(*t.sender))
      return;
    to = linkedTo(t.from.cable(), t.sender == nullptr);
  }
  if (t.sender)
    t.sender->noteSent(t.from.channel);
  bool taken = false;
  for (const Destination &d : to) {
    BusFrames answers;
    taken = d.adapter->deliver(d.channel, t.frame, answers, end) || taken;
    route(d.adapter, answers);
  }
  if (taken)
    usbEventHappened();
}

void Testbed::route(const std::shared_ptr<Adapter> &from, const BusFrames &frames) {
  if (!from->isPlugged())
    return; // unplugged after taking the write
  if (SharedBus *shared = sharedFor(from->id())) {
    shared->send(from, frames);
    return;
  }
  for (const BusFrame &f : frames) {
    Transmission t{{from->id(), f.channel}, from, f.frame, f.duration};
    if (pacing())
      bus_.send(std::move(t));
    else
      carry(t, std::chrono::steady_clock::now());
  }
}

void Testbed::inject(AdapterId adapter, unsigned channel, const CanFrame &frame) {
  const auto at = this->adapter(adapter);
  Transmission t{{adapter, channel, true}, nullptr, frame, {}};
  if (!pacing()) {
    carry(t, std::chrono::steady_clock::now());
    return;
  }
  // The foreign node keeps the rates of the channel it shares the bus with.
  t.duration = at ? at->frameDuration(channel, frame) : frameDuration(frame, {});
  bus_.sendAndWait(std::move(t));
}

} // namespace wcansim
