// SPDX-License-Identifier: MIT
// The exported interface as a careless host and a hostile bus see it. The
// input is a program: the adapters to plug in, then a sequence of steps, each
// either a call of one of the 30 exports with arbitrary type numbers, indexes,
// channels, counts, record contents and null pointers (never wild ones, and
// waits of a few milliseconds at most), or a fault on a simulated adapter:
// unplug, replug, a moment of silence, garbage on an IN endpoint, tampered
// replies, a frame from a foreign node. Every call must return with a result
// in its range and fill only well-formed records into buffers of exactly the
// size it was given; a null pointer must be refused. Each run closes what it
// opened and empties the simulation, so leaks show up at once.
//
// Program layout (read front to back, zeros once the input runs out): one
// byte for the number of adapters (1..4) and one model type byte for each,
// then steps of one operation byte followed by its arguments.
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <set>
#include <type_traits>
#include <utility>
#include <vector>

#include "FuzzSupport.h"
#include "platform/AdapterWorker.h"
#include "platform/QUserLog.h"
#include "platform/QUserThread.h"
#include "platform/QUserUtils.h"
#include "sim/wcan_sim.h"
#include "wcan.h"

namespace {

constexpr unsigned kModelTypes[] = {3, 4, 41, 42, 43, 61, 62, 64, 65, 66, 67};
constexpr unsigned kInterestingTypes[] = {3,  4,  41, 42, 43, 61, 62, 63, 64,
                                          65, 66, 67, 68, 69, 70, 71, 72, 73};
constexpr unsigned kOtherTypes[] = {0, 1, 2, 5, 40, 44, 60, 74, 255, 0xFFFFFFFFu};
constexpr unsigned kOddChannels[] = {15, 16, 63, 64, 255, 256, 0x7FFFFFFFu};
constexpr uint32_t kBitRates[] = {1000000, 800000,  500000,  250000,  125000, 100000,
                                  50000,   5000000, 4000000, 2000000, 0};
constexpr uint8_t kStreamEndpoints[] = {0x82, 0x83, 0x81};
constexpr size_t kMaxRecords = 512;
constexpr size_t kMaxAdapters = 6;
constexpr size_t kMaxSteps = 64;
// No new step starts after this long: a safety net only, as the library runs
// on virtual time here (see LLVMFuzzerInitialize) and no call really waits
// out a command budget.
constexpr std::chrono::milliseconds kStepTime{500};
constexpr size_t kDirectTransferBuffer = 62;

template <typename T, size_t N> T pick(const T (&table)[N], unsigned selector) {
  return table[selector % N];
}

// The input read front to back; past its end every byte is 0.
class Program {
public:
  Program(const uint8_t *data, size_t size) : data_(data), size_(size) {}

  bool done() const { return at_ >= size_; }
  uint8_t byte() { return at_ < size_ ? data_[at_++] : 0; }
  uint32_t u32() {
    uint32_t v = 0;
    for (int i = 0; i < 4; ++i) {
      v |= static_cast<uint32_t>(byte()) << (8 * i);
    }
    return v;
  }
  void fill(void *out, size_t n) {
    if (n == 0) {
      return;
    }
    const size_t take = std::min(n, size_ - std::min(at_, size_));
    std::memcpy(out, data_ + at_, take);
    std::memset(static_cast<uint8_t *>(out) + take, 0, n - take);
    at_ += take;
  }

private:
  const uint8_t *data_;
  size_t size_;
  size_t at_ = 0;
};

// A caller's buffer of exactly `count` records (a zero-sized allocation for
// none), or null.
template <typename T> class Buffer {
public:
  Buffer(size_t count, bool null)
      : storage_(null ? nullptr : std::make_unique<T[]>(count)), count_(count) {}
  T *get() const { return storage_.get(); }
  size_t count() const { return count_; }

private:
  std::unique_ptr<T[]> storage_;
  size_t count_;
};

struct Plugged {
  wcansim::AdapterId id;
  unsigned type;
};

enum class Family { Classic, ClassicRefused, Fd, Recorder, None };

Family familyOf(unsigned type) {
  if (type == 3 || type == 4) {
    return Family::Classic;
  }
  if ((type >= 41 && type <= 43) || (type >= 64 && type <= 67)) {
    return Family::Fd;
  }
  if (type == 61 || type == 62) {
    return Family::Recorder;
  }
  return type >= 63 && type <= 73 ? Family::ClassicRefused : Family::None;
}

bool hasDriver(Family f) { return f != Family::None && f != Family::ClassicRefused; }

void requireKnownLastError() {
  const int e = WCAN_GetLastError();
  require(e >= 0 && e <= 14 && e != 2);
  const char *text = WCAN_GetLastErrorStr();
  require(text != nullptr && std::memchr(text, '\0', 128) != nullptr);
}

void requireControlResult(int result) { require(result == 0 || result == 1); }

template <typename Obj> void requireWellFormed(const Obj *frames, int n) {
  constexpr unsigned maxLength = std::is_same_v<Obj, _WCAN_CANFD_OBJ> ? 64 : 8;
  for (int i = 0; i < n; ++i) {
    require(frames[i].dataLen <= maxLength && frames[i].id <= 0x1FFFFFFF);
  }
}

// One run: the bed of simulated adapters, what the program opened, and the
// arguments it draws.
class Run {
public:
  explicit Run(Program &program) : p_(program) {}
  Run(const Run &) = delete;
  Run &operator=(const Run &) = delete;
  ~Run() {
    for (const auto &handle : open_) {
      WCAN_CloseDevice(handle.first, handle.second);
    }
    wcansim::reset();
  }

