#include "ZulTransport/AgentSignalingClient.h"

// Boost 1.74's awaitable uses std::exchange without including <utility>.
#include <utility>
//
#include <netdb.h>
#include <openssl/evp.h>
#include <openssl/rand.h>
#include <openssl/ssl.h>
#include <openssl/x509v3.h>

#include <atomic>
#include <boost/asio.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/ssl.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/beast/core.hpp>
#include <boost/beast/http.hpp>
#include <boost/beast/ssl.hpp>
#include <boost/beast/websocket.hpp>
#include <boost/beast/websocket/ssl.hpp>
#include <cctype>
#include <csignal>
#include <cstring>
#include <deque>
#include <mutex>
#include <nlohmann/json.hpp>

#include "ZulCore/Support/Guarded.h"
#include "ZulTransport/SignalingUrl.h"

namespace zul {

namespace asio = boost::asio;
namespace beast = boost::beast;
namespace http = boost::beast::http;
namespace websocket = boost::beast::websocket;
namespace ssl = boost::asio::ssl;
using Json = nlohmann::json;
using asio::use_awaitable;

namespace {

constexpr const char* userAgent = "zul-agent-signaling";
// How often a name lookup in progress is looked at.
constexpr auto lookupPollInterval = std::chrono::milliseconds(10);

Bytes systemRandomBytes(std::size_t count) {
  Bytes bytes(count);
  if (count > 0 && RAND_bytes(bytes.data(), static_cast<int>(count)) != 1) {
    throw SignalingTransportError::transportFailed("random", "the system generator failed");
  }
  return bytes;
}

bool isIpLiteral(const std::string& host) {
  boost::system::error_code error;
  asio::ip::make_address(host, error);
  return !error;
}

// "host[:port]" as written, without user info: the Host header.
std::string hostHeader(const SignalingUrl& url) {
  auto at = url.authority.rfind('@');
  return at == std::string::npos ? url.authority : url.authority.substr(at + 1);
}

std::string describe(const boost::system::error_code& code) {
  return code.message() + " [" + code.category().name() + ":" + std::to_string(code.value()) + "]";
}

// "AB:CD:…": a certificate's SHA-256, as openssl and browsers show it.
std::string sha256Fingerprint(X509* certificate) {
  unsigned char digest[EVP_MAX_MD_SIZE];
  unsigned int length = 0;
  if (!certificate || X509_digest(certificate, EVP_sha256(), digest, &length) != 1) return {};
  static constexpr char hex[] = "0123456789ABCDEF";
  std::string out;
  for (unsigned int i = 0; i < length; ++i) {
    if (i) out += ':';
    out += hex[digest[i] >> 4];
    out += hex[digest[i] & 15];
  }
  return out;
}

std::string normalizedFingerprint(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (std::isxdigit(static_cast<unsigned char>(c))) {
      if (!out.empty() && out.size() % 3 == 2) out += ':';
      out += static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
    }
  }
  return out;
}

// The system's trust store, an optional extra CA file, and optionally one
// certificate trusted by its fingerprint. A certificate refused as untrusted
// leaves its fingerprint in `refused`, for a message that says how to trust it.
std::unique_ptr<ssl::context> makeTlsContext(
    const std::string& extraCaFile, const std::string& trustedSha256,
    std::shared_ptr<Guarded<std::optional<std::string>>> refused) {
  auto context = std::make_unique<ssl::context>(ssl::context::tls_client);
  try {
    context->set_default_verify_paths();
    if (!extraCaFile.empty()) context->load_verify_file(extraCaFile);
    context->set_verify_mode(ssl::verify_peer);
    context->set_verify_callback([pinned = normalizedFingerprint(trustedSha256), refused](
                                     bool preverified, ssl::verify_context& verify) {
      // The chain is checked from its root down to the server's own
      // certificate, which is the one a fingerprint names.
      X509* leaf = X509_STORE_CTX_get0_cert(verify.native_handle());
      const std::string offered = sha256Fingerprint(leaf);
      if (!pinned.empty() && offered == pinned) return true;
      if (!preverified) *refused->lock() = offered;
      return preverified;
    });
  } catch (const boost::system::system_error& error) {
    throw SignalingTransportError::transportFailed("tls", describe(error.code()));
  }
  return context;
}

// SNI and the certificate's name (or IP address) check, by OpenSSL itself.
void configureTlsPeer(SSL* handle, const std::string& host) {
  X509_VERIFY_PARAM* param = SSL_get0_param(handle);
  if (isIpLiteral(host)) {
    if (X509_VERIFY_PARAM_set1_ip_asc(param, host.c_str()) != 1) {
      throw SignalingTransportError::transportFailed("tls", "cannot check address " + host);
    }
    return;
  }
  if (SSL_set_tlsext_host_name(handle, host.c_str()) != 1 ||
      SSL_set1_host(handle, host.c_str()) != 1) {
    throw SignalingTransportError::transportFailed("tls", "cannot check host name " + host);
  }
}

using Endpoints = std::vector<asio::ip::tcp::endpoint>;

// getaddrinfo cannot be interrupted, and Asio's resolver joins its lookup
// thread when its context goes away, so a dead DNS server would hold both a
// time-out and close(). glibc's asynchronous lookup runs on a helper thread
// of its own instead: the caller polls it, and a lookup that the caller has
// given up frees itself when it completes.
class NameLookup {
 public:
  NameLookup(const std::string& host, const std::string& port)
      : state_(std::make_shared<State>(host, port)) {
    auto* keep = new std::shared_ptr<State>(state_);
    sigevent event{};
    event.sigev_notify = SIGEV_THREAD;
    event.sigev_notify_function = &NameLookup::finished;
    event.sigev_value.sival_ptr = keep;
    gaicb* list[] = {&state_->request};
    if (int error = getaddrinfo_a(GAI_NOWAIT, list, 1, &event); error != 0) {
      delete keep;
      throw SignalingTransportError::transportFailed("resolve", gai_strerror(error));
    }
  }

