// The set of simulated adapters in this process and the cables between their
// channels. One instance lives for the whole process (it is never destroyed,
// so libraries unloading at exit may still close their devices).
#pragma once

#include <memory>
#include <mutex>
#include <set>
#include <tuple>
#include <vector>

#include "SimAdapter.h"

namespace wcansim {

class Testbed {
public:
  static Testbed &instance();

  void reset();
  AdapterId plugIn(unsigned devType);
  std::shared_ptr<Adapter> adapter(AdapterId id) const;
  // Plugged adapters as the host lists them: the replugged ones first, most
  // recent first, then the others in the order they were plugged in.
  std::vector<std::shared_ptr<Adapter>> pluggedAdapters() const;
  bool anyPlugged() const;

  void connect(AdapterId a, unsigned channelA, AdapterId b, unsigned channelB);
  void disconnect(AdapterId a, unsigned channelA, AdapterId b, unsigned channelB);
  void disconnectAll(AdapterId adapter);

  // Carry frames that left `from` to every channel cabled to theirs. Must be
  // called with no adapter lock held.
  void route(const Adapter &from, const BusFrames &frames);
  // A foreign node on the bus of (adapter, channel).
  void inject(AdapterId adapter, unsigned channel, const CanFrame &frame);

private:
  struct Port {
    AdapterId adapter;
    unsigned channel;
    bool operator<(const Port &o) const {
      return std::tie(adapter, channel) < std::tie(o.adapter, o.channel);
    }
    bool operator==(const Port &o) const { return adapter == o.adapter && channel == o.channel; }
  };
  using Link = std::pair<Port, Port>; // stored with first < second
  struct Destination {
    std::shared_ptr<Adapter> adapter;
    unsigned channel;
  };

  static Link makeLink(Port a, Port b);
  std::vector<Destination> linkedTo(Port from, bool includeSelf) const;
  void deliverAll(const std::vector<Destination> &to, const CanFrame &frame);

  mutable std::mutex mutex_;
  std::vector<std::shared_ptr<Adapter>> adapters_; // index = AdapterId
  std::set<Link> links_;
};

} // namespace wcansim