  void plugInitialAdapters() {
    const unsigned n = p_.byte() % 4 + 1;
    for (unsigned i = 0; i < n; ++i) {
      plugIn();
    }
  }

  void step() {
    ++steps_;
    endSilences();
    const unsigned op = p_.byte() % (kExportSteps + kFaultSteps);
    if (op < kExportSteps) {
      callExport(op);
    } else {
      injectFault(op - kExportSteps);
    }
    requireKnownLastError();
  }

private:
  static constexpr unsigned kExportSteps = 30;
  static constexpr unsigned kFaultSteps = 8;

  // --- arguments -----------------------------------------------------------

  // Mostly the type of an adapter on the bed or another type the library
  // routes somewhere, sometimes one it does not know.
  unsigned type() {
    const uint8_t s = p_.byte();
    if (s < 128 && !bed_.empty()) {
      return bed_[s % bed_.size()].type;
    }
    if (s < 224) {
      return pick(kInterestingTypes, s);
    }
    return s < 248 ? pick(kOtherTypes, s) : p_.u32();
  }
  unsigned index() {
    const uint8_t s = p_.byte();
    return s < 240 ? s % 4 : p_.u32();
  }
  unsigned channel() {
    const uint8_t s = p_.byte();
    if (s < 224) {
      return s % 10;
    }
    return s < 248 ? pick(kOddChannels, s) : p_.u32();
  }
  size_t count() {
    const uint8_t s = p_.byte();
    if (s < 192) {
      return s % 17;
    }
    return s < 248 ? p_.byte() * 2u : p_.u32() % (kMaxRecords + 1);
  }
  int waitMs() { return p_.byte() % 4; }
  // Which pointer arguments are null this call (bit k: the k-th pointer).
  unsigned nulls() {
    const uint8_t s = p_.byte();
    return (s & 0xE0) == 0xE0 ? s & 0x07 : 0;
  }
  uint8_t kind() {
    const uint8_t s = p_.byte();
    return s < 224 ? s % 4 : s;
  }
  wcansim::AdapterId adapter() { return bed_.empty() ? -1 : bed_[p_.byte() % bed_.size()].id; }

  // The first record from the program, the others copies of it with their
  // own identifier and first data byte, so a burst stays cheap to describe.
  template <typename T> Buffer<T> records(size_t n, bool null) {
    Buffer<T> buffer(n, null);
    if (buffer.get() != nullptr && n > 0) {
      p_.fill(buffer.get(), sizeof(T));
      for (size_t i = 1; i < n; ++i) {
        buffer.get()[i] = buffer.get()[0];
        buffer.get()[i].id += static_cast<unsigned>(i);
        buffer.get()[i].data[0] = static_cast<unsigned char>(i);
      }
    }
    return buffer;
  }
  template <typename T> Buffer<T> record(bool null) {
    Buffer<T> buffer(1, null);
    if (buffer.get() != nullptr) {
      p_.fill(buffer.get(), sizeof(T));
    }
    return buffer;
  }

