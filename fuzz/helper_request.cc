// A connection's bytes as the helper reads them: frames off the socket, each request decoded and
// dispatched through the caller check to recording operations (nothing on the system changes).
// Input: a byte choosing the caller, a byte of switches (console user, failing operations,
// unframed), then the frames (or, unframed, one request payload).
// Every frame read re-encodes to the bytes it came from; a fault closes the connection and runs
// nothing; a reply has the method's number of values; administrators are never refused and
// strangers always are; a request rebuilt from the arguments an operation received gets the
// same reply and the same call.
#include <sys/mman.h>
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <nlohmann/json.hpp>
#include <stdexcept>
#include <string>
#include <string_view>

#include "fuzz_check.h"
#include "platform/base64.h"
#include "service/helper_log.h"
#include "service/helper_protocol.h"
#include "service/wire_frame.h"

namespace {

using nlohmann::json;

// 0 and 501 are administrators, 502 is an ordinary user, 503 has no passwd entry.
class Users final : public UserDirectory {
 public:
  std::optional<User> user(uid_t uid) const override {
    if (uid == 501) return User{"admin", 20};
    if (uid == 502) return User{"user", 20};
    return std::nullopt;
  }
  std::optional<std::vector<gid_t>> groups(const std::string& name, gid_t) const override {
    if (name == "admin") return std::vector<gid_t>{20, 80};
    return std::vector<gid_t>{20};
  }
};

// What the operations received: the operation's name and its arguments in their wire form.
struct Recorder {
  std::vector<std::pair<std::string, json>> calls;
  bool fail = false;

  void note(std::string name, json arguments) {
    calls.emplace_back(std::move(name), std::move(arguments));
    if (fail) throw std::runtime_error("The operation failed on purpose.");
  }
};

HelperProtocol::Operations operations(Recorder& r) {
  HelperProtocol::Operations ops;
  ops.versionString = [&r] { return r.note("version", json::array()), std::string("18.0"); };
  ops.applyFirewall = [&r](const std::string& data, std::uint32_t, bool) {
    r.note("applyFirewall", {Base64::encode(data)});
    return std::string("applied");
  };
  ops.removeFirewall = [&r](std::uint32_t, bool) { r.note("removeFirewall", json::array()); };
  ops.firewallReport = [&r] { return r.note("report", json::array()), std::string("{}"); };
  ops.createVLAN = [&r](const std::string& name, std::int64_t tag, const std::string& parent) {
    r.note("createVLAN", {name, tag, parent});
    return std::string("vlan0");
  };
  ops.deleteVLAN = [&r](const std::string& name) { r.note("deleteVLAN", {name}); };
  ops.createdVLANs = [&r] { return r.note("createdVLANs", json::array()), std::string("[]"); };
  ops.installCLISymlink = [&r] { r.note("installCLISymlink", json::array()); };
  ops.removeCLISymlink = [&r] { r.note("removeCLISymlink", json::array()); };
  ops.pruneStaleVMInterfaces = [&r] { return r.note("prune", json::array()), std::string(""); };
  ops.setResolver = [&r](bool enabled) { r.note("setResolver", {enabled}); };
  ops.shutdownForUpgrade = [&r] { r.note("shutdownForUpgrade", json::array()); };
  ops.removeFilesForUninstall = [&r] {
    r.note("removeFilesForUninstall", json::array());
    return std::optional<std::string>();
  };
  return ops;
}

// Handles one request and checks the answer; false when the connection closes.
bool exchange(std::string_view payload, std::uint32_t caller, std::optional<std::uint32_t> console,
              Recorder& recorder, const HelperProtocol::Service& service) {
  recorder.calls.clear();
  const HelperProtocol::Response response = HelperProtocol::handle(payload, caller, service);
  const json answer = json::parse(response.payload);
  if (response.closeAfter) {
    FUZZ_CHECK(answer.size() == 1 && answer.at("fault").is_string() && recorder.calls.empty());
    return false;
  }
  const json request = json::parse(payload);
  const HelperProtocol::Method* method =
      HelperProtocol::find(request.at("method").get<std::string>());
  FUZZ_CHECK(method != nullptr && answer.size() == 1);
  FUZZ_CHECK(answer.at("reply").size() == method->replyCount() && recorder.calls.size() <= 1);
  const bool administrator = caller == 0 || caller == 501;
  const bool stranger = caller > 502 || (caller == 502 && console != 502u);
  if (administrator || method->rule == HelperProtocol::CallerRule::none) {
    FUZZ_CHECK(recorder.calls.size() == 1);
  }
  if (stranger && method->rule != HelperProtocol::CallerRule::none) {
    FUZZ_CHECK(recorder.calls.empty() &&
               answer["reply"].back() == HelperAuthorization::kRefusalText);
  }
  if (recorder.calls.size() == 1) {
    const auto call = recorder.calls.front();
    const json rebuilt = {{"method", method->selector}, {"args", call.second}};
    recorder.calls.clear();
    const HelperProtocol::Response again = HelperProtocol::handle(rebuilt.dump(), caller, service);
    FUZZ_CHECK(again.payload == response.payload && recorder.calls.size() == 1 &&
               recorder.calls.front() == call);
  }
  return true;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  if (size < 2) return 0;
  static const Users users;
  // Refusals and failures are logged; the lines go nowhere.
  static HelperLog log("/dev/null", "/dev/null.old");
  constexpr std::uint32_t kCallers[] = {0, 501, 502, 503};
  const std::uint32_t caller = kCallers[data[0] % 4];
  const std::optional<std::uint32_t> console =
      data[1] & 1 ? std::optional<std::uint32_t>(data[1] & 2 ? 502 : 501) : std::nullopt;
  Recorder recorder;
  recorder.fail = data[1] & 4;
  const HelperProtocol::Service service{operations(recorder),
                                        {users, [console] { return console; }, log}};
  const std::string_view bytes(reinterpret_cast<const char*>(data) + 2, size - 2);
  if (data[1] & 8) {
    exchange(bytes, caller, console, recorder, service);
    return 0;
  }

  const int fd = ::memfd_create("connection", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0 && ::write(fd, bytes.data(), bytes.size()) == ssize_t(bytes.size()));
  FUZZ_CHECK(::lseek(fd, 0, SEEK_SET) == 0);
  std::size_t offset = 0;
  while (true) {
    WireFrame::ReadResult frame = WireFrame::read(fd);
    if (frame.status != WireFrame::ReadResult::Status::frame) break;
    const std::string encoded = WireFrame::encode(frame.payload);
    FUZZ_CHECK(bytes.substr(offset, encoded.size()) == encoded);
    offset += encoded.size();
    if (!exchange(frame.payload, caller, console, recorder, service)) break;
  }
  ::close(fd);
  return 0;
}
