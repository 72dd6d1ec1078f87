#pragma once

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

#include "ZulCore/Support/Error.h"

namespace zul {

// A message that arrived on a known channel with a valid envelope and a type
// that belongs there.
struct RoutedMessage {
  std::string channel;
  std::string type;
  std::string protoVersion;
  std::string sessionId;
  nlohmann::json json;  // the whole top-level object, envelope keys included
};

class MessageRouterError : public Error {
 public:
  enum class Case {
    unknownChannel,
    messageTooLarge,
    missingField,
    unsupportedProtocolMajor,
    typeNotAllowedOnChannel,
  };

  static MessageRouterError unknownChannel(std::string_view channel);
  static MessageRouterError messageTooLarge(std::string_view channel);
  static MessageRouterError missingField(std::string_view key);
  static MessageRouterError unsupportedProtocolMajor(std::string_view protoVersion);
  static MessageRouterError typeNotAllowedOnChannel(std::string_view type,
                                                    std::string_view channel);

  Case kind() const { return kind_; }
  // The payload texts in order (one, or type then channel).
  const std::string& first() const { return first_; }
  const std::string& second() const { return second_; }

  friend bool operator==(const MessageRouterError& a, const MessageRouterError& b) {
    return a.kind_ == b.kind_ && a.first_ == b.first_ && a.second_ == b.second_;
  }

 private:
  MessageRouterError(Case kind, std::string text, std::string first, std::string second = {})
      : Error(std::move(text)), kind_(kind), first_(std::move(first)), second_(std::move(second)) {}

  Case kind_;
  std::string first_;
  std::string second_;
};

namespace MessageRouter {

// Deeper JSON than this is refused by the decoder; real messages are shallow.
inline constexpr std::size_t maxJsonDepth = 64;

// Checks bytes received on a text channel, in order: known channel, size,
// JSON, object, envelope strings, protocol major, type allowed on the channel.
// Throws MessageRouterError, or nlohmann::json::parse_error when the body is
// not JSON.
RoutedMessage parse(std::string_view channel, std::string_view data);

bool typeBelongsToChannel(std::string_view channel, std::string_view type);

// The non-empty string under `key`, or missingField(key).
const std::string& requiredString(const nlohmann::json& object, std::string_view key);

// The envelope of every message the agent writes: type, "1.0", the session,
// and "ts" in milliseconds since 1970. Payload keys go beside these.
nlohmann::json makeEnvelope(std::string_view type, std::string_view sessionId);

// Unix time in milliseconds, as "ts" carries it.
std::int64_t currentTimestampMillis();

}  // namespace MessageRouter
}  // namespace zul