  // Channel settings: raw bytes, often with bit rates the adapters know.
  Buffer<_WCAN_INITFD_CONFIG> fdConfig(bool null) {
    Buffer<_WCAN_INITFD_CONFIG> config = record<_WCAN_INITFD_CONFIG>(null);
    if (config.get() != nullptr && p_.byte() < 192) {
      config.get()->abitRate = pick(kBitRates, p_.byte());
      config.get()->dbitRate = pick(kBitRates, p_.byte());
    }
    return config;
  }
  Buffer<_WCAN_INIT_CONFIG> classicConfig(bool null) {
    Buffer<_WCAN_INIT_CONFIG> config = record<_WCAN_INIT_CONFIG>(null);
    if (config.get() != nullptr && p_.byte() < 192) {
      config.get()->timing0 = p_.byte() % 4;
      config.get()->timing1 = p_.byte() < 128 ? 0x14 : 0x1C;
      config.get()->mode %= 2;
    }
    return config;
  }

  // --- the null-pointer rule ------------------------------------------------

  // A null record or buffer is refused with "Parameter Error!" by the family
  // that would use it: before anything else for the calls checked at the
  // door, and once the adapter is found for those checked by its driver.
  // Only while no fault was injected: the library's own threads recovering
  // an adapter may set the (process-wide) last error at any moment.
  enum class Check { AtTheDoor, ByDriver };
  void requireRefused(int result, unsigned type, unsigned index, bool servedByFamily, Check check) {
    require(result == 0);
    if (faulted_ || !servedByFamily) {
      return;
    }
    const bool open = open_.count({type, index}) != 0;
    if (check == Check::AtTheDoor || open) {
      require(WCAN_GetLastError() == WCAN_ERR_PARAMETER);
    }
  }

  // A call given a null pointer must be refused; any other must succeed or fail.
  void requireOutcome(int result, bool null, unsigned type, unsigned index, bool servedByFamily,
                      Check check) {
    if (null) {
      return requireRefused(result, type, index, servedByFamily, check);
    }
    requireControlResult(result);
  }

  void noteOpen(int result, unsigned type, unsigned index) {
    requireControlResult(result);
    if (result == 1) {
      open_.insert({type, index});
    }
  }

  // --- exports --------------------------------------------------------------

  void callExport(unsigned which) {
    const unsigned t = type(), i = index();
    const Family f = familyOf(t);
    switch (which) {
    case 0:
      return noteOpen(WCAN_OpenDevice(t, i), t, i);
    case 1: {
      const int r = WCAN_CloseDevice(t, i);
      requireControlResult(r);
      open_.erase({t, i});
      return;
    }
    case 2: {
      const bool null = nulls() != 0;
      Buffer<_WCAN_BOARD_INFO> info(1, null);
      return requireOutcome(WCAN_BoardInfoGet(t, i, info.get()), null, t, i, hasDriver(f),
                            Check::AtTheDoor);
    }
    case 3:
      return requireControlResult(WCAN_ClearBuffer(t, i, channel()));
    case 4:
      return directTransfer(t, i, f);
    case 5: {
      const unsigned ch = channel();
      const bool null = nulls() != 0;
      Buffer<_WCAN_FLITER_CONFIG> config = record<_WCAN_FLITER_CONFIG>(null);
      return requireOutcome(WCAN_SetFliter(t, i, ch, config.get()), null, t, i, f == Family::Fd,
                            Check::ByDriver);
    }
    case 6: {
      const int r = WCAN_GetReceiveNum(t, i, channel(), kind());
      require(r >= 0);
      return;
    }
    case 7: {
      const unsigned ch = channel();
      const bool null = nulls() != 0;
      Buffer<_WCAN_INIT_CONFIG> config = classicConfig(null);
      return requireOutcome(WCAN_InitCAN(t, i, ch, config.get()), null, t, i, f == Family::Classic,
                            Check::AtTheDoor);
    }
    case 8: {
      const unsigned ch = channel();
      const bool null = nulls() != 0;
      Buffer<_WCAN_INITFD_CONFIG> config = fdConfig(null);
      return requireOutcome(WCAN_InitCANFD(t, i, ch, config.get()), null, t, i, f == Family::Fd,
                            Check::ByDriver);
    }
    case 9:
      return requireControlResult(WCAN_Start(t, i, channel()));
    case 10:
      return requireControlResult(WCAN_Stop(t, i, channel()));
    case 11:
      return receive<_WCAN_CAN_OBJ>(t, i, f);
    case 12:
      return receive<_WCAN_CANFD_OBJ>(t, i, f);
    case 13:
      return transmit<_WCAN_CAN_OBJ>(t, i, f);
    case 14:
      return transmit<_WCAN_CANFD_OBJ>(t, i, f);
    default:
      return which < 24 ? callRecorderExport(which, t, i, f) : callClassicExport(which, t, i, f);
    }
  }