  // The addresses once the lookup is over, nothing while it runs.
  std::optional<Endpoints> poll() const {
    if (!state_->done.load(std::memory_order_acquire)) return std::nullopt;
    if (int error = gai_error(&state_->request); error != 0) {
      throw SignalingTransportError::transportFailed(
          "resolve",
          state_->host + ": " + (error == EAI_SYSTEM ? std::strerror(errno) : gai_strerror(error)));
    }
    Endpoints endpoints;
    for (const addrinfo* info = state_->request.ar_result; info; info = info->ai_next) {
      asio::ip::tcp::endpoint endpoint;
      if ((info->ai_family != AF_INET && info->ai_family != AF_INET6) ||
          info->ai_addrlen > endpoint.capacity()) {
        continue;
      }
      std::memcpy(endpoint.data(), info->ai_addr, info->ai_addrlen);
      endpoint.resize(info->ai_addrlen);
      endpoints.push_back(endpoint);
    }
    if (endpoints.empty()) {
      throw SignalingTransportError::transportFailed("resolve", state_->host + ": no address");
    }
    return endpoints;
  }

 private:
  struct State {
    State(std::string hostName, std::string portText)
        : host(std::move(hostName)), port(std::move(portText)) {
      hints.ai_family = AF_UNSPEC;
      hints.ai_socktype = SOCK_STREAM;
      hints.ai_flags = AI_ADDRCONFIG;
      request.ar_name = host.c_str();
      request.ar_service = port.c_str();
      request.ar_request = &hints;
    }
    ~State() {
      if (request.ar_result) freeaddrinfo(request.ar_result);
    }
    const std::string host;
    const std::string port;
    addrinfo hints{};
    gaicb request{};
    std::atomic<bool> done{false};
  };

  static void finished(sigval value) {
    auto* keep = static_cast<std::shared_ptr<State>*>(value.sival_ptr);
    (*keep)->done.store(true, std::memory_order_release);
    delete keep;
  }

