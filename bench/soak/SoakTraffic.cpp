// SPDX-License-Identifier: MIT
#include "bench/soak/SoakTraffic.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <random>
#include <thread>

#include "sim/wcan_sim.h"
#include "wcan.h"

namespace soak {

namespace {

constexpr uint32_t kTrafficId = 0x200; // + the channel sent from
constexpr uint32_t kBeaconId = 0x100;
constexpr size_t kLossesKept = 20;

// Traffic carries the channel it was sent from, its sequence number and the
// handle it was sent through; a beacon the simulated adapter it was put on.
void putTag(uint8_t *data, const Handle &handle, unsigned from, uint32_t seq) {
  data[0] = static_cast<uint8_t>(from);
  std::memcpy(data + 1, &seq, sizeof seq);
  data[5] = static_cast<uint8_t>(handle.type);
  data[6] = static_cast<uint8_t>(handle.index);
}

template <typename Obj> Handle::Arrival readTag(const Obj &frame) {
  Handle::Arrival a{Handle::Arrival::Unknown, 0, 0, 0, 0, -1, frame.id, frame.dataLen, {}};
  std::memcpy(a.data, frame.data, sizeof a.data);
  if (frame.dataLen < 8) {
    return a;
  }
  if (frame.id == kBeaconId) {
    a.kind = Handle::Arrival::Beacon;
    std::memcpy(&a.adapter, frame.data, sizeof a.adapter);
  } else if (frame.id == kTrafficId + frame.data[0]) {
    a.kind = Handle::Arrival::Traffic;
    a.from = frame.data[0];
    std::memcpy(&a.seq, frame.data + 1, sizeof a.seq);
    a.senderType = frame.data[5];
    a.senderIndex = frame.data[6];
  }
  return a;
}

std::string describe(unsigned channel, const Handle::Arrival &a) {
  char text[96];
  std::snprintf(text, sizeof text,
                "on channel %u: id %03X length %u data %02X %02X %02X %02X %02X %02X %02X %02X",
                channel, a.id, a.dataLen, a.data[0], a.data[1], a.data[2], a.data[3], a.data[4],
                a.data[5], a.data[6], a.data[7]);
  return text;
}

double millisBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

} // namespace

bool Handle::init(unsigned channel) const {
  if (fd) {
    _WCAN_INITFD_CONFIG c{};
    c.abitRate = 1000000;
    c.dbitRate = 5000000;
    c.fdEnable = 1;
    return WCAN_InitCANFD(type, index, channel, &c) == 1;
  }
  _WCAN_INIT_CONFIG c{};
  c.timing0 = 0x00;
  c.timing1 = 0x14; // 1 Mbit/s
  return WCAN_InitCAN(type, index, channel, &c) == 1;
}

bool Handle::send(unsigned channel, uint32_t seq) const {
  if (fd) {
    _WCAN_CANFD_OBJ frame{};
    frame.id = kTrafficId + channel;
    frame.fdFlags = WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS;
    frame.dataLen = 64;
    putTag(frame.data, *this, channel, seq);
    return WCAN_TransmitFD(type, index, channel, &frame, 1) == 1;
  }
  _WCAN_CAN_OBJ frame{};
  frame.id = kTrafficId + channel;
  frame.dataLen = 8;
  putTag(frame.data, *this, channel, seq);
  return WCAN_Transmit(type, index, channel, &frame, 1) == 1;
}

std::vector<Handle::Arrival> Handle::receive(unsigned channel, int waitMs) const {
  std::vector<Arrival> arrivals;
  if (fd) {
    _WCAN_CANFD_OBJ frames[64];
    const int n = WCAN_ReceiveFD(type, index, channel, frames, 64, waitMs);
    for (int i = 0; i < n; ++i) {
      arrivals.push_back(readTag(frames[i]));
    }
  } else {
    _WCAN_CAN_OBJ frames[64];
    const int n = WCAN_Receive(type, index, channel, frames, 64, waitMs);
    for (int i = 0; i < n; ++i) {
      arrivals.push_back(readTag(frames[i]));
    }
  }
  return arrivals;
}

void sendBeacon(int adapter, bool fd) {
  wcansim::CanFrame frame;
  frame.id = kBeaconId;
  frame.fd = fd;
  frame.len = 8;
  std::memcpy(frame.data, &adapter, sizeof adapter);
  wcansim::injectFrame(adapter, 0, frame);
}

bool Report::passed(size_t minCycles) const {
  return cycles >= minCycles && failedRecoveries == 0 && lost == 0 && disorder == 0 &&
         foreign == 0 && wrongAdapter == 0 && checked > 0 && beacons > 0;
}

bool Ledger::arrived(unsigned direction, uint32_t seq, Clock::time_point now) {
  Direction &d = directions_[direction];
  d.arrivals.emplace_back(seq, now);
  if (!awaitingRecovery_ || cycles_.empty()) {
    return false;
  }
  Cycle &cycle = cycles_.back();
  // A frame whose send has not been recorded yet was sent just now.
  const Clock::time_point sentAt = seq < d.sentAt.size() ? d.sentAt[seq] : now;
  if (cycle.firstSeqAfter[direction] < 0 && sentAt >= cycle.replugAt) {
    cycle.firstSeqAfter[direction] = seq;
    cycle.recoveredAt[direction] = now;
  }
  if (cycle.firstSeqAfter[0] >= 0 && cycle.firstSeqAfter[1] >= 0) {
    cycle.recovered = true;
    awaitingRecovery_ = false;
    return true;
  }
  return false;
}

void Ledger::foreign(unsigned direction, Clock::time_point at, std::string what) {
  ++directions_[direction].foreign;
  if (foreignFrames_.size() < kLossesKept) {
    foreignFrames_.emplace_back(at, std::move(what));
  }
}

void Ledger::cycle(Clock::time_point unplugAt, Clock::time_point replugAt) {
  Cycle c;
  c.unplugAt = unplugAt;
  c.replugAt = replugAt;
  cycles_.push_back(c);
  awaitingRecovery_ = true;
}

Report Ledger::analyse(const std::string &name, std::chrono::milliseconds inFlight) const {
  Report report;
  report.name = name;
  report.cycles = cycles_.size();
  report.cycleLog = cycles_;
  report.beacons = beacons_;
  report.wrongAdapter = wrongAdapter_;
  report.foreignFrames = foreignFrames_;
  for (const Cycle &cycle : cycles_) {
    if (!cycle.recovered) {
      ++report.failedRecoveries;
      continue;
    }
    report.recoveryMs.push_back(
        millisBetween(cycle.replugAt, std::max(cycle.recoveredAt[0], cycle.recoveredAt[1])));
  }
  for (unsigned dir = 0; dir < 2; ++dir) {
    const Direction &d = directions_[dir];
    report.sent += d.sentAt.size();
    report.received += d.arrivals.size();
    report.foreign += d.foreign;
    std::vector<bool> arrived(d.sentAt.size(), false);
    int64_t last = -1;
    for (const auto &arrival : d.arrivals) {
      if (arrival.first >= d.sentAt.size()) {
        ++report.foreign;
        if (report.foreignFrames.size() < kLossesKept) {
          report.foreignFrames.emplace_back(
              arrival.second, "sequence " + std::to_string(arrival.first) + " never sent");
        }
        continue;
      }
      if (static_cast<int64_t>(arrival.first) <= last || arrived[arrival.first]) {
        ++report.disorder;
      }
      last = arrival.first;
      arrived[arrival.first] = true;
      report.latencyMs.push_back(millisBetween(d.sentAt[arrival.first], arrival.second));
    }
    // Windows in which every sent frame must arrive: from the start (or the
    // frame that showed a recovery) to the next unplug. Frames are delivered
    // in order, so one missing before a frame that came was dropped; the
    // frames after the last one that came were on their way when the adapter
    // was pulled, and go with it when they were sent at most `inFlight`
    // before. The window after the last cycle drains: everything must come.
    int64_t windowFirst = 0;
    for (size_t k = 0; k <= cycles_.size(); ++k) {
      const bool last = k == cycles_.size();
      const Clock::time_point unplugAt = last ? Clock::time_point::max() : cycles_[k].unplugAt;
      size_t end = static_cast<size_t>(std::max<int64_t>(windowFirst, 0));
      while (windowFirst >= 0 && end < d.sentAt.size() && d.sentAt[end] < unplugAt) {
        ++end;
      }
      const size_t first = static_cast<size_t>(std::max<int64_t>(windowFirst, 0));
      size_t tail = end;
      while (!last && tail > first && !arrived[tail - 1]) {
        --tail;
      }
      for (size_t seq = first; windowFirst >= 0 && seq < end; ++seq) {
        if (seq >= tail && d.sentAt[seq] >= unplugAt - inFlight) {
          ++report.inFlight;
          continue;
        }
        ++report.checked;
        if (!arrived[seq]) {
          ++report.lost;
          if (report.losses.size() < kLossesKept) {
            report.losses.emplace_back(dir, d.sentAt[seq]);
          }
        }
      }
      if (!last) {
        windowFirst = cycles_[k].recovered ? cycles_[k].firstSeqAfter[dir] + 1 : -1;
      }
    }
  }
  return report;
}

// About one frame per millisecond each way: sustained, yet light enough for
// a sanitizer build sharing two cores.
void Rig::sender(unsigned channel, const std::atomic<bool> &stop) {
  while (!stop.load()) {
    uint32_t seq;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      seq = ledger_.nextSeq(channel);
    }
    const Clock::time_point at = Clock::now();
    if (handle_.send(channel, seq)) {
      std::lock_guard<std::mutex> lock(mutex_);
      ledger_.sent(channel, at);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
}

void Rig::receiver(unsigned channel, const std::atomic<bool> &stop) {
  while (!stop.load()) {
    for (const Handle::Arrival &arrival : handle_.receive(channel, 20)) {
      note(channel, arrival);
    }
  }
}

// A frame is ours when it came from the other channel of this very handle,
// and a beacon when it names the adapter this handle was opened on.
void Rig::note(unsigned channel, const Handle::Arrival &arrival) {
  const unsigned direction = 1 - channel;
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  switch (arrival.kind) {
  case Handle::Arrival::Beacon:
    ledger_.beacon(arrival.adapter == adapter_);
    return;
  case Handle::Arrival::Traffic:
    if (arrival.from == direction && arrival.senderType == (handle_.type & 0xFF) &&
        arrival.senderIndex == (handle_.index & 0xFF)) {
      if (ledger_.arrived(direction, arrival.seq, now)) {
        recovered_.notify_all();
      }
      return;
    }
    break;
  case Handle::Arrival::Unknown:
    break;
  }
  ledger_.foreign(direction, now, describe(channel, arrival));
}

void Rig::beacons(const std::atomic<bool> &stop) {
  while (!stop.load()) {
    sendBeacon(adapter_, handle_.fd);
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
}

void Rig::chaos(const std::atomic<bool> &stop, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> upMs(150, 450);
  std::uniform_int_distribution<int> downMs(20, 120);
  while (!stop.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(upMs(random)));
    const Clock::time_point unplugAt = Clock::now();
    wcansim::unplug(adapter_);
    std::this_thread::sleep_for(std::chrono::milliseconds(downMs(random)));
    std::unique_lock<std::mutex> lock(mutex_);
    ledger_.cycle(unplugAt, Clock::now());
    wcansim::replug(adapter_);
    // A recovery that has not shown traffic both ways within 10 s failed.
    if (!recovered_.wait_for(lock, std::chrono::seconds(10),
                             [this] { return !ledger_.awaitingRecovery(); })) {
      ledger_.giveUpRecovery();
    }
  }
}

size_t Rig::cycles() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return ledger_.cycles();
}

Report Rig::analyse(std::chrono::milliseconds inFlight) const {
  std::lock_guard<std::mutex> lock(mutex_);
  return ledger_.analyse(handle_.name, inFlight);
}

} // namespace soak
