#include "ViewerServer.h"

#include <unistd.h>

#include <algorithm>
#include <cctype>
#include <fstream>
#include <iterator>
#include <sstream>

#include <boost/asio/ip/tcp.hpp>
#include <boost/asio/post.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/optional.hpp>

#include "ViewerSession.h"

namespace KindletControl {

namespace beast = boost::beast;
namespace http = beast::http;
namespace websocket = beast::websocket;
namespace net = boost::asio;
using tcp = net::ip::tcp;

namespace {

const size_t kHeaderLimit = 8 * 1024;
const size_t kBodyLimit = 16 * 1024;  // the page never sends a body; refuse big ones early

std::string randomToken() {
  std::ifstream random("/dev/urandom", std::ios::binary);
  unsigned char bytes[16] = {};
  random.read(reinterpret_cast<char*>(bytes), sizeof bytes);
  static const char digits[] = "0123456789abcdef";
  std::string token;
  for (unsigned char b : bytes) {
    token += digits[b >> 4];
    token += digits[b & 15];
  }
  return token;
}

std::string queryValue(const std::string& target, const std::string& name) {
  const size_t question = target.find('?');
  if (question == std::string::npos) return std::string();
  std::istringstream query(target.substr(question + 1));
  std::string pair;
  while (std::getline(query, pair, '&'))
    if (pair.compare(0, name.size() + 1, name + "=") == 0) return pair.substr(name.size() + 1);
  return std::string();
}

std::string cookieValue(const std::string& cookies, const std::string& name) {
  std::istringstream all(cookies);
  std::string one;
  while (std::getline(all, one, ';')) {
    const size_t begin = one.find_first_not_of(' ');
    if (begin != std::string::npos && one.compare(begin, name.size() + 1, name + "=") == 0)
      return one.substr(begin + name.size() + 1);
  }
  return std::string();
}

const char* contentType(const std::string& name) {
  auto ends = [&](const char* suffix) {
    const std::string s(suffix);
    return name.size() >= s.size() && name.compare(name.size() - s.size(), s.size(), s) == 0;
  };
  if (ends(".html")) return "text/html; charset=utf-8";
  if (ends(".js")) return "text/javascript; charset=utf-8";
  if (ends(".css")) return "text/css; charset=utf-8";
  if (ends(".png")) return "image/png";
  if (ends(".svg")) return "image/svg+xml";
  return "application/octet-stream";
}

// One page file, by a plain name: no folders, nothing hidden.
bool plainName(const std::string& name) {
  if (name.empty() || name[0] == '.') return false;
  for (char c : name)
    if (!(std::isalnum(static_cast<unsigned char>(c)) || c == '.' || c == '-' || c == '_'))
      return false;
  return true;
}

class HttpSession : public std::enable_shared_from_this<HttpSession> {
 public:
  HttpSession(tcp::socket socket, ViewerServer& server)
      : stream(std::move(socket)), server(server) {}

  void read() {
    parser.emplace();
    parser->header_limit(kHeaderLimit);
    parser->body_limit(kBodyLimit);
    stream.expires_after(std::chrono::seconds(30));
    http::async_read(stream, buffer, *parser,
                     beast::bind_front_handler(&HttpSession::onRead, shared_from_this()));
  }

 private:
  using Response = http::response<http::string_body>;

  void onRead(beast::error_code error, size_t) {
    if (error == http::error::end_of_stream) {
      stream.socket().shutdown(tcp::socket::shutdown_send, error);
      return;
    }
    if (error == http::error::header_limit || error == http::error::body_limit ||
        error == http::error::buffer_overflow) {
      respond(plain(http::status::payload_too_large, "request too large\n", 11), true);
      return;
    }
    if (error) return;
    http::request<http::string_body> request = parser->release();
    const std::string host(request[http::field::host]);
    const std::string origin(request[http::field::origin]);
    const std::string target(request.target());
    const std::string cookie(request[http::field::cookie]);
    const bool upgrade = websocket::is_upgrade(request);
    const std::string why = server.refusal(host, origin, target, cookie, upgrade);
    if (!why.empty()) {
      respond(plain(http::status::forbidden, why + "\n", request.version()), true);
      return;
    }
    if (upgrade) {
      if (target.compare(0, 3, "/ws") != 0 || (target.size() > 3 && target[3] != '?')) {
        respond(plain(http::status::not_found, "no such WebSocket\n", request.version()), true);
        return;
      }
      std::make_shared<ViewerSession>(stream.release_socket(), server)->run(std::move(request));
      return;
    }
    respond(file(request), !request.keep_alive());
  }

  Response plain(http::status status, const std::string& text, unsigned version) {
    Response response(status, version);
    response.set(http::field::content_type, "text/plain; charset=utf-8");
    response.body() = text;
    return response;
  }

  Response file(const http::request<http::string_body>& request) {
    if (request.method() != http::verb::get && request.method() != http::verb::head)
      return plain(http::status::method_not_allowed, "only GET\n", request.version());
    std::string path(request.target());
    path = path.substr(0, path.find('?'));
    std::string name = path == "/" ? "index.html" : path.substr(1);
    if (!plainName(name)) return plain(http::status::not_found, "not found\n", request.version());
    std::ifstream in(server.viewerOptions().pageDirectory + "/" + name, std::ios::binary);
    if (!in) return plain(http::status::not_found, "not found\n", request.version());
    Response response(http::status::ok, request.version());
    response.set(http::field::content_type, contentType(name));
    response.set(http::field::cache_control, "no-store");
    response.set("X-Content-Type-Options", "nosniff");
    response.set("X-Frame-Options", "DENY");
    // The page's own files carry the token on: they are loaded without it.
    if (server.needsToken())
      response.set(http::field::set_cookie,
                   "kindletViewerToken=" + server.accessToken() + "; Path=/; HttpOnly; SameSite=Strict");
    response.body().assign(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
    if (request.method() == http::verb::head) response.body().clear();
    return response;
  }

  void respond(Response response, bool close) {
    response.keep_alive(!close);
    response.prepare_payload();
    auto shared = std::make_shared<Response>(std::move(response));
    http::async_write(stream, *shared,
                      [self = shared_from_this(), shared, close](beast::error_code error, size_t) {
                        if (error) return;
                        if (close) {
                          self->stream.socket().shutdown(tcp::socket::shutdown_send, error);
                          return;
                        }
                        self->read();
                      });
  }

  beast::tcp_stream stream;
  beast::flat_buffer buffer;
  boost::optional<http::request_parser<http::string_body>> parser;
  ViewerServer& server;
};

class Listener : public std::enable_shared_from_this<Listener> {
 public:
  Listener(net::io_context& context, ViewerServer& server) : acceptor(context), server(server) {}

