// The signalling client against the real development rendezvous server
// (server/server.js under Node, in its development mode), with a scripted phone that speaks
// the server's phone protocol over its own WebSocket.
#include <utility>  // before Asio, which needs std::exchange
//

#include <array>
#include <boost/asio.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/websocket.hpp>
#include <condition_variable>
#include <filesystem>
#include <future>
#include <memory>
#include <mutex>
#include <nlohmann/json.hpp>
#include <thread>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/MemorySecretBackend.h"
#include "ZulTransport/AgentSignalingClient.h"
#include "ZulTransport/SignalingUrl.h"
#include "gtest/gtest.h"
#include "support/ChildProcess.h"
#include "support/FakeSignalingPeer.h"
#include "support/Outcome.h"

namespace zul {
namespace {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace websocket = boost::beast::websocket;
using Json = nlohmann::json;
using namespace std::chrono_literals;

// A phone as the development server knows it: an Ed25519 key, the signed
// "phone" identity proof in the query, JSON messages.
class ScriptedPhone {
 public:
  ScriptedPhone()
      : identity_(SecretStore("identity", std::make_shared<MemorySecretBackend>())),
        ws_(context_) {}

  std::string deviceId() const {
    return IdentityKeyStore::deriveId("device_", identity_.publicKey());
  }
  std::string publicKey() const { return Base64Url::encode(identity_.publicKey()); }

  // The HTTP status of a refused handshake, 101 when connected.
  int connect(const std::string& port, const std::string& agentId) {
    auto timestamp = unixSeconds(std::chrono::system_clock::now());
    auto nonce = Base64Url::encode(Bytes(24, static_cast<std::uint8_t>(++nonceCounter_)));
    nonce += std::to_string(reinterpret_cast<std::uintptr_t>(this));
    auto transcript = identityProofTranscript("phone", deviceId(), agentId, timestamp, nonce);
    auto signature = Base64Url::encode(identity_.sign(toBytes(transcript)));
    std::string target = "/v1/rendezvous/" + agentId + "?role=phone&deviceId=" + deviceId() +
                         "&agentId=" + agentId + "&publicKey=" + publicKey() +
                         "&timestamp=" + std::to_string(timestamp) + "&nonce=" + nonce +
                         "&signature=" + signature;
    asio::ip::tcp::resolver resolver(context_);
    beast::get_lowest_layer(ws_).connect(resolver.resolve("127.0.0.1", port));
    websocket::response_type response;
    beast::error_code error;
    ws_.handshake(response, "127.0.0.1:" + port, target, error);
    return error ? static_cast<int>(response.result_int()) : 101;
  }

  void send(const std::string& text) { ws_.write(asio::buffer(text)); }
  void send(const Json& message) { send(message.dump()); }

  // The next message of `type` (others are skipped), or null after the time-out.
  Json receive(const std::string& type) {
    for (;;) {
      beast::flat_buffer buffer;
      bool done = false;
      beast::error_code result;
      ws_.async_read(buffer, [&](beast::error_code error, std::size_t) {
        done = true;
        result = error;
      });
      context_.restart();
      context_.run_for(10s);
      if (!done) {
        beast::get_lowest_layer(ws_).cancel();
        context_.restart();
        context_.run();
      }
      if (!done || result) return Json();
      auto message = Json::parse(beast::buffers_to_string(buffer.data()));
      if (message.value("type", "") == type) return message;
    }
  }

 private:
  IdentityKeyStore identity_;
  asio::io_context context_;
  websocket::stream<beast::tcp_stream> ws_;
  int nonceCounter_ = 0;
};

class AgentSignalingClientTest : public testing::Test {
 protected:
  void startServer(std::vector<std::string> extraArgs = {}) {
    if (!test::haveProgram("node")) GTEST_SKIP() << "node is not installed";
    std::vector<std::string> argv = {
        "node",       ZUL_RENDEZVOUS_SERVER, "--dev",         "--port",
        "0",          "--turn-url",          "turn:127.0.0.1:3478", "--turn-secret",
        "test-secret"};
    argv.insert(argv.end(), extraArgs.begin(), extraArgs.end());
    server_ = std::make_unique<test::ChildProcess>(
        argv, test::ChildProcess::Options{.captureStdout = true, .quiet = false});
    auto line = server_->readStdoutLine(20s);
    ASSERT_TRUE(line) << "the rendezvous server did not start";
    port_ = line->substr(line->rfind(':') + 1);
    baseUrl_ = "http://127.0.0.1:" + port_;
  }

