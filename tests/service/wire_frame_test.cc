// The socket's framing, the base64 of byte buffers and the protocol table as clients read them.
#include "service/wire_frame.h"

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <unistd.h>

#include <string>
#include <thread>

#include "platform/base64.h"
#include "service/helper_protocol.h"

namespace {

struct SocketPair {
  int fds[2] = {-1, -1};
  SocketPair() { EXPECT_EQ(::socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0, fds), 0); }
  ~SocketPair() {
    for (int fd : fds) {
      if (fd >= 0) ::close(fd);
    }
  }
  void closeWriter() {
    ::close(fds[0]);
    fds[0] = -1;
  }
};

using Status = WireFrame::ReadResult::Status;

TEST(WireFrameTest, ReadsWhatWasWrittenAndTellsEachWayAFrameCanEnd) {
  struct Case {
    std::string bytes;  // written raw, then the writer closes
    Status status;
    std::string payload;
  };
  const Case cases[] = {
      {WireFrame::encode("{\"reply\":[]}"), Status::frame, "{\"reply\":[]}"},
      {WireFrame::encode(""), Status::frame, ""},
      {"", Status::closed, ""},
      {std::string("\0\0", 2), Status::truncated, ""},
      {std::string("\0\0\0\x09{\"a\"", 8), Status::truncated, ""},
      {std::string("\x01\0\0\x01", 4), Status::oversized, ""},
      {std::string("\xff\xff\xff\xff", 4), Status::oversized, ""},
  };
  for (const Case& c : cases) {
    SocketPair pair;
    ASSERT_EQ(::write(pair.fds[0], c.bytes.data(), c.bytes.size()),
              static_cast<ssize_t>(c.bytes.size()));
    pair.closeWriter();
    WireFrame::ReadResult result = WireFrame::read(pair.fds[1]);
    EXPECT_EQ(result.status, c.status) << testing::PrintToString(c.bytes);
    EXPECT_EQ(result.payload, c.payload);
  }
  // The largest frame passes whole, through the writer's short writes.
  SocketPair pair;
  std::string big(WireFrame::kMaxFrame, 'x');
  std::thread writer([&] { EXPECT_TRUE(WireFrame::write(pair.fds[0], big)); });
  EXPECT_EQ(WireFrame::read(pair.fds[1]).payload.size(), big.size());
  writer.join();
  EXPECT_FALSE(WireFrame::write(pair.fds[0], big + "x"));
  // Writing to a closed peer fails instead of raising SIGPIPE.
  ::close(pair.fds[1]);
  pair.fds[1] = -1;
  EXPECT_FALSE(WireFrame::write(pair.fds[0], "{}"));
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

TEST(WireFrameTest, ProtocolTableFindsEachSelectorExactly) {
  ASSERT_EQ(HelperProtocol::methods().size(), 13u);
  for (const HelperProtocol::Method& method : HelperProtocol::methods()) {
    EXPECT_EQ(HelperProtocol::find(method.selector), &method);
  }
  const HelperProtocol::Method* vlan =
      HelperProtocol::find("createVLANWithName:tag:parentBSD:withReply:");
  ASSERT_NE(vlan, nullptr);
  EXPECT_EQ(vlan->arguments.size(), 3u);
  EXPECT_EQ(vlan->arguments[1], HelperProtocol::ArgumentKind::tag);
  EXPECT_EQ(HelperProtocol::find("shutdownForUpgradeWithReply:")->replyCount(), 0u);
  EXPECT_EQ(HelperProtocol::find("helperVersionWithReply"), nullptr);
  EXPECT_EQ(HelperProtocol::find("HelperVersionWithReply:"), nullptr);
}

}  // namespace