  void directTransfer(unsigned t, unsigned i, Family f) {
    const int length = static_cast<int>(p_.u32());
    const bool null = nulls() != 0;
    Buffer<unsigned char> data(kDirectTransferBuffer, null);
    if (data.get() != nullptr) {
      p_.fill(data.get(), kDirectTransferBuffer);
    }
    const int r = WCAN_DataDirectTransfer(t, i, data.get(), length);
    if (null) {
      return requireRefused(r, t, i, hasDriver(f), Check::AtTheDoor);
    }
    require(r >= 0 && static_cast<size_t>(r) <= kDirectTransferBuffer);
  }

  // A burst without its buffer is refused, by the classic family's door or
  // by the CAN FD driver; any other moves at most `n` records. True when
  // records came back to be checked.
  bool requireBurstOutcome(int r, bool null, bool fd, Family f, unsigned t, unsigned i, size_t n) {
    if (null) {
      const bool classicAtTheDoor = !fd && f == Family::Classic;
      requireRefused(r, t, i, classicAtTheDoor || f == Family::Fd,
                     classicAtTheDoor ? Check::AtTheDoor : Check::ByDriver);
      return false;
    }
    require(r >= 0 && static_cast<size_t>(r) <= n);
    return true;
  }

  template <typename Obj> void receive(unsigned t, unsigned i, Family f) {
    constexpr bool fd = std::is_same_v<Obj, _WCAN_CANFD_OBJ>;
    const unsigned ch = channel();
    const size_t n = count();
    const int wait = waitMs();
    const bool null = nulls() != 0;
    Buffer<Obj> frames(n, null);
    const int r = fd ? WCAN_ReceiveFD(t, i, ch, reinterpret_cast<_WCAN_CANFD_OBJ *>(frames.get()),
                                      static_cast<unsigned>(n), wait)
                     : WCAN_Receive(t, i, ch, reinterpret_cast<_WCAN_CAN_OBJ *>(frames.get()),
                                    static_cast<unsigned>(n), wait);
    if (requireBurstOutcome(r, null && n > 0, fd, f, t, i, n)) {
      requireWellFormed(frames.get(), r);
    }
  }

  template <typename Obj> void transmit(unsigned t, unsigned i, Family f) {
    constexpr bool fd = std::is_same_v<Obj, _WCAN_CANFD_OBJ>;
    const unsigned ch = channel();
    const size_t n = count();
    const bool null = nulls() != 0;
    Buffer<Obj> frames = records<Obj>(n, null);
    const int r = fd ? WCAN_TransmitFD(t, i, ch, reinterpret_cast<_WCAN_CANFD_OBJ *>(frames.get()),
                                       static_cast<unsigned>(n))
                     : WCAN_Transmit(t, i, ch, reinterpret_cast<_WCAN_CAN_OBJ *>(frames.get()),
                                     static_cast<unsigned>(n));
    requireBurstOutcome(r, null && n > 0, fd, f, t, i, n);
  }

