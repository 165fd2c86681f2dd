// IsolatedRoot: runs a shell script as root inside a private mount and network namespace, chrooted
// into an overlay of "/" whose changes live on a tmpfs, so the unmodified helper can use its real
// fixed paths (/Library, /etc, /run, /usr/local, /var/log) without touching the host. Inside, a
// test bundle /Applications/Tarnly.app holds copies of the built helper (Contents/Helpers) and of
// tarnly-helperctl as the application (Contents/MacOS/Tarnly) and of the end-to-end driver as the
// companion service (Contents/Helpers/TarnlyService); the pf simulator is /sbin/pfctl and
// fake /sbin/ifconfig and /usr/bin/pgrep print macOS listings and record their runs.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "service/helper_command.h"

namespace IsolatedRoot {

// Why isolated roots cannot be made here (not root, no namespaces), or empty when they can.
std::string unavailableReason();

// Runs `script` with /bin/sh inside a fresh isolated root, after the shell functions below, with
// `pfctl` (the simulator unless another program is named) installed at /sbin/pfctl; the build
// tree stays reachable at its own path. Returns what the script printed and its status.
//   $HELPER, $CTL, $LOG          the bundle's helper, the bundle's client, the helper's log
//   $DRIVER                      the bundle's companion service: the end-to-end driver
//   start_helper                 starts the helper in service mode in the background ($HELPER_PID)
//                                and waits, with a bound, for its new start line in the log
//   ctl ARGS...                  runs the bundle's client; prints its output, then "exit=<status>"
//   as_user UID GID CMD...       runs CMD under that uid and gid with the user's own groups
//   ctl_as UID GID ARGS...       ctl, run under that uid and gid
//   log_lines                    the log without time stamps
//   fake_calls NAME              the recorded argument lines of the fake ifconfig or pgrep
// /var/lib/fakes/ifconfig-a.txt is what `ifconfig -a` prints (no vmnet interfaces at first);
// pgrep finds processes only while /var/lib/fakes/pgrep.txt exists (then it prints that file).
// Users alice (501) and bob (502) are administrators (group 80); nobody (65534) is not.
// A `launcher` (a program and its arguments, such as tests/uml-run.sh ... --) runs the whole
// isolated root under it, on another kernel.
HelperCommand::Result run(const std::string& script, const std::string& pfctl = TARNLY_PFSIM_PATH,
                          const std::vector<std::string>& launcher = {});

}  // namespace IsolatedRoot

// A test of scenarios in isolated roots: skipped, with the reason, where they cannot be made.
class IsolatedRootTest : public ::testing::Test {
 protected:
  void SetUp() override;
  // Runs `script` in a fresh isolated root with the pf simulator; what it printed, and a failure
  // with all of its output when it did not end with status 0.
  static std::string run(const std::string& script);
};
