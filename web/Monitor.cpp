// SPDX-License-Identifier: MIT
#include "web/Monitor.h"

#include <nlohmann/json.hpp>

#include <algorithm>
#include <limits>
#include <set>

#include "capture/Pcapng.h"

namespace wcantool::web {
namespace {

using json = nlohmann::json;
using Clock = std::chrono::steady_clock;

constexpr unsigned kFlagExtended = 1, kFlagRemote = 2, kFlagFd = 4, kFlagBrs = 8, kFlagOwn = 16;
constexpr double kMinPeriodMs = 1, kMaxPeriodMs = 60000;
constexpr size_t kMaxCyclesPerViewer = 64;

int64_t nowUs() {
  const LogTime t = logTimeNow();
  return static_cast<int64_t>(t.seconds) * 1000000 + t.micros;
}

void appendHex(std::string &out, const uint8_t *data, size_t n) {
  static const char digits[] = "0123456789ABCDEF";
  for (size_t i = 0; i < n; ++i) {
    out += digits[data[i] >> 4];
    out += digits[data[i] & 15];
  }
}

unsigned flagsOf(const Frame &f, bool own) {
  return (f.extended ? kFlagExtended : 0) | (f.remote ? kFlagRemote : 0) | (f.fd ? kFlagFd : 0) |
         (f.brs ? kFlagBrs : 0) | (own ? kFlagOwn : 0);
}

uint64_t messageKey(uint32_t id, bool extended) { return (uint64_t{extended} << 32) | id; }

json loadValue(double v) { return std::isnan(v) ? json(nullptr) : json(std::round(v * 100) / 100); }

// Fields of a request: a missing or mistyped one throws with its name.
std::string textField(const json &r, const char *name) {
  auto it = r.find(name);
  if (it == r.end() || !it->is_string())
    throw std::invalid_argument(std::string("'") + name + "' must be a text");
  return it->get<std::string>();
}

double numberField(const json &r, const char *name, double fallback) {
  auto it = r.find(name);
  if (it == r.end())
    return fallback;
  if (!it->is_number())
    throw std::invalid_argument(std::string("'") + name + "' must be a number");
  return it->get<double>();
}

bool flagField(const json &r, const char *name, bool fallback) {
  auto it = r.find(name);
  if (it == r.end())
    return fallback;
  if (!it->is_boolean())
    throw std::invalid_argument(std::string("'") + name + "' must be true or false");
  return it->get<bool>();
}

} // namespace

struct Monitor::Cycle {
  explicit Cycle(boost::asio::io_context &io) : timer(io) {}
  std::string key, bus;
  Frame frame;
  Clock::duration period{};
  Clock::time_point next;
  boost::asio::steady_timer timer;
  Viewer *owner = nullptr;
  bool stopped = false;
};

struct Monitor::ViewerState {
  Viewer *viewer = nullptr;
  uint64_t session = 0;
  IdFilter filter;
  bool paused = false;
  bool perId = false;
  std::vector<bool> hidden; // by bus index
  std::vector<TraceFrame> trace;
  std::map<uint64_t, TraceFrame> latest; // one row per identifier
  uint64_t thinned = 0;                  // over the trace's frame budget
  uint64_t missed = 0;                   // while the browser was behind
  uint64_t overBudget = 0;               // since the last tick
  std::vector<std::pair<const MessageInfo *, size_t>> picks;
  std::string samples;
  size_t sampleCount = 0;
  uint64_t samplesDropped = 0;
  std::map<std::string, std::shared_ptr<Cycle>> cycles;
  std::deque<TraceFrame> record; // what the page was sent, for its download

