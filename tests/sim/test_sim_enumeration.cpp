// SPDX-License-Identifier: MIT
// How the simulation layer lists adapters, by which a host finds a lost one
// again: a socket of its own, a fresh address at every plug-in, the most
// recently attached first, and a USB serial number on all but the classic
// adapter.
#include <algorithm>
#include <set>

#include "SimUsbHost.h"

namespace wcansim {
namespace {

struct Listed {
  uint8_t bus;
  std::vector<uint8_t> ports;
  uint8_t address;
  bool operator==(const Listed &o) const { return bus == o.bus && ports == o.ports; }
};

class SimEnumeration : public SimUsbHost {
protected:
  std::vector<Listed> list() {
    libusb_device **devs = nullptr;
    const ssize_t n = libusb_get_device_list(ctx, &devs);
    std::vector<Listed> out;
    for (ssize_t i = 0; i < n; ++i) {
      uint8_t ports[7] = {};
      const int depth = std::max(libusb_get_port_numbers(devs[i], ports, 7), 0);
      EXPECT_EQ(libusb_get_port_number(devs[i]), depth > 0 ? ports[depth - 1] : 0);
      out.push_back({libusb_get_bus_number(devs[i]),
                     {ports, ports + depth},
                     libusb_get_device_address(devs[i])});
    }
    libusb_free_device_list(devs, 1);
    return out;
  }

  // Adapter ids in list order, told apart by the sockets `initial` showed.
  std::vector<AdapterId> order(const std::vector<Listed> &initial) {
    std::vector<AdapterId> ids;
    for (const Listed &l : list())
      ids.push_back(
          static_cast<AdapterId>(std::find(initial.begin(), initial.end(), l) - initial.begin()));
    return ids;
  }
};

TEST_F(SimEnumeration, EachAdapterKeepsASocketOfItsOwnAndGetsANewAddressAtEveryPlugIn) {
  for (int i = 0; i < 18; ++i) // more than one bus holds
    plugIn(i % 2 != 0 ? 41 : 4);
  const std::vector<Listed> before = list();
  std::set<std::pair<uint8_t, std::vector<uint8_t>>> sockets;
  for (const Listed &l : before)
    sockets.insert({l.bus, l.ports});
  EXPECT_EQ(sockets.size(), 18u);

  for (AdapterId id = 0; id < 18; ++id) {
    unplug(id);
    replug(id);
    const Listed now = list().front();
    EXPECT_EQ(now, before[static_cast<size_t>(id)]) << "adapter " << id;
    EXPECT_NE(now.address, before[static_cast<size_t>(id)].address) << "adapter " << id;
  }
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
  for (unsigned type : {41u, 66u, 61u, 62u, 3u, 4u}) {
    const bool classic = type == 3 || type == 4;
    reset();
    plugIn(type);
    libusb_device **devs = nullptr;
    ASSERT_EQ(libusb_get_device_list(ctx, &devs), 1);
    libusb_device_descriptor desc{};
    libusb_get_device_descriptor(devs[0], &desc);
    libusb_device_handle *h = nullptr;
    ASSERT_EQ(libusb_open(devs[0], &h), 0);
    libusb_free_device_list(devs, 1);
    unsigned char text[256];
    const int n = libusb_control_transfer(h, 0x80, 6, 0x0303, 0, text, sizeof text, 1000);
    libusb_close(h);
    EXPECT_EQ(desc.iSerialNumber, classic ? 0 : 3) << "type " << type;
    EXPECT_TRUE(classic ? n == LIBUSB_ERROR_PIPE : n > 2) << "type " << type << ": " << n;
  }
}

} // namespace
} // namespace wcansim
