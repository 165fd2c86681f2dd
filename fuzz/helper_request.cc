// A connection's bytes as the helper reads them from root, framed, each request dispatched to
// operations that count their runs. A frame re-encodes to its bytes; a fault closes the connection
// and runs nothing; any other request runs one operation and replies its method's number of values.
#include <sys/mman.h>
#include <unistd.h>

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>

#include "fuzz_check.h"
#include "service/helper_log.h"
#include "service/helper_protocol.h"
#include "service/wire_frame.h"

namespace HP = HelperProtocol;

FUZZ_TARGET(input) {
  // The log lives in a folder of its own, never at a shared path such as /dev/null: a fault in
  // the log's rotation must not be able to move a file the target does not own.
  static const std::string folder = [] {
    char path[] = "/tmp/tarnly-fuzz-XXXXXX";
    return std::string(::mkdtemp(path) != nullptr ? path : "/nonexistent");
  }();
  static HelperLog log(folder + "/helper.log", folder + "/helper.log.1");
  static const struct Cleanup {
    ~Cleanup() { std::filesystem::remove_all(folder); }
  } cleanup;
  int runs = 0;
  HP::Operations o;
  const auto record = [&](auto&... operations) {
    ((operations =
          [&runs](auto...) {
            ++runs;
            return typename std::remove_reference_t<decltype(operations)>::result_type();
          }),
     ...);
  };
  record(o.versionString, o.applyFirewall, o.removeFirewall, o.firewallReport, o.createVLAN,
         o.deleteVLAN, o.createdVLANs, o.installCLISymlink, o.removeCLISymlink,
         o.pruneStaleVMInterfaces, o.setResolver, o.shutdownForUpgrade, o.removeFilesForUninstall);
  const HP::Service service{o,
                            {systemUserDirectory(), [] { return std::optional<uint32_t>(); }, log}};
  const int fd = ::memfd_create("connection", MFD_CLOEXEC);
  FUZZ_CHECK(fd >= 0 && ::pwrite(fd, input.data(), input.size(), 0) == ssize_t(input.size()));
  for (std::size_t offset = 0;;) {
    const WireFrame::ReadResult frame = WireFrame::read(fd);
    if (frame.status != WireFrame::ReadResult::Status::frame) break;
    const std::string encoded = WireFrame::encode(frame.payload);
    FUZZ_CHECK(input.substr(offset, encoded.size()) == encoded);
    offset += encoded.size();
    runs = 0;
    const HP::Response response = HP::handle(frame.payload, 0, service);
    const nlohmann::json answer = nlohmann::json::parse(response.payload);
    if (response.closeAfter) {
      FUZZ_CHECK(answer.size() == 1 && answer.at("fault").is_string() && runs == 0);
      break;
    }
    const HP::Method* method =
        HP::find(nlohmann::json::parse(frame.payload).at("method").get<std::string>());
    FUZZ_CHECK(method != nullptr && runs == 1 && answer.size() == 1 &&
               answer.at("reply").size() == method->replyCount());
  }
  ::close(fd);
}
