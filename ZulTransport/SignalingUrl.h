#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "ZulCore/Support/Bytes.h"

namespace zul {

class IdentityKeyStore;

// An absolute URL taken apart as far as the signalling client needs it.
struct SignalingUrl {
  std::string scheme;     // lower case
  std::string authority;  // as written: user info, host and port
  std::string host;       // without the brackets of an IPv6 literal
  std::string port;       // empty when not written
  std::string path;       // empty or starting with "/"
  std::string query;      // without the "?"

  // Nothing for text that is not "scheme://authority[path][?query][#fragment]"
  // with a host.
  static std::optional<SignalingUrl> parse(std::string_view text);

  // The port to connect to: the written one, else the scheme's default
  // (80 for http and ws, 443 for https and wss); nothing for another scheme.
  std::optional<std::string> effectivePort() const;
  bool usesTls() const { return scheme == "https" || scheme == "wss"; }
  // "path?query", or "/" for an empty path: the HTTP request target.
  std::string target() const;
  std::string text() const;
  // The authority without any user info: "host[:port]" as written.
  std::string hostAndPort() const;
};

// `text` fit to be printed: user info ("user:password@") becomes "***@" and a
// query becomes "?***", also in text that does not parse as a URL.
std::string redactedUrl(std::string_view text);

// The base URL with "wss"/"ws" mapped to "https"/"http" (other schemes kept),
// `path` as its path, no user info and no query. Throws SignalingError::invalidSignalingURL.
std::string signalingHttpUrl(std::string_view baseUrl, std::string_view path);

// The base URL with "https"/"http" mapped to "wss"/"ws" (other schemes kept),
// the path "/v1/rendezvous/" + agentId, no user info and no query: the QR
// code's signalUrl, so a password in the base URL never reaches a phone.
// Throws SignalingError::invalidSignalingURL.
std::string rendezvousUrl(std::string_view baseUrl, std::string_view agentId);

// "ZUL-SIGNALING-IDENTITY-1\n" role \n subjectId \n agentId \n timestamp \n
// nonce, no final line feed. The agent signs it with role "agent" and its own
// id as both subject and agent; a phone with role "phone" and its device id
// as the subject.
std::string identityProofTranscript(std::string_view role, std::string_view subjectId,
                                    std::string_view agentId, std::int64_t timestamp,
                                    std::string_view nonce);

struct IdentityProof {
  std::int64_t timestamp = 0;  // Unix seconds
  std::string nonce;           // Base64Url of 24 random bytes
  std::string signature;       // Base64Url of the Ed25519 signature over the transcript
};

// The agent's proof over its transcript. `nonceBytes` are the 24 fresh random
// bytes. Throws IdentityError when signing fails.
IdentityProof makeAgentIdentityProof(const IdentityKeyStore& identity, std::int64_t timestamp,
                                     const Bytes& nonceBytes);

// The rendezvous URL with the query items role=agent, agentId, publicKey,
// timestamp, nonce and signature, in that order, values percent-encoded.
// Throws SignalingError::invalidSignalingURL.
std::string authenticatedRendezvousUrl(std::string_view baseUrl, const IdentityKeyStore& identity,
                                       const IdentityProof& proof);

}  // namespace zul
