#include "service/wire_frame.h"

#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

namespace WireFrame {
namespace {

// Reads until `size` bytes are in `buffer` or end of file; the count read, or -1 on an error.
ssize_t readFully(int fd, char* buffer, std::size_t size) {
  std::size_t done = 0;
  while (done < size) {
    ssize_t got = ::read(fd, buffer + done, size - done);
    if (got < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (got == 0) break;
    done += static_cast<std::size_t>(got);
  }
  return static_cast<ssize_t>(done);
}

}  // namespace

std::string encode(std::string_view payload) {
  auto size = static_cast<std::uint32_t>(payload.size());
  std::string frame;
  frame.reserve(4 + payload.size());
  frame += static_cast<char>(size >> 24 & 0xff);
  frame += static_cast<char>(size >> 16 & 0xff);
  frame += static_cast<char>(size >> 8 & 0xff);
  frame += static_cast<char>(size & 0xff);
  frame += payload;
  return frame;
}

bool write(int fd, std::string_view payload) {
  if (payload.size() > kMaxFrame) return false;
  std::string frame = encode(payload);
  std::size_t done = 0;
  bool socket = true;
  while (done < frame.size()) {
    ssize_t sent = socket ? ::send(fd, frame.data() + done, frame.size() - done, MSG_NOSIGNAL)
                          : ::write(fd, frame.data() + done, frame.size() - done);
    if (sent < 0) {
      if (errno == EINTR) continue;
      if (socket && errno == ENOTSOCK) {
        socket = false;
        continue;
      }
      return false;
    }
    done += static_cast<std::size_t>(sent);
  }
  return true;
}

ReadResult read(int fd) {
  ReadResult result;
  unsigned char header[4];
  ssize_t got = readFully(fd, reinterpret_cast<char*>(header), sizeof header);
  if (got < 0) return result;
  if (got == 0) {
    result.status = ReadResult::Status::closed;
    return result;
  }
  if (got < 4) {
    result.status = ReadResult::Status::truncated;
    return result;
  }
  std::uint32_t size = static_cast<std::uint32_t>(header[0]) << 24 |
                       static_cast<std::uint32_t>(header[1]) << 16 |
                       static_cast<std::uint32_t>(header[2]) << 8 | header[3];
  if (size > kMaxFrame) {
    result.status = ReadResult::Status::oversized;
    return result;
  }
  // The body is taken in pieces as it arrives, so an announced length costs memory only once
  // its bytes are actually sent.
  constexpr std::size_t kPiece = std::size_t{64} * 1024;
  while (result.payload.size() < size) {
    std::size_t have = result.payload.size();
    std::size_t want = std::min<std::size_t>(kPiece, size - have);
    result.payload.resize(have + want);
    got = readFully(fd, result.payload.data() + have, want);
    if (got < 0 || static_cast<std::size_t>(got) < want) {
      result.payload.clear();
      if (got >= 0) result.status = ReadResult::Status::truncated;
      return result;
    }
  }
  result.status = ReadResult::Status::frame;
  return result;
}

}  // namespace WireFrame