  void callRecorderExport(unsigned which, unsigned t, unsigned i, Family f) {
    const unsigned ch = channel();
    const bool null = nulls() != 0;
    const bool recorder = f == Family::Recorder;
    int r = 0;
    switch (which) {
    case 15: {
      Buffer<_WCAN_RECORD_CONFIG> config = record<_WCAN_RECORD_CONFIG>(null);
      r = WCAN_RecordSettingSet(t, i, ch, config.get());
      break;
    }
    case 16: {
      Buffer<_WCAN_RECORD_CONFIG> config(1, null);
      r = WCAN_RecordSettingGet(t, i, ch, config.get());
      break;
    }
    case 17: {
      // Either record may be null whatever the command; only the one the
      // command uses must be there.
      const unsigned cmd = p_.byte() < 224 ? p_.byte() % 7 : p_.u32();
      const unsigned mask = nulls();
      Buffer<_WCAN_FLITER_INFO> info(1, (mask & 1) != 0);
      Buffer<_WCAN_FLITER_CONFIG> config = record<_WCAN_FLITER_CONFIG>((mask & 2) != 0);
      r = WCAN_RecordCmdExecute(t, i, ch, cmd, info.get(), config.get());
      const bool lacks =
          ((cmd == WCAN_RECORD_FILTER_ADD || cmd == WCAN_RECORD_FILTER_SETTING_GET) &&
           config.get() == nullptr) ||
          (cmd == WCAN_RECORD_FILTER_INFO_GET && info.get() == nullptr);
      return requireOutcome(r, lacks, t, i, recorder, Check::AtTheDoor);
    }
    case 18:
      return requireControlResult(WCAN_RecordFliterClr(t, i, ch));
    case 19: {
      Buffer<_WCAN_FLITER_CONFIG> config = record<_WCAN_FLITER_CONFIG>(null);
      r = WCAN_RecordFliterAdd(t, i, ch, config.get());
      break;
    }
    case 20:
      return requireControlResult(WCAN_RecordFliterEnable(t, i, ch));
    case 21:
      return requireControlResult(WCAN_RecordFliterDisable(t, i, ch));
    case 22: {
      Buffer<_WCAN_FLITER_INFO> info(1, null);
      r = WCAN_RecordFliterInfoGet(t, i, ch, info.get());
      break;
    }
    default: {
      const auto filterIndex = static_cast<unsigned short>(p_.u32());
      Buffer<_WCAN_FLITER_CONFIG> config(1, null);
      r = WCAN_RecordFliterSettingGet(t, i, ch, filterIndex, config.get());
      break;
    }
    }
    requireOutcome(r, null, t, i, recorder, Check::AtTheDoor);
  }

  void callClassicExport(unsigned which, unsigned t, unsigned i, Family f) {
    const bool classic = f == Family::Classic;
    if (which == 24) {
      const uint8_t v0 = p_.byte(), v1 = p_.byte();
      return requireControlResult(WCAN_DevRelayStatusSet(t, i, v0, v1));
    }
    if (which == 28) {
      const int e = WCAN_GetLastError();
      require(e >= 0 && e <= 14);
      return;
    }
    if (which == 29) {
      require(WCAN_GetLastErrorStr() != nullptr);
      return;
    }
    const unsigned ch = which == 25 ? 0 : channel();
    const unsigned mask = nulls();
    Buffer<unsigned char> v0(1, (mask & 1) != 0), v1(1, (mask & 2) != 0), v2(1, (mask & 4) != 0);
    int r = 0;
    bool null = v0.get() == nullptr || v1.get() == nullptr;
    if (which == 25) {
      r = WCAN_DevRelayStatusGet(t, i, v0.get(), v1.get());
    } else if (which == 26) {
      r = WCAN_DevBaudParaGet(t, i, ch, v0.get(), v1.get());
    } else {
      r = WCAN_DevChStateGet(t, i, ch, v0.get(), v1.get(), v2.get());
      null = null || v2.get() == nullptr;
    }
    requireOutcome(r, null, t, i, classic, Check::AtTheDoor);
  }

  // --- faults ---------------------------------------------------------------

  void plugIn() {
    const unsigned t = pick(kModelTypes, p_.byte());
    if (bed_.size() < kMaxAdapters) {
      bed_.push_back({wcansim::plugIn(t), t});
    }
  }

  // A moment of up to 150 ms passes on the virtual clock only, so retries
  // and settling pauses of the receive threads fall due. The receive
  // threads run beside the program in real time anyway, and a real pause
  // costs a whole time slice on a busy machine.
  void pause() { virtualtime::advance(std::chrono::milliseconds(50 * (p_.byte() % 4))); }

  void injectFault(unsigned which) {
    faulted_ = true;
    if (which == 0) {
      return plugIn();
    }
    if (which == 7) {
      return pause();
    }
    const wcansim::AdapterId a = adapter();
    switch (which) {
    case 1:
      return wcansim::unplug(a);
    case 2:
      return wcansim::replug(a);
    case 3:
      // The adapter stays silent for a moment or for the next few steps;
      // the exchanges it leaves unanswered cost only virtual time.
      wcansim::setSilent(a, true);
      pause();
      return silenceFor(a, p_.byte() % 4);
    case 4:
      return pushGarbage(a);
    case 5: {
      const auto fault = static_cast<wcansim::ReplyFault>(p_.byte() % 3);
      const uint8_t value = p_.byte();
      return wcansim::injectReplyFault(a, fault, value, p_.byte() % 3 + 1);
    }
    default:
      return injectFrame(a);
    }
  }

