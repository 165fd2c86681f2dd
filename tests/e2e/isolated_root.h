// IsolatedRootTest: scenarios run as root in private mount and network namespaces, chrooted into
// an overlay of "/" on a tmpfs, where the unmodified helper uses its real paths without touching
// the host (skipped, with the reason, where none can be made). Its bundle holds the built helper,
// tarnly-helperctl as the application and the driver as the companion service. Thread-safe.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/helper_command.h"

class IsolatedRootTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Runs `script` (under `launcher`, e.g. tests/uml-run.sh ... --, when given) with /sbin/pfctl
  // `pfctl` and these: $C (the bundle's Contents) $HELPER $CTL $DRIVER $LOG; start_helper (service
  // mode, $HELPER_PID, once it logs that it listens); ctl ARGS and ctl_as UID GID ARGS (the
  // client's output, and "exit=N" unless 0); log_lines (without time stamps). ifconfig logs its
  // arguments to /var/lib/fakes/ifconfig.calls, `-a` prints /var/lib/fakes/ifconfig-a.txt; pgrep
  // finds nothing. alice (501, group 80) and bob (502, in group 80) are administrators; nobody
  // (65534) is not.
  static HelperCommand::Result runIn(const std::string& script,
                                     const std::string& pfctl = TARNLY_PFSIM_PATH,
                                     const std::vector<std::string>& launcher = {});
  // What `script` printed; a failure when its status is not 0 or the host's state folder changed.
  static std::string run(const std::string& script);
};