  std::shared_ptr<State> state_;
};

// The server's addresses; empty when `stopped` turned true first. Fails with
// a transport error after `deadline`.
asio::awaitable<Endpoints> resolve(const SignalingUrl& url,
                                   std::chrono::steady_clock::time_point deadline,
                                   std::function<bool()> stopped) {
  NameLookup lookup(url.host, *url.effectivePort());
  asio::steady_timer pause(co_await asio::this_coro::executor);
  for (;;) {
    if (auto endpoints = lookup.poll()) co_return std::move(*endpoints);
    if (stopped()) co_return Endpoints{};
    if (std::chrono::steady_clock::now() >= deadline) {
      throw SignalingTransportError::transportFailed("resolve", "timed out");
    }
    pause.expires_after(lookupPollInterval);
    co_await pause.async_wait(use_awaitable);
  }
}

[[noreturn]] void rethrowAsTransport(const std::string& operation) {
  try {
    throw;
  } catch (const boost::system::system_error& error) {
    throw SignalingTransportError::transportFailed(operation, describe(error.code()));
  }
}

using TcpStream = beast::tcp_stream;
using TlsStream = beast::ssl_stream<beast::tcp_stream>;

template <class Stream>
TcpStream& tcpOf(Stream& stream) {
  return beast::get_lowest_layer(stream);
}

struct HttpResult {
  int status = 0;
  std::string body;
};

template <class Stream>
asio::awaitable<HttpResult> postJson(Stream& stream, const SignalingUrl& url, std::string body) {
  std::string operation = "resolve";
  try {
    // The caller bounds the whole request and ends it on close().
    auto endpoints =
        co_await resolve(url, std::chrono::steady_clock::time_point::max(), [] { return false; });
    operation = "connect";
    co_await tcpOf(stream).async_connect(endpoints, use_awaitable);
    if constexpr (std::is_same_v<Stream, TlsStream>) {
      operation = "tls";
      configureTlsPeer(stream.native_handle(), url.host);
      co_await stream.async_handshake(ssl::stream_base::client, use_awaitable);
    }
    operation = "send";
    http::request<http::string_body> request{http::verb::post, url.target(), 11};
    request.set(http::field::host, hostHeader(url));
    request.set(http::field::user_agent, userAgent);
    request.set(http::field::content_type, "application/json");
    request.body() = std::move(body);
    request.prepare_payload();
    co_await http::async_write(stream, request, use_awaitable);
    operation = "receive";
    beast::flat_buffer buffer;
    http::response_parser<http::string_body> parser;
    parser.body_limit(1 << 20);
    try {
      co_await http::async_read(stream, buffer, parser, use_awaitable);
    } catch (const boost::system::system_error& error) {
      // Bytes that are not an HTTP response.
      if (error.code().category() == http::make_error_code(http::error::bad_version).category() &&
          error.code() != http::error::end_of_stream) {
        throw SignalingError::pairingRequestFailed(0);
      }
      throw;
    }
    HttpResult result{static_cast<int>(parser.get().result_int()), parser.get().body()};
    if constexpr (std::is_same_v<Stream, TlsStream>) {
      try {
        co_await stream.async_shutdown(use_awaitable);
      } catch (const boost::system::system_error&) {
        // Many servers close without a TLS close_notify; the reply is complete.
      }
    } else {
      boost::system::error_code ignored;
      tcpOf(stream).socket().shutdown(asio::ip::tcp::socket::shutdown_both, ignored);
    }
    co_return result;
  } catch (const boost::system::system_error&) {
    rethrowAsTransport(operation);
  }
}

}  // namespace

// One run's connection, driven by one io_context on the thread in run().
class RunControl {
 public:
  virtual ~RunControl() = default;
  // Ends the run: stops the periodic round, sends a close frame after any
  // pending message, then closes. Called on the run's own context.
  virtual void cancel() = 0;
  // Sends a message made on another thread (posted to the run's context);
  // dropped when the run is ending.
  virtual void enqueue(std::string text) = 0;
};

struct AgentSignalingClient::Impl {
  Impl(AgentSignalingClient& owner, std::string baseUrl,
       std::shared_ptr<const IdentityKeyStore> identity,
       std::shared_ptr<const PairingService> pairing, std::shared_ptr<SignalingPeer> peer,
       TrustedDeviceStore trustedDevices, Options options)
      : baseUrl(std::move(baseUrl)),
        identity(std::move(identity)),
        pairing(std::move(pairing)),
        peer(peer),
        trustedDevices(trustedDevices),
        options(std::move(options)),
        handler(this->pairing, std::move(peer), std::move(trustedDevices), owner,
                this->options.now) {
    if (!this->options.randomBytes) this->options.randomBytes = systemRandomBytes;
    handler.setSendFromAnyThread([this](const std::string& text) { sendFromAnyThread(text); });
  }

