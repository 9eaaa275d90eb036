#include "view/HttpServer.h"

#include <arpa/inet.h>
#include <fmt/format.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <poll.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/time.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <chrono>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "cli/Errors.h"
#include "cli/Interrupt.h"
#include "cli/Text.h"

namespace kyr::tool {

namespace {

constexpr std::size_t kMostBytes = 16'384;
constexpr std::size_t kMostConnections = 32;
constexpr int kIdleSeconds = 20;
constexpr int kStrangerSeconds = 5;  // for a request of whom we do not know yet

std::string randomToken() {
  std::array<unsigned char, 16> bytes{};
  if (::getrandom(bytes.data(), bytes.size(), 0) != static_cast<ssize_t>(bytes.size())) {
    throw systemError("random numbers", "be read", errno);
  }
  std::string token;
  for (const unsigned char byte : bytes) token += fmt::format("{:02x}", byte);
  return token;
}

// Takes equally long for all texts of one length, so that a token cannot be guessed bit by bit.
bool isSameSecret(std::string_view a, std::string_view b) {
  if (a.size() != b.size()) return false;
  unsigned difference = 0;
  for (std::size_t i = 0; i < a.size(); ++i) {
    difference |= static_cast<unsigned char>(a[i]) ^ static_cast<unsigned char>(b[i]);
  }
  return difference == 0;
}

std::string_view reasonOf(int status) {
  switch (status) {
    case 200:
      return "OK";
    case 400:
      return "Bad Request";
    case 403:
      return "Forbidden";
    case 404:
      return "Not Found";
    case 405:
      return "Method Not Allowed";
    default:
      return "Error";
  }
}

HttpResponse refusal(int status, std::string why) {
  return {status, "text/plain; charset=utf-8", std::move(why)};
}

bool sendAll(int socket, std::string_view bytes) {
  while (!bytes.empty()) {
    const ssize_t sent = ::send(socket, bytes.data(), bytes.size(), MSG_NOSIGNAL);
    if (sent < 0 && errno == EINTR) continue;
    if (sent <= 0) return false;
    bytes.remove_prefix(static_cast<std::size_t>(sent));
  }
  return true;
}

bool send(int socket, const HttpResponse& response, bool hasBody, bool staysOpen) {
  const std::string head = fmt::format(
      "HTTP/1.1 {} {}\r\n"
      "Content-Type: {}\r\n"
      "Content-Length: {}\r\n"
      "Connection: {}\r\n"
      "Cache-Control: no-store\r\n"
      "Content-Security-Policy: default-src 'none'; script-src 'self'; style-src 'self'; "
      "img-src 'self' data: blob:; connect-src 'self'; base-uri 'none'; form-action 'none'; "
      "frame-ancestors 'none'\r\n"
      "Cross-Origin-Opener-Policy: same-origin\r\n"
      "Cross-Origin-Resource-Policy: same-origin\r\n"
      "Referrer-Policy: no-referrer\r\n"
      "X-Content-Type-Options: nosniff\r\n\r\n",
      response.status, reasonOf(response.status), response.type, response.body.size(),
      staysOpen ? "keep-alive" : "close");
  return sendAll(socket, head) && (!hasBody || sendAll(socket, response.body));
}

std::string_view withoutBlanks(std::string_view text) {
  while (!text.empty() && (text.front() == ' ' || text.front() == '\t')) text.remove_prefix(1);
  while (!text.empty() && (text.back() == ' ' || text.back() == '\t')) text.remove_suffix(1);
  return text;
}

using Clock = std::chrono::steady_clock;

// Whether there is something to read before it is too late.
bool isReadable(int socket, Clock::time_point deadline) {
  for (;;) {
    const auto left =
        std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
    if (left.count() <= 0) return false;
    pollfd waiting{socket, POLLIN, 0};
    const int ready = ::poll(&waiting, 1, static_cast<int>(left.count()));
    if (ready >= 0 || errno != EINTR) return ready > 0;
  }
}

using Headers = std::map<std::string, std::string>;

// Empty if a line is no header, or comes twice.
std::optional<Headers> parseHeaders(std::string_view lines) {
  Headers headers;
  while (!lines.empty()) {
    const std::size_t end = std::min(lines.find("\r\n"), lines.size());
    const std::string_view line = lines.substr(0, end);
    lines.remove_prefix(std::min(end + 2, lines.size()));
    const std::size_t colon = line.find(':');
    if (colon == std::string_view::npos || colon == 0) return std::nullopt;
    if (!headers.emplace(lowerCase(line.substr(0, colon)), withoutBlanks(line.substr(colon + 1)))
             .second) {
      return std::nullopt;
    }
  }
  return headers;
}

// The port may be another one, as at the near end of a tunnel.
bool isThisMachine(std::string_view host) {
  const std::size_t colon = host.rfind(':');
  if (colon != std::string_view::npos && host.back() != ']') {
    const std::string_view port = host.substr(colon + 1);
    if (port.empty() || port.size() > 5) return false;
    if (port.find_first_not_of("0123456789") != std::string_view::npos) return false;
    host = host.substr(0, colon);
  }
  return host == "127.0.0.1" || lowerCase(host) == "localhost" || host == "[::1]";
}

// Empty if the request may be answered.
std::string whyRefused(const Headers& headers) {
  const auto valueOf = [&](const char* name) {
    const auto found = headers.find(name);
    return found == headers.end() ? std::string() : found->second;
  };
  const std::string host = valueOf("host");
  if (!isThisMachine(host)) return "This server answers only for 127.0.0.1 and localhost.";
  const std::string origin = valueOf("origin");
  if (!origin.empty() && lowerCase(origin) != "http://" + lowerCase(host)) {
    return "This server answers only its own page.";
  }
  const std::string site = valueOf("sec-fetch-site");
  if (!site.empty() && site != "same-origin" && site != "none") {
    return "This server answers only its own page, or its address typed by the user.";
  }
  return "";
}

std::optional<std::string> decoded(std::string_view text) {
  std::string result;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text[i] != '%') {
      result += text[i];
      continue;
    }
    unsigned value = 0;
    if (i + 2 >= text.size()) return std::nullopt;
    const char* const digits = text.data() + i + 1;
    const auto [end, error] = std::from_chars(digits, digits + 2, value, 16);
    if (error != std::errc() || end != digits + 2) return std::nullopt;
    result += static_cast<char>(value);
    i += 2;
  }
  return result;
}

