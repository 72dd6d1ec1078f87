#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <netinet/in.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include "ZulAgent/demo/MiniHTTPServer.h"
#include "ZulAgent/demo/PhoneDemo.h"

namespace zul {
namespace {

using namespace std::chrono_literals;

TEST(MiniHTTPServerParse, HeadsResponsesAndPorts) {
  const std::pair<std::string, std::string> cases[] = {
      // head, "method path length" or problem
      {"GET / HTTP/1.1\r\nHost: x", "GET / 0"},
      {"POST  /answer?x=1   HTTP/1.1\r\ncOnTeNt-LeNgTh:  5 \r\nbad line", "POST /answer?x=1 5"},
      {"POST /a HTTP/1.1\r\nContent-Length: +7", "POST /a 7"},
      {"POST /a\r\nX-Other: 9\r\nContent-Length: 3\r\nContent-Length: 3", "POST /a 3"},
      {"GET /\xff\xfe HTTP/1.1", "GET /\xEF\xBF\xBD\xEF\xBF\xBD 0"},  // repaired, not fatal
      {"GET", "malformed"},
      {"   ", "malformed"},
      {"POST /a HTTP/1.1\r\nContent-Length: -1", "bad length"},
      {"POST /a HTTP/1.1\r\nContent-Length: 12abc", "bad length"},
      {"POST /a HTTP/1.1\r\nContent-Length: 99999999999999999999999", "bad length"},
      {"POST /a HTTP/1.1\r\nContent-Length: 3\r\nContent-Length: 4", "bad length"},
  };
  for (const auto& [head, expected] : cases) {
    const auto parsed = MiniHTTPServer::parseHead(head);
    std::string got = "bad length";
    if (auto* h = std::get_if<MiniHTTPServer::RequestHead>(&parsed)) {
      got = h->method + " " + h->path + " " + std::to_string(h->contentLength);
    } else if (std::get<MiniHTTPServer::HeadProblem>(parsed) ==
               MiniHTTPServer::HeadProblem::malformedRequestLine) {
      got = "malformed";
    }
    EXPECT_EQ(got, expected) << head;
  }
  EXPECT_EQ(toString(MiniHTTPServer::buildResponse({200, "text/plain", toBytes("hi")})),
            "HTTP/1.1 200 OK\r\nContent-Type: text/plain\r\nContent-Length: 2\r\n"
            "Access-Control-Allow-Origin: *\r\nConnection: close\r\n\r\nhi");
  EXPECT_EQ(toString(MiniHTTPServer::buildResponse({201, "a/b", {}})),
            "HTTP/1.1 201 Error\r\nContent-Type: a/b\r\nContent-Length: 0\r\n"
            "Access-Control-Allow-Origin: *\r\nConnection: close\r\n\r\n");
  for (std::int64_t port : {-1, 65536, 100000}) {
    try {
      MiniHTTPServer server(port, [](auto&, auto&, auto&) { return MiniHTTPServer::Response{}; });
      ADD_FAILURE() << port;
    } catch (const MiniHTTPServerError& error) {
      EXPECT_EQ(error.text(), "invalidPort(" + std::to_string(port) + ")");
    }
  }
}

// A raw client that reads until the server closes (or 10 s pass: "(left open)").
struct Client {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  bool connected = false;
  ~Client() { close(fd); }
  void connectTo(std::uint16_t port) {
    sockaddr_in address{.sin_family = AF_INET, .sin_port = htons(port)};
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    connected = connect(fd, reinterpret_cast<sockaddr*>(&address), sizeof address) == 0;
  }
  void send(std::string_view bytes) { ::send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL); }
  std::string receiveAll() {
    std::string out;
    char buffer[4096];
    for (pollfd p{fd, POLLIN, 0};;) {
      if (poll(&p, 1, 10000) <= 0) return out + "(left open)";
      const ssize_t n = recv(fd, buffer, sizeof buffer, 0);
      if (n <= 0) return out;
      out.append(buffer, static_cast<std::size_t>(n));
    }
  }
};

class MiniHTTPServerTest : public ::testing::Test {
 protected:
  void SetUp() override { startServer(500ms); }
  void startServer(std::chrono::milliseconds requestTimeout) {
    server_.reset();
    server_ = std::make_unique<MiniHTTPServer>(
        0,
        [this](const std::string& method, const std::string& path, const Bytes& body) {
          ++handled_;
          if (path == "/created") return MiniHTTPServer::Response{201, "text/plain", {}};
          return MiniHTTPServer::Response{
              200, "text/plain", toBytes(method + " " + path + " [" + toString(body) + "]")};
        },
        MiniHTTPServer::Limits{
            .maxHeadBytes = 1024, .maxBodyBytes = 4096, .requestTimeout = requestTimeout});
    server_->start();
  }
  // Sends the pieces apart; the response's body, or its status line for
  // errors, or "" when closed without one.
  std::string exchange(const std::vector<std::string>& pieces, bool finish = false) {
    Client client;
    client.connectTo(server_->port());
    EXPECT_TRUE(client.connected);
    for (const auto& piece : pieces) {
      client.send(piece);
      std::this_thread::sleep_for(20ms);
    }
    if (finish) shutdown(client.fd, SHUT_WR);
    const std::string response = client.receiveAll();
    if (response.starts_with("HTTP/1.1 200")) return response.substr(response.find("\r\n\r\n") + 4);
    return response.substr(0, response.find("\r\n"));
  }