  std::unique_ptr<AgentSignalingClient> makeClient(AgentSignalingClient::Options options = {}) {
    options.revokedSyncPeriod = 200ms;
    auto client = std::make_unique<AgentSignalingClient>(baseUrl_, identity_, pairing_, peer_,
                                                         store_, options);
    client->onStatusChanged = [this](const std::string& status) {
      std::lock_guard lock(mutex_);
      statuses_.push_back(status);
    };
    return client;
  }

  // Runs the client on its own thread: run() throws or returns into `ended`.
  void startRun(AgentSignalingClient& client) {
    ended_ = std::async(std::launch::async, [&client]() -> std::exception_ptr {
      try {
        client.run();
      } catch (...) {
        return std::current_exception();
      }
      return nullptr;
    });
  }
  bool connected() {
    return peer_->waitUntil([&] { return !peer_->state().iceServers.empty(); });
  }
  // How run() ended; a null pointer when it returned.
  std::exception_ptr runEnd(AgentSignalingClient& client) {
    if (ended_.wait_for(20s) != std::future_status::ready) {
      client.close();
      ADD_FAILURE() << "run() did not end";
    }
    return ended_.get();
  }

  std::vector<std::string> statuses() {
    std::lock_guard lock(mutex_);
    return statuses_;
  }

  std::shared_ptr<MemorySecretBackend> secrets_ = std::make_shared<MemorySecretBackend>();
  std::shared_ptr<IdentityKeyStore> identity_ =
      std::make_shared<IdentityKeyStore>(SecretStore("identity", secrets_));
  std::shared_ptr<PairingService> pairing_ = std::make_shared<PairingService>(identity_);
  std::shared_ptr<test::FakeSignalingPeer> peer_ = std::make_shared<test::FakeSignalingPeer>();
  TrustedDeviceStore store_{SecretStore("trusted-devices", secrets_)};

