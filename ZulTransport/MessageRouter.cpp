#include "ZulTransport/MessageRouter.h"

#include <array>
#include <chrono>

#include "ZulTransport/DataChannelCatalog.h"

namespace zul {

MessageRouterError MessageRouterError::unknownChannel(std::string_view channel) {
  return {Case::unknownChannel, formatErrorCase("unknownChannel", {field(channel)}),
          std::string(channel)};
}
MessageRouterError MessageRouterError::messageTooLarge(std::string_view channel) {
  return {Case::messageTooLarge, formatErrorCase("messageTooLarge", {field(channel)}),
          std::string(channel)};
}
MessageRouterError MessageRouterError::missingField(std::string_view key) {
  return {Case::missingField, formatErrorCase("missingField", {field(key)}), std::string(key)};
}
MessageRouterError MessageRouterError::unsupportedProtocolMajor(std::string_view protoVersion) {
  return {Case::unsupportedProtocolMajor,
          formatErrorCase("unsupportedProtocolMajor", {field(protoVersion)}),
          std::string(protoVersion)};
}
MessageRouterError MessageRouterError::typeNotAllowedOnChannel(std::string_view type,
                                                               std::string_view channel) {
  return {Case::typeNotAllowedOnChannel,
          formatErrorCase("typeNotAllowedOnChannel", {field(type), field(channel)}),
          std::string(type), std::string(channel)};
}

namespace MessageRouter {
namespace {

[[noreturn]] void throwDecodeError(std::size_t byte, const std::string& what) {
  throw nlohmann::json::parse_error::create(101, byte, what, nullptr);
}

// Bounds the nesting before the decoder sees the text, so a hostile message
// under the size limit cannot make decoding, copying or freeing it recurse
// deeply.
void checkNesting(std::string_view data) {
  std::size_t depth = 0;
  bool inString = false;
  bool escaped = false;
  for (std::size_t i = 0; i < data.size(); ++i) {
    const char c = data[i];
    if (inString) {
      if (escaped) {
        escaped = false;
      } else if (c == '\\') {
        escaped = true;
      } else if (c == '"') {
        inString = false;
      }
      continue;
    }
    if (c == '"') {
      inString = true;
    } else if (c == '[' || c == '{') {
      if (++depth > maxJsonDepth) throwDecodeError(i + 1, "nesting deeper than 64 levels");
    } else if ((c == ']' || c == '}') && depth > 0) {
      --depth;
    }
  }
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

}  // namespace

const std::string& requiredString(const nlohmann::json& object, std::string_view key) {
  auto it = object.find(key);
  if (it == object.end() || !it->is_string() || it->get_ref<const std::string&>().empty()) {
    throw MessageRouterError::missingField(key);
  }
  return it->get_ref<const std::string&>();
}

bool typeBelongsToChannel(std::string_view channel, std::string_view type) {
  if (channel == "input-fast") {
    static constexpr std::array<std::string_view, 4> fast = {"input.cursor", "input.drag",
                                                             "input.scroll", "input.pinch"};
    for (auto t : fast) {
      if (type == t) return true;
    }
    return false;
  }
  if (channel == "input") return startsWith(type, "input.");
  if (channel == "scene") return startsWith(type, "scene.");
  if (channel == "control") {
    return startsWith(type, "control.") || type == "profile.bundle" || startsWith(type, "shell.");
  }
  if (channel == "files") return startsWith(type, "files.");
  return false;
}

RoutedMessage parse(std::string_view channel, std::string_view data) {
  const DataChannelSpec* spec = DataChannelCatalog::spec(channel);
  if (!spec) throw MessageRouterError::unknownChannel(channel);
  if (static_cast<std::int64_t>(data.size()) > spec->maxMessageBytes) {
    throw MessageRouterError::messageTooLarge(channel);
  }

  checkNesting(data);
  nlohmann::json json = nlohmann::json::parse(data);
  // Like a strict decoder, a bare string or number is not a document.
  if (!json.is_object() && !json.is_array()) throwDecodeError(0, "top-level value is a fragment");
  if (!json.is_object()) throw MessageRouterError::missingField("<body>");

  std::string type = requiredString(json, "type");
  std::string protoVersion = requiredString(json, "protoVersion");
  std::string sessionId = requiredString(json, "sessionId");
  if (!startsWith(protoVersion, "1.")) {
    throw MessageRouterError::unsupportedProtocolMajor(protoVersion);
  }
  if (!typeBelongsToChannel(channel, type)) {
    throw MessageRouterError::typeNotAllowedOnChannel(type, channel);
  }
  return RoutedMessage{std::string(channel), std::move(type), std::move(protoVersion),
                       std::move(sessionId), std::move(json)};
}

std::int64_t currentTimestampMillis() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

nlohmann::json makeEnvelope(std::string_view type, std::string_view sessionId) {
  return nlohmann::json{{"type", type},
                        {"protoVersion", "1.0"},
                        {"sessionId", sessionId},
                        {"ts", currentTimestampMillis()}};
}

}  // namespace MessageRouter
}  // namespace zul
