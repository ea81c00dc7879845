// How the simulation layer lists adapters: fixed sockets, fresh addresses,
// the most recently attached device first, and which adapters name a USB
// serial number. A host finds a lost adapter again by these.
#include <gtest/gtest.h>
#include <libusb-1.0/libusb.h>

#include <algorithm>
#include <set>
#include <vector>

#include "sim/wcan_sim.h"

namespace wcansim {
namespace {

struct Listed {
  uint8_t bus = 0;
  std::vector<uint8_t> ports;
  uint8_t address = 0;
  libusb_device_descriptor desc{};

  bool sameSocket(const Listed &o) const { return bus == o.bus && ports == o.ports; }
};

class SimEnumeration : public ::testing::Test {
protected:
  void SetUp() override {
    reset();
    ASSERT_EQ(libusb_init(&ctx_), 0);
  }
  void TearDown() override {
    libusb_exit(ctx_);
    reset();
  }

  std::vector<Listed> list() {
    libusb_device **devs = nullptr;
    const ssize_t n = libusb_get_device_list(ctx_, &devs);
    std::vector<Listed> out;
    for (ssize_t i = 0; i < n; ++i) {
      Listed l;
      l.bus = libusb_get_bus_number(devs[i]);
      uint8_t ports[7] = {};
      const int depth = libusb_get_port_numbers(devs[i], ports, 7);
      EXPECT_GT(depth, 0);
      l.ports.assign(ports, ports + std::max(depth, 0));
      EXPECT_EQ(libusb_get_port_number(devs[i]), l.ports.empty() ? 0 : l.ports.back());
      l.address = libusb_get_device_address(devs[i]);
      EXPECT_EQ(libusb_get_device_descriptor(devs[i], &l.desc), 0);
      out.push_back(l);
    }
    libusb_free_device_list(devs, 1);
    return out;
  }

  // Adapter ids in list order, told apart by the sockets `initial` lists in
  // plug-in order.
  std::vector<AdapterId> order(const std::vector<Listed> &initial) {
    std::vector<AdapterId> ids;
    for (const Listed &l : list()) {
      const auto it = std::find_if(initial.begin(), initial.end(),
                                   [&](const Listed &i) { return i.sameSocket(l); });
      ids.push_back(it == initial.end() ? -1 : static_cast<AdapterId>(it - initial.begin()));
    }
    return ids;
  }

  libusb_context *ctx_ = nullptr;
};

TEST_F(SimEnumeration, EachAdapterKeepsItsOwnSocketAndGetsANewAddressAtEveryPlugIn) {
  const unsigned types[] = {41, 41, 4, 3, 61, 66, 64, 42, 43, 62, 65, 67, 41, 41, 41, 41, 41, 41};
  for (unsigned t : types)
    plugIn(t);
  const std::vector<Listed> before = list();
  ASSERT_EQ(before.size(), std::size(types));
  std::set<std::pair<uint8_t, std::vector<uint8_t>>> sockets;
  for (const Listed &l : before)
    sockets.insert({l.bus, l.ports});
  EXPECT_EQ(sockets.size(), before.size()) << "no two adapters share a socket";

  for (AdapterId id = 0; id < static_cast<AdapterId>(before.size()); ++id) {
    unplug(id);
    replug(id);
    const Listed now = list().front();
    EXPECT_TRUE(now.sameSocket(before[static_cast<size_t>(id)])) << "adapter " << id;
    EXPECT_NE(now.address, before[static_cast<size_t>(id)].address) << "adapter " << id;
  }
}

TEST_F(SimEnumeration, PortPathNeedsRoomForEveryHubLevel) {
  plugIn(41);
  libusb_device **devs = nullptr;
  ASSERT_EQ(libusb_get_device_list(ctx_, &devs), 1);
  uint8_t one = 0;
  EXPECT_EQ(libusb_get_port_numbers(devs[0], &one, 1), LIBUSB_ERROR_OVERFLOW);
  EXPECT_EQ(libusb_get_port_numbers(devs[0], &one, 0), LIBUSB_ERROR_INVALID_PARAM);
  libusb_free_device_list(devs, 1);
}

TEST_F(SimEnumeration, ReplugAttachedAdaptersComeFirstMostRecentFirst) {
  struct Case {
    std::vector<unsigned> types;
    std::vector<AdapterId> replugs;
    std::vector<AdapterId> expected;
  } cases[] = {
      {{41, 41}, {}, {0, 1}},
      {{41, 41, 41}, {1}, {1, 0, 2}},
      {{41, 41, 41}, {2, 0}, {0, 2, 1}},
      {{41, 4, 41}, {0, 2, 0}, {0, 2, 1}},
      {{4, 61, 41, 66}, {3, 1}, {1, 3, 0, 2}},
  };
  for (const Case &c : cases) {
    reset();
    for (unsigned t : c.types)
      plugIn(t);
    const std::vector<Listed> initial = list();
    for (AdapterId id : c.replugs) {
      unplug(id);
      replug(id);
    }
    EXPECT_EQ(order(initial), c.expected) << "replugged " << ::testing::PrintToString(c.replugs);
  }
}

TEST_F(SimEnumeration, OnlyTheClassicAdapterLacksAUsbSerialNumber) {
  struct Case {
    unsigned type;
    bool serial;
  } cases[] = {{41, true}, {66, true}, {61, true}, {62, true}, {3, false}, {4, false}};
  for (const Case &c : cases) {
    reset();
    plugIn(c.type);
    libusb_device **devs = nullptr;
    ASSERT_EQ(libusb_get_device_list(ctx_, &devs), 1);
    libusb_device_descriptor desc{};
    libusb_get_device_descriptor(devs[0], &desc);
    libusb_device_handle *h = nullptr;
    ASSERT_EQ(libusb_open(devs[0], &h), 0);
    libusb_free_device_list(devs, 1);
    unsigned char text[256];
    const int n = libusb_control_transfer(h, LIBUSB_ENDPOINT_IN, LIBUSB_REQUEST_GET_DESCRIPTOR,
                                          LIBUSB_DT_STRING << 8 | 3, 0, text, sizeof text, 1000);
    libusb_close(h);
    if (c.serial) {
      EXPECT_EQ(desc.iSerialNumber, 3) << "type " << c.type;
      EXPECT_GT(n, 2) << "type " << c.type;
    } else {
      EXPECT_EQ(desc.iSerialNumber, 0) << "type " << c.type;
      EXPECT_EQ(n, LIBUSB_ERROR_PIPE) << "type " << c.type;
    }
  }
}

} // namespace
} // namespace wcansim