  void sendFromAnyThread(const std::string& text) {
    std::lock_guard lock(mutex);
    if (!runContext || !activeRun) throw SignalingError::notConnected();
    asio::post(*runContext, [run = activeRun, text] { run->enqueue(text); });
  }

  IdentityProof freshProof() const {
    return makeAgentIdentityProof(*identity, unixSeconds(options.now()), options.randomBytes(24));
  }

  // For each new connection: a refusal reported is that connection's.
  ssl::context& tlsContext() {
    refused->lock()->reset();
    std::lock_guard lock(mutex);
    if (!tls) tls = makeTlsContext(options.extraCaFile, options.trustedCertificateSha256, refused);
    return *tls;
  }

  template <class Ws>
  void serve(asio::io_context& context, Ws& ws, const SignalingUrl& url);

  // Runs one pairing request to its end on a private context: at most the
  // pairing time-out, and no longer than close().
  template <class T>
  T runPairing(asio::awaitable<T> task) {
    asio::io_context context;
    {
      std::lock_guard lock(mutex);
      if (closed) throw SignalingTransportError::transportFailed("pairing", "closed");
      pairingContexts.push_back(&context);
    }
    std::optional<T> result;
    std::exception_ptr failure;
    bool done = false;
    asio::co_spawn(context, std::move(task), [&](std::exception_ptr error, T value) {
      done = true;
      if (error) {
        failure = error;
      } else {
        result = std::move(value);
      }
    });
    context.run_for(options.pairingTimeout);
    bool wasClosed = false;
    {
      std::lock_guard lock(mutex);
      std::erase(pairingContexts, &context);
      wasClosed = closed;
    }
    if (!done) {
      throw SignalingTransportError::transportFailed("pairing", wasClosed ? "closed" : "timed out");
    }
    if (failure) std::rethrow_exception(failure);
    return std::move(*result);
  }

  const std::string baseUrl;
  const std::shared_ptr<const IdentityKeyStore> identity;
  const std::shared_ptr<const PairingService> pairing;
  const std::shared_ptr<SignalingPeer> peer;
  const TrustedDeviceStore trustedDevices;
  Options options;
  SignalingMessageHandler handler;

  std::mutex mutex;  // guards the fields below
  bool closed = false;
  asio::io_context* runContext = nullptr;
  std::shared_ptr<RunControl> activeRun;
  std::vector<asio::io_context*> pairingContexts;  // stopped by close()
  std::unique_ptr<ssl::context> tls;
  // The certificate the last refused handshake was offered.
  std::shared_ptr<Guarded<std::optional<std::string>>> refused =
      std::make_shared<Guarded<std::optional<std::string>>>();
};

namespace {

template <class Ws>
class WebSocketRun final : public RunControl {
 public:
  WebSocketRun(Ws& ws, SignalingMessageHandler& handler,
               const AgentSignalingClient::Options& options)
      : ws_(ws),
        handler_(handler),
        options_(options),
        syncTimer_(ws.get_executor()),
        writeSignal_(ws.get_executor()),
        graceTimer_(ws.get_executor()) {}

  bool connected() const { return connected_; }
  std::exception_ptr failure() const { return failure_; }

