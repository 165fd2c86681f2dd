// HostPaths: every fixed path the helper touches, in one value. The defaults are the real paths;
// tests move them into a temporary tree. Nothing in the production binary changes them.
#pragma once

#include <string>

struct HostPaths {
  std::string stateDirectory = "/Library/Application Support/Tarnly";
  std::string logFile = "/var/log/tarnly-adminhelper.log";
  std::string rotatedLogFile = "/var/log/tarnly-adminhelper.log.1";
  std::string pfctl = "/sbin/pfctl";
  std::string ifconfig = "/sbin/ifconfig";
  std::string pgrep = "/usr/bin/pgrep";
  std::string pfConf = "/etc/pf.conf";
  std::string legacyAnchorFile = "/etc/pf.anchors/com.tarnly.firewall";
  std::string resolverDirectory = "/etc/resolver";
  // The folder that stands for "/usr"; messages still name "/usr".
  std::string usr = "/usr";
  std::string bootID = "/proc/sys/kernel/random/boot_id";
  std::string socketPath = "/run/com.orbelle.tarnly.adminhelper.sock";
  // Absolute path of the running helper executable, read once at start (see currentExecutablePath).
  std::string executable;

  // Path of a file in the state directory.
  std::string state(const std::string& name) const { return stateDirectory + "/" + name; }
};

// Reads /proc/self/exe; an empty text when it cannot be read. Called once, at start: later
// readings name a replaced file "(deleted)".
std::string currentExecutablePath();
