// SPDX-License-Identifier: MIT
#include "web/WebServer.h"

#include <boost/asio/strand.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>

#include <array>
#include <cstdio>
#include <deque>
#include <fstream>
#include <sstream>
#include <stdexcept>

#include "web/Assets.h"

namespace wcantool::web {
namespace {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
using tcp = boost::asio::ip::tcp;
using Request = http::request<http::string_body>;
using Response = http::response<http::string_body>;

constexpr auto kRequestTimeout = std::chrono::seconds(30);
// A page's requests are small; DBC files come over HTTP.
constexpr size_t kMessageLimit = 64 * 1024;
// Messages other than updates (answers, the second's figures) a page may be
// behind by before they are dropped.
constexpr size_t kOutboxLimit = 64;

std::string readFile(const std::string &path) {
  std::ifstream in(path, std::ios::binary);
  if (!in)
    return {};
  std::ostringstream text;
  text << in.rdbuf();
  return text.str();
}

Response makeResponse(const Request &req, http::status status, std::string type, std::string body) {
  Response res{status, req.version()};
  res.set(http::field::server, "wcan");
  res.set(http::field::content_type, type);
  res.set(http::field::cache_control, "no-store");
  res.set("X-Content-Type-Options", "nosniff");
  res.set("X-Frame-Options", "DENY");
  res.keep_alive(req.keep_alive());
  res.body() = std::move(body);
  res.prepare_payload();
  return res;
}

Response refusal(const Request &req, http::status status, const std::string &why) {
  return makeResponse(req, status, "text/plain; charset=utf-8", why + "\n");
}

} // namespace

class WebServer::Connection {
public:
  virtual ~Connection() = default;
  virtual void close() = 0;
};

namespace {

// One browser's WebSocket: requests go to the monitor, the monitor's
// messages go out one at a time.
class Socket : public WebServer::Connection,
               public Viewer,
               public std::enable_shared_from_this<Socket> {
public:
  Socket(beast::tcp_stream stream, Monitor &monitor) : ws_(std::move(stream)), monitor_(monitor) {}
  ~Socket() override { leave(); }

  void start(Request req) {
    beast::get_lowest_layer(ws_).expires_never();
    // Pages send nothing while they watch: pings tell a quiet page from a
    // gone one.
    auto timeouts = websocket::stream_base::timeout::suggested(beast::role_type::server);
    timeouts.idle_timeout = std::chrono::seconds(30);
    timeouts.keep_alive_pings = true;
    ws_.set_option(timeouts);
    ws_.read_message_max(kMessageLimit);
    ws_.async_accept(req, [self = shared_from_this()](beast::error_code ec) {
      if (ec)
        return self->leave();
      self->ws_.text(true);
      self->attached_ = true;
      self->monitor_.attach(*self);
      self->read();
    });
  }

  void close() override {
    leave();
    if (ws_.is_open())
      ws_.async_close(websocket::close_code::going_away,
                      [self = shared_from_this()](beast::error_code) {});
  }

  bool idle() const override { return !writing_ && outbox_.empty(); }

  void post(std::string text) override {
    if (!attached_ || outbox_.size() >= kOutboxLimit)
      return;
    outbox_.push_back(std::move(text));
    if (!writing_)
      writeNext();
  }

private:
  void read() {
    ws_.async_read(input_, [self = shared_from_this()](beast::error_code ec, size_t) {
      if (ec)
        return self->leave();
      const std::string text = beast::buffers_to_string(self->input_.data());
      self->input_.consume(self->input_.size());
      self->monitor_.command(*self, text);
      self->read();
    });
  }

  void writeNext() {
    writing_ = true;
    ws_.async_write(boost::asio::buffer(outbox_.front()),
                    [self = shared_from_this()](beast::error_code ec, size_t) {
                      self->writing_ = false;
                      if (ec)
                        return self->leave();
                      self->outbox_.pop_front();
                      if (!self->outbox_.empty())
                        self->writeNext();
                    });
  }

  void leave() {
    if (attached_)
      monitor_.detach(*this);
    attached_ = false;
    outbox_.clear();
  }

  websocket::stream<beast::tcp_stream> ws_;
  Monitor &monitor_;
  beast::flat_buffer input_;
  std::deque<std::string> outbox_;
  bool writing_ = false;
  bool attached_ = false;
};

// One HTTP connection, until it becomes a WebSocket or ends.
class HttpConnection : public WebServer::Connection,
                       public std::enable_shared_from_this<HttpConnection> {
public:
  using Adopt = std::function<void(std::shared_ptr<WebServer::Connection>)>;

  HttpConnection(tcp::socket socket, Monitor &monitor, const AccessPolicy &policy,
                 const WebOptions &options, Adopt adopt)
      : stream_(std::move(socket)), monitor_(monitor), policy_(policy), options_(options),
        adopt_(std::move(adopt)) {}

  void start() { read(); }
  void close() override {
    if (upgraded_)
      return;
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_both, ignored);
    stream_.close();
  }

private:
  void read() {
    parser_.emplace();
    parser_->body_limit(options_.uploadLimit);
    stream_.expires_after(kRequestTimeout);
    http::async_read(
        stream_, buffer_, *parser_,
        [self = shared_from_this()](beast::error_code ec, size_t) { self->onRequest(ec); });
  }