  bool watches(unsigned bus) const { return bus >= hidden.size() || !hidden[bus]; }
};

Monitor::Monitor(boost::asio::io_context &io, BusAccess &buses, MonitorLimits limits)
    : io_(io), access_(buses), limits_(limits), tickTimer_(io), secondTimer_(io) {
  access_.setListener(this);
}

Monitor::~Monitor() {
  stop();
  access_.setListener(nullptr);
}

void Monitor::start() {
  stopped_ = false;
  refreshBuses();
  tick();
  everySecond();
}

void Monitor::stop() {
  stopped_ = true;
  tickTimer_.cancel();
  secondTimer_.cancel();
  for (auto &v : viewers_)
    for (auto &c : v.second->cycles) {
      c.second->stopped = true;
      c.second->timer.cancel();
    }
}

unsigned Monitor::busIndex(const std::string &name) {
  auto it = busByName_.find(name);
  if (it != busByName_.end())
    return it->second;
  const auto index = static_cast<unsigned>(stats_.size());
  stats_.push_back({name, ChannelLoad{}, 0, Clock::now()});
  busByName_.emplace(name, index);
  busStates_.emplace_back();
  busStates_.back().name = name;
  return index;
}

void Monitor::refreshBuses() {
  const std::vector<BusState> before = busStates_;
  for (BusState &s : busStates_) {
    s.running = s.monitor = false;
    s.clients = 0;
  }
  for (const BusState &s : access_.buses()) {
    const unsigned i = busIndex(s.name);
    const bool wasRunning = i < before.size() && before[i].running;
    if (s.running && (!wasRunning || before[i].rates.nominal != s.rates.nominal ||
                      before[i].rates.data != s.rates.data)) {
      // The bits a frame takes depend on the rates the bus runs at now.
      stats_[i].load = ChannelLoad(s.rates);
      stats_[i].loadSince = Clock::now();
    }
    busStates_[i] = s;
  }
}

void Monitor::attach(Viewer &viewer) {
  auto state = std::make_unique<ViewerState>();
  state->viewer = &viewer;
  state->session = ++lastSession_;
  viewer.post(hello(state->session));
  viewers_[&viewer] = std::move(state);
}

void Monitor::detach(Viewer &viewer) {
  auto it = viewers_.find(&viewer);
  if (it == viewers_.end())
    return;
  for (auto &c : it->second->cycles) {
    c.second->stopped = true;
    c.second->timer.cancel();
  }
  viewers_.erase(it);
}

void Monitor::onFrames(const std::string &bus, bool own, const std::vector<SeenFrame> &frames,
                       size_t failed, const std::string &failure) {
  const unsigned index = busIndex(bus);
  BusStatsEntry &stats = stats_[index];
  stats.frames += frames.size();
  for (const SeenFrame &s : frames) {
    stats.load.add(s.frame);
    ids_.add(index, s.frame, s.timeUs);
    const TraceFrame f{s, index, own};
    for (auto &v : viewers_)
      collect(*v.second, f);
    sampleSignals(f);
  }
  if (failed > 0)
    broadcast(json{{"t", "error"}, {"msg", bus + ": " + failure}}.dump());
}

void Monitor::collect(ViewerState &v, const TraceFrame &f) {
  if (v.paused || !v.watches(f.bus) || !v.filter.passes(f.seen.frame.id))
    return;
  if (v.perId) {
    const uint64_t key =
        (uint64_t{f.bus} << 33) | messageKey(f.seen.frame.id, f.seen.frame.extended);
    auto it = v.latest.find(key);
    if (it != v.latest.end())
      it->second = f;
    else if (v.latest.size() < limits_.traceFramesPerTick)
      v.latest.emplace(key, f);
    else
      ++v.overBudget;
    return;
  }
  if (v.trace.size() < limits_.traceFramesPerTick)
    v.trace.push_back(f);
  else
    ++v.overBudget;
}

void Monitor::sampleSignals(const TraceFrame &f) {
  if (!signals_.loaded() || !signals_.knows(f.seen.frame))
    return;
  bool wanted = false;
  for (auto &v : viewers_)
    for (auto &p : v.second->picks)
      wanted =
          wanted || (p.first->id == f.seen.frame.id && p.first->extended == f.seen.frame.extended);
  if (!wanted)
    return;
  signals_.decode(f.seen.frame, scratch_);
  for (auto &entry : viewers_) {
    ViewerState &v = *entry.second;
    if (!v.watches(f.bus))
      continue;
    for (const SignalValue &value : scratch_) {
      auto pick =
          std::find(v.picks.begin(), v.picks.end(), std::make_pair(value.message, value.signal));
      if (pick == v.picks.end())
        continue;
      if (v.sampleCount >= limits_.samplesPerTick) {
        ++v.samplesDropped;
        continue;
      }
      v.samples += v.samples.empty() ? "[" : ",[";
      v.samples += std::to_string(f.seen.timeUs) + "," + std::to_string(pick - v.picks.begin()) +
                   "," + json(value.value).dump() + "]";
      ++v.sampleCount;
    }
  }
}

void Monitor::tick() {
  if (stopped_)
    return;
  const bool withTable = ++ticks_ % limits_.tableEvery == 0;
  for (auto &entry : viewers_) {
    ViewerState &v = *entry.second;
    // Frames over the budget of an update the page could not take yet were
    // missed because it fell behind.
    if (v.viewer->idle()) {
      v.thinned += v.overBudget;
      v.overBudget = 0;
      sendUpdate(v, withTable);
    } else {
      v.missed += v.overBudget;
      v.overBudget = 0;
    }
  }
  tickTimer_.expires_after(limits_.tick);
  tickTimer_.async_wait([this](boost::system::error_code ec) {
    if (!ec)
      tick();
  });
}

void Monitor::sendUpdate(ViewerState &v, bool withTable) {
  std::string out = "{\"t\":\"update\",\"thinned\":" + std::to_string(v.thinned) +
                    ",\"missed\":" + std::to_string(v.missed) +
                    ",\"samplesDropped\":" + std::to_string(v.samplesDropped) + ",\"frames\":[";
  std::vector<TraceFrame> frames = std::move(v.trace);
  v.trace.clear();
  for (auto &l : v.latest)
    frames.push_back(l.second);
  v.latest.clear();
  std::sort(frames.begin(), frames.end(),
            [](const TraceFrame &a, const TraceFrame &b) { return a.seen.timeUs < b.seen.timeUs; });
  keepRecord(v, frames);
  bool first = true;
  for (const TraceFrame &f : frames) {
    const Frame &fr = f.seen.frame;
    out += first ? "[" : ",[";
    first = false;
    out += std::to_string(f.seen.timeUs) + "," + std::to_string(f.bus) + "," +
           std::to_string(fr.id) + "," + std::to_string(flagsOf(fr, f.own)) + ",\"";
    appendHex(out, fr.data.data(), fr.remote ? 0 : fr.len);
    out += "\"," + std::to_string(fr.len);
    const std::string decoded = signals_.describe(fr);
    if (!decoded.empty())
      out += "," + json(decoded).dump(-1, ' ', false, json::error_handler_t::replace);
    out += "]";
  }
  out += "],\"samples\":[" + v.samples + "]";
  v.samples.clear();
  v.sampleCount = 0;
  if (withTable)
    out += ",\"table\":" + tableJson(v);
  out += "}";
  v.viewer->post(std::move(out));
}

void Monitor::keepRecord(ViewerState &v, const std::vector<TraceFrame> &frames) const {
  v.record.insert(v.record.end(), frames.begin(), frames.end());
  if (v.record.size() > limits_.recordFrames)
    v.record.erase(v.record.begin(),
                   v.record.begin() +
                       static_cast<std::ptrdiff_t>(v.record.size() - limits_.recordFrames));
}

std::optional<std::string> Monitor::recordPcapng(uint64_t session) const {
  const auto page = std::find_if(viewers_.begin(), viewers_.end(),
                                 [session](const auto &v) { return v.second->session == session; });
  if (page == viewers_.end())
    return std::nullopt;
  std::vector<uint8_t> out;
  capture::appendSectionHeader(out, "wcan serve --web");
  // Interface i is bus i, so a frame's bus index is its interface.
  for (const BusState &bus : busStates_)
    capture::appendInterface(out, {bus.name, bus.running ? formatRates(bus.rates) : ""});
  for (const TraceFrame &f : page->second->record)
    capture::appendPacket(out, f.bus, f.seen.timeUs, f.seen.frame,
                          f.own ? capture::Direction::Outbound : capture::Direction::Inbound);
  return std::string(out.begin(), out.end());
}

std::string Monitor::tableJson(const ViewerState &v) const {
  const int64_t now = nowUs();
  std::string out = "[";
  bool first = true;
  for (const IdEntry *e : ids_.rows(v.filter, SortKey::Id)) {
    if (!v.watches(e->channel))
      continue;
    out += first ? "[" : ",[";
    first = false;
    char changed[20];
    std::snprintf(changed, sizeof changed, "%llx", static_cast<unsigned long long>(e->changed));
    out += std::to_string(e->channel) + "," + std::to_string(e->id) + "," +
           (e->extended ? "1" : "0") + ",\"" + kindName(e->kind) + "\"," + std::to_string(e->len) +
           ",\"";
    appendHex(out, e->data.data(), e->kind == FrameKind::Remote ? 0 : e->len);
    out += "\",\"" + std::string(changed) + "\"," + std::to_string(e->count) + "," +
           json(e->meanPeriodUs / 1000).dump() + "," + json(e->jitterUs() / 1000).dump() + "," +
           std::to_string((now - e->lastUs) / 1000) + "," + (ids_.faded(*e, now) ? "1" : "0") + "]";
  }
  return out + "]";
}

void Monitor::everySecond() {
  if (stopped_)
    return;
  refreshBuses();
  const auto now = Clock::now();
  std::vector<double> loads(stats_.size(), std::numeric_limits<double>::quiet_NaN());
  for (size_t i = 0; i < stats_.size(); ++i) {
    BusStatsEntry &s = stats_[i];
    const double seconds = std::chrono::duration<double>(now - s.loadSince).count();
    s.loadSince = now;
    const LoadInterval interval = s.load.close(seconds);
    if (busStates_[i].running)
      loads[i] = interval.percent();
  }
  const int64_t ms = nowUs() / 1000;
  loadHistory_.emplace_back(ms, loads);
  while (loadHistory_.size() > limits_.loadHistory)
    loadHistory_.pop_front();
  json row = json::array({ms});
  for (double l : loads)
    row.push_back(loadValue(l));
  ids_.expire(nowUs());
  broadcast("{\"t\":\"second\",\"buses\":" + busesJson() + ",\"load\":" + row.dump() + "}");
  secondTimer_.expires_after(std::chrono::seconds(1));
  secondTimer_.async_wait([this](boost::system::error_code ec) {
    if (!ec)
      everySecond();
  });
}

std::string Monitor::busesJson() const {
  json out = json::array();
  for (size_t i = 0; i < stats_.size(); ++i) {
    const BusState &s = busStates_[i];
    const LoadInterval &last = stats_[i].load.last();
    out.push_back({{"name", s.name},
                   {"running", s.running},
                   {"fd", s.fd},
                   {"rates", s.running ? formatRates(s.rates) : ""},
                   {"clients", s.clients},
                   {"monitor", s.monitor},
                   {"load", s.running ? loadValue(last.percent()) : json(nullptr)},
                   {"fps", std::round(last.framesPerSecond())},
                   {"frames", stats_[i].frames}});
  }
  return out.dump();
}

std::string Monitor::dbcJson() const {
  if (!signals_.loaded())
    return "null";
  json messages = json::array();
  for (const MessageInfo &m : signals_.messages()) {
    json signals = json::array();
    for (const SignalInfo &s : m.signals) {
      json values = json::object();
      for (const auto &v : s.valueNames)
        values[std::to_string(v.first)] = v.second;
      signals.push_back({{"name", s.name}, {"unit", s.unit}, {"values", values}});
    }
    messages.push_back({{"name", m.name},
                        {"id", m.id},
                        {"extended", m.extended},
                        {"length", m.length},
                        {"signals", signals}});
  }
  return json{{"version", dbcVersion_}, {"messages", messages}}.dump(
      -1, ' ', false, json::error_handler_t::replace);
}

std::string Monitor::hello(uint64_t session) const {
  json load = json::array();
  for (const auto &row : loadHistory_) {
    json r = json::array({row.first});
    for (size_t i = 0; i < stats_.size(); ++i)
      r.push_back(i < row.second.size() ? loadValue(row.second[i]) : json(nullptr));
    load.push_back(r);
  }
  return "{\"t\":\"hello\",\"session\":" + std::to_string(session) +
         ",\"dbcAvailable\":" + std::string(Signals::available() ? "true" : "false") +
         ",\"tickMs\":" + std::to_string(limits_.tick.count()) +
         ",\"traceFramesPerTick\":" + std::to_string(limits_.traceFramesPerTick) +
         ",\"buses\":" + busesJson() + ",\"load\":" + load.dump() + ",\"dbc\":" + dbcJson() + "}";
}

void Monitor::broadcast(const std::string &text) {
  for (auto &v : viewers_)
    v.second->viewer->post(text);
}

void Monitor::reply(Viewer &viewer, const char *kind, const std::string &message) {
  viewer.post(
      json{{"t", kind}, {"msg", message}}.dump(-1, ' ', false, json::error_handler_t::replace));
}

std::string Monitor::loadDbc(std::string_view text) {
  std::string error;
  std::vector<std::string> warnings;
  if (!signals_.load(text, error, warnings))
    return json{{"ok", false}, {"error", "the DBC file was not loaded: " + error}}.dump(
        -1, ' ', false, json::error_handler_t::replace);
  ++dbcVersion_;
  // The picks point into the database just replaced.
  for (auto &v : viewers_)
    v.second->picks.clear();
  broadcast("{\"t\":\"dbc\",\"dbc\":" + dbcJson() + "}");
  return json{{"ok", true}, {"messages", signals_.messages().size()}, {"warnings", warnings}}.dump(
      -1, ' ', false, json::error_handler_t::replace);
}

void Monitor::command(Viewer &viewer, std::string_view text) {
  auto it = viewers_.find(&viewer);
  if (it == viewers_.end())
    return;
  const json request = json::parse(text, nullptr, false);
  if (request.is_discarded() || !request.is_object()) {
    reply(viewer, "error", "a request is a JSON object");
    return;
  }
  try {
    handle(*it->second, textField(request, "op"), request);
  } catch (const std::exception &e) {
    reply(viewer, "error", std::string("bad request: ") + e.what());
  }
}

void Monitor::handle(ViewerState &v, const std::string &op, const json &request) {
  if (op == "open")
    openBus(v, request);
  else if (op == "close")
    access_.close(textField(request, "bus"));
  else if (op == "view")
    configureView(v, request);
  else if (op == "send")
    sendOnce(v, request);
  else if (op == "cyclic")
    startCycle(v, request);
  else if (op == "stopCyclic")
    stopCycle(v, textField(request, "key"));
  else if (op == "signals")
    pickSignals(v, request);
  else if (op == "clearRecord")
    v.record.clear();
  else
    reply(*v.viewer, "error", "unknown request '" + op + "'");
}

void Monitor::openBus(ViewerState &v, const json &request) {
  ChannelSettings settings;
  const double bitRate = numberField(request, "bitrate", settings.bitRate);
  const double dataBitRate = numberField(request, "dbitrate", settings.dataBitRate);
  if (bitRate < 1 || bitRate > 1e8 || dataBitRate < 1 || dataBitRate > 1e8)
    throw std::invalid_argument("bit rates are 1 to 100000000 bit/s");
  settings.bitRate = static_cast<unsigned>(bitRate);
  settings.dataBitRate = static_cast<unsigned>(dataBitRate);
  settings.fd = flagField(request, "fd", false);
  const std::string bus = textField(request, "bus");
  Viewer *viewer = v.viewer;
  access_.open(bus, settings, [this, viewer, bus](const std::string &error) {
    refreshBuses();
    if (viewers_.count(viewer) == 0)
      return;
    if (error.empty())
      reply(*viewer, "ok", bus + " is running");
    else
      reply(*viewer, "error", "cannot start " + bus + ": " + error);
  });
}

void Monitor::configureView(ViewerState &v, const json &request) {
  if (request.contains("filter")) {
    IdFilter filter;
    std::string error;
    if (!filter.add(textField(request, "filter"), error))
      throw std::invalid_argument("filter: " + error);
    v.filter = filter;
  }
  v.paused = flagField(request, "paused", v.paused);
  if (request.contains("mode"))
    v.perId = textField(request, "mode") == "perid";
  if (request.contains("hidden")) {
    const json &hidden = request.at("hidden");
    if (!hidden.is_array())
      throw std::invalid_argument("'hidden' must be a list of buses");
    v.hidden.assign(stats_.size(), false);
    for (const json &name : hidden) {
      auto bus = name.is_string() ? busByName_.find(name.get<std::string>()) : busByName_.end();
      if (bus != busByName_.end())
        v.hidden[bus->second] = true;
    }
  }
  v.trace.clear();
  v.latest.clear();
}

bool Monitor::frameOf(const json &request, Frame &out, std::string &error) const {
  if (request.contains("frame"))
    return parseFrame(textField(request, "frame"), out, error);
  const std::string message = textField(request, "message");
  std::vector<std::pair<std::string, std::string>> values;
  auto given = request.find("values");
  if (given != request.end()) {
    if (!given->is_object())
      throw std::invalid_argument("'values' must map signal names to values");
    for (auto it = given->begin(); it != given->end(); ++it)
      values.emplace_back(it.key(), it->is_string() ? it->get<std::string>() : it->dump());
  }
  return signals_.encode(message, values, out, error);
}

void Monitor::sendOnce(ViewerState &v, const json &request) {
  const std::string bus = textField(request, "bus");
  Frame frame;
  std::string error;
  if (!frameOf(request, frame, error) || !access_.send(bus, {frame}, false, error))
    reply(*v.viewer, "error", "not sent: " + error);
  else
    reply(*v.viewer, "ok", "sent " + formatFrame(frame) + " on " + bus);
}

void Monitor::startCycle(ViewerState &v, const json &request) {
  const std::string key = textField(request, "key");
  const double periodMs = numberField(request, "period", 0);
  if (!(periodMs >= kMinPeriodMs && periodMs <= kMaxPeriodMs))
    throw std::invalid_argument("the period is 1 to 60000 ms");
  if (v.cycles.size() >= kMaxCyclesPerViewer && v.cycles.count(key) == 0)
    throw std::invalid_argument("a page runs at most 64 cyclic transmissions");
  auto cycle = std::make_shared<Cycle>(io_);
  cycle->key = key;
  cycle->bus = textField(request, "bus");
  cycle->owner = v.viewer;
  cycle->period = std::chrono::duration_cast<Clock::duration>(
      std::chrono::duration<double, std::milli>(periodMs));
  std::string error;
  // The first frame goes out now: a frame that does not fit is refused here.
  if (!frameOf(request, cycle->frame, error) ||
      !access_.send(cycle->bus, {cycle->frame}, true, error)) {
    reply(*v.viewer, "error", "cyclic transmission not started: " + error);
    return;
  }
  stopCycle(v, key);
  cycle->next = Clock::now() + cycle->period;
  v.cycles[key] = cycle;
  armCycle(cycle);
  reply(*v.viewer, "ok",
        "sending " + formatFrame(cycle->frame) + " every " + json(periodMs).dump() + " ms");
}

void Monitor::armCycle(const std::shared_ptr<Cycle> &cycle) {
  cycle->timer.expires_at(cycle->next);
  cycle->timer.async_wait([this, weak = std::weak_ptr<Cycle>(cycle)](boost::system::error_code ec) {
    std::shared_ptr<Cycle> c = weak.lock();
    if (ec || !c || c->stopped)
      return;
    std::string error;
    if (!access_.send(c->bus, {c->frame}, true, error)) {
      auto v = viewers_.find(c->owner);
      if (v != viewers_.end()) {
        reply(*c->owner, "error", "cyclic transmission " + c->key + " stopped: " + error);
        stopCycle(*v->second, c->key);
      }
      return;
    }
    // The next time follows from the schedule, not from this wake-up, so
    // the period holds on average; after a stall it starts afresh.
    c->next += c->period;
    const auto now = Clock::now();
    if (c->next < now)
      c->next = now + c->period;
    armCycle(c);
  });
}

void Monitor::stopCycle(ViewerState &v, const std::string &key) {
  auto it = v.cycles.find(key);
  if (it == v.cycles.end())
    return;
  it->second->stopped = true;
  it->second->timer.cancel();
  v.cycles.erase(it);
}

void Monitor::pickSignals(ViewerState &v, const json &request) {
  const json &picks = request.at("picks");
  if (!picks.is_array())
    throw std::invalid_argument("'picks' must be a list of Message.Signal names");
  v.picks.clear();
  for (const json &p : picks) {
    const std::string name = p.is_string() ? p.get<std::string>() : std::string();
    const size_t dot = name.find('.');
    bool found = false;
    for (const MessageInfo &m : signals_.messages()) {
      if (dot == std::string::npos || m.name != name.substr(0, dot))
        continue;
      for (size_t s = 0; s < m.signals.size() && !found; ++s)
        if (m.signals[s].name == name.substr(dot + 1)) {
          v.picks.emplace_back(&m, s);
          found = true;
        }
    }
    if (!found)
      throw std::invalid_argument("no signal '" + name + "' in the DBC file");
  }
}

} // namespace wcantool::web
