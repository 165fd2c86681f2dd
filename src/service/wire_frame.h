// WireFrame: the framing of the helper's socket. A frame is a 4-byte big-endian length, then that
// many bytes of UTF-8 JSON. Stateless functions; one descriptor must not be read (or written) by
// two threads at once.
#pragma once

#include <cstdint>
#include <string>
#include <string_view>

namespace WireFrame {

// The largest payload either side accepts.
inline constexpr std::uint32_t kMaxFrame = 16 * 1024 * 1024;

// The frame carrying `payload`: its length as 4 big-endian bytes, then the payload.
std::string encode(std::string_view payload);

// Writes the whole frame of `payload` to `fd`, retrying after interruptions and short writes. On a
// socket a closed peer yields a failure, never SIGPIPE. False on the first failure (including a
// payload over kMaxFrame, which is not written).
bool write(int fd, std::string_view payload);

struct ReadResult {
  enum class Status {
    frame,      // `payload` holds the frame's bytes
    closed,     // end of file before any byte of a frame
    truncated,  // end of file inside the header or the body
    oversized,  // the header announced more than kMaxFrame bytes; the body was not read
    failed,     // a read error other than an interruption
  };
  Status status = Status::failed;
  std::string payload;
};

// Reads one frame from `fd`, blocking until it is complete; retries after interruptions.
ReadResult read(int fd);

// The two halves of read(), for a reader that decides between them (for example whether it can
// hold the body). readHeader reads the 4 bytes of the header: status frame with the announced
// size in `size`, or closed, truncated, oversized or failed. readBody then reads those `size`
// bytes: frame, truncated or failed (a read error, including a receive timeout set on `fd`).
struct Header {
  ReadResult::Status status = ReadResult::Status::failed;
  std::uint32_t size = 0;
};
Header readHeader(int fd);
ReadResult readBody(int fd, std::uint32_t size);

}  // namespace WireFrame
