// What the transport test cannot show over the helper's socket: the largest frame through short
// writes, a write to a closed peer, and base64 of every length.
#include "service/wire_frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "platform/base64.h"

namespace {

TEST(WireFrameTest, CarriesTheLargestFrameAndFailsQuietlyOnAClosedPeer) {
  int fds[2];
  ASSERT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0);
  std::string big(WireFrame::kMaxFrame, 'x');
  std::thread writer([&] { EXPECT_TRUE(WireFrame::write(fds[0], big)); });
  WireFrame::ReadResult result = WireFrame::read(fds[1]);
  writer.join();
  EXPECT_EQ(result.status, WireFrame::ReadResult::Status::frame);
  EXPECT_EQ(result.payload, big);
  EXPECT_FALSE(WireFrame::write(fds[0], big + "x")) << "over the limit";
  ::close(fds[1]);
  EXPECT_FALSE(WireFrame::write(fds[0], "{}")) << "no SIGPIPE, a failure";
  ::close(fds[0]);
}

TEST(WireFrameTest, Base64RoundTripsEveryLengthAndRefusesNonCanonicalText) {
  std::string bytes;
  for (int i = 0; i < 260; ++i) {
    EXPECT_EQ(Base64::decode(Base64::encode(bytes)), bytes);
    bytes += static_cast<char>(i * 37);
  }
  EXPECT_EQ(Base64::encode("[]"), "W10=");
  for (const char* bad : {"W10", "W1==", "W11=", "W1=0", "W=0=", "W10*", "W10=AAAA"}) {
    EXPECT_FALSE(Base64::decode(bad)) << bad;
  }
}

}  // namespace
