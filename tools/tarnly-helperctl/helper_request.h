// HelperRequest: turns a selector and its command-line arguments into the helper's request frame
// payload, typed by the protocol table, and reads the helper's answer back. Pure functions apart
// from the byte-buffer reader they are given; safe on any thread.
#pragma once

#include <functional>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace HelperRequest {

// A request that must not be sent: unknown selector, wrong number or type of arguments, an
// unreadable byte-buffer file. The text is one line for standard error.
class UsageError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Reads a byte-buffer argument: a file path, or "-" for standard input; none when it cannot.
using BytesReader = std::function<std::optional<std::string>(const std::string&)>;

// The JSON payload {"method": selector, "args": [...]}: texts as given (they must be UTF-8), the
// tag a decimal signed 64-bit integer, booleans "true" or "false", byte buffers read with
// `readBytes` and sent as base64. Throws UsageError.
std::string build(std::string_view selector, const std::vector<std::string>& arguments,
                  const BytesReader& readBytes);

// What the helper answered.
struct Answer {
  bool ok = false;
  // ok: the reply array as one line of JSON. Otherwise: why there is no reply, one line.
  std::string line;
};

// Reads a reply payload: {"reply": [...]} is ok; {"fault": "..."} and anything else are not.
Answer interpret(std::string_view payload);

// The usage text: the command line, then every selector with its arguments' kinds.
std::string usage();

}  // namespace HelperRequest