  bool open(tcp::endpoint endpoint, std::string& error) {
    beast::error_code code;
    acceptor.open(endpoint.protocol(), code);
    if (!code) acceptor.set_option(net::socket_base::reuse_address(true), code);
    if (!code) acceptor.bind(endpoint, code);
    if (!code) acceptor.listen(net::socket_base::max_listen_connections, code);
    if (code) error = code.message();
    return !code;
  }
  unsigned short port() const { return acceptor.local_endpoint().port(); }
  void accept() {
    acceptor.async_accept(beast::bind_front_handler(&Listener::onAccept, shared_from_this()));
  }
  void close() {
    beast::error_code ignored;
    acceptor.close(ignored);
  }

 private:
  void onAccept(beast::error_code error, tcp::socket socket) {
    if (!error) std::make_shared<HttpSession>(std::move(socket), server)->read();
    if (acceptor.is_open()) accept();
  }

  tcp::acceptor acceptor;
  ViewerServer& server;
};

}  // namespace

ViewerServer::ViewerServer(ViewerHub& hub, ViewerOptions options)
    : hub(hub), options(std::move(options)) {}

ViewerServer::~ViewerServer() {
  hub.setWake(nullptr);
  context.stop();
  if (thread.joinable()) thread.join();
}

bool ViewerServer::start(std::string& error) {
  beast::error_code code;
  const net::ip::address address = net::ip::make_address(options.address, code);
  if (code) {
    error = "not an IP address: " + options.address;
    return false;
  }
  loopback = address.is_loopback();
  if (!loopback) token = randomToken();
  auto own = std::make_shared<Listener>(context, *this);
  if (!own->open(tcp::endpoint(address, options.port), error)) {
    error = "cannot listen on " + options.address + ":" + std::to_string(options.port) + ": " + error;
    return false;
  }
  const_cast<ViewerOptions&>(options).port = own->port();
  own->accept();
  listener = own;
  hub.setWake([this] { net::post(context, [this] { takeFromHub(); }); });
  thread = std::thread([this] {
    auto work = net::make_work_guard(context);
    context.run();
  });
  return true;
}

std::string ViewerServer::url() const {
  std::string host = options.address;
  if (host == "0.0.0.0" || host == "::") {  // every address: name the machine
    char name[256] = {};
    if (::gethostname(name, sizeof name - 1) == 0 && name[0] != '\0') host = name;
  }
  const bool v6 = host.find(':') != std::string::npos;
  std::string text = "http://" + (v6 ? "[" + host + "]" : host) + ":" +
                     std::to_string(options.port) + "/";
  if (!token.empty()) text += "?token=" + token;
  return text;
}

std::string ViewerServer::refusal(const std::string& host, const std::string& origin,
                                  const std::string& target, const std::string& cookie,
                                  bool websocket) const {
  const std::string port = ":" + std::to_string(options.port);
  std::vector<std::string> hosts;
  if (loopback) {
    hosts = {"127.0.0.1" + port, "localhost" + port, "[::1]" + port};
    if (options.address != "127.0.0.1" && options.address != "::1") hosts.push_back(options.address + port);
  }
  if (!loopback) {
    const std::string given = queryValue(target, "token");
    const std::string fromCookie = cookieValue(cookie, "kindletViewerToken");
    if (given != token && fromCookie != token) return "a token is needed (the one kindlet-control printed)";
  } else {
    bool known = false;
    for (const std::string& one : hosts) known = known || host == one;
    if (!known) return "unknown host " + host;
  }
  // A page of another site may open a WebSocket to any address: only the
  // viewer's own page may open this one.
  if (websocket && !origin.empty() && origin != "http://" + host) return "foreign origin " + origin;
  return std::string();
}

void ViewerServer::add(const std::shared_ptr<ViewerSession>& session) {
  sessions.erase(std::remove_if(sessions.begin(), sessions.end(),
                                [](const std::weak_ptr<ViewerSession>& one) { return one.expired(); }),
                 sessions.end());
  sessions.push_back(session);
}

Frame ViewerServer::latest(const std::string& key) const {
  auto found = frames.find(key);
  return found == frames.end() ? Frame() : found->second;
}

std::string ViewerServer::anyKey() const {
  return frames.empty() ? std::string() : frames.begin()->first;
}

void ViewerServer::takeFromHub() {
  std::map<std::string, Frame> fresh = hub.takeFrames();
  const std::string renders = hub.takeRenders();
  if (!renders.empty()) rendersJson = renders;
  for (auto& one : fresh) frames[one.first] = one.second;
  for (auto& weak : sessions) {
    auto session = weak.lock();
    if (!session) continue;
    if (!renders.empty()) session->sendText(renders);
    for (auto& one : fresh) session->offer(one.first, one.second);
  }
}

}  // namespace KindletControl
