#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "ZulCore/Support/Bytes.h"

// The text form of every binary field the agent puts into JSON or URLs:
// unpadded base64url (RFC 4648, section 5).
namespace zul::Base64Url {

// Never padded; an empty buffer gives the empty string.
std::string encode(const Bytes& data);

// Accepts the unpadded form and a correctly padded one. Anything else (a
// length of 1 modulo 4, whitespace, characters outside the alphabet, padding
// in the wrong place) gives nothing. "+" and "/" are read as their base64
// meaning, like "-" and "_".
std::optional<Bytes> decode(std::string_view text);

}  // namespace zul::Base64Url
