#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <variant>

#include "ZulCore/Support/Bytes.h"
#include "ZulCore/Support/Error.h"

namespace zul {

class MiniHTTPServerError : public Error {
 public:
  enum class Case { invalidPort };
  static MiniHTTPServerError invalidPort(std::int64_t port);
  Case kind() const { return Case::invalidPort; }

 private:
  explicit MiniHTTPServerError(std::string text) : Error(std::move(text)) {}
};

// Just enough HTTP/1.1 for the LAN demo: one request per connection, read
// whole, answered by one handler, then the connection is closed.
class MiniHTTPServer {
 public:
  struct Response {
    int status = 200;
    std::string contentType;
    Bytes body;
  };
  // Runs on the server's handler thread; may block (it is not the network
  // thread) and cannot fail: problems go out as a status and a body.
  using Handler = std::function<Response(const std::string& method, const std::string& path,
                                         const Bytes& body)>;

  // What a slow or hostile client may cost. A head over `maxHeadBytes` gets
  // 431, a body announced over `maxBodyBytes` 413; a request not complete
  // within `requestTimeout` of its connection's start is dropped. With
  // `maxConnections` open, a new connection pushes out the oldest one that
  // is still waiting for its request (out of file descriptors, too).
  struct Limits {
    std::size_t maxHeadBytes = 64 * 1024;
    std::size_t maxBodyBytes = 4 * 1024 * 1024;
    std::chrono::milliseconds requestTimeout{10000};
    std::size_t maxConnections = 256;
  };

  // Binds `port` (0: any free port) on all interfaces without listening for
  // connections yet. Throws MiniHTTPServerError::invalidPort, or the
  // system's error when the port cannot be bound.
  MiniHTTPServer(std::int64_t port, Handler handler);
  MiniHTTPServer(std::int64_t port, Handler handler, Limits limits);
  ~MiniHTTPServer();
  MiniHTTPServer(const MiniHTTPServer&) = delete;
  MiniHTTPServer& operator=(const MiniHTTPServer&) = delete;

  // Starts serving on the server's own thread ("zul.demo.http").
  void start();
  // Stops accepting, drops open connections and joins the threads. Idempotent.
  void stop();
  std::uint16_t port() const;

  // The request head up to (not including) the blank line.
  struct RequestHead {
    std::string method;
    std::string path;  // query included, untouched
    std::int64_t contentLength = 0;
  };
  enum class HeadProblem {
    malformedRequestLine,  // closed without a response
    badContentLength,      // negative, unparsable or contradictory: 400
  };
  // Parses the head; the outcome is the head or the problem.
  static std::variant<RequestHead, HeadProblem> parseHead(std::string_view head);
  // The whole response: status line ("OK" for 200, "Error" otherwise),
  // Content-Type, Content-Length, CORS and Connection headers, then the body.
  static Bytes buildResponse(const Response& response);

  class Impl;

 private:
  std::unique_ptr<Impl> impl_;
};

}  // namespace zul
