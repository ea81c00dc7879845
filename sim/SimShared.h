// SPDX-License-Identifier: MIT
// This process's side of the shared simulation: the adapters named by
// WCAN_SIM keep their device models here, but their channels sit on buses
// the simulation host owns. Frames the adapters send go to the host; frames
// the host carried come back on a receiving thread and reach the adapters as
// from an in-process bus. A write of frames waits while the host has as many
// of the adapter's frames in hand as the adapter's transmit queue holds.
// When the host goes away the adapters are unplugged; the receiving thread
// starts or finds a new host and plugs them in again.
#pragma once

#include <condition_variable>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "SimAdapter.h"
#include "SimWire.h"

namespace wcansim {

class Testbed;

class SharedBus {
public:
  // An adapter as the host knows it: its type group (USB ids) and its
  // index in the group.
  struct Request {
    unsigned devType = 0;
    uint16_t vendor = 0;
    uint16_t product = 0;
    uint32_t index = 0;
    unsigned channels = 0;
    int slot = -1; // the one held before, when asking again
  };
  struct Granted {
    int slot = -1;
    int64_t pluggedAtNs = 0;
    bool plugged = true;
  };

  // Whether the adapters of WCAN_SIM join the shared simulation: yes unless
  // WCAN_SIM_PRIVATE=1.
  static bool wanted();

  explicit SharedBus(std::string spec);
  SharedBus(const SharedBus &) = delete;
  SharedBus &operator=(const SharedBus &) = delete;

  // Reaches the host (starting one if none runs) and asks for the adapters:
  // one answer per request, empty where the host refused (the reason went
  // to standard error). False, with `error` set, when no host could be had.
  bool attach(std::vector<Request> &requests, std::vector<std::optional<Granted>> &granted,
              std::string &error);
  // The adapter created for a granted request; starts the receiving thread.
  void bind(const std::shared_ptr<Adapter> &adapter, const Request &request);

  bool owns(AdapterId id) const;
  void send(const std::shared_ptr<Adapter> &from, const BusFrames &frames);
  // 0 or a negative libusb error, as Testbed::awaitTransmitRoom.
  int awaitRoom(const Adapter &adapter, uint32_t generation, unsigned timeoutMs);
  // The adapter forgot its unsent frames (USB reset).
  void drop(AdapterId id);

private:
  struct Bound {
    std::shared_ptr<Adapter> adapter;
    Request request;
    size_t inHost = 0; // frames sent, not carried yet
    std::vector<ChannelState> reported;
  };

  bool handshake(int fd, const std::vector<Request> &requests,
                 std::vector<std::optional<Granted>> &granted);
  void dispatch(const uint8_t *data, size_t len);
  void deliver(int slot, unsigned channel, int64_t endNs, const CanFrame &frame);
  std::vector<std::shared_ptr<Adapter>> holding(int slot) const;
  void receive();
  void hostLost();
  void rejoin();

  const std::string spec_;
  mutable std::mutex mutex_; // after sendMutex_
  std::condition_variable changed_;
  std::map<AdapterId, Bound> bound_;
  std::multimap<int, AdapterId> bySlot_;
  std::vector<std::optional<Granted>> *answers_ = nullptr; // of the handshake under way
  size_t answered_ = 0;

  std::mutex sendMutex_; // the socket's sending side and the batch
  int fd_ = -1;
  wire::Writer out_;
  std::thread receiver_;
};

} // namespace wcansim
