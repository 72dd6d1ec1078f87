#include "ZulTransport/SignalingUrl.h"

#include <algorithm>
#include <cctype>

#include "ZulCore/Trust/Base64Url.h"
#include "ZulCore/Trust/IdentityKeyStore.h"
#include "ZulCore/Trust/PairingService.h"
#include "ZulTransport/SignalingError.h"

namespace zul {

namespace {

bool isSchemeChar(char c) {
  return std::isalnum(static_cast<unsigned char>(c)) || c == '+' || c == '-' || c == '.';
}

bool isPort(std::string_view text) {
  return !text.empty() && text.size() <= 5 && std::all_of(text.begin(), text.end(), [](char c) {
    return std::isdigit(static_cast<unsigned char>(c));
  });
}

std::string lowered(std::string_view text) {
  std::string out(text);
  std::transform(out.begin(), out.end(), out.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return out;
}

bool hasControlOrSpace(std::string_view text) {
  return std::any_of(text.begin(), text.end(),
                     [](unsigned char c) { return c <= 0x20 || c == 0x7f; });
}

SignalingUrl parseOrThrow(std::string_view baseUrl) {
  auto url = SignalingUrl::parse(baseUrl);
  if (!url) throw SignalingError::invalidSignalingURL(redactedUrl(baseUrl));
  url->authority = url->hostAndPort();
  return *url;
}

}  // namespace

std::optional<SignalingUrl> SignalingUrl::parse(std::string_view text) {
  if (hasControlOrSpace(text)) return std::nullopt;
  auto schemeEnd = text.find("://");
  if (schemeEnd == std::string_view::npos || schemeEnd == 0) return std::nullopt;
  auto scheme = text.substr(0, schemeEnd);
  if (!std::isalpha(static_cast<unsigned char>(scheme[0])) ||
      !std::all_of(scheme.begin(), scheme.end(), isSchemeChar)) {
    return std::nullopt;
  }
  SignalingUrl url;
  url.scheme = lowered(scheme);
  auto rest = text.substr(schemeEnd + 3);
  if (auto hash = rest.find('#'); hash != std::string_view::npos) rest = rest.substr(0, hash);
  auto authorityEnd = rest.find_first_of("/?");
  url.authority = std::string(rest.substr(0, authorityEnd));
  rest = authorityEnd == std::string_view::npos ? std::string_view{} : rest.substr(authorityEnd);
  auto queryStart = rest.find('?');
  url.path = std::string(rest.substr(0, queryStart));
  if (queryStart != std::string_view::npos) url.query = std::string(rest.substr(queryStart + 1));

  std::string_view hostPort = url.authority;
  if (auto at = hostPort.rfind('@'); at != std::string_view::npos)
    hostPort = hostPort.substr(at + 1);
  if (!hostPort.empty() && hostPort.front() == '[') {
    auto close = hostPort.find(']');
    if (close == std::string_view::npos || close == 1) return std::nullopt;
    url.host = std::string(hostPort.substr(1, close - 1));
    auto after = hostPort.substr(close + 1);
    if (!after.empty()) {
      if (after.front() != ':' || !isPort(after.substr(1))) return std::nullopt;
      url.port = std::string(after.substr(1));
    }
  } else {
    auto colon = hostPort.rfind(':');
    if (colon != std::string_view::npos) {
      if (!isPort(hostPort.substr(colon + 1))) return std::nullopt;
      url.port = std::string(hostPort.substr(colon + 1));
      hostPort = hostPort.substr(0, colon);
    }
    if (hostPort.find_first_of("[]") != std::string_view::npos) return std::nullopt;
    url.host = std::string(hostPort);
  }
  if (url.host.empty()) return std::nullopt;
  if (!url.port.empty() && std::stoi(url.port) > 65535) return std::nullopt;
  return url;
}

std::optional<std::string> SignalingUrl::effectivePort() const {
  if (!port.empty()) return port;
  if (scheme == "http" || scheme == "ws") return "80";
  if (scheme == "https" || scheme == "wss") return "443";
  return std::nullopt;
}

std::string SignalingUrl::target() const {
  std::string out = path.empty() ? "/" : path;
  if (!query.empty()) out += "?" + query;
  return out;
}

std::string SignalingUrl::text() const {
  std::string out = scheme + "://" + authority + path;
  if (!query.empty()) out += "?" + query;
  return out;
}

std::string SignalingUrl::hostAndPort() const {
  auto at = authority.rfind('@');
  return at == std::string::npos ? authority : authority.substr(at + 1);
}

std::string redactedUrl(std::string_view text) {
  const auto schemeEnd = text.find("://");
  const std::size_t authorityStart = schemeEnd == std::string_view::npos ? 0 : schemeEnd + 3;
  std::string out(text.substr(0, authorityStart));
  auto rest = text.substr(authorityStart);
  const auto authorityEnd = rest.find_first_of("/?#");
  const auto authority = rest.substr(0, authorityEnd);
  if (auto at = authority.rfind('@'); at != std::string_view::npos) {
    out += "***@";
    rest = rest.substr(at + 1);
  }
  const auto pathEnd = rest.find_first_of("?#");
  out.append(rest.substr(0, pathEnd));
  if (pathEnd != std::string_view::npos && rest[pathEnd] == '?') out += "?***";
  return out;
}

std::string signalingHttpUrl(std::string_view baseUrl, std::string_view path) {
  auto url = parseOrThrow(baseUrl);
  if (url.scheme == "wss") url.scheme = "https";
  if (url.scheme == "ws") url.scheme = "http";
  url.path = std::string(path);
  url.query.clear();
  return url.text();
}

std::string rendezvousUrl(std::string_view baseUrl, std::string_view agentId) {
  auto url = parseOrThrow(baseUrl);
  if (url.scheme == "https") url.scheme = "wss";
  if (url.scheme == "http") url.scheme = "ws";
  url.path = "/v1/rendezvous/" + std::string(agentId);
  url.query.clear();
  return url.text();
}

std::string identityProofTranscript(std::string_view role, std::string_view subjectId,
                                    std::string_view agentId, std::int64_t timestamp,
                                    std::string_view nonce) {
  std::string transcript = "ZUL-SIGNALING-IDENTITY-1\n";
  transcript.append(role).append("\n");
  transcript.append(subjectId).append("\n");
  transcript.append(agentId).append("\n");
  transcript.append(std::to_string(timestamp)).append("\n");
  transcript.append(nonce);
  return transcript;
}

IdentityProof makeAgentIdentityProof(const IdentityKeyStore& identity, std::int64_t timestamp,
                                     const Bytes& nonceBytes) {
  IdentityProof proof;
  proof.timestamp = timestamp;
  proof.nonce = Base64Url::encode(nonceBytes);
  auto transcript = identityProofTranscript("agent", identity.agentId(), identity.agentId(),
                                            timestamp, proof.nonce);
  proof.signature = Base64Url::encode(identity.sign(toBytes(transcript)));
  return proof;
}

std::string authenticatedRendezvousUrl(std::string_view baseUrl, const IdentityKeyStore& identity,
                                       const IdentityProof& proof) {
  auto url = parseOrThrow(rendezvousUrl(baseUrl, identity.agentId()));
  const std::pair<const char*, std::string> items[] = {
      {"role", "agent"},
      {"agentId", identity.agentId()},
      {"publicKey", Base64Url::encode(identity.publicKey())},
      {"timestamp", std::to_string(proof.timestamp)},
      {"nonce", proof.nonce},
      {"signature", proof.signature},
  };
  for (const auto& [name, value] : items) {
    if (!url.query.empty()) url.query += "&";
    url.query += name;
    url.query += "=";
    url.query += percentEncodeQueryValue(value);
  }
  return url.text();
}

}  // namespace zul
