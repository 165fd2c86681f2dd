#include "platform/console_user.h"

#include <systemd/sd-login.h>

#include <cstdlib>
#include <memory>
#include <string_view>

namespace {

using CString = std::unique_ptr<char, decltype(&std::free)>;

CString owned(char* text) {
  return CString(text, &std::free);
}

}  // namespace

std::optional<std::uint32_t> activeConsoleUser() {
  char* sessionText = nullptr;
  uid_t uid = 0;
  if (sd_seat_get_active("seat0", &sessionText, &uid) < 0 || sessionText == nullptr) {
    std::free(sessionText);
    return std::nullopt;
  }
  CString session = owned(sessionText);
  char* classText = nullptr;
  if (sd_session_get_class(session.get(), &classText) < 0 || classText == nullptr) {
    std::free(classText);
    return std::nullopt;
  }
  CString sessionClass = owned(classText);
  if (std::string_view(sessionClass.get()) == "greeter") return std::nullopt;
  return static_cast<std::uint32_t>(uid);
}
