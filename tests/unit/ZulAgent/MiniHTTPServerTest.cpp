#include <arpa/inet.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/resource.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ZulAgent/demo/MiniHTTPServer.h"

namespace zul {
namespace {

using namespace std::chrono_literals;

TEST(MiniHTTPServerParse, RequestHeads) {
  using P = MiniHTTPServer::HeadProblem;
  struct Case {
    std::string head;
    std::string method, path;
    std::int64_t length;
    std::optional<P> problem;
  };
  const Case cases[] = {
      {"GET / HTTP/1.1\r\nHost: x", "GET", "/", 0, {}},
      {"POST  /answer?x=1   HTTP/1.1\r\ncOnTeNt-LeNgTh:  5 \r\nbad line",
       "POST",
       "/answer?x=1",
       5,
       {}},
      {"POST /a HTTP/1.1\r\nContent-Length: +7", "POST", "/a", 7, {}},
      {"POST /a\r\nX-Other: 9\r\nContent-Length: 3\r\nContent-Length: 3", "POST", "/a", 3, {}},
      {"GET", "", "", 0, P::malformedRequestLine},
      {"   ", "", "", 0, P::malformedRequestLine},
      {"POST /a HTTP/1.1\r\nContent-Length: -1", "", "", 0, P::badContentLength},
      {"POST /a HTTP/1.1\r\nContent-Length: 12abc", "", "", 0, P::badContentLength},
      {"POST /a HTTP/1.1\r\nContent-Length: 99999999999999999999999", "", "", 0,
       P::badContentLength},
      {"POST /a HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4", "", "", 0,
       P::badContentLength},
  };
  for (const auto& c : cases) {
    auto parsed = MiniHTTPServer::parseHead(c.head);
    if (c.problem) {
      ASSERT_TRUE(std::holds_alternative<P>(parsed)) << c.head;
      EXPECT_EQ(std::get<P>(parsed), *c.problem) << c.head;
    } else {
      ASSERT_TRUE(std::holds_alternative<MiniHTTPServer::RequestHead>(parsed)) << c.head;
      const auto& head = std::get<MiniHTTPServer::RequestHead>(parsed);
      EXPECT_EQ(head.method, c.method);
      EXPECT_EQ(head.path, c.path);
      EXPECT_EQ(head.contentLength, c.length) << c.head;
    }
  }
  // Invalid UTF-8 in the path is repaired, not fatal.
  auto repaired = MiniHTTPServer::parseHead("GET /\xff\xfe HTTP/1.1");
  ASSERT_TRUE(std::holds_alternative<MiniHTTPServer::RequestHead>(repaired));
  EXPECT_EQ(std::get<MiniHTTPServer::RequestHead>(repaired).path, "/\xEF\xBF\xBD\xEF\xBF\xBD");
}

TEST(MiniHTTPServerParse, ResponsesAreByteExact) {
  EXPECT_EQ(toString(MiniHTTPServer::buildResponse({200, "text/plain", toBytes("hi")})),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 2\r\n"
            "Access-Control-Allow-Origin: *\r\nConnection: close\r\n\r\nhi");
  EXPECT_EQ(toString(MiniHTTPServer::buildResponse({201, "a/b", {}})),
            "HTTP/1.1 201 Error\r\nContent-Type: a/b\r\nContent-Length: 0\r\n"
            "Access-Control-Allow-Origin: *\r\nConnection: close\r\n\r\n");
}

TEST(MiniHTTPServerParse, RefusesInvalidPorts) {
  for (std::int64_t port : {-1, 65536, 100000}) {
    try {
      MiniHTTPServer server(port, [](auto&, auto&, auto&) { return MiniHTTPServer::Response{}; });
      ADD_FAILURE() << port;
    } catch (const MiniHTTPServerError& error) {
      EXPECT_EQ(error.text(), "invalidPort(" + std::to_string(port) + ")");
    }
  }
}

// A raw client: sends pieces with pauses between them and reads until the
// server closes.
class Client {
 public:
  Client() : fd_(socket(AF_INET, SOCK_STREAM, 0)) {}
  explicit Client(std::uint16_t port) : Client() { connectTo(port); }
  ~Client() { close(fd_); }
  void connectTo(std::uint16_t port) {
    sockaddr_in address{};
    address.sin_family = AF_INET;
    address.sin_port = htons(port);
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected_ = connect(fd_, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  bool connected() const { return connected_; }
  void send(std::string_view bytes) { ::send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  void finish() { shutdown(fd_, SHUT_WR); }
  // Everything until the server closes (or 10 s pass).
  std::string receiveAll() {
    std::string out;
    char buffer[4096];
    while (true) {
      pollfd p{fd_, POLLIN, 0};
      if (poll(&p, 1, 10000) <= 0) break;
      const ssize_t n = recv(fd_, buffer, sizeof buffer, 0);
      if (n <= 0) break;
      out.append(buffer, static_cast<std::size_t>(n));
    }
    return out;
  }

 private:
  int fd_ = -1;
  bool connected_ = false;
};

class MiniHTTPServerTest : public ::testing::Test {
 protected:
  void SetUp() override { startServer(500ms); }

  void startServer(std::chrono::milliseconds requestTimeout) {
    MiniHTTPServer::Limits limits;
    limits.maxHeadBytes = 1024;
    limits.maxBodyBytes = 4096;
    limits.requestTimeout = requestTimeout;
    server_.reset();
    server_ = std::make_unique<MiniHTTPServer>(
        0,
        [this](const std::string& method, const std::string& path, const Bytes& body) {
          ++handled_;
          if (path == "/created") return MiniHTTPServer::Response{201, "text/plain", {}};
          return MiniHTTPServer::Response{
              200, "text/plain", toBytes(method + " " + path + " [" + toString(body) + "]")};
        },
        limits);
    server_->start();
  }

  std::string exchange(const std::vector<std::string>& pieces, bool finish = false) {
    Client client(server_->port());
    EXPECT_TRUE(client.connected());
    for (const auto& piece : pieces) {
      client.send(piece);
      std::this_thread::sleep_for(20ms);
    }
    if (finish) client.finish();
    return client.receiveAll();
  }

  static std::string bodyOf(const std::string& response) {
    const auto at = response.find("\r\n\r\n");
    return at == std::string::npos ? "" : response.substr(at + 4);
  }

  std::atomic<int> handled_{0};
  std::unique_ptr<MiniHTTPServer> server_;
};

TEST_F(MiniHTTPServerTest, AssemblesSegmentedRequests) {
  EXPECT_EQ(bodyOf(exchange({"GE", "T /x HT", "TP/1.1\r\nHost: a\r", "\n\r\n"})), "GET /x []");
  EXPECT_EQ(bodyOf(exchange({"POST /answer HTTP/1.1\r\ncontent-LENGTH: 5\r\n\r\nab", "cde"})),
            "POST /answer [abcde]");
  EXPECT_EQ(bodyOf(exchange(
                {"POST /p HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcdefGET / HTTP/1.1\r\n\r\n"})),
            "POST /p [abc]");
  EXPECT_EQ(exchange({"GET /created HTTP/1.1\r\n\r\n"}).substr(0, 22), "HTTP/1.1 201 Error\r\nCo");
}

TEST_F(MiniHTTPServerTest, BadRequestsAreClosedOrRefusedAndServingGoesOn) {
  struct Case {
    std::vector<std::string> pieces;
    bool finish;
    std::string statusLine;  // empty: closed without a response
  };
  const Case cases[] = {
      {{"HELLO\r\n\r\n"}, false, ""},
      {{"GET / HTTP/1.1\r\nHost"}, true, ""},                            // ends in the head
      {{"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"}, true, ""},  // ends in the body
      {{"GET / HTTP/1.1\r\n"}, false, ""},                               // too slow
      {{"POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n"}, false, "HTTP/1.1 400 Error"},
      {{"POST / HTTP/1.1\r\nContent-Length: abc\r\n\r\n"}, false, "HTTP/1.1 400 Error"},
      {{"POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n"}, false, "HTTP/1.1 413 Error"},
      {{"GET / HTTP/1.1\r\nX: " + std::string(2000, 'a')}, false, "HTTP/1.1 431 Error"},
  };
  for (const auto& c : cases) {
    const std::string response = exchange(c.pieces, c.finish);
    if (c.statusLine.empty()) {
      EXPECT_EQ(response, "") << c.pieces.front();
    } else {
      EXPECT_EQ(response.substr(0, c.statusLine.size()), c.statusLine) << c.pieces.front();
    }
  }
  EXPECT_EQ(handled_, 0);
  EXPECT_EQ(bodyOf(exchange({"GET /still HTTP/1.1\r\n\r\n"})), "GET /still []");
}

// More slow clients than the server takes: the oldest of them make room, and
// every request that arrives whole is served.
TEST_F(MiniHTTPServerTest, SlowClientsDoNotHoldOthersUp) {
  startServer(60s);
  std::vector<std::unique_ptr<Client>> slow;
  for (int i = 0; i < 300; ++i) {
    slow.push_back(std::make_unique<Client>(server_->port()));
    slow.back()->send("GET / HTTP/1.1\r\n");
  }
  for (int i = 0; i < 20; ++i) {
    EXPECT_EQ(bodyOf(exchange({"GET /meanwhile HTTP/1.1\r\n\r\n"})), "GET /meanwhile []") << i;
  }
  EXPECT_EQ(handled_, 20);
}

// Out of file descriptors, the server waits for one instead of spinning on
// accept, and serves the waiting client once one is free.
TEST_F(MiniHTTPServerTest, RunningOutOfDescriptorsDoesNotSpin) {
  rlimit saved{};
  ASSERT_EQ(getrlimit(RLIMIT_NOFILE, &saved), 0);
  Client waiting;  // its descriptor is taken before they run out
  rlimit low = saved;
  low.rlim_cur = 256;
  ASSERT_EQ(setrlimit(RLIMIT_NOFILE, &low), 0);
  std::vector<int> fillers;
  for (int fd; (fd = open("/dev/null", O_RDONLY)) >= 0;) fillers.push_back(fd);
  waiting.connectTo(server_->port());
  waiting.send("GET /after HTTP/1.1\r\n\r\n");

  auto cpuTime = [] {
    rusage usage{};
    getrusage(RUSAGE_SELF, &usage);
    return std::chrono::seconds(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
           std::chrono::microseconds(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec);
  };
  const auto before = cpuTime();
  std::this_thread::sleep_for(1s);
  const auto spent = cpuTime() - before;

  for (int fd : fillers) close(fd);
  setrlimit(RLIMIT_NOFILE, &saved);
  ASSERT_TRUE(waiting.connected());
  EXPECT_LT(spent, 250ms) << "busy while out of descriptors";
  EXPECT_EQ(bodyOf(waiting.receiveAll()), "GET /after []");
}

}  // namespace
}  // namespace zul