  // Bytes on an IN endpoint, sometimes behind the header of a CAN FD data
  // frame so they get past the frame search.
  void pushGarbage(wcansim::AdapterId a) {
    const uint8_t ep = pick(kStreamEndpoints, p_.byte());
    const uint8_t shape = p_.byte();
    wcansim::Bytes bytes(p_.byte());
    p_.fill(bytes.data(), bytes.size());
    if (shape >= 128) {
      const uint8_t records = shape & 0x0F;
      const size_t length = bytes.size();
      bytes.insert(bytes.begin(), {0x55, 0xF2, 0, 0, static_cast<uint8_t>(length),
                                   static_cast<uint8_t>(length >> 8), records});
    }
    wcansim::pushIn(a, ep, bytes);
  }

  void injectFrame(wcansim::AdapterId a) {
    const unsigned ch = p_.byte() % 9;
    const uint8_t flags = p_.byte();
    wcansim::CanFrame frame;
    frame.extended = (flags & 1) != 0;
    frame.remote = (flags & 2) != 0;
    frame.fd = (flags & 4) != 0;
    frame.brs = (flags & 8) != 0;
    frame.id = p_.u32() & (frame.extended ? 0x1FFFFFFFu : 0x7FFu);
    frame.len = static_cast<uint8_t>(p_.byte() % (frame.fd ? 65 : 9));
    p_.fill(frame.data, frame.len);
    wcansim::injectFrame(a, ch, frame);
  }

  void silenceFor(wcansim::AdapterId a, unsigned steps) {
    if (steps == 0) {
      return wcansim::setSilent(a, false);
    }
    silences_.push_back({a, steps_ + steps});
  }

  void endSilences() {
    for (auto it = silences_.begin(); it != silences_.end();) {
      if (it->second <= steps_) {
        wcansim::setSilent(it->first, false);
        it = silences_.erase(it);
      } else {
        ++it;
      }
    }
  }

  Program &p_;
  std::vector<Plugged> bed_;
  // Silent adapters and the step at which they speak again.
  std::vector<std::pair<wcansim::AdapterId, size_t>> silences_;
  size_t steps_ = 0;
  std::set<std::pair<unsigned, unsigned>> open_;
  bool faulted_ = false;
};

// What one transfer takes on the virtual clock: the interval of a full-speed
// interrupt endpoint. A command loop that the simulation keeps answering
// with replies it does not take (a pass-through of nothing comes back too
// short) then runs out of its budget after some hundred rounds.
constexpr std::chrono::milliseconds kTransferTime{1};

// Virtual time: the receive streams are asynchronous transfers that wait
// for data without a read, so every synchronous read that finds nothing
// waits in vain (the simulation answers a command while it is written): its
// time-out passes on the library's clock at once, and the command budgets,
// retry periods and pauses built on that clock pass with it.
wcansim::ReadWait readWait(uint8_t, unsigned timeoutMs) {
  virtualtime::advance(std::chrono::milliseconds(timeoutMs));
  return wcansim::ReadWait::TimeOut;
}

void wakeSimulatedReaders() { wcansim::wakeReaders(); }

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
  virtualtime::enable(true);
  virtualtime::setTransferTime(kTransferTime);
  wcansim::setReadWaitPolicy(&readWait);
  QUserThreadObj::setStopRequestHook(&wakeSimulatedReaders);
  // Frames cross the simulated bus at once, the library's log lines stay
  // off the console, and no adapter comes from the environment.
  setenv("WCAN_SIM_PACE", "0", 1);
  setenv("WCAN_LOG_CONSOLE", "none", 1);
  unsetenv("WCAN_SIM");
  QUserLog::GetInstance().ReloadConfig();
  return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  Program program(data, size);
  Run run(program);
  run.plugInitialAdapters();
  const auto deadline = std::chrono::steady_clock::now() + kStepTime;
  for (size_t n = 0;
       n < kMaxSteps && !program.done() && std::chrono::steady_clock::now() < deadline; ++n) {
    run.step();
  }
  return 0;
}
