// HelperFirewall::HelperError: the firewall operations' own failures; what() is the one sentence
// the user sees. File system and encoding errors pass through with their own texts instead.
#pragma once

#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

namespace HelperFirewall {

class HelperError : public std::runtime_error {
 public:
  enum class Kind { decodeFailed, pfctlFailed, networksRefused };

  // "Could not read the firewall policy: <description>"
  static HelperError decodeFailed(const std::string& description);
  // "pfctl rejected the ruleset: <text>"
  static HelperError pfctlFailed(const std::string& text);
  // "<applied>\nNot enforced:\n- <refused 1>\n- <refused 2>..."
  static HelperError networksRefused(const std::string& applied,
                                     const std::vector<std::string>& refused);

  Kind kind() const { return kind_; }
  // The decoder's description or the pfctl text; for networksRefused the applied text.
  const std::string& detail() const { return detail_; }
  // The refused networks, rendered "<label>: <problem>" (networksRefused only).
  const std::vector<std::string>& refused() const { return refused_; }

 private:
  HelperError(Kind kind, const std::string& description, std::string detail,
              std::vector<std::string> refused = {})
      : std::runtime_error(description),
        kind_(kind),
        detail_(std::move(detail)),
        refused_(std::move(refused)) {}

  Kind kind_;
  std::string detail_;
  std::vector<std::string> refused_;
};

}  // namespace HelperFirewall
