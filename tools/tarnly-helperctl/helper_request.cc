#include "helper_request.h"

#include <charconv>
#include <cstdint>
#include <nlohmann/json.hpp>

#include "platform/base64.h"
#include "service/helper_protocol.h"

namespace HelperRequest {

namespace {

using HelperProtocol::ArgumentKind;
using nlohmann::json;

const char* kindName(ArgumentKind kind) {
  switch (kind) {
    case ArgumentKind::text:
      return "TEXT";
    case ArgumentKind::tag:
      return "TAG";
    case ArgumentKind::boolean:
      return "true|false";
    case ArgumentKind::bytes:
      return "FILE|-";
  }
  return "?";
}

// A JSON string of `text`; a UsageError when it is not valid UTF-8.
json textValue(const std::string& text, std::size_t position) {
  json value = text;
  try {
    (void)value.dump();
  } catch (const json::type_error&) {
    throw UsageError("argument " + std::to_string(position) + " is not UTF-8 text");
  }
  return value;
}

json typedValue(ArgumentKind kind, const std::string& argument, std::size_t position,
                const BytesReader& readBytes) {
  switch (kind) {
    case ArgumentKind::text:
      return textValue(argument, position);
    case ArgumentKind::tag: {
      std::int64_t tag = 0;
      const char* end = argument.data() + argument.size();
      auto [stop, error] = std::from_chars(argument.data(), end, tag);
      if (argument.empty() || error != std::errc() || stop != end) {
        throw UsageError("argument " + std::to_string(position) + " (\"" + argument +
                         "\") is not a decimal signed 64-bit tag");
      }
      return tag;
    }
    case ArgumentKind::boolean:
      if (argument == "true") return true;
      if (argument == "false") return false;
      throw UsageError("argument " + std::to_string(position) + " (\"" + argument +
                       "\") is neither true nor false");
    case ArgumentKind::bytes: {
      std::optional<std::string> bytes = readBytes(argument);
      if (!bytes) {
        throw UsageError("cannot read " +
                         (argument == "-" ? std::string("standard input") : argument));
      }
      return Base64::encode(*bytes);
    }
  }
  throw UsageError("unknown argument kind");
}

}  // namespace

std::string build(std::string_view selector, const std::vector<std::string>& arguments,
                  const BytesReader& readBytes) {
  const HelperProtocol::Method* method = HelperProtocol::find(selector);
  if (method == nullptr) throw UsageError("unknown selector " + std::string(selector));
  if (arguments.size() != method->arguments.size()) {
    throw UsageError(std::string(selector) + " takes " + std::to_string(method->arguments.size()) +
                     " argument(s), not " + std::to_string(arguments.size()));
  }
  json args = json::array();
  for (std::size_t i = 0; i < arguments.size(); ++i) {
    args.push_back(typedValue(method->arguments[i], arguments[i], i + 1, readBytes));
  }
  return json{{"method", selector}, {"args", args}}.dump();
}

Answer interpret(std::string_view payload) {
  json answer = json::parse(payload, nullptr, false);
  if (answer.is_object()) {
    auto reply = answer.find("reply");
    if (reply != answer.end() && reply->is_array()) {
      return {true, reply->dump(-1, ' ', false, json::error_handler_t::replace)};
    }
    auto fault = answer.find("fault");
    if (fault != answer.end() && fault->is_string()) {
      return {false, "the helper refused the request: " + fault->get<std::string>()};
    }
  }
  return {false, "the helper's answer is neither a reply nor a fault"};
}

std::string usage() {
  std::string text =
      "usage: tarnly-helperctl [--socket PATH] SELECTOR [ARG...]\n"
      "Sends one request to TarnlyAdminHelper and prints the reply values as one line of JSON\n"
      "(byte buffers in base64). TAG is a decimal signed 64-bit integer; FILE is a path, - for\n"
      "standard input. Exit status: 0 replied, 1 refused or disconnected, 2 usage.\n"
      "Selectors:\n";
  for (const HelperProtocol::Method& method : HelperProtocol::methods()) {
    text += "  " + std::string(method.selector);
    for (ArgumentKind kind : method.arguments) text += std::string(" ") + kindName(kind);
    text += "\n";
  }
  return text;
}

}  // namespace HelperRequest