  std::unique_ptr<test::ChildProcess> server_;
  std::string port_, baseUrl_;
  std::future<std::exception_ptr> ended_;
  std::mutex mutex_;
  std::vector<std::string> statuses_;
};

// The text of the E that run() ended with, "ok" when it returned.
template <class E>
std::string errorText(std::exception_ptr failure) {
  return test::outcome<E>([&] {
    if (failure) std::rethrow_exception(failure);
  });
}

// Signed proofs the server checks, the relay of a session up to the largest
// message, and a message over it ending the run.
TEST_F(AgentSignalingClientTest, ServerChecksProofsAndRelaysUpToTheLargestMessage) {
  startServer();
  // A clock ten minutes off: the server refuses both the pairing and the socket.
  AgentSignalingClient::Options skewed;
  skewed.now = [] { return std::chrono::system_clock::now() - 10min; };
  auto stale = makeClient(skewed);
  EXPECT_THROW(stale->createPairing(), SignalingError);
  startRun(*stale);
  EXPECT_NE(errorText<SignalingTransportError>(runEnd(*stale)).find("HTTP status 401"),
            std::string::npos);

  auto client = makeClient();
  auto payload = client->createPairing();
  EXPECT_EQ(payload.signalUrl,
            "ws://127.0.0.1:" + port_ + "/v1/rendezvous/" + identity_->agentId());
  EXPECT_EQ(payload.dtlsFingerprint, peer_->dtlsFingerprint());
  startRun(*client);
  ASSERT_TRUE(connected()) << "no turn.credentials";
  EXPECT_EQ(peer_->state().iceServers.front().urls,
            std::vector<std::string>{"turn:127.0.0.1:3478"});

  // A session: the offer goes to the phone, its answer and candidates come back.
  ScriptedPhone phone;
  ASSERT_EQ(phone.connect(port_, identity_->agentId()), 101);
  phone.send(Json{{"type", "session.request"}});
  EXPECT_EQ(phone.receive("signal.offer")["sdp"], "v=0 fake-offer 1");
  phone.send(Json{{"type", "signal.answer"}, {"sdp", "v=0 answer"}});
  phone.send(Json{{"type", "signal.ice"},
                  {"candidate", "candidate:1 1 udp 2122260223 127.0.0.1 50000 typ host"},
                  {"sdpMid", "0"},
                  {"sdpMLineIndex", 0}});
  ASSERT_TRUE(peer_->waitUntil([&] { return !peer_->state().candidates.empty(); }));
  EXPECT_EQ(peer_->state().answers, std::vector<std::string>{"v=0 answer"});

  // The largest message the client takes, once the server has named the
  // phone in it (,"peerId":"…"); then one byte more.
  const std::size_t named = 12 + phone.deviceId().size();
  auto answerOfSize = [](std::size_t total) {
    const std::string head = R"({"type":"signal.answer","sdp":")";
    return head + std::string(total - head.size() - 2, 's') + "\"}";
  };
  phone.send(answerOfSize(262'144 - named));
  ASSERT_TRUE(peer_->waitUntil([&] { return peer_->state().answers.size() == 2; }));
  EXPECT_EQ(peer_->state().answers[1].size(), 262'144 - 33u - named);
  phone.send(answerOfSize(262'145 - named));
  EXPECT_EQ(errorText<SignalingError>(runEnd(*client)), SignalingError::messageTooLarge().text());
  EXPECT_EQ(peer_->state().answers.size(), 2u);
  EXPECT_EQ(statuses().back(), "disconnected");
}

// A server that goes quiet: before the connection is accepted (its backlog
// is full), after it (no HTTP or WebSocket reply), or once the WebSocket is
// open (no messages, no pongs).
class SilentServer {
 public:
  enum class Mode { connect, reply, open };

  explicit SilentServer(Mode mode) : acceptor_(context_) {
    acceptor_.open(asio::ip::tcp::v4());
    acceptor_.bind({asio::ip::make_address("127.0.0.1"), 0});
    acceptor_.listen(mode == Mode::connect ? 0 : 16);
    if (mode == Mode::connect) {
      // Plain connect(2): Asio's own would wait for the connection.
      auto endpoint = acceptor_.local_endpoint();
      for (auto& filler : fillers_) {
        filler.open(asio::ip::tcp::v4());
        filler.non_blocking(true);
        ::connect(filler.native_handle(), endpoint.data(), endpoint.size());
      }
    } else if (mode == Mode::open) {
      thread_ = std::thread([this] {
        beast::error_code error;
        websocket::stream<asio::ip::tcp::socket> ws(context_);
        acceptor_.accept(ws.next_layer(), error);
        if (!error) ws.accept(error);
        std::unique_lock lock(mutex_);
        done_.wait(lock, [this] { return stopping_; });
      });
    }
  }
  ~SilentServer() {
    {
      std::lock_guard lock(mutex_);
      stopping_ = true;
    }
    done_.notify_all();
    if (thread_.joinable()) thread_.join();
  }
  std::string baseUrl() const {
    return "http://127.0.0.1:" + std::to_string(acceptor_.local_endpoint().port());
  }

 private:
  asio::io_context context_;
  asio::ip::tcp::acceptor acceptor_;
  std::array<asio::ip::tcp::socket, 3> fillers_{asio::ip::tcp::socket(context_),
                                                asio::ip::tcp::socket(context_),
                                                asio::ip::tcp::socket(context_)};
  std::thread thread_;
  std::mutex mutex_;
  std::condition_variable done_;
  bool stopping_ = false;
};

// Wherever a silent server holds the client, close() ends the wait: a run
// without an error, a pairing request with a transport error. Left alone, a
// silent WebSocket is given up within the idle time-out.
TEST_F(AgentSignalingClientTest, CloseEndsWhateverASilentServerHolds) {
  using Mode = SilentServer::Mode;
  const struct {
    const char* name;
    Mode mode;
    bool pairing, close;
  } cases[] = {
      {"connect, run", Mode::connect, false, true},
      {"connect, pairing", Mode::connect, true, true},
      {"handshake, run", Mode::reply, false, true},
      {"pairing reply", Mode::reply, true, true},
      {"open WebSocket, run", Mode::open, false, true},
      {"open WebSocket, left alone", Mode::open, false, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    SilentServer server(c.mode);
    baseUrl_ = server.baseUrl();
    AgentSignalingClient::Options options;
    options.connectTimeout = options.pairingTimeout = options.idleTimeout = 30s;
    if (!c.close) options.idleTimeout = 1s;
    options.closeTimeout = 200ms;
    auto client = makeClient(options);
    if (c.pairing) {
      auto pairing = std::async(std::launch::async, [&] { client->createPairing(); });
      std::this_thread::sleep_for(300ms);  // let it reach the silence
      client->close();
      ASSERT_EQ(pairing.wait_for(5s), std::future_status::ready) << "close() did not end it";
      EXPECT_THROW(pairing.get(), SignalingTransportError);
      continue;
    }
    startRun(*client);
    if (c.close) {
      std::this_thread::sleep_for(300ms);
      client->close();
    }
    const auto failure = runEnd(*client);
    EXPECT_EQ(failure != nullptr, !c.close) << errorText<SignalingTransportError>(failure);
    if (failure) {
      EXPECT_THROW(std::rethrow_exception(failure), SignalingTransportError);
    }
  }
  // Only the open WebSockets were ever connected.
  EXPECT_EQ(statuses(),
            (std::vector<std::string>{"connected", "disconnected", "connected", "disconnected"}));
}

// A private CA-less certificate for one name only, made by the openssl tool.
struct TlsFiles {
  explicit TlsFiles(const std::string& name) {
    char pattern[] = "/tmp/zul-signaling-tls-XXXXXX";
    dir = mkdtemp(pattern) ? pattern : "/nonexistent";
    cert = dir + "/cert.pem";
    key = dir + "/key.pem";
    ok = std::system(("openssl req -x509 -newkey ec -pkeyopt ec_paramgen_curve:prime256v1 -nodes "
                      "-subj /CN=" +
                      name + " -addext subjectAltName=DNS:" + name + " -days 2 -keyout " + key +
                      " -out " + cert + " 2>/dev/null")
                         .c_str()) == 0;
  }
  ~TlsFiles() { std::filesystem::remove_all(dir); }
  std::string dir, cert, key;
  bool ok = false;
};

TEST_F(AgentSignalingClientTest, TlsIsVerifiedAgainstTrustAndHostName) {
  if (!test::haveProgram("openssl")) GTEST_SKIP() << "openssl is not installed";
  TlsFiles tls("localhost"), elsewhere("elsewhere.example");
  ASSERT_TRUE(tls.ok && elsewhere.ok) << "openssl could not make a certificate";
  startServer({"--tls-cert", tls.cert, "--tls-key", tls.key});
  const std::string fingerprint = test::commandOutput(
      "openssl x509 -in " + tls.cert + " -noout -fingerprint -sha256 | cut -d= -f2 | tr -d '\\n'");
  // The refusal names the certificate offered, for the person to trust it.
  auto expectTlsRefusal = [&](const std::string& base, const std::string& caFile,
                              const std::string& pin = "") {
    SCOPED_TRACE(base);
    AgentSignalingClient::Options options;
    options.extraCaFile = caFile;
    options.trustedCertificateSha256 = pin;
    baseUrl_ = base;
    auto client = makeClient(options);
    try {
      client->createPairing();
      ADD_FAILURE() << "an unverified server was accepted";
    } catch (const SignalingTransportError& error) {
      EXPECT_NE(error.text().find("operation: \"tls\""), std::string::npos) << error.text();
    }
    return client->refusedCertificate().value_or("none");
  };
  // Not trusted at all; trusted but named differently.
  EXPECT_EQ(expectTlsRefusal("https://localhost:" + port_, ""), fingerprint);
  expectTlsRefusal("https://127.0.0.1:" + port_, tls.cert);
  // Another certificate's fingerprint trusts nothing.
  std::string another = fingerprint;
  another[0] = another[0] == '0' ? '1' : '0';
  expectTlsRefusal("https://localhost:" + port_, "", another);

  // Trusted by its fingerprint alone, at any address (lower case, no colons).
  AgentSignalingClient::Options pinned;
  for (char c : fingerprint) {
    if (c != ':') pinned.trustedCertificateSha256 += char(std::tolower(c));
  }
  baseUrl_ = "https://127.0.0.1:" + port_;
  EXPECT_NO_THROW(makeClient(pinned)->createPairing());

  AgentSignalingClient::Options trusted;
  trusted.extraCaFile = tls.cert;
  baseUrl_ = "https://localhost:" + port_;
  auto client = makeClient(trusted);
  EXPECT_EQ(client->createPairing().signalUrl,
            "wss://localhost:" + port_ + "/v1/rendezvous/" + identity_->agentId());
  startRun(*client);
  ASSERT_TRUE(connected()) << "no turn.credentials over wss";
  client->close();
  EXPECT_FALSE(runEnd(*client));

  // A trusted certificate for another name than the one dialled.
  startServer({"--tls-cert", elsewhere.cert, "--tls-key", elsewhere.key});
  expectTlsRefusal("https://localhost:" + port_, elsewhere.cert);
}

}  // namespace
}  // namespace zul