  void onRequest(beast::error_code ec) {
    if (ec == http::error::end_of_stream || ec == beast::error::timeout)
      return close();
    if (ec == http::error::body_limit) {
      const Request &req = parser_->get();
      return reply(
          refusal(req, http::status::payload_too_large,
                  "the upload is larger than " + std::to_string(options_.uploadLimit) + " bytes"),
          true);
    }
    if (ec) {
      Request blank;
      return reply(refusal(blank, http::status::bad_request, "malformed request: " + ec.message()),
                   true);
    }
    Request req = parser_->release();
    const std::string host(req[http::field::host]);
    if (!policy_.hostAllowed(host))
      return reply(
          refusal(req, http::status::misdirected_request, "this server is not '" + host + "'"),
          true);
    const std::string origin(req[http::field::origin]);
    if (!origin.empty() && !policy_.originAllowed(origin, host))
      return reply(refusal(req, http::status::forbidden, "requests from other pages are refused"),
                   true);
    if (!policy_.tokenPresented(req.target(), req[http::field::cookie]))
      return reply(refusal(req, http::status::forbidden,
                           "open the address 'wcan serve' printed; it holds the access token"),
                   true);
    if (websocket::is_upgrade(req)) {
      if (targetPath(req.target()) != "/ws")
        return reply(refusal(req, http::status::not_found, "no WebSocket here"), true);
      upgraded_ = true;
      auto socket = std::make_shared<Socket>(std::move(stream_), monitor_);
      adopt_(socket);
      return socket->start(std::move(req));
    }
    reply(route(req), false);
  }

  Response route(const Request &req) {
    const std::string_view path = targetPath(req.target());
    if (path == "/dbc") {
      if (req.method() != http::verb::post)
        return refusal(req, http::status::method_not_allowed, "upload a DBC file with POST");
      return makeResponse(req, http::status::ok, "application/json", monitor_.loadDbc(req.body()));
    }
    if (req.method() != http::verb::get && req.method() != http::verb::head)
      return refusal(req, http::status::method_not_allowed, "only GET here");
    if (path == "/record.pcapng")
      return pageRecord(req);
    if (const Asset *asset = findAsset(path)) {
      Response res =
          makeResponse(req, http::status::ok, std::string(asset->type), std::string(asset->body));
      if (!queryParameter(req.target(), "token").empty())
        res.set(http::field::set_cookie, policy_.cookieName() + "=" + policy_.token() +
                                             "; Path=/; HttpOnly; SameSite=Strict");
      if (path == "/" || path == "/index.html")
        res.set("Content-Security-Policy",
                "default-src 'self'; connect-src 'self'; frame-ancestors 'none'; "
                "style-src 'self' 'unsafe-inline'");
      return res;
    }
    const std::string_view chartPrefix = "/dygraphs/";
    if (path.substr(0, chartPrefix.size()) == chartPrefix) {
      const std::string_view file = path.substr(chartPrefix.size());
      if (file == "dygraph.min.js" || file == "dygraph.min.css") {
        std::string body = readFile(options_.chartLibraryDir + "/" + std::string(file));
        if (body.empty())
          return refusal(req, http::status::not_found,
                         "the chart library is missing from " + options_.chartLibraryDir +
                             " (install libjs-dygraphs)");
        return makeResponse(req, http::status::ok,
                            file.substr(file.size() - 3) == ".js" ? "text/javascript; charset=utf-8"
                                                                  : "text/css; charset=utf-8",
                            std::move(body));
      }
    }
    return refusal(req, http::status::not_found, "nothing at " + std::string(path));
  }

