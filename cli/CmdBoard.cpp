// SPDX-License-Identifier: MIT
// list, info and record: the subcommands about adapters rather than traffic.
#include <cstdio>
#include <map>

#include "cli/Commands.h"
#include "cli/RecordFields.h"
#include "common/Adapters.h"
#include "common/Device.h"

namespace wcantool {
namespace {

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

// One action of `wcan record`; several may follow each other on one line.
struct RecordAction {
  std::string name;
  std::vector<std::string> assignments; // set
  _WCAN_FLITER_CONFIG filter{};         // filter-add, filter-show
  unsigned filterNumber = 0;            // filter-show
};

unsigned hexIdArg(const std::string &text, const char *what) {
  return static_cast<unsigned>(parseHex(text, what, 0, 0x1FFFFFFF));
}

bool isAssignment(const std::string &word) { return word.find('=') != std::string::npos; }

std::vector<RecordAction> parseRecordActions(const Args &args) {
  const auto &p = args.positionals();
  const auto idType = static_cast<unsigned char>(
      parseUnsigned(args.value("--id-type").value_or("0"), "--id-type", 0, 255));
  std::vector<RecordAction> actions;
  size_t i = 3;
  auto operand = [&](const char *what) -> const std::string & {
    if (i >= p.size())
      throw UsageError{"missing arguments: " + actions.back().name + " needs " + what};
    return p[i++];
  };
  while (i < p.size()) {
    actions.push_back({p[i++], {}, {}, 0});
    RecordAction &a = actions.back();
    if (a.name == "set") {
      while (i < p.size() && isAssignment(p[i]))
        a.assignments.push_back(p[i++]);
      if (a.assignments.empty())
        throw UsageError{"'set' needs at least one FIELD=VALUE"};
      _WCAN_RECORD_CONFIG scratch{};
      for (const std::string &text : a.assignments)
        applyRecordAssignment(scratch, text);
    } else if (a.name == "filter-add") {
      a.filter.startId = hexIdArg(operand("FIRST"), "FIRST");
      a.filter.endId = hexIdArg(operand("LAST"), "LAST");
      if (a.filter.endId < a.filter.startId)
        throw UsageError{"LAST must not be below FIRST"};
      a.filter.idType = idType;
    } else if (a.name == "filter-show") {
      a.filterNumber = parseUnsigned(operand("N"), "N", 0, 0xFFFF);
    } else if (a.name != "show" && a.name != "filter-info" && a.name != "filter-clear" &&
               a.name != "filter-enable" && a.name != "filter-disable") {
      throw UsageError{"unknown action '" + a.name + "'"};
    }
  }
  return actions;
}

void runSettingsAction(DeviceSession &dev, const WcanApi &api, unsigned ch, const RecordAction &a) {
  const unsigned type = dev.type().type;
  _WCAN_RECORD_CONFIG config{};
  if (api.WCAN_RecordSettingGet(type, dev.index(), ch, &config) != 1)
    dev.fail("reading the recording settings");
  if (a.name == "set") {
    for (const std::string &text : a.assignments)
      applyRecordAssignment(config, text);
    if (api.WCAN_RecordSettingSet(type, dev.index(), ch, &config) != 1)
      dev.fail("writing the recording settings");
    if (api.WCAN_RecordSettingGet(type, dev.index(), ch, &config) != 1)
      dev.fail("reading the recording settings back");
  }
  std::fputs(formatRecordConfig(config).c_str(), out());
}

void runFilterAction(DeviceSession &dev, const WcanApi &api, unsigned ch, RecordAction &a) {
  const unsigned type = dev.type().type;
  const unsigned index = dev.index();
  auto check = [&](int r, const char *what) {
    if (r != 1)
      dev.fail(what);
  };
  if (a.name == "filter-clear") {
    check(api.WCAN_RecordFliterClr(type, index, ch), "clearing the filters");
  } else if (a.name == "filter-enable") {
    check(api.WCAN_RecordFliterEnable(type, index, ch), "enabling the filters");
  } else if (a.name == "filter-disable") {
    check(api.WCAN_RecordFliterDisable(type, index, ch), "disabling the filters");
  } else if (a.name == "filter-add") {
    check(api.WCAN_RecordFliterAdd(type, index, ch, &a.filter), "adding the filter");
  } else if (a.name == "filter-info") {
    _WCAN_FLITER_INFO info{};
    check(api.WCAN_RecordFliterInfoGet(type, index, ch, &info), "reading the filter information");
    std::fprintf(out(), "filters: %u\nstate:   %u\n", info.filterCount, info.filterState);
    return;
  } else if (a.name == "filter-show") {
    check(api.WCAN_RecordFliterSettingGet(type, index, ch,
                                          static_cast<unsigned short>(a.filterNumber), &a.filter),
          "reading the filter");
    std::fprintf(out(), "filter %u: %X..%X id type %u\n", a.filterNumber, a.filter.startId,
                 a.filter.endId, a.filter.idType);
    return;
  }
  std::fprintf(out(), "%s: done\n", a.name.c_str());
}

} // namespace

int runList(Context &ctx, const Args &args) {
  args.expectPositionals(0, 0);
  const std::vector<AttachedAdapter> adapters = attachedAdapters(ctx.runtime());
  if (adapters.empty()) {
    std::fprintf(out(), "no supported adapter attached\n");
    return kExitOk;
  }
  std::fprintf(out(), "%-9s %-5s %-9s %-7s %-8s %s\n", "TYPE", "INDEX", "USB ID", "BUS/ADR",
               "CHANNELS", "FAMILY");
  for (const AttachedAdapter &a : adapters) {
    const DeviceType &t = *findDeviceType(a.types.front());
    std::fprintf(out(), "%-9s %-5u %04x:%04x %03u/%03u %-8u %s\n", joinTypes(a.types).c_str(),
                 a.index, a.vendorId, a.productId, a.busNumber, a.address, t.channels,
                 familyName(t.family));
  }
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
  std::vector<RecordAction> actions = parseRecordActions(args);

  DeviceSession device(ctx.runtime(), type, index);
  const WcanApi &api = ctx.runtime().wcan();
  for (RecordAction &a : actions) {
    if (a.name == "show" || a.name == "set")
      runSettingsAction(device, api, channel, a);
    else
      runFilterAction(device, api, channel, a);
  }
  return kExitOk;
}

} // namespace wcantool
