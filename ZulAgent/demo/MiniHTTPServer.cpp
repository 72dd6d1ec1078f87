#include "ZulAgent/demo/MiniHTTPServer.h"

// clang-format off
#include <utility>  // before Asio: Boost 1.74 uses std::exchange without including it
#include <boost/asio.hpp>
// clang-format on

#include <algorithm>
#include <atomic>
#include <charconv>
#include <list>
#include <mutex>
#include <thread>

#include "ZulCore/Support/Console.h"

namespace zul {

namespace asio = boost::asio;
using asio::ip::tcp;

MiniHTTPServerError MiniHTTPServerError::invalidPort(std::int64_t port) {
  return MiniHTTPServerError(formatErrorCase("invalidPort", {field(port)}));
}

namespace {

constexpr std::size_t readChunk = 65536;
// The pause before accepting again after accept failed (out of descriptors
// or memory): the waiting connection keeps the listener readable, so an
// immediate retry would spin.
constexpr auto acceptRetryPause = std::chrono::milliseconds(100);
constexpr std::string_view separator = "\r\n\r\n";

// Invalid UTF-8 becomes U+FFFD, as a lenient text decoder does.
std::string repairUtf8(std::string_view in) {
  std::string out;
  out.reserve(in.size());
  std::size_t i = 0;
  while (i < in.size()) {
    const auto c = static_cast<unsigned char>(in[i]);
    std::size_t length = 0;
    std::uint32_t minimum = 0;
    if (c < 0x80) {
      out += static_cast<char>(c);
      ++i;
      continue;
    }
    if ((c & 0xE0) == 0xC0)
      length = 2, minimum = 0x80;
    else if ((c & 0xF0) == 0xE0)
      length = 3, minimum = 0x800;
    else if ((c & 0xF8) == 0xF0)
      length = 4, minimum = 0x10000;
    bool valid = length > 0 && i + length <= in.size();
    std::uint32_t code = length ? (c & (0x7F >> length)) : 0;
    for (std::size_t k = 1; valid && k < length; ++k) {
      const auto d = static_cast<unsigned char>(in[i + k]);
      if ((d & 0xC0) != 0x80) valid = false;
      code = code << 6 | (d & 0x3F);
    }
    if (valid && (code < minimum || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF))) {
      valid = false;
    }
    if (valid) {
      out.append(in.substr(i, length));
      i += length;
    } else {
      out += "\xEF\xBF\xBD";
      ++i;
    }
  }
  return out;
}

std::string_view trim(std::string_view s) {
  const auto space = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
  while (!s.empty() && space(s.front())) s.remove_prefix(1);
  while (!s.empty() && space(s.back())) s.remove_suffix(1);
  return s;
}

std::optional<std::int64_t> parseDecimal(std::string_view text) {
  if (!text.empty() && text.front() == '+') text.remove_prefix(1);
  if (text.empty() || text.front() == '+') return std::nullopt;
  std::int64_t value = 0;
  auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
  if (error != std::errc() || end != text.data() + text.size()) return std::nullopt;
  return value;
}

MiniHTTPServer::Response plainError(int status, std::string_view text) {
  return {status, "text/plain; charset=utf-8", toBytes(text)};
}

}  // namespace