  std::atomic<int> handled_{0};
  std::unique_ptr<MiniHTTPServer> server_;
};

TEST_F(MiniHTTPServerTest, AssemblesRequestsRefusesBadOnesAndGoesOn) {
  struct Case {
    std::vector<std::string> pieces;
    bool finish;
    std::string response;
  };
  const Case cases[] = {
      {{"GE", "T /x HT", "TP/1.1\r\nHost: a\r", "\n\r\n"}, false, "GET /x []"},
      {{"POST /answer HTTP/1.1\r\ncontent-LENGTH: 5\r\n\r\nab", "cde"},
       false,
       "POST /answer [abcde]"},
      {{"POST /p HTTP/1.1\r\nContent-Length: 3\r\n\r\nabcdefGET / HTTP/1.1\r\n\r\n"},
       false,
       "POST /p [abc]"},
      {{"GET /created HTTP/1.1\r\n\r\n"}, false, "HTTP/1.1 201 Error"},
      {{"HELLO\r\n\r\n"}, false, ""},
      {{"GET / HTTP/1.1\r\nHost"}, true, ""},                            // ends in the head
      {{"POST / HTTP/1.1\r\nContent-Length: 10\r\n\r\nabc"}, true, ""},  // ends in the body
      {{"GET / HTTP/1.1\r\n"}, false, ""},                               // too slow
      {{"POST / HTTP/1.1\r\nContent-Length: -5\r\n\r\n"}, false, "HTTP/1.1 400 Error"},
      {{"POST / HTTP/1.1\r\nContent-Length: abc\r\n\r\n"}, false, "HTTP/1.1 400 Error"},
      {{"POST / HTTP/1.1\r\nContent-Length: 1000000\r\n\r\n"}, false, "HTTP/1.1 413 Error"},
      {{"GET / HTTP/1.1\r\nX: " + std::string(2000, 'a')}, false, "HTTP/1.1 431 Error"},
      {{"GET /still HTTP/1.1\r\n\r\n"}, false, "GET /still []"},
  };
  for (const auto& c : cases) EXPECT_EQ(exchange(c.pieces, c.finish), c.response) << c.pieces[0];
  EXPECT_EQ(handled_, 5);
}

// More slow clients than the server takes: the oldest of them make room, and
// every request that arrives whole is served.
TEST_F(MiniHTTPServerTest, SlowClientsDoNotHoldOthersUp) {
  startServer(60s);
  std::vector<Client> slow(300);
  for (auto& client : slow) {
    client.connectTo(server_->port());
    client.send("GET / HTTP/1.1\r\n");
  }
  for (int i = 0; i < 20; ++i)
    EXPECT_EQ(exchange({"GET /meanwhile HTTP/1.1\r\n\r\n"}), "GET /meanwhile []") << i;
  EXPECT_EQ(handled_, 20);
}

TEST(PhoneDemo, SettingsAddressAndBanner) {
  const std::pair<const char*, double> seconds[] = {
      {nullptr, 300}, {"12", 12}, {"2.5", 2.5},   {"abc", 300}, {"-3", 300},
      {"nan", 300},   {"", 300},  {"1e308", 1e9}, {"inf", 300},
  };
  for (const auto& [text, expected] : seconds) {
    EXPECT_EQ(PhoneDemoSettings::fromValues(text, nullptr).seconds, expected) << (text ? text : "");
  }
  const std::pair<const char*, std::int64_t> ports[] = {
      {nullptr, 8787}, {"0", 0},        {"9000", 9000},
      {"x", 8787},     {"70000", 8787}, {"-1", 8787},
      {"", 8787},      {"1e9", 8787},   {"99999999999999999999", 8787},
  };
  for (const auto& [text, expected] : ports) {
    EXPECT_EQ(PhoneDemoSettings::fromValues(nullptr, text).port, expected) << (text ? text : "");
  }

  struct Case {
    std::vector<InterfaceAddress> addresses;
    std::optional<std::string> expected;
  };
  const Case cases[] = {
      {{}, std::nullopt},
      {{{"lo", "127.0.0.1", true, true}}, std::nullopt},
      {{{"lo", "127.0.0.1", true, true}, {"eth0", "192.168.1.20", true, false}}, "192.168.1.20"},
      {{{"eth0", "192.168.1.20", false, false}, {"wlan0", "10.0.0.7", true, false}}, "10.0.0.7"},
      {{{"eth0", "203.0.113.9", true, false}, {"wlan0", "172.20.1.2", true, false}}, "172.20.1.2"},
      {{{"eth0", "203.0.113.9", true, false}, {"eth1", "169.254.3.3", true, false}}, "203.0.113.9"},
      {{{"eth0", "172.32.0.1", true, false}}, "172.32.0.1"},
      {{{"eth0", "203.0.113.9", true, false}, {"wlan0", "10.0.0.7", true, false}}, "10.0.0.7"},
  };
  for (const auto& c : cases) EXPECT_EQ(chooseLANAddress(c.addresses), c.expected);

  const auto banner = phoneDemoBanner(std::string("192.168.1.20"), 8787, 300.9);
  ASSERT_EQ(banner.size(), 8u);
  EXPECT_EQ(banner[4], "    http://192.168.1.20:8787");
  EXPECT_EQ(banner[6], "Running for 300s (override with ZUL_DEMO_SECONDS=<n>).");
  EXPECT_EQ(phoneDemoBanner(std::nullopt, 8787, 5)[4], "    http://<this-computer-lan-ip>:8787");
}

TEST(PhoneDemoRoutes, ServesPageOfferAndOneAnswer) {
  std::vector<std::string> printed, answers;
  PhoneDemoRoutes routes(
      "v=0 offer",
      [&](const std::string& sdp) {
        if (sdp == "broken") throw std::runtime_error("bad answer");
        answers.push_back(sdp);
      },
      [&](std::string_view line) { printed.emplace_back(line); });
  const std::string duplicate =
      "already connected to a previous answer \u2014 reload the computer-side demo (not just the "
      "phone page) to retry";
  struct Case {
    const char *method, *path, *body;
    int status;
    std::string text;  // the body (a part of the page's)
    const char* contentType = "text/plain; charset=utf-8";
  };
  const Case cases[] = {
      {"GET", "/", "", 200, "<title>Zul Linux agent \u2014 transport smoke test</title>",
       "text/html; charset=utf-8"},
      {"GET", "/offer", "", 200, "v=0 offer"},
      {"GET", "/offer", "", 200, "v=0 offer"},
      {"GET", "/answer", "", 404, "not found"},
      {"POST", "/offer", "", 404, "not found"},
      {"GET", "/offer?x", "", 404, "not found"},
      {"get", "/", "", 404, "not found"},
      {"GET", "/nope", "", 404, "not found"},
      {"POST", "/answer", "broken", 400, "failed to accept answer: bad answer"},
      {"POST", "/answer", "v=0 answer", 200,
       "answer accepted \u2014 ICE negotiation should start now"},
      {"POST", "/answer", "v=0 other", 409, duplicate},
  };
  for (const auto& c : cases) {
    const auto response = routes.handle(c.method, c.path, toBytes(c.body));
    SCOPED_TRACE(std::string(c.method) + " " + c.path + " " + c.body);
    EXPECT_EQ(response.status, c.status);
    EXPECT_EQ(response.contentType, c.status == 200 ? c.contentType : response.contentType);
    if (c.path == std::string("/") && c.status == 200) {
      EXPECT_NE(toString(response.body).find(c.text), std::string::npos);
    } else {
      EXPECT_EQ(toString(response.body), c.text);
    }
  }
  EXPECT_EQ(answers, std::vector<std::string>{"v=0 answer"});
  EXPECT_EQ(printed, std::vector<std::string>{"rejected duplicate /answer: " + duplicate});
}

}  // namespace
}  // namespace zul
