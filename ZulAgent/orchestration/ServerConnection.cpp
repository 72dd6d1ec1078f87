#include "ZulAgent/orchestration/ServerConnection.h"

#include <chrono>
#include <utility>

#include "ZulTransport/SignalingUrl.h"

namespace zul {

ServerConnection::ServerConnection(AgentSignalingClient& client, std::string serverUrl,
                                   Output output)
    : client_(client), serverUrl_(std::move(serverUrl)), output_(std::move(output)) {
  client_.onStatusChanged = [this](const std::string& text) { statusChanged(text); };
}

ServerConnection::~ServerConnection() { stop(); }

void ServerConnection::statusChanged(const std::string& text) {
  output_.print("signaling: " + text);
  if (text == "connected") {
    troubleReason_.lock()->clear();
    if (serverLost_.exchange(false)) {
      output_.event("server back: " + redactedUrl(serverUrl_));
      onServerBack();
    } else if (!serverSeen_.exchange(true)) {
      output_.event("connected to the server " + redactedUrl(serverUrl_));
    }
  }
  output_.status(text);
}

// A line when an outage begins (before the first connection, one per
// reason), and the reason for a window.
void ServerConnection::report(const std::string& reason, bool outageBegins) {
  output_.status("reconnecting: " + reason);
  const bool newReason = std::exchange(*troubleReason_.lock(), reason) != reason;
  if (serverSeen_ ? outageBegins : newReason) {
    output_.event((serverSeen_ ? "server lost: " : "cannot reach the server: ") + reason +
                  "; retrying every 2 s");
  }
}

void ServerConnection::start() {
  thread_ = std::thread([this] { loop(); });
}

void ServerConnection::loop() {
  while (!stopping_) {
    std::string reason = "the server closed the connection";
    try {
      client_.run();
    } catch (const std::exception& error) {
      reason = error.what();
    }
    if (stopping_) break;
    // Retrying cannot help a certificate that is not trusted: the person
    // must decide to trust it.
    if (const auto offered = client_.refusedCertificate()) {
      output_.event("the server's certificate is not trusted (SHA-256 " + *offered +
                    "); if it is yours, start the agent with ZUL_SERVER_CERT_SHA256=" + *offered +
                    ", or install the authority that signed it; not retrying");
      output_.status("error: untrusted certificate");
      break;
    }
    output_.print("signaling disconnected: " + reason + "; retrying");
    report(reason, serverSeen_ && !serverLost_.exchange(true));
    std::unique_lock lock(mutex_);
    wake_.wait_for(lock, std::chrono::seconds(2), [&] { return stopping_.load(); });
  }
}

void ServerConnection::stop() {
  {
    std::lock_guard lock(mutex_);
    stopping_ = true;
  }
  wake_.notify_all();
  client_.close();
  if (thread_.joinable()) thread_.join();
}

}  // namespace zul