std::variant<MiniHTTPServer::RequestHead, MiniHTTPServer::HeadProblem> MiniHTTPServer::parseHead(
    std::string_view raw) {
  const std::string text = repairUtf8(raw);
  std::vector<std::string_view> lines;
  std::string_view rest = text;
  while (true) {
    const auto end = rest.find("\r\n");
    lines.push_back(rest.substr(0, end));
    if (end == std::string_view::npos) break;
    rest.remove_prefix(end + 2);
  }
  std::vector<std::string_view> pieces;
  std::string_view requestLine = lines.front();
  while (!requestLine.empty()) {
    const auto space = requestLine.find(' ');
    if (space != 0) pieces.push_back(requestLine.substr(0, space));
    if (space == std::string_view::npos) break;
    requestLine.remove_prefix(space + 1);
  }
  if (pieces.size() < 2) return HeadProblem::malformedRequestLine;
  RequestHead head;
  head.method = std::string(pieces[0]);
  head.path = std::string(pieces[1]);
  std::optional<std::int64_t> length;
  for (std::size_t i = 1; i < lines.size(); ++i) {
    const auto colon = lines[i].find(':');
    if (colon == std::string_view::npos) continue;
    std::string name(trim(lines[i].substr(0, colon)));
    std::transform(name.begin(), name.end(), name.begin(),
                   [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
    if (name != "content-length") continue;
    const auto value = parseDecimal(trim(lines[i].substr(colon + 1)));
    // Refused rather than guessed: a wrong length would misread the body.
    if (!value || *value < 0 || (length && *length != *value)) return HeadProblem::badContentLength;
    length = value;
  }
  head.contentLength = length.value_or(0);
  return head;
}

Bytes MiniHTTPServer::buildResponse(const Response& response) {
  std::string head = "HTTP/1.1 " + std::to_string(response.status) + " " +
                     (response.status == 200 ? "OK" : "Error") + "\r\n";
  head += "Content-Type: " + response.contentType + "\r\n";
  head += "Content-Length: " + std::to_string(response.body.size()) + "\r\n";
  head += "Access-Control-Allow-Origin: *\r\n";
  head += "Connection: close\r\n\r\n";
  Bytes out = toBytes(head);
  out.insert(out.end(), response.body.begin(), response.body.end());
  return out;
}

class MiniHTTPServer::Impl {
 public:
  class Connection : public std::enable_shared_from_this<Connection> {
   public:
    Connection(Impl* server, tcp::socket socket)
        : server_(server), socket_(std::move(socket)), deadline_(socket_.get_executor()) {}
    ~Connection() {
      std::lock_guard lock(server_->mutex_);
      server_->open_.erase(place_);
    }

    void start() {
      {
        std::lock_guard lock(server_->mutex_);
        place_ = server_->open_.insert(server_->open_.end(), weak_from_this());
      }
      deadline_.expires_after(server_->limits_.requestTimeout);
      deadline_.async_wait([self = shared_from_this()](boost::system::error_code error) {
        if (!error) self->cancel();
      });
      readHead();
    }

    // Still waiting for its request. Read and written on the network thread.
    bool reading() const { return reading_; }

    void cancel() {
      reading_ = false;
      boost::system::error_code ignored;
      socket_.shutdown(tcp::socket::shutdown_both, ignored);
      socket_.close(ignored);
      deadline_.cancel();
    }

    template <typename Next>
    void read(Next next) {
      const std::size_t before = buffer_.size();
      buffer_.resize(before + readChunk);
      socket_.async_read_some(asio::buffer(buffer_.data() + before, readChunk),
                              [self = shared_from_this(), before, next](
                                  boost::system::error_code error, std::size_t count) {
                                self->buffer_.resize(before + count);
                                next(error);
                              });
    }

    void readHead() {
      read([self = shared_from_this()](boost::system::error_code error) { self->onHead(error); });
    }

    void onHead(boost::system::error_code error) {
      const std::string_view data(reinterpret_cast<const char*>(buffer_.data()), buffer_.size());
      const auto end = data.find(separator);
      if (end == std::string_view::npos) {
        if (error || !socket_.is_open()) return cancel();
        if (buffer_.size() > server_->limits_.maxHeadBytes) {
          return respond(plainError(431, "request head too large"));
        }
        return readHead();
      }
      if (end > server_->limits_.maxHeadBytes) {
        return respond(plainError(431, "request head too large"));
      }
      auto parsed = parseHead(data.substr(0, end));
      if (auto* problem = std::get_if<HeadProblem>(&parsed)) {
        if (*problem == HeadProblem::malformedRequestLine) return cancel();
        return respond(plainError(400, "invalid Content-Length"));
      }
      head_ = std::get<RequestHead>(std::move(parsed));
      if (static_cast<std::uint64_t>(head_.contentLength) > server_->limits_.maxBodyBytes) {
        return respond(plainError(413, "request body too large"));
      }
      buffer_.erase(buffer_.begin(), buffer_.begin() + static_cast<std::ptrdiff_t>(end + 4));
      onBody({});
    }

    void onBody(boost::system::error_code error) {
      const auto expected = static_cast<std::size_t>(head_.contentLength);
      if (buffer_.size() >= expected) {
        buffer_.resize(expected);  // no pipelining: surplus bytes are dropped
        return handle();
      }
      if (error || !socket_.is_open()) return cancel();
      read([self = shared_from_this()](boost::system::error_code e) { self->onBody(e); });
    }

   private:
    void handle() {
      reading_ = false;
      deadline_.cancel();
      asio::post(server_->handlers_, [self = shared_from_this()] {
        Response response;
        try {
          response = self->server_->handler_(self->head_.method, self->head_.path, self->buffer_);
        } catch (const std::exception& error) {
          response = plainError(500, std::string("internal error: ") + error.what());
        } catch (...) {
          response = plainError(500, "internal error");
        }
        asio::post(self->socket_.get_executor(),
                   [self, response = std::move(response)] { self->respond(response); });
      });
    }

    void respond(const Response& response) {
      reading_ = false;
      deadline_.cancel();
      out_ = buildResponse(response);
      asio::async_write(
          socket_, asio::buffer(out_),
          [self = shared_from_this()](boost::system::error_code, std::size_t) { self->cancel(); });
    }

    Impl* server_;  // outlives its connections: its io_context holds them
    tcp::socket socket_;
    asio::steady_timer deadline_;
    Bytes buffer_;
    Bytes out_;
    RequestHead head_;
    bool reading_ = true;
    std::list<std::weak_ptr<Connection>>::iterator place_;
  };

  Impl(std::int64_t port, Handler handler, Limits limits)
      : handler_(std::move(handler)), limits_(limits), acceptor_(io_) {
    if (port < 0 || port > 65535) throw MiniHTTPServerError::invalidPort(port);
    // Dual-stack where the system has IPv6, else IPv4 only.
    boost::system::error_code v6;
    acceptor_.open(tcp::v6(), v6);
    if (!v6) {
      acceptor_.set_option(asio::ip::v6_only(false), v6);
    }
    tcp::endpoint endpoint(v6 ? tcp::v4() : tcp::v6(), static_cast<std::uint16_t>(port));
    if (v6) {
      boost::system::error_code ignored;
      acceptor_.close(ignored);
      acceptor_.open(tcp::v4());
    }
    acceptor_.set_option(tcp::acceptor::reuse_address(true));
    acceptor_.bind(endpoint);
    // A burst of connections waits in the kernel rather than being refused.
    acceptor_.listen(asio::socket_base::max_listen_connections);
    port_ = acceptor_.local_endpoint().port();
  }

  void start() {
    std::lock_guard lock(mutex_);
    if (thread_.joinable() || stopped_) return;
    accept();
    thread_ = std::thread([this] {
      try {
        io_.run();
      } catch (const std::exception& error) {
        printLine(std::string("http server stopped: ") + error.what());
      }
    });
  }

  void stop() {
    std::thread thread;
    {
      std::lock_guard lock(mutex_);
      if (stopped_) return;
      stopped_ = true;
      thread = std::move(thread_);
    }
    asio::post(io_, [this] {
      boost::system::error_code ignored;
      acceptor_.close(ignored);
      retry_.cancel();
    });
    handlers_.join();
    io_.stop();
    if (thread.joinable()) thread.join();
  }

  void accept() {
    acceptor_.async_accept([this](boost::system::error_code error, tcp::socket socket) {
      if (error == asio::error::operation_aborted || !acceptor_.is_open()) return;
      if (error) {
        // Out of descriptors or memory: free one by dropping the oldest
        // waiting client, and try again a little later.
        if (!acceptFailing_) printLine("http server: accept failed: " + error.message());
        acceptFailing_ = true;
        dropOldestWaiting();
        retry_.expires_after(acceptRetryPause);
        retry_.async_wait([this](boost::system::error_code e) {
          if (!e) accept();
        });
        return;
      }
      acceptFailing_ = false;
      std::size_t open = 0;
      {
        std::lock_guard lock(mutex_);
        open = open_.size();
      }
      // At the cap, a slow client makes room for the new one rather than
      // the other way round: legitimate requests arrive whole and are done
      // at once, so the ones still waiting are the slow ones.
      if (open >= limits_.maxConnections && !dropOldestWaiting()) {
        boost::system::error_code ignored;
        socket.close(ignored);
      } else {
        std::make_shared<Connection>(this, std::move(socket))->start();
      }
      accept();
    });
  }

  // Closes the longest-waiting connection that has not sent its request yet.
  bool dropOldestWaiting() {
    std::shared_ptr<Connection> victim;
    {
      std::lock_guard lock(mutex_);
      for (const auto& entry : open_) {
        auto connection = entry.lock();
        if (connection && connection->reading()) {
          victim = std::move(connection);
          break;
        }
      }
    }
    if (!victim) return false;
    victim->cancel();
    return true;
  }

  // Declared before the io_context, which may still hold connections when it
  // is destroyed.
  Handler handler_;
  Limits limits_;
  std::mutex mutex_;  // guards open_, thread_ and stopped_
  // Open connections, oldest first; each removes itself when it goes.
  std::list<std::weak_ptr<Connection>> open_;
  asio::io_context io_;
  asio::thread_pool handlers_{2};
  tcp::acceptor acceptor_;
  asio::steady_timer retry_{io_};
  bool acceptFailing_ = false;  // network thread only
  std::uint16_t port_ = 0;
  std::thread thread_;
  bool stopped_ = false;
};

MiniHTTPServer::MiniHTTPServer(std::int64_t port, Handler handler)
    : MiniHTTPServer(port, std::move(handler), Limits{}) {}

MiniHTTPServer::MiniHTTPServer(std::int64_t port, Handler handler, Limits limits)
    : impl_(std::make_unique<Impl>(port, std::move(handler), limits)) {}

MiniHTTPServer::~MiniHTTPServer() { stop(); }

void MiniHTTPServer::start() { impl_->start(); }
void MiniHTTPServer::stop() { impl_->stop(); }
std::uint16_t MiniHTTPServer::port() const { return impl_->port_; }

}  // namespace zul
