#include "pf_state.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <nlohmann/json.hpp>

#include "platform/files.h"
#include "platform/text.h"

const char* const pfStockMainRuleset =
    "scrub-anchor \"com.apple/*\" all fragment reassemble\n"
    "anchor \"com.apple/*\" all\n";

std::string pfAnchorFileName(const std::string& anchor) {
  std::string name;
  for (unsigned char c : anchor) {
    bool plain = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                 c == '-' || c == '_';
    if (plain) {
      name += static_cast<char>(c);
    } else {
      name += '%';
      name += "0123456789ABCDEF"[c >> 4];
      name += "0123456789ABCDEF"[c & 15];
    }
  }
  return name;
}

PfState::PfState(std::string directory) : directory_(std::move(directory)) {
  createDirectories(directory_);
  std::string lockPath = path("lock");
  lockDescriptor_ = ::open(lockPath.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
  if (lockDescriptor_ < 0) throw FileError("open", lockPath, errno);
  while (::flock(lockDescriptor_, LOCK_EX) != 0) {
    if (errno == EINTR) continue;
    int error = errno;
    ::close(lockDescriptor_);
    throw FileError("flock", lockPath, error);
  }
}

PfState::~PfState() {
  ::close(lockDescriptor_);
}

void PfState::recordInvocation(const std::vector<std::string>& arguments) {
  std::string record =
      nlohmann::json(arguments).dump(-1, ' ', false, nlohmann::json::error_handler_t::replace) +
      "\n";
  std::string logPath = path("invocations.jsonl");
  int fd = ::open(logPath.c_str(), O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC, 0644);
  if (fd < 0) throw FileError("open", logPath, errno);
  if (!writeAll(fd, record)) {
    int error = errno;
    ::close(fd);
    throw FileError("write", logPath, error);
  }
  ::close(fd);
}

bool PfState::enabled() const {
  auto flag = readFile(path("enabled"));
  return flag && trimWhitespaceAndNewlines(*flag) == "1";
}

void PfState::setEnabled(bool enabled) {
  writeFileAtomically(path("enabled"), enabled ? "1\n" : "0\n", 0644);
}

std::string PfState::mainRuleset() const {
  auto text = readFile(path("main.conf"));
  return text ? *text : pfStockMainRuleset;
}

std::optional<std::string> PfState::anchorRuleset(const std::string& anchor) const {
  return readFile(path("anchors/" + pfAnchorFileName(anchor)));
}

void PfState::setAnchorRuleset(const std::string& anchor, const std::string& text) {
  createDirectories(path("anchors"));
  writeFileAtomically(path("anchors/" + pfAnchorFileName(anchor)), text, 0644);
}

void PfState::flushAnchor(const std::string& anchor) {
  removeFile(path("anchors/" + pfAnchorFileName(anchor)));
}

std::vector<PfConnection> PfState::connections() const {
  std::vector<PfConnection> result;
  auto text = readFile(path("states"));
  if (!text) return result;
  for (std::string_view line : split(*text, '\n', false)) {
    size_t space = line.find(' ');
    if (space == std::string_view::npos) continue;
    result.emplace_back(std::string(line.substr(0, space)), std::string(line.substr(space + 1)));
  }
  return result;
}

void PfState::setConnections(const std::vector<PfConnection>& connections) {
  std::string text;
  for (const auto& [from, to] : connections) {
    text.append(from).append(" ").append(to).append("\n");
  }
  writeFileAtomically(path("states"), text, 0644);
}

int PfState::busyLoads() const {
  auto text = readFile(path("busy"));
  if (!text) return 0;
  try {
    return std::max(0, std::stoi(*text));
  } catch (const std::exception&) {
    return 0;
  }
}

void PfState::setBusyLoads(int count) {
  if (count <= 0) {
    removeFile(path("busy"));
  } else {
    writeFileAtomically(path("busy"), std::to_string(count) + "\n", 0644);
  }
}