const std::string& queryText(const HttpRequest& request, const std::string& name) {
  const auto found = request.query.find(name);
  if (found == request.query.end()) {
    throw std::runtime_error(fmt::format("the request has no \"{}\"", name));
  }
  return found->second;
}

template <typename Number>
Number parsed(const std::string& text, const std::string& name) {
  Number number{};
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), number);
  if (error == std::errc() && end == text.data() + text.size()) return number;
  throw std::runtime_error(fmt::format("\"{}\" of the request is no number", name));
}

}  // namespace

double queryNumber(const HttpRequest& request, const std::string& name) {
  return parsed<double>(queryText(request, name), name);
}

std::uint64_t queryCount(const HttpRequest& request, const std::string& name,
                         std::optional<std::uint64_t> ifMissing) {
  if (ifMissing && request.query.count(name) == 0) return *ifMissing;
  return parsed<std::uint64_t>(queryText(request, name), name);
}

std::optional<HttpRequest> parseTarget(std::string_view target) {
  const std::size_t mark = std::min(target.find('?'), target.size());
  HttpRequest request;
  const auto path = decoded(target.substr(0, mark));
  if (!path) return std::nullopt;
  request.path = *path;
  std::string_view rest = target.substr(std::min(mark + 1, target.size()));
  while (!rest.empty()) {
    const std::size_t end = std::min(rest.find('&'), rest.size());
    const std::string_view pair = rest.substr(0, end);
    rest.remove_prefix(std::min(end + 1, rest.size()));
    const std::size_t equals = std::min(pair.find('='), pair.size());
    const auto name = decoded(pair.substr(0, equals));
    const auto value = decoded(pair.substr(std::min(equals + 1, pair.size())));
    if (!name || !value || !request.query.emplace(*name, *value).second) return std::nullopt;
  }
  return request;
}

HttpServer::HttpServer(std::uint16_t port, Handler handler)
    : handler_(std::move(handler)), token_(randomToken()) {
  listener_ = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  const auto fail = [&](const char* operation) {
    const int error = errno;
    if (listener_ >= 0) ::close(listener_);
    throw systemError(fmt::format("port {} of 127.0.0.1", port), operation, error);
  };
  if (listener_ < 0) fail("be opened");
  const int on = 1;
  (void)::setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t size = sizeof(address);
  auto* const generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener_, generic, size) != 0 || ::listen(listener_, 64) != 0 ||
      ::getsockname(listener_, generic, &size) != 0) {
    fail("be listened to");
  }
  port_ = ntohs(address.sin_port);
}

HttpServer::~HttpServer() {
  isStopping_ = true;
  for (Connection& connection : connections_) ::shutdown(connection.socket, SHUT_RDWR);
  for (Connection& connection : connections_) {
    connection.thread.join();
    ::close(connection.socket);
  }
  ::close(listener_);
}

std::string HttpServer::address() const {
  return fmt::format("http://127.0.0.1:{}/{}/", port_, token_);
}

void HttpServer::run() {
  constexpr int kLookMs = 200;
  while (!isInterrupted()) {
    pollfd waiting{listener_, POLLIN, 0};
    if (::poll(&waiting, 1, kLookMs) > 0) accept();
    closeFinished();
  }
}

