// SPDX-License-Identifier: MIT
// The browser monitor without a browser: who is let in, and what a browser
// that does not keep up costs the others.
#include <gtest/gtest.h>

#include <nlohmann/json.hpp>

#include "web/Access.h"
#include "web/Monitor.h"

namespace wcantool::web {
namespace {

TEST(AccessTest, HostsOriginsAndTokens) {
  const AccessPolicy local("secret", "127.0.0.1", 8080);
  const AccessPolicy wide("secret", "0.0.0.0", 8080);
  const AccessPolicy lan("secret", "192.168.1.5", 8080);
  struct Case {
    const AccessPolicy &policy;
    const char *host;
    bool allowed;
  } hosts[] = {
      {local, "127.0.0.1:8080", true},
      {local, "localhost:8080", true},
      {local, "LocalHost:8080", true},
      {local, "[::1]:8080", true},
      {local, "127.0.0.1:8081", false},
      {local, "127.0.0.1", false},
      {local, "evil.example:8080", false},
      {local, "192.168.1.5:8080", false},
      {local, "", false},
      {local, "::1:8080", false},
      {lan, "192.168.1.5:8080", true},
      {lan, "192.168.1.6:8080", false},
      {wide, "10.0.0.7:8080", true},
      {wide, "rebound.example:8080", false},
  };
  for (const Case &c : hosts)
    EXPECT_EQ(c.policy.hostAllowed(c.host), c.allowed) << c.host;

  EXPECT_TRUE(local.originAllowed("http://127.0.0.1:8080", "127.0.0.1:8080"));
  EXPECT_FALSE(local.originAllowed("http://evil.example", "127.0.0.1:8080"));
  EXPECT_FALSE(local.originAllowed("null", "127.0.0.1:8080"));

  struct Token {
    const char *target, *cookies;
    bool presented;
  } tokens[] = {
      {"/?token=secret", "", true},
      {"/app.js?x=1&token=secret", "", true},
      {"/", "a=b; wcan_token_8080=secret", true},
      {"/", "wcan_token_9090=secret", false}, // another server's cookie
      {"/?token=secre", "", false},
      {"/?token=secretx", "", false},
      {"/?token=", "wcan_token_8080=", false},
      {"/?tok=secret", "", false},
  };
  for (const Token &t : tokens)
    EXPECT_EQ(local.tokenPresented(t.target, t.cookies), t.presented)
        << t.target << " " << t.cookies;
  EXPECT_NE(randomToken(), randomToken());
}

class FakeBuses : public BusAccess {
public:
  void setListener(BusListener *l) override { listener = l; }
  std::vector<BusState> buses() const override {
    BusState s;
    s.name = "wcan41-0-0";
    s.running = true;
    return {s};
  }
  void open(const std::string &, const ChannelSettings &,
            std::function<void(const std::string &)> done) override {
    done({});
  }
  void close(const std::string &) override {}
  bool send(const std::string &, const std::vector<Frame> &frames, bool, std::string &) override {
    sent += frames.size();
    return true;
  }
  BusListener *listener = nullptr;
  size_t sent = 0;
};

class FakeViewer : public Viewer {
public:
  bool idle() const override { return !stalled; }
  void post(std::string text) override {
    const auto m = nlohmann::json::parse(text);
    if (m["t"] == "update") {
      frames += m["frames"].size();
      missed = m["missed"].get<uint64_t>();
      thinned = m["thinned"].get<uint64_t>();
    }
    if (m["t"] == "error")
      errors.push_back(m["msg"]);
  }
  bool stalled = false;
  size_t frames = 0;
  uint64_t missed = 0, thinned = 0;
  std::vector<std::string> errors;
};

TEST(MonitorTest, AStalledBrowserMissesFramesAndTheOthersDoNot) {
  boost::asio::io_context io;
  FakeBuses buses;
  MonitorLimits limits;
  limits.tick = std::chrono::milliseconds(10);
  limits.traceFramesPerTick = 100;
  Monitor monitor(io, buses, limits);
  FakeViewer stalled, keeping;
  monitor.attach(stalled);
  monitor.attach(keeping);
  monitor.start();
  stalled.stalled = true;
  std::vector<SeenFrame> batch(20);
  for (int round = 0; round < 10; ++round) {
    buses.listener->onFrames("wcan41-0-0", false, batch, 0, {});
    io.run_for(std::chrono::milliseconds(15));
  }
  EXPECT_EQ(keeping.frames, 200u);
  EXPECT_EQ(keeping.missed + keeping.thinned, 0u);
  EXPECT_EQ(stalled.frames, 0u);
  // It catches up: the frames it held and what it missed are reported.
  stalled.stalled = false;
  io.run_for(std::chrono::milliseconds(30));
  EXPECT_EQ(stalled.frames, 100u);
  EXPECT_EQ(stalled.missed, 100u);

  // Requests that cannot be carried out leave the bus alone.
  for (const char *bad :
       {"{", "[]", R"({"op":"send","bus":"wcan41-0-0","frame":"12G#00"})",
        R"({"op":"cyclic","key":"k","bus":"wcan41-0-0","frame":"1#","period":-5})",
        R"({"op":"view","filter":"+XYZ"})", R"({"op":"signals","picks":["A.B"]})",
        R"({"op":"send","bus":"wcan41-0-0","message":"M"})"})
    monitor.command(keeping, bad);
  EXPECT_EQ(keeping.errors.size(), 7u);
  EXPECT_EQ(buses.sent, 0u);
  monitor.stop();
  monitor.detach(stalled);
  monitor.detach(keeping);
}

} // namespace
} // namespace wcantool::web
