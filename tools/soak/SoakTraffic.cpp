#include "SoakTraffic.h"

#include <algorithm>
#include <cstring>
#include <random>
#include <thread>

#include "sim/wcan_sim.h"
#include "wcan.h"

namespace soak {

namespace {

void putTag(uint8_t *data, unsigned from, uint32_t seq) {
  data[0] = static_cast<uint8_t>(from);
  std::memcpy(data + 1, &seq, sizeof seq);
}

Family::Tag getTag(const uint8_t *data) {
  Family::Tag tag{data[0], 0};
  std::memcpy(&tag.seq, data + 1, sizeof tag.seq);
  return tag;
}

double millisBetween(Clock::time_point from, Clock::time_point to) {
  return std::chrono::duration<double, std::milli>(to - from).count();
}

} // namespace

bool Family::init(unsigned channel) const {
  if (fd) {
    _WCAN_INITFD_CONFIG c{};
    c.abitRate = 1000000;
    c.dbitRate = 5000000;
    c.fdEnable = 1;
    return WCAN_InitCANFD(type, 0, channel, &c) == 1;
  }
  _WCAN_INIT_CONFIG c{};
  c.timing0 = 0x00;
  c.timing1 = 0x14; // 1 Mbit/s
  return WCAN_InitCAN(type, 0, channel, &c) == 1;
}

bool Family::send(unsigned channel, uint32_t seq) const {
  if (fd) {
    _WCAN_CANFD_OBJ frame{};
    frame.id = 0x200 + channel;
    frame.fdFlags = WCAN_FDFLAG_FDF | WCAN_FDFLAG_BRS;
    frame.dataLen = 64;
    putTag(frame.data, channel, seq);
    return WCAN_TransmitFD(type, 0, channel, &frame, 1) == 1;
  }
  _WCAN_CAN_OBJ frame{};
  frame.id = 0x200 + channel;
  frame.dataLen = 8;
  putTag(frame.data, channel, seq);
  return WCAN_Transmit(type, 0, channel, &frame, 1) == 1;
}

std::vector<Family::Tag> Family::receive(unsigned channel, int waitMs) const {
  std::vector<Tag> tags;
  if (fd) {
    _WCAN_CANFD_OBJ frames[64];
    const int n = WCAN_ReceiveFD(type, 0, channel, frames, 64, waitMs);
    for (int i = 0; i < n; ++i) {
      tags.push_back(getTag(frames[i].data));
    }
  } else {
    _WCAN_CAN_OBJ frames[64];
    const int n = WCAN_Receive(type, 0, channel, frames, 64, waitMs);
    for (int i = 0; i < n; ++i) {
      tags.push_back(getTag(frames[i].data));
    }
  }
  return tags;
}

// About one frame per millisecond each way: sustained, yet light enough for
// a sanitizer build sharing two cores.
void Rig::sender(unsigned channel, const std::atomic<bool> &stop) {
  while (!stop.load()) {
    uint32_t seq;
    {
      std::lock_guard<std::mutex> lock(mutex_);
      seq = static_cast<uint32_t>(directions_[channel].sentAt.size());
    }
    const Clock::time_point at = Clock::now();
    if (family_.send(channel, seq)) {
      std::lock_guard<std::mutex> lock(mutex_);
      directions_[channel].sentAt.push_back(at);
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    } else {
      std::this_thread::sleep_for(std::chrono::milliseconds(2));
    }
  }
}

void Rig::receiver(unsigned channel, const std::atomic<bool> &stop) {
  while (!stop.load()) {
    for (const Family::Tag &tag : family_.receive(channel, 20)) {
      if (tag.from != 1 - channel) {
        std::lock_guard<std::mutex> lock(mutex_);
        ++directions_[1 - channel].foreign;
        continue;
      }
      noteArrival(tag.from, tag.seq);
    }
  }
}

void Rig::noteArrival(unsigned direction, uint32_t seq) {
  const Clock::time_point now = Clock::now();
  std::lock_guard<std::mutex> lock(mutex_);
  Direction &d = directions_[direction];
  d.arrivals.emplace_back(seq, now);
  if (!awaitingRecovery_ || cycles_.empty()) {
    return;
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
    recovered_.notify_all();
  }
}

void Rig::chaos(const std::atomic<bool> &stop, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_int_distribution<int> upMs(150, 450);
  std::uniform_int_distribution<int> downMs(20, 120);
  while (!stop.load()) {
    std::this_thread::sleep_for(std::chrono::milliseconds(upMs(random)));
    Cycle cycle;
    cycle.unplugAt = Clock::now();
    wcansim::unplug(adapter_);
    std::this_thread::sleep_for(std::chrono::milliseconds(downMs(random)));
    std::unique_lock<std::mutex> lock(mutex_);
    cycle.replugAt = Clock::now();
    cycles_.push_back(cycle);
    awaitingRecovery_ = true;
    wcansim::replug(adapter_);
    // A recovery that has not shown traffic both ways within 10 s failed.
    if (!recovered_.wait_for(lock, std::chrono::seconds(10),
                             [this] { return !awaitingRecovery_; })) {
      awaitingRecovery_ = false;
    }
  }
}

size_t Rig::cycles() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return cycles_.size();
}

Report Rig::analyse(std::chrono::milliseconds grace) const {
  std::lock_guard<std::mutex> lock(mutex_);
  Report report;
  report.name = family_.name;
  report.cycles = cycles_.size();
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
        continue;
      }
      if (static_cast<int64_t>(arrival.first) <= last || arrived[arrival.first]) {
        ++report.disorder;
      }
      last = arrival.first;
      arrived[arrival.first] = true;
    }
    // Windows in which every sent frame must arrive: from the start (or the
    // frame that showed a recovery) to `grace` before the next unplug.
    int64_t windowFirst = 0;
    for (size_t k = 0; k <= cycles_.size(); ++k) {
      const bool last = k == cycles_.size();
      const Clock::time_point windowEnd =
          last ? Clock::time_point::max() : cycles_[k].unplugAt - grace;
      for (size_t seq = static_cast<size_t>(std::max<int64_t>(windowFirst, 0));
           windowFirst >= 0 && seq < d.sentAt.size() && d.sentAt[seq] < windowEnd; ++seq) {
        ++report.checked;
        report.lost += arrived[seq] ? 0 : 1;
      }
      if (!last) {
        windowFirst = cycles_[k].recovered ? cycles_[k].firstSeqAfter[dir] + 1 : -1;
      }
    }
  }
  return report;
}

} // namespace soak
