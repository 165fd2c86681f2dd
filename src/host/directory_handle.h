// DirectoryHandle: owns one open folder descriptor and closes it when it goes out of scope, so
// every way out of an operation under /usr closes what it opened. Move-only.
#pragma once

#include <unistd.h>

#include <utility>

class DirectoryHandle {
 public:
  explicit DirectoryHandle(int fd) : fd_(fd) {}
  ~DirectoryHandle() { reset(); }
  DirectoryHandle(DirectoryHandle&& other) noexcept : fd_(std::exchange(other.fd_, -1)) {}
  DirectoryHandle& operator=(DirectoryHandle&& other) noexcept {
    if (this != &other) {
      reset();
      fd_ = std::exchange(other.fd_, -1);
    }
    return *this;
  }
  DirectoryHandle(const DirectoryHandle&) = delete;
  DirectoryHandle& operator=(const DirectoryHandle&) = delete;

  int fd() const { return fd_; }

  // Closes the descriptor now (a close failure leaves nothing to do).
  void reset() {
    if (fd_ >= 0) ::close(fd_);
    fd_ = -1;
  }

 private:
  int fd_;
};
