// Base64: the standard alphabet with "=" padding (RFC 4648, section 4), as byte buffers travel
// in the helper's JSON frames. Pure functions; safe on any thread.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace Base64 {

// The encoding of `bytes`, padded to a multiple of four characters.
std::string encode(std::string_view bytes);

// The bytes `text` encodes; none when it is not canonical base64 (a length that is not a multiple
// of four, a character outside the alphabet, misplaced padding or non-zero padding bits).
std::optional<std::string> decode(std::string_view text);

}  // namespace Base64
