#include "support/pf_simulator.h"

#include <fcntl.h>
#include <sys/file.h>
#include <unistd.h>

#include <cerrno>
#include <nlohmann/json.hpp>
#include <utility>

#include "platform/files.h"
#include "platform/text.h"

// The simulator's state folder layout is described in tools/tarnly-pfsim/pf_state.h; this file
// reads and changes it the same way, under the same lock.

namespace {

// Holds the state folder's exclusive lock for as long as it lives.
class FolderLock {
 public:
  explicit FolderLock(const std::string& directory) {
    createDirectories(directory);
    std::string path = directory + "/lock";
    fd_ = ::open(path.c_str(), O_RDWR | O_CREAT | O_CLOEXEC, 0600);
    if (fd_ < 0) throw FileError("open", path, errno);
    while (::flock(fd_, LOCK_EX) != 0) {
      if (errno == EINTR) continue;
      int error = errno;
      ::close(fd_);
      throw FileError("flock", path, error);
    }
  }
  ~FolderLock() { ::close(fd_); }
  FolderLock(const FolderLock&) = delete;
  FolderLock& operator=(const FolderLock&) = delete;

 private:
  int fd_ = -1;
};

// Single quotes for the shell.
std::string shellQuoted(const std::string& text) {
  std::string quoted = "'";
  for (char c : text) {
    if (c == '\'') {
      quoted += "'\\''";
    } else {
      quoted += c;
    }
  }
  return quoted + "'";
}

std::string anchorFileName(const std::string& anchor) {
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

// Invocation records are lines of the log; the count already seen is kept in the caller.
std::vector<std::string> logLines(const std::string& directory) {
  auto text = readFile(directory + "/invocations.jsonl");
  if (!text) return {};
  auto lines = split(*text, '\n', false);
  return {lines.begin(), lines.end()};
}

}  // namespace

PfSimulator::PfSimulator(std::string simulatorBinary, std::string pfctlPath,
                         std::string stateDirectory)
    : simulatorBinary_(std::move(simulatorBinary)),
      pfctlPath_(std::move(pfctlPath)),
      stateDirectory_(std::move(stateDirectory)) {
  createDirectories(parentPath(pfctlPath_));
  writeFileAtomically(pfctlPath_,
                      "#!/bin/sh\nPFSIM_STATE=" + shellQuoted(stateDirectory_) + " exec " +
                          shellQuoted(simulatorBinary_) + " \"$@\"\n",
                      0755);
  clearInvocations();
}

const std::string& PfSimulator::pfctlPath() const {
  return pfctlPath_;
}

std::vector<std::vector<std::string>> PfSimulator::invocations() const {
  std::vector<std::string> lines;
  {
    FolderLock lock(stateDirectory_);
    lines = logLines(stateDirectory_);
  }
  std::vector<std::vector<std::string>> result;
  for (size_t i = invocationsSeen_; i < lines.size(); ++i) {
    result.push_back(nlohmann::json::parse(lines[i]).get<std::vector<std::string>>());
  }
  return result;
}

void PfSimulator::clearInvocations() {
  FolderLock lock(stateDirectory_);
  invocationsSeen_ = logLines(stateDirectory_).size();
}

bool PfSimulator::enabled() const {
  FolderLock lock(stateDirectory_);
  auto flag = readFile(stateDirectory_ + "/enabled");
  return flag && trimWhitespaceAndNewlines(*flag) == "1";
}

void PfSimulator::setEnabled(bool enabled) {
  FolderLock lock(stateDirectory_);
  writeFileAtomically(stateDirectory_ + "/enabled", enabled ? "1\n" : "0\n", 0644);
}

void PfSimulator::failNextLoads(int count) {
  FolderLock lock(stateDirectory_);
  std::string path = stateDirectory_ + "/busy";
  if (count <= 0) {
    removeFile(path);
  } else {
    writeFileAtomically(path, std::to_string(count) + "\n", 0644);
  }
}

std::string PfSimulator::loadedRuleset(const std::string& anchor) const {
  FolderLock lock(stateDirectory_);
  auto text = readFile(stateDirectory_ + "/anchors/" + anchorFileName(anchor));
  return text ? *text : std::string();
}

void PfSimulator::addState(const std::string& from, const std::string& to) {
  FolderLock lock(stateDirectory_);
  std::string path = stateDirectory_ + "/states";
  auto text = readFile(path);
  writeFileAtomically(path, (text ? *text : std::string()) + from + " " + to + "\n", 0644);
}

std::vector<std::string> PfSimulator::states() const {
  FolderLock lock(stateDirectory_);
  auto text = readFile(stateDirectory_ + "/states");
  if (!text) return {};
  auto lines = split(*text, '\n', false);
  return {lines.begin(), lines.end()};
}

void PfSimulator::setMainRuleset(const std::string& text) {
  FolderLock lock(stateDirectory_);
  writeFileAtomically(stateDirectory_ + "/main.conf", text, 0644);
}
