#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <thread>

namespace kyr::tool {

struct HttpRequest {
  std::string path;                          ///< behind the token, such as "main.js"
  std::map<std::string, std::string> query;  ///< decoded
};

struct HttpResponse {
  int status = 200;
  std::string type;
  std::string body;
};

/// \throws std::runtime_error saying what the request should have had
double queryNumber(const HttpRequest& request, const std::string& name);
std::uint64_t queryCount(const HttpRequest& request, const std::string& name,
                         std::optional<std::uint64_t> ifMissing = std::nullopt);

/// Splits a request target at '?', and decodes it. Empty if it is malformed.
std::optional<HttpRequest> parseTarget(std::string_view target);

/// Answers GET requests of programs on this machine that know a random token.
///
/// It listens on 127.0.0.1 only. A request must name this machine as its host, which keeps out
/// pages that had their own name resolved to it, and must not come from a page of another origin.
/// Requests have 16 KiB at most, and arrive within 20 seconds. Connections are 32 at most. One that
/// has not shown the token has 5 seconds, and gives way when there are too many.
class HttpServer {
 public:
  /// It is called in several threads at once. What it throws is answered with status 400.
  using Handler = std::function<HttpResponse(const HttpRequest& request)>;

  /// \param port  0 for any that is free
  /// \throws std::runtime_error if there is no such port
  HttpServer(std::uint16_t port, Handler handler);
  ~HttpServer();
  HttpServer(const HttpServer&) = delete;
  HttpServer& operator=(const HttpServer&) = delete;

  /// Where the handler's empty path is found: "http://127.0.0.1:40123/<token>/".
  std::string address() const;

  /// Serves until the user interrupts the process.
  void run();

 private:
  struct Connection {
    int socket = -1;
    std::atomic<bool> isTrusted = false;  // a request had the token
    std::atomic<bool> isDone = false;
    std::thread thread;
  };

  void accept();
  bool makeRoom();
  void closeFinished();
  void serve(Connection& connection) const;
  // Answers the request in \p head. Returns whether the connection stays open.
  bool answer(Connection& connection, std::string_view head) const;
  HttpResponse respond(Connection& connection, std::string_view target) const;

  Handler handler_;
  std::string token_;
  std::uint16_t port_ = 0;
  int listener_ = -1;
  std::atomic<bool> isStopping_ = false;
  std::list<Connection> connections_;
};

}  // namespace kyr::tool
