#include "platform/host_paths.h"

#include <unistd.h>

#include <array>

std::string currentExecutablePath() {
  std::array<char, 4096> buffer{};
  ssize_t length = ::readlink("/proc/self/exe", buffer.data(), buffer.size() - 1);
  if (length <= 0) return {};
  return std::string(buffer.data(), static_cast<size_t>(length));
}
