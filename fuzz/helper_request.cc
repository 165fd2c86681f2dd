// A connection's bytes as the helper reads them: a byte choosing the caller, one of switches
// (console user, failing operations, unframed), then frames (or one request), each dispatched
// through the caller check to operations that record their arguments. A frame re-encodes to its
// bytes; a fault closes the connection and runs nothing; a reply has the method's number of values;
// administrators are never refused, strangers always; the request rebuilt from what an operation
// received gets the same reply and call.
#include <sys/mman.h>
#include <unistd.h>

#include <nlohmann/json.hpp>
#include <stdexcept>

#include "fuzz_check.h"
#include "platform/base64.h"
#include "service/helper_log.h"
#include "service/helper_protocol.h"
#include "service/wire_frame.h"

namespace {

using nlohmann::json;
namespace HP = HelperProtocol;

// 0 and 501 are administrators, 502 is an ordinary user, 503 has no passwd entry.
class Users final : public UserDirectory {
 public:
  std::optional<User> user(uid_t uid) const override {
    return uid == 501 || uid == 502 ? User{uid == 501 ? "admin" : "user", 20}
                                    : std::optional<User>();
  }
  std::optional<std::vector<gid_t>> groups(const std::string& name, gid_t) const override {
    return name == "admin" ? std::vector<gid_t>{20, 80} : std::vector<gid_t>{20};
  }
};

// Operations that note which of them ran and with what, then return an empty value (or throw).
struct Recorder {
  std::vector<std::pair<int, json>> calls;
  bool fail = false;

  template <typename R, typename... A>
  void record(std::function<R(A...)>& operation, int position) {
    operation = [this, position](A... arguments) -> R {
      calls.emplace_back(position, json::array({json(arguments)...}));
      if (fail) throw std::runtime_error("The operation failed on purpose.");
      return R();
    };
  }
  template <typename... Member>
  HP::Operations operations(Member HP::Operations::*... members) {
    HP::Operations all;
    int position = 0;
    (record(all.*members, position++), ...);
    return all;
  }
};

}  // namespace

FUZZ_TARGET(input) {
  if (input.size() < 2) return;
  static const Users users;
  static HelperLog log("/dev/null", "/dev/null.old");  // refusals and failures go nowhere
  const std::uint32_t caller = std::array<std::uint32_t, 4>{0, 501, 502, 503}[input[0] & 3];
  std::optional<std::uint32_t> console;
  if (input[1] & 1) console = input[1] & 2 ? 502 : 501;
  const bool administrator = caller == 0 || caller == 501;
  const bool stranger = caller > 502 || (caller == 502 && console != 502u);
  Recorder recorder{{}, (input[1] & 4) != 0};
  using O = HP::Operations;
  const HP::Service service{
      recorder.operations(&O::versionString, &O::applyFirewall, &O::removeFirewall,
                          &O::firewallReport, &O::createVLAN, &O::deleteVLAN, &O::createdVLANs,
                          &O::installCLISymlink, &O::removeCLISymlink, &O::pruneStaleVMInterfaces,
                          &O::setResolver, &O::shutdownForUpgrade, &O::removeFilesForUninstall),
      {users, [console] { return console; }, log}};

  // Handles one request and checks the answer; false when the connection closes.
  const auto exchange = [&](std::string_view payload) {
    recorder.calls.clear();
    const HP::Response response = HP::handle(payload, caller, service);
    const json answer = json::parse(response.payload);
    if (response.closeAfter) {
      FUZZ_CHECK(answer.size() == 1 && answer.at("fault").is_string() && recorder.calls.empty());
      return false;
    }
    const HP::Method* method = HP::find(json::parse(payload).at("method").get<std::string>());
    FUZZ_CHECK(method != nullptr && answer.size() == 1 && recorder.calls.size() <= 1);
    FUZZ_CHECK(answer.at("reply").size() == method->replyCount());
    const bool checked = method->rule != HP::CallerRule::none;
    FUZZ_CHECK(recorder.calls.size() == 1 || (checked && !administrator));
    FUZZ_CHECK(
        !stranger || !checked ||
        (recorder.calls.empty() && answer["reply"].back() == HelperAuthorization::kRefusalText));
    if (recorder.calls.empty()) return true;
    const auto call = recorder.calls.front();
    json arguments = json::array();  // the wire's: those before the caller's, bytes in base64
    for (std::size_t i = 0; i < method->arguments.size(); ++i) {
      const json& value = call.second.at(i);
      const bool bytes = method->arguments[i] == HP::ArgumentKind::bytes;
      arguments.push_back(bytes ? json(Base64::encode(value.get<std::string>())) : value);
    }
    recorder.calls.clear();
    const json rebuilt = {{"method", method->selector}, {"args", arguments}};
    const HP::Response again = HP::handle(rebuilt.dump(), caller, service);
    FUZZ_CHECK(again.payload == response.payload && recorder.calls.size() == 1 &&
               recorder.calls.front() == call);
    return true;
  };

  const std::string_view bytes = input.substr(2);
  if (input[1] & 8) return (void)exchange(bytes);
  const int fd = ::memfd_create("connection", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0 && ::pwrite(fd, bytes.data(), bytes.size(), 0) == ssize_t(bytes.size()));
  for (std::size_t offset = 0;;) {
    const WireFrame::ReadResult frame = WireFrame::read(fd);
    if (frame.status != WireFrame::ReadResult::Status::frame) break;
    const std::string encoded = WireFrame::encode(frame.payload);
    FUZZ_CHECK(bytes.substr(offset, encoded.size()) == encoded);
    offset += encoded.size();
    if (!exchange(frame.payload)) break;
  }
  ::close(fd);
}
