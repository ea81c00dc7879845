#include "SimTestbed.h"

#include <algorithm>
#include <new>

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
  return id;
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

Testbed::Link Testbed::makeLink(Port a, Port b) { return b < a ? Link{b, a} : Link{a, b}; }

void Testbed::connect(AdapterId a, unsigned channelA, AdapterId b, unsigned channelB) {
  const Port pa{a, channelA}, pb{b, channelB};
  if (pa == pb)
    return;
  std::lock_guard<std::mutex> lock(mutex_);
  links_.insert(makeLink(pa, pb));
}

void Testbed::disconnect(AdapterId a, unsigned channelA, AdapterId b, unsigned channelB) {
  std::lock_guard<std::mutex> lock(mutex_);
  links_.erase(makeLink({a, channelA}, {b, channelB}));
}

void Testbed::disconnectAll(AdapterId adapter) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (auto it = links_.begin(); it != links_.end();) {
    if (it->first.adapter == adapter || it->second.adapter == adapter)
      it = links_.erase(it);
    else
      ++it;
  }
}

std::vector<Testbed::Destination> Testbed::linkedTo(Port from, bool includeSelf) const {
  std::vector<Destination> to;
  auto add = [&](Port p) {
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

void Testbed::deliverAll(const std::vector<Destination> &to, const CanFrame &frame) {
  for (const Destination &d : to) {
    BusFrames answers;
    d.adapter->deliver(d.channel, frame, answers);
    if (!answers.empty())
      route(*d.adapter, answers);
  }
}

void Testbed::route(const Adapter &from, const BusFrames &frames) {
  for (const BusFrame &f : frames) {
    std::vector<Destination> to;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      const auto id = static_cast<size_t>(from.id());
      // An adapter removed by a reset is cabled to nothing any more.
      if (id >= adapters_.size() || adapters_[id].get() != &from)
        return;
      to = linkedTo({from.id(), f.channel}, false);
    }
    deliverAll(to, f.frame);
  }
}

void Testbed::inject(AdapterId adapter, unsigned channel, const CanFrame &frame) {
  std::vector<Destination> to;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    to = linkedTo({adapter, channel}, true);
  }
  deliverAll(to, frame);
}

} // namespace wcansim