  Response pageRecord(const Request &req) {
    const std::string session = queryParameter(req.target(), "session");
    std::optional<std::string> pcapng;
    if (!session.empty() && session.find_first_not_of("0123456789") == std::string::npos &&
        session.size() < 20)
      pcapng = monitor_.recordPcapng(std::stoull(session));
    if (!pcapng)
      return refusal(req, http::status::not_found,
                     "no page is connected with session '" + session + "'");
    Response res =
        makeResponse(req, http::status::ok, "application/octet-stream", std::move(*pcapng));
    res.set(http::field::content_disposition, "attachment; filename=\"wcan.pcapng\"");
    return res;
  }

  void reply(Response res, bool thenClose) {
    auto shared = std::make_shared<Response>(std::move(res));
    if (thenClose)
      shared->keep_alive(false);
    http::async_write(stream_, *shared,
                      [self = shared_from_this(), shared](beast::error_code ec, size_t) {
                        if (ec)
                          return self->close();
                        if (!shared->keep_alive())
                          return self->drainThenClose();
                        self->read();
                      });
  }

  // A refused upload may still be arriving: closing at once would reset the
  // connection before the client read why. Say no more and take the rest.
  void drainThenClose() {
    beast::error_code ignored;
    stream_.socket().shutdown(tcp::socket::shutdown_send, ignored);
    stream_.expires_after(kRequestTimeout);
    stream_.async_read_some(boost::asio::buffer(drain_),
                            [self = shared_from_this()](beast::error_code ec, size_t) {
                              if (ec)
                                return self->close();
                              self->drainThenClose();
                            });
  }

  beast::tcp_stream stream_;
  Monitor &monitor_;
  const AccessPolicy &policy_;
  const WebOptions &options_;
  Adopt adopt_;
  beast::flat_buffer buffer_;
  std::optional<http::request_parser<http::string_body>> parser_;
  std::array<char, 16384> drain_;
  bool upgraded_ = false;
};

} // namespace

WebServer::WebServer(boost::asio::io_context &io, Monitor &monitor, const WebOptions &options)
    : monitor_(monitor), options_(options), acceptor_(io) {
  boost::system::error_code ec;
  const auto address = boost::asio::ip::make_address(options.address, ec);
  if (ec)
    throw std::runtime_error("--web takes [ADDRESS:]PORT with an IP address, not '" +
                             options.address + "'");
  const tcp::endpoint endpoint{address, static_cast<unsigned short>(options.port)};
  acceptor_.open(endpoint.protocol(), ec);
  if (!ec)
    acceptor_.set_option(tcp::acceptor::reuse_address(true), ec);
  if (!ec)
    acceptor_.bind(endpoint, ec);
  if (!ec)
    acceptor_.listen(boost::asio::socket_base::max_listen_connections, ec);
  if (ec)
    throw std::runtime_error("cannot listen on " + options.address + ":" +
                             std::to_string(options.port) + ": " + ec.message());
  port_ = acceptor_.local_endpoint().port();
  if (options_.token.empty())
    options_.token = randomToken();
  policy_ = std::make_unique<AccessPolicy>(options_.token, options_.address, port_);
}

WebServer::~WebServer() { stop(); }

std::string WebServer::url() const {
  std::string host = options_.address;
  const auto address = acceptor_.local_endpoint().address();
  if (address.is_unspecified())
    host = "127.0.0.1";
  else if (address.is_v6())
    host = "[" + host + "]";
  return "http://" + host + ":" + std::to_string(port_) + "/?token=" + options_.token;
}

void WebServer::start() { accept(); }

void WebServer::stop() {
  if (stopped_)
    return;
  stopped_ = true;
  boost::system::error_code ignored;
  acceptor_.close(ignored);
  for (auto &weak : connections_)
    if (auto c = weak.lock())
      c->close();
  connections_.clear();
}

void WebServer::accept() {
  acceptor_.async_accept([this](boost::system::error_code ec, tcp::socket socket) {
    if (stopped_)
      return;
    if (!ec) {
      auto adopt = [this](std::shared_ptr<Connection> c) {
        // Forget the connections that ended, so the list stays short.
        connections_.erase(
            std::remove_if(connections_.begin(), connections_.end(),
                           [](const std::weak_ptr<Connection> &w) { return w.expired(); }),
            connections_.end());
        connections_.push_back(c);
      };
      auto connection =
          std::make_shared<HttpConnection>(std::move(socket), monitor_, *policy_, options_, adopt);
      adopt(connection);
      connection->start();
    } else {
      std::fprintf(stderr, "wcan serve: accepting a browser's connection failed: %s\n",
                   ec.message().c_str());
    }
    accept();
  });
}

} // namespace wcantool::web