  // Looks the server up, connects and shakes hands, all within the connect
  // time-out.
  asio::awaitable<void> connect(const SignalingUrl& url) {
    const auto deadline = std::chrono::steady_clock::now() + options_.connectTimeout;
    std::string operation = "resolve";
    try {
      // A close() may come before or between the steps.
      if (cancelled_) co_return;
      auto endpoints = co_await resolve(url, deadline, [this] { return cancelled_; });
      if (cancelled_) co_return;
      operation = "connect";
      tcpOf(ws_).expires_at(deadline);
      co_await tcpOf(ws_).async_connect(endpoints, use_awaitable);
      if (cancelled_) co_return;
      if constexpr (std::is_same_v<typename Ws::next_layer_type, TlsStream>) {
        operation = "tls";
        configureTlsPeer(ws_.next_layer().native_handle(), url.host);
        co_await ws_.next_layer().async_handshake(ssl::stream_base::client, use_awaitable);
        if (cancelled_) co_return;
      }
      operation = "websocket handshake";
      tcpOf(ws_).expires_never();
      // Once open, a connection idle for half the idle time-out is pinged,
      // and one that stays silent for the whole of it is given up.
      websocket::stream_base::timeout timeouts{};
      timeouts.handshake_timeout = std::max<std::chrono::steady_clock::duration>(
          deadline - std::chrono::steady_clock::now(), std::chrono::milliseconds(1));
      timeouts.idle_timeout = options_.idleTimeout;
      timeouts.keep_alive_pings = true;
      ws_.set_option(timeouts);
      ws_.set_option(websocket::stream_base::decorator([](websocket::request_type& request) {
        request.set(http::field::user_agent, userAgent);
      }));
      ws_.read_message_max(SignalingMessageHandler::maxMessageBytes);
      websocket::response_type response;
      try {
        co_await ws_.async_handshake(response, hostHeader(url), url.target(), use_awaitable);
      } catch (const boost::system::system_error& error) {
        if (!cancelled_ && error.code() == websocket::error::upgrade_declined) {
          throw SignalingTransportError::transportFailed(
              operation, "HTTP status " + std::to_string(response.result_int()));
        }
        throw;
      }
      connected_ = true;
    } catch (const boost::system::system_error&) {
      if (cancelled_) co_return;
      rethrowAsTransport(operation);
    }
  }

  asio::awaitable<void> receive() {
    beast::flat_buffer buffer;
    while (!cancelled_) {
      try {
        co_await ws_.async_read(buffer, use_awaitable);
      } catch (const boost::system::system_error& error) {
        if (cancelled_) break;
        if (error.code() == websocket::error::message_too_big) {
          fail(std::make_exception_ptr(SignalingError::messageTooLarge()));
        } else if (error.code() == beast::error::timeout) {
          fail(std::make_exception_ptr(
              SignalingTransportError::transportFailed("receive", "the server went silent")));
        } else {
          fail(std::make_exception_ptr(
              SignalingTransportError::transportFailed("receive", describe(error.code()))));
        }
        break;
      }
      auto data = buffer.data();
      std::string message(static_cast<const char*>(data.data()), data.size());
      buffer.consume(buffer.size());
      try {
        handler_.handle(message, sender());
      } catch (...) {
        fail(std::current_exception());
        break;
      }
    }
    receiving_ = false;
    beginShutdown();
    if (!writing_) graceTimer_.cancel();
  }

  asio::awaitable<void> write() {
    for (;;) {
      if (!outbox_.empty()) {
        try {
          co_await ws_.async_write(asio::buffer(outbox_.front()), use_awaitable);
        } catch (const boost::system::system_error& error) {
          if (!cancelled_) {
            fail(std::make_exception_ptr(
                SignalingTransportError::transportFailed("send", describe(error.code()))));
          }
          break;
        }
        outbox_.pop_front();
        continue;
      }
      if (cancelled_) {
        try {
          co_await ws_.async_close(websocket::close_code::normal, use_awaitable);
        } catch (const boost::system::system_error&) {
          // The connection is going away either way.
        }
        break;
      }
      writeSignal_.expires_at(asio::steady_timer::time_point::max());
      try {
        co_await writeSignal_.async_wait(use_awaitable);
      } catch (const boost::system::system_error&) {
        // Woken by a new message or by the end of the run.
      }
    }
    writing_ = false;
    outbox_.clear();
    closeSocket();
    if (!receiving_) graceTimer_.cancel();
  }

  asio::awaitable<void> syncRevokedDevices() {
    while (!cancelled_) {
      try {
        handler_.syncRevokedDevices(sender());
      } catch (...) {
        // A failed round is ignored; the next one runs on schedule.
      }
      syncTimer_.expires_after(options_.revokedSyncPeriod);
      try {
        co_await syncTimer_.async_wait(use_awaitable);
      } catch (const boost::system::system_error&) {
        break;
      }
    }
  }

  void cancel() override {
    if (!connected_) {
      cancelled_ = true;
      closeSocket();
      return;
    }
    beginShutdown();
  }

  void enqueue(std::string text) override {
    if (!writing_) return;
    outbox_.push_back(std::move(text));
    writeSignal_.cancel();
  }