void HttpServer::accept() {
  constexpr int kPauseMs = 50;
  const int socket = ::accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
  if (socket < 0) {
    (void)::poll(nullptr, 0, kPauseMs);  // there may be no more descriptors for a while
    return;
  }
  if (!makeRoom()) {
    ::close(socket);
    return;
  }
  const timeval idle{kIdleSeconds, 0};
  (void)::setsockopt(socket, SOL_SOCKET, SO_SNDTIMEO, &idle, sizeof(idle));
  const int on = 1;
  (void)::setsockopt(socket, IPPROTO_TCP, TCP_NODELAY, &on, sizeof(on));
  Connection& connection = connections_.emplace_back();
  connection.socket = socket;
  try {
    connection.thread = std::thread([this, &connection] {
      serve(connection);
      connection.isDone = true;
    });
  } catch (const std::system_error&) {  // there are no more threads
    connections_.pop_back();
    ::close(socket);
  }
}

// Another program of this machine must not keep the page waiting with connections that say nothing:
// the oldest one of these gives way. Returns false if there is none.
bool HttpServer::makeRoom() {
  closeFinished();
  if (connections_.size() < kMostConnections) return true;
  const auto stranger =
      std::find_if(connections_.begin(), connections_.end(),
                   [](const Connection& connection) { return !connection.isTrusted; });
  if (stranger == connections_.end()) return false;
  ::shutdown(stranger->socket, SHUT_RDWR);
  stranger->thread.join();
  ::close(stranger->socket);
  connections_.erase(stranger);
  return true;
}

void HttpServer::closeFinished() {
  for (auto each = connections_.begin(); each != connections_.end();) {
    if (!each->isDone) {
      ++each;
      continue;
    }
    each->thread.join();
    ::close(each->socket);
    each = connections_.erase(each);
  }
}

void HttpServer::serve(Connection& connection) const {
  std::string buffer;
  std::array<char, 4096> piece{};
  const auto deadline = [&] {
    return Clock::now() +
           std::chrono::seconds(connection.isTrusted ? kIdleSeconds : kStrangerSeconds);
  };
  auto requestDeadline = deadline();
  while (!isStopping_) {
    const std::size_t end = buffer.find("\r\n\r\n");
    if (end <= kMostBytes) {
      if (!answer(connection, std::string_view(buffer).substr(0, end))) break;
      buffer.erase(0, end + 4);
      requestDeadline = deadline();
      continue;
    }
    if (buffer.size() > kMostBytes) {
      (void)send(connection.socket, refusal(400, "The request is too long."), true, false);
      break;
    }
    if (!isReadable(connection.socket, requestDeadline)) break;
    const ssize_t got = ::recv(connection.socket, piece.data(), piece.size(), 0);
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    buffer.append(piece.data(), static_cast<std::size_t>(got));
  }
  ::shutdown(connection.socket, SHUT_RDWR);
}

bool HttpServer::answer(Connection& connection, std::string_view head) const {
  const std::size_t lineEnd = std::min(head.find("\r\n"), head.size());
  const std::string_view line = head.substr(0, lineEnd);
  const std::size_t first = line.find(' ');
  const std::size_t last = line.rfind(' ');
  const auto headers = parseHeaders(head.substr(std::min(lineEnd + 2, head.size())));
  const auto refuse = [&](int status, std::string why) {
    (void)send(connection.socket, refusal(status, std::move(why)), true, false);
    return false;
  };
  if (first == std::string_view::npos || first == last || !headers ||
      line.substr(last + 1).substr(0, 7) != "HTTP/1.") {
    return refuse(400, "This is no HTTP request.");
  }
  if (headers->count("transfer-encoding") != 0 ||
      (headers->count("content-length") != 0 && headers->at("content-length") != "0")) {
    return refuse(400, "Requests have no content here.");
  }
  const std::string_view method = line.substr(0, first);
  if (method != "GET" && method != "HEAD") return refuse(405, "Only GET and HEAD are answered.");
  const std::string why = whyRefused(*headers);
  if (!why.empty()) return refuse(403, why);
  const HttpResponse response = respond(connection, line.substr(first + 1, last - first - 1));
  const auto wish = headers->find("connection");
  const bool staysOpen = line.substr(last + 1) == "HTTP/1.1" &&
                         (wish == headers->end() || lowerCase(wish->second) != "close") &&
                         connection.isTrusted;
  return send(connection.socket, response, method == "GET", staysOpen) && staysOpen;
}

HttpResponse HttpServer::respond(Connection& connection, std::string_view target) const {
  std::optional<HttpRequest> request = parseTarget(target);
  if (!request) return refusal(400, "The address is malformed.");
  const std::string_view path = request->path;
  const std::size_t slash = path.find('/', 1);
  if (path.empty() || path.front() != '/' || slash == std::string_view::npos ||
      !isSameSecret(path.substr(1, slash - 1), token_)) {
    return refusal(403, "The address lacks the token that kyr view printed.");
  }
  connection.isTrusted = true;
  request->path.erase(0, slash + 1);
  try {
    return handler_(*request);
  } catch (const std::exception& error) {
    return refusal(400, error.what());
  }
}

}  // namespace kyr::tool
