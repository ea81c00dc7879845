// list, info and record: the subcommands about adapters rather than traffic.
#include <cstdio>
#include <map>

#include "Commands.h"
#include "Device.h"
#include "RecordFields.h"

namespace wcantool {
namespace {

struct UsbContext {
  const UsbApi &usb;
  libusb_context *ctx = nullptr;

  explicit UsbContext(const UsbApi &api) : usb(api) {
    if (usb.init(&ctx) != 0)
      throw ToolError{"cannot initialise the USB library"};
  }
  ~UsbContext() { usb.exit(ctx); }
  UsbContext(const UsbContext &) = delete;
  UsbContext &operator=(const UsbContext &) = delete;
};

struct DeviceList {
  const UsbApi &usb;
  libusb_device **list = nullptr;
  ssize_t count = 0;

  DeviceList(const UsbApi &api, libusb_context *ctx) : usb(api) {
    count = usb.getDeviceList(ctx, &list);
    if (count < 0)
      throw ToolError{"cannot list the USB devices"};
  }
  ~DeviceList() {
    if (list)
      usb.freeDeviceList(list, 1);
  }
  DeviceList(const DeviceList &) = delete;
  DeviceList &operator=(const DeviceList &) = delete;
};

std::string joinTypes(const std::vector<unsigned> &types) {
  std::string s;
  for (unsigned t : types)
    s += (s.empty() ? "" : ",") + std::to_string(t);
  return s;
}

const DeviceType &recorderType(unsigned type) {
  const DeviceType &t = checkedDeviceType(type);
  if (t.family != Family::Recorder)
    throw UsageError{"'record' configures CAN recorders (types 61, 62), not type " +
                     std::to_string(type)};
  return t;
}

void expectActionArgs(const Args &args, size_t count) {
  args.expectPositionals(4 + count, 4 + count);
}

struct FilterRequest {
  std::string action;
  _WCAN_FLITER_CONFIG config{};
  unsigned filterNumber = 0;
};

unsigned hexIdArg(std::string text, const char *what) {
  if (text.compare(0, 2, "0x") != 0)
    text = "0x" + text;
  return static_cast<unsigned>(parseNumber(text, what, 0, 0x1FFFFFFF));
}

FilterRequest parseFilterRequest(const Args &args) {
  FilterRequest req;
  req.action = args.positionals()[3];
  const auto &p = args.positionals();
  if (req.action == "filter-clear" || req.action == "filter-enable" ||
      req.action == "filter-disable" || req.action == "filter-info") {
    expectActionArgs(args, 0);
  } else if (req.action == "filter-add") {
    expectActionArgs(args, 2);
    req.config.startId = hexIdArg(p[4], "FIRST");
    req.config.endId = hexIdArg(p[5], "LAST");
    if (req.config.endId < req.config.startId)
      throw UsageError{"LAST must not be below FIRST"};
    req.config.idType = static_cast<unsigned char>(
        parseUnsigned(args.value("--id-type").value_or("0"), "--id-type", 0, 255));
  } else if (req.action == "filter-show") {
    expectActionArgs(args, 1);
    req.filterNumber = parseUnsigned(p[4], "N", 0, 0xFFFF);
  } else {
    throw UsageError{"unknown action '" + req.action + "'"};
  }
  return req;
}

int runFilterRequest(DeviceSession &dev, const WcanApi &api, unsigned ch, FilterRequest &req) {
  const unsigned type = dev.type().type;
  const unsigned index = dev.index();
  auto check = [&](int r, const char *what) {
    if (r != 1)
      dev.fail(what);
  };
  const std::string &action = req.action;
  if (action == "filter-clear") {
    check(api.WCAN_RecordFliterClr(type, index, ch), "clearing the filters");
  } else if (action == "filter-enable") {
    check(api.WCAN_RecordFliterEnable(type, index, ch), "enabling the filters");
  } else if (action == "filter-disable") {
    check(api.WCAN_RecordFliterDisable(type, index, ch), "disabling the filters");
  } else if (action == "filter-info") {
    _WCAN_FLITER_INFO info{};
    check(api.WCAN_RecordFliterInfoGet(type, index, ch, &info), "reading the filter information");
    std::fprintf(out(), "filters: %u\nstate:   %u\n", info.filterCount, info.filterState);
    return kExitOk;
  } else if (action == "filter-add") {
    check(api.WCAN_RecordFliterAdd(type, index, ch, &req.config), "adding the filter");
  } else if (action == "filter-show") {
    _WCAN_FLITER_CONFIG &cfg = req.config;
    check(api.WCAN_RecordFliterSettingGet(type, index, ch,
                                          static_cast<unsigned short>(req.filterNumber), &cfg),
          "reading the filter");
    std::fprintf(out(), "filter %u: %X..%X id type %u\n", req.filterNumber, cfg.startId, cfg.endId,
                 cfg.idType);
    return kExitOk;
  }
  std::fprintf(out(), "%s: done\n", action.c_str());
  return kExitOk;
}

} // namespace

int runList(Context &ctx, const Args &args) {
  args.expectPositionals(0, 0);
  Runtime &rt = ctx.runtime();
  if (!rt.usb().complete())
    throw ToolError{"the loaded USB library offers no device list"};
  UsbContext usb(rt.usb());
  DeviceList devices(rt.usb(), usb.ctx);
  // The library counts an adapter's index among the devices with the same
  // USB ids, in the order of the device list.
  std::map<std::pair<uint16_t, uint16_t>, unsigned> seen;
  unsigned found = 0;
  for (ssize_t i = 0; i < devices.count; ++i) {
    libusb_device *dev = devices.list[i];
    libusb_device_descriptor desc{};
    if (rt.usb().getDeviceDescriptor(dev, &desc) != 0)
      continue;
    std::vector<unsigned> types = typesForUsbId(desc.idVendor, desc.idProduct);
    if (types.empty())
      continue;
    unsigned index = seen[{desc.idVendor, desc.idProduct}]++;
    const DeviceType &t = *findDeviceType(types.front());
    if (found++ == 0)
      std::fprintf(out(), "%-9s %-5s %-9s %-7s %-8s %s\n", "TYPE", "INDEX", "USB ID", "BUS/ADR",
                   "CHANNELS", "FAMILY");
    std::fprintf(out(), "%-9s %-5u %04x:%04x %03u/%03u %-8u %s\n", joinTypes(types).c_str(), index,
                 desc.idVendor, desc.idProduct, rt.usb().getBusNumber(dev),
                 rt.usb().getDeviceAddress(dev), t.channels, familyName(t.family));
  }
  if (found == 0)
    std::fprintf(out(), "no supported adapter attached\n");
  return kExitOk;
}

int runInfo(Context &ctx, const Args &args) {
  args.expectPositionals(2, 2);
  unsigned type = checkedDeviceType(parseUnsigned(args.positionals()[0], "TYPE", 0, ~0u)).type;
  unsigned index = parseUnsigned(args.positionals()[1], "INDEX", 0, 255);
  DeviceSession device(ctx.runtime(), type, index);
  _WCAN_BOARD_INFO info{};
  bool have = device.boardInfo(info);
  std::fputs(describeBoard(device, have ? &info : nullptr).c_str(), out());
  return kExitOk;
}

int runRecord(Context &ctx, const Args &args) {
  args.expectPositionals(4, ~size_t{0});
  const auto &p = args.positionals();
  unsigned type = recorderType(parseUnsigned(p[0], "TYPE", 0, ~0u)).type;
  unsigned index = parseUnsigned(p[1], "INDEX", 0, 255);
  unsigned channel = parseUnsigned(p[2], "CHANNEL", 0, 1);
  const std::string &action = p[3];
  if (action == "show" || action == "set") {
    _WCAN_RECORD_CONFIG config{};
    std::vector<std::string> assignments(p.begin() + 4, p.end());
    if (action == "show")
      expectActionArgs(args, 0);
    else if (assignments.empty())
      throw UsageError{"'set' needs at least one FIELD=VALUE"};
    for (const std::string &a : assignments) // checked before the adapter is opened
      applyRecordAssignment(config, a);
    DeviceSession device(ctx.runtime(), type, index);
    const WcanApi &api = ctx.runtime().wcan();
    if (api.WCAN_RecordSettingGet(type, index, channel, &config) != 1)
      device.fail("reading the recording settings");
    if (action == "set") {
      for (const std::string &a : assignments)
        applyRecordAssignment(config, a);
      if (api.WCAN_RecordSettingSet(type, index, channel, &config) != 1)
        device.fail("writing the recording settings");
      if (api.WCAN_RecordSettingGet(type, index, channel, &config) != 1)
        device.fail("reading the recording settings back");
    }
    std::fputs(formatRecordConfig(config).c_str(), out());
    return kExitOk;
  }
  FilterRequest req = parseFilterRequest(args);
  DeviceSession device(ctx.runtime(), type, index);
  return runFilterRequest(device, ctx.runtime().wcan(), channel, req);
}

} // namespace wcantool
