// SPDX-License-Identifier: MIT
// The text `wcan serve` reads from its clients and the tools read from a
// server, in reads of random sizes: the elements come out the same however
// the bytes are split, a send request that parses writes back as itself, and
// a frame element reads back as the frame it carries.
#include "FuzzSupport.h"
#include "net/Protocol.h"
#include "server/Bus.h"

using wcantool::Frame;
using wcantool::LogTime;
using wcantool::net::ElementReader;

namespace {

struct Items {
  std::vector<std::string> elements;
  std::string broken;
};

void drain(ElementReader &reader, Items &out) {
  ElementReader::Item item;
  while (reader.next(item)) {
    if (item.kind == ElementReader::Kind::Element)
      out.elements.push_back(item.text);
    else if (item.kind == ElementReader::Kind::Broken)
      out.broken = item.text;
  }
}

void checkRequest(const std::string &text) {
  wcantool::net::Request r;
  std::string why;
  if (!wcantool::net::parseRequest(text, r, why))
    return;
  if (r.verb == wcantool::net::Verb::Open) {
    if (const auto bus = wcantool::serve::parseBusName(r.bus))
      require(wcantool::interfaceName(bus->type, bus->index, bus->channel) == r.bus);
    return;
  }
  if (r.verb != wcantool::net::Verb::Send)
    return;
  const std::string again = wcantool::net::sendRequest(r.frame);
  wcantool::net::Request back;
  require(wcantool::net::parseRequest(again.substr(1, again.size() - 2), back, why));
  require(back.frame == r.frame);
}

void checkFrameElement(const std::string &text) {
  Frame f;
  LogTime t;
  if (!wcantool::net::parseFrameElement(text, f, t))
    return;
  std::string raw;
  wcantool::net::appendRawFrame(raw, t, f);
  Frame back;
  LogTime backTime;
  require(wcantool::net::parseFrameElement(raw.substr(1, raw.size() - 2), back, backTime));
  require(back == f && backTime.seconds == t.seconds && backTime.micros == t.micros);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
  FuzzedDataProvider in(data, size);
  ReadSizes sizes(in);
  const std::vector<uint8_t> bytes = in.ConsumeRemainingBytes<uint8_t>();

  ElementReader split;
  Items pieces;
  sizes.feed(bytes, 64, 4096, [&](const uint8_t *p, size_t n) {
    split.feed(reinterpret_cast<const char *>(p), n);
    drain(split, pieces);
  });
  ElementReader whole;
  Items once;
  whole.feed(reinterpret_cast<const char *>(bytes.data()), bytes.size());
  drain(whole, once);
  require(pieces.elements == once.elements && pieces.broken == once.broken);

  for (const std::string &e : once.elements) {
    require(e.size() < wcantool::net::kMaxElement);
    checkRequest(e);
    checkFrameElement(e);
  }
  return 0;
}
