// SPDX-License-Identifier: MIT
#include "web/Access.h"

#include <boost/asio/ip/address.hpp>

#include <cctype>
#include <random>

namespace wcantool::web {
namespace {

std::string lower(std::string_view text) {
  std::string out(text);
  for (char &c : out)
    c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return out;
}

std::string_view trimmed(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t'))
    s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t'))
    s.remove_suffix(1);
  return s;
}

// "name:port" or "[v6]:port" into its parts; false without a port.
bool splitHost(std::string_view host, std::string &name, std::string &port) {
  const size_t colon = host.rfind(':');
  if (colon == std::string_view::npos)
    return false;
  std::string_view n = host.substr(0, colon);
  if (n.size() >= 2 && n.front() == '[' && n.back() == ']')
    n = n.substr(1, n.size() - 2);
  else if (n.find(':') != std::string_view::npos)
    return false; // a bare IPv6 address cannot carry a port
  name = lower(n);
  port = std::string(host.substr(colon + 1));
  return !name.empty();
}

} // namespace

AccessPolicy::AccessPolicy(std::string token, std::string bindAddress, unsigned port)
    : token_(std::move(token)), bindAddress_(lower(bindAddress)), port_(port) {}

std::string AccessPolicy::cookieName() const { return "wcan_token_" + std::to_string(port_); }

bool AccessPolicy::hostAllowed(std::string_view host) const {
  std::string name, port;
  if (!splitHost(trimmed(host), name, port) || port != std::to_string(port_))
    return false;
  if (name == "localhost" || name == bindAddress_)
    return true;
  boost::system::error_code ec;
  const auto address = boost::asio::ip::make_address(name, ec);
  if (ec)
    return false;
  if (address.is_loopback())
    return true;
  const auto bound = boost::asio::ip::make_address(bindAddress_, ec);
  return !ec && bound.is_unspecified();
}

bool AccessPolicy::originAllowed(std::string_view origin, std::string_view host) const {
  return lower(trimmed(origin)) == "http://" + lower(trimmed(host));
}

bool AccessPolicy::sameToken(std::string_view candidate) const {
  // Compared in full whatever differs, so the time taken says nothing.
  unsigned char diff = candidate.size() == token_.size() ? 0 : 1;
  for (size_t i = 0; i < token_.size(); ++i)
    diff |= static_cast<unsigned char>(token_[i] ^ (i < candidate.size() ? candidate[i] : 0));
  return diff == 0;
}

bool AccessPolicy::tokenPresented(std::string_view target, std::string_view cookies) const {
  const std::string fromQuery = queryParameter(target, "token");
  if (!fromQuery.empty() && sameToken(fromQuery))
    return true;
  const std::string fromCookie = cookieValue(cookies, cookieName());
  return !fromCookie.empty() && sameToken(fromCookie);
}

std::string randomToken() {
  std::random_device device; // the kernel's random source
  static const char digits[] = "0123456789abcdef";
  std::string token;
  for (int i = 0; i < 4; ++i) {
    uint32_t word = device();
    for (int d = 0; d < 8; ++d, word >>= 4)
      token += digits[word & 15];
  }
  return token;
}

std::string_view targetPath(std::string_view target) { return target.substr(0, target.find('?')); }

std::string queryParameter(std::string_view target, std::string_view name) {
  const size_t q = target.find('?');
  if (q == std::string_view::npos)
    return {};
  std::string_view query = target.substr(q + 1);
  while (!query.empty()) {
    const size_t amp = query.find('&');
    const std::string_view pair = query.substr(0, amp);
    const size_t eq = pair.find('=');
    if (pair.substr(0, eq) == name)
      return eq == std::string_view::npos ? std::string() : std::string(pair.substr(eq + 1));
    if (amp == std::string_view::npos)
      break;
    query.remove_prefix(amp + 1);
  }
  return {};
}

std::string cookieValue(std::string_view header, std::string_view name) {
  while (!header.empty()) {
    const size_t semi = header.find(';');
    const std::string_view pair = trimmed(header.substr(0, semi));
    const size_t eq = pair.find('=');
    if (eq != std::string_view::npos && pair.substr(0, eq) == name)
      return std::string(pair.substr(eq + 1));
    if (semi == std::string_view::npos)
      break;
    header.remove_prefix(semi + 1);
  }
  return {};
}

} // namespace wcantool::web