  // Called once connected, before the receive and write loops start.
  void startLoops() {
    receiving_ = true;
    writing_ = true;
  }

 private:
  SignalingMessageHandler::Send sender() {
    return [this](const std::string& text) {
      if (!writing_) throw SignalingError::notConnected();
      outbox_.push_back(text);
      writeSignal_.cancel();
    };
  }

  void fail(std::exception_ptr error) {
    if (!failure_) failure_ = error;
  }

  // Stops the periodic round and lets the writer send its close frame; a
  // server that does not answer it within the grace period is cut off.
  void beginShutdown() {
    if (cancelled_) return;
    cancelled_ = true;
    syncTimer_.cancel();
    writeSignal_.cancel();
    graceTimer_.expires_after(options_.closeTimeout);
    graceTimer_.async_wait([this](const boost::system::error_code& error) {
      if (!error) closeSocket();
    });
  }

  void closeSocket() {
    boost::system::error_code ignored;
    tcpOf(ws_).socket().close(ignored);
  }

  Ws& ws_;
  SignalingMessageHandler& handler_;
  const AgentSignalingClient::Options& options_;
  asio::steady_timer syncTimer_;
  asio::steady_timer writeSignal_;
  asio::steady_timer graceTimer_;
  std::deque<std::string> outbox_;
  bool cancelled_ = false;
  bool connected_ = false;
  bool receiving_ = false;
  bool writing_ = false;
  std::exception_ptr failure_;
};

}  // namespace

template <class Ws>
void AgentSignalingClient::Impl::serve(asio::io_context& context, Ws& ws, const SignalingUrl& url) {
  auto run = std::make_shared<WebSocketRun<Ws>>(ws, handler, options);
  {
    std::lock_guard lock(mutex);
    if (closed) return;
    runContext = &context;
    activeRun = run;
  }
  struct Unregister {
    Impl& impl;
    ~Unregister() {
      std::lock_guard lock(impl.mutex);
      impl.runContext = nullptr;
      impl.activeRun.reset();
    }
  } unregister{*this};

  // The context stops when the connection's coroutines have all ended, even
  // if a library timer (the handshake's) is still pending.
  std::exception_ptr failure;
  int running = 1;
  auto record = [&failure, &running, &context](std::exception_ptr error) {
    if (error && !failure) failure = error;
    if (--running == 0) context.stop();
  };
  asio::co_spawn(
      context,
      [&]() -> asio::awaitable<void> {
        co_await run->connect(url);
        if (!run->connected()) co_return;
        handler.reportStatus("connected");
        run->startLoops();
        auto executor = co_await asio::this_coro::executor;
        running += 2;
        asio::co_spawn(executor, run->write(), record);
        asio::co_spawn(executor, run->syncRevokedDevices(), record);
        co_await run->receive();
      },
      record);
  context.run();
  if (run->connected()) handler.reportStatus("disconnected");
  if (!failure) failure = run->failure();
  if (failure) std::rethrow_exception(failure);
}

AgentSignalingClient::AgentSignalingClient(std::string signalingBaseURL,
                                           std::shared_ptr<const IdentityKeyStore> identity,
                                           std::shared_ptr<const PairingService> pairing,
                                           std::shared_ptr<SignalingPeer> peer,
                                           TrustedDeviceStore trustedDevices, Options options)
    : impl_(std::make_unique<Impl>(*this, std::move(signalingBaseURL), std::move(identity),
                                   std::move(pairing), std::move(peer), std::move(trustedDevices),
                                   std::move(options))) {}

AgentSignalingClient::AgentSignalingClient(std::string signalingBaseURL,
                                           std::shared_ptr<const IdentityKeyStore> identity,
                                           std::shared_ptr<const PairingService> pairing,
                                           std::shared_ptr<SignalingPeer> peer,
                                           TrustedDeviceStore trustedDevices)
    : AgentSignalingClient(std::move(signalingBaseURL), std::move(identity), std::move(pairing),
                           std::move(peer), std::move(trustedDevices), Options{}) {}

AgentSignalingClient::~AgentSignalingClient() { close(); }

