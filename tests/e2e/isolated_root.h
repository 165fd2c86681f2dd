// IsolatedRoot: runs a shell script as root in a private mount and network namespace, chrooted into
// an overlay of "/" on a tmpfs, so the unmodified helper uses its real paths without touching the
// host. Its bundle /Applications/Tarnly.app holds the built helper, tarnly-helperctl as the
// application and the end-to-end driver as the companion service. Plain functions; thread-safe.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

#include "service/helper_command.h"

namespace IsolatedRoot {

// Runs `script` (under `launcher`, e.g. tests/uml-run.sh ... --, when given) with /sbin/pfctl
// `pfctl` and these: $C (the bundle's Contents) $HELPER $CTL $DRIVER $LOG; start_helper (in service
// mode, $HELPER_PID, once its listening line is logged); ctl ARGS and ctl_as UID GID ARGS (the
// client's output, and "exit=N" unless 0); log_lines (without time stamps). Fake ifconfig and
// pgrep log their arguments to /var/lib/fakes/NAME.calls; `ifconfig -a` prints
// /var/lib/fakes/ifconfig-a.txt. alice (501, group 80) and bob (502, in group 80) are
// administrators; nobody (65534) is not.
HelperCommand::Result run(const std::string& script, const std::string& pfctl = TARNLY_PFSIM_PATH,
                          const std::vector<std::string>& launcher = {});

}  // namespace IsolatedRoot

// Scenarios in isolated roots: skipped, with the reason, where none can be made.
class IsolatedRootTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // What `script` printed with the pf simulator; a failure when its status is not 0 or when the
  // host's state folder changed.
  static std::string run(const std::string& script);
  // Expects each {NAME, text} of `out`: the text after the line "-- NAME" up to the next such.
  static void expectSections(const std::string& out,
                             const std::vector<std::pair<std::string, std::string>>& rows);
};
