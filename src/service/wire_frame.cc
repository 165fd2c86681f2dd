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

Header readHeader(int fd) {
  Header result;
  unsigned char header[4];
  ssize_t got = readFully(fd, reinterpret_cast<char*>(header), sizeof header);
  if (got < 0) return result;
  if (got < 4) {
    result.status = got == 0 ? ReadResult::Status::closed : ReadResult::Status::truncated;
    return result;
  }
  result.size = static_cast<std::uint32_t>(header[0]) << 24 |
                static_cast<std::uint32_t>(header[1]) << 16 |
                static_cast<std::uint32_t>(header[2]) << 8 | header[3];
  result.status =
      result.size > kMaxFrame ? ReadResult::Status::oversized : ReadResult::Status::frame;
  return result;
}

ReadResult readBody(int fd, std::uint32_t size) {
  ReadResult result;
  // The body is taken in pieces as it arrives, so an announced length costs memory only once
  // its bytes are actually sent: the reserved pages are touched as the pieces land, and never
  // copied to a larger buffer.
  constexpr std::size_t kPiece = std::size_t{64} * 1024;
  result.payload.reserve(size);
  while (result.payload.size() < size) {
    std::size_t have = result.payload.size();
    std::size_t want = std::min<std::size_t>(kPiece, size - have);
    result.payload.resize(have + want);
    ssize_t got = readFully(fd, result.payload.data() + have, want);
    if (got < 0 || static_cast<std::size_t>(got) < want) {
      result.payload.clear();
      if (got >= 0) result.status = ReadResult::Status::truncated;
      return result;
    }
  }
  result.status = ReadResult::Status::frame;
  return result;
}

ReadResult read(int fd) {
  Header header = readHeader(fd);
  if (header.status != ReadResult::Status::frame) {
    ReadResult result;
    result.status = header.status;
    return result;
  }
  return readBody(fd, header.size);
}

}  // namespace WireFrame