PairingQrPayload AgentSignalingClient::createPairing() {
  auto payload =
      impl_->pairing->begin(zul::rendezvousUrl(impl_->baseUrl, impl_->identity->agentId()),
                            impl_->peer->dtlsFingerprint());
  const auto localExpiry = payload.expiresAt;
  auto proof = impl_->freshProof();
  Json body = {
      {"agentId", payload.agentId},
      {"agentPublicKey", payload.agentPublicKey},
      {"ephemeralX25519PublicKey", payload.ephemeralX25519PublicKey},
      {"dtlsFingerprint", payload.dtlsFingerprint},
      {"fingerprintSignature", payload.fingerprintSignature},
      {"timestamp", proof.timestamp},
      {"nonce", proof.nonce},
      {"identitySignature", proof.signature},
  };
  auto postUrl = signalingHttpUrl(impl_->baseUrl, "/v1/pairing");
  auto url = SignalingUrl::parse(postUrl);
  if (!url || (url->scheme != "http" && url->scheme != "https")) {
    throw SignalingError::invalidSignalingURL(postUrl);
  }

  HttpResult result;
  if (url->usesTls()) {
    auto& tls = impl_->tlsContext();
    result = impl_->runPairing([&]() -> asio::awaitable<HttpResult> {
      TlsStream stream(co_await asio::this_coro::executor, tls);
      co_return co_await postJson(stream, *url, body.dump());
    }());
  } else {
    result = impl_->runPairing([&]() -> asio::awaitable<HttpResult> {
      TcpStream stream(co_await asio::this_coro::executor);
      co_return co_await postJson(stream, *url, body.dump());
    }());
  }
  if (result.status < 200 || result.status > 299) {
    throw SignalingError::pairingRequestFailed(result.status);
  }

  Json reply = Json::parse(result.body, nullptr, /*allow_exceptions=*/false);
  if (!reply.is_object()) throw SignalingError::malformedPairingResponse();
  auto secret = reply.find("secret");
  auto expiresAt = reply.find("expiresAt");
  if (secret == reply.end() || !secret->is_string() || expiresAt == reply.end() ||
      !expiresAt->is_number()) {
    throw SignalingError::malformedPairingResponse();
  }
  payload.pairingSecret = secret->get<std::string>();
  if (expiresAt->is_number_float()) {
    double value = expiresAt->get<double>();
    // Outside the 64-bit range a cast is undefined; such a reply is malformed.
    if (!(value > -9.2e18 && value < 9.2e18)) throw SignalingError::malformedPairingResponse();
    payload.expiresAt = static_cast<std::int64_t>(value);
  } else if (expiresAt->is_number_unsigned() &&
             expiresAt->get<std::uint64_t>() > static_cast<std::uint64_t>(INT64_MAX)) {
    throw SignalingError::malformedPairingResponse();
  } else {
    payload.expiresAt = expiresAt->get<std::int64_t>();
  }
  // The offer lives no longer than one made here would: a server cannot
  // stretch the time in which a phone may pair.
  payload.expiresAt = std::min(payload.expiresAt, localExpiry);
  impl_->handler.addPairingOffer(payload.expiresAt);
  return payload;
}

void AgentSignalingClient::run() {
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->closed) return;
  }
  auto address = authenticatedRendezvousUrl(impl_->baseUrl, *impl_->identity, impl_->freshProof());
  auto url = SignalingUrl::parse(address);
  if (!url || (url->scheme != "ws" && url->scheme != "wss")) {
    throw SignalingError::invalidSignalingURL(address);
  }
  asio::io_context context;
  if (url->usesTls()) {
    websocket::stream<TlsStream> ws(context, impl_->tlsContext());
    impl_->serve(context, ws, *url);
  } else {
    websocket::stream<TcpStream> ws(context);
    impl_->serve(context, ws, *url);
  }
}

void AgentSignalingClient::close() {
  // Under the lock: a registered context is alive until it is unregistered.
  std::lock_guard lock(impl_->mutex);
  impl_->closed = true;
  if (impl_->runContext && impl_->activeRun) {
    asio::post(*impl_->runContext, [run = impl_->activeRun] { run->cancel(); });
  }
  for (auto* context : impl_->pairingContexts) context->stop();
}

std::optional<std::string> AgentSignalingClient::refusedCertificate() const {
  return *impl_->refused->lock();
}

}  // namespace zul
