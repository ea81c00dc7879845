// SPDX-License-Identifier: MIT
// Who may use the monitor: a browser that holds the start-up token (in the
// address's query or in the cookie the first visit sets), that names this
// server in its Host header (no DNS rebinding) and, for the WebSocket, that
// comes from the server's own page (no cross-site sockets). These checks
// keep other web pages in the user's browser off the buses.
#pragma once

#include <string>
#include <string_view>

namespace wcantool::web {

class AccessPolicy {
public:
  AccessPolicy(std::string token, std::string bindAddress, unsigned port);

  const std::string &token() const { return token_; }
  // The cookie's name holds the port: browsers share cookies across ports.
  std::string cookieName() const;

  // "127.0.0.1:8080", "localhost:8080", "[::1]:8080", the listening
  // address, or with a wildcard listening address any address literal; the
  // port must be the server's.
  bool hostAllowed(std::string_view host) const;
  // The page's own origin: "http://" and the (allowed) Host. Programs other
  // than browsers send none.
  bool originAllowed(std::string_view origin, std::string_view host) const;
  // The token from the request target's query or the Cookie header.
  bool tokenPresented(std::string_view target, std::string_view cookies) const;

private:
  bool sameToken(std::string_view candidate) const;

  std::string token_;
  std::string bindAddress_;
  unsigned port_;
};

// 128 random bits as hex.
std::string randomToken();
// A query parameter's value (undecoded), or empty.
std::string queryParameter(std::string_view target, std::string_view name);
// The path of a request target, without the query.
std::string_view targetPath(std::string_view target);
// A cookie's value from a Cookie header, or empty.
std::string cookieValue(std::string_view header, std::string_view name);

} // namespace wcantool::web
