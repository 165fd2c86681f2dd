// The rtnetlink VLAN configuration against the kernel. Each NetlinkVLANInNamespace test re-runs
// this binary for itself in a fresh network namespace: one of this kernel's (unshare --net) where
// it has 802.1Q VLAN links, else the one of a user-mode Linux kernel that loads them
// (tests/uml-run.sh). The tests make dummy or ifb links as parents and never touch the machine's
// own namespace.
#include <dirent.h>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <functional>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "interfaces/helper_vlan.h"
#include "platform/netlink_vlan_configuration.h"
#include "service/helper_command.h"
#include "support/user_mode_linux.h"
#include "test_environment.h"

namespace {

constexpr const char* kNamespaceMarker = "TARNLY_VLAN_TEST_NETNS";

HelperCommand::Result ip(const std::vector<std::string>& arguments) {
  return HelperCommand::run(pathExists("/usr/sbin/ip") ? "/usr/sbin/ip" : "/sbin/ip", arguments);
}
void mustIP(const std::vector<std::string>& arguments) {
  HelperCommand::Result result = ip(arguments);
  ASSERT_EQ(result.status, 0) << "ip " << join(arguments, " ") << ": " << result.combinedOutput();
}
std::string details(const std::string& link) {
  return ip({"-d", "link", "show", link}).stdout;
}
bool linkExists(const std::string& link) {
  return ip({"link", "show", link}).status == 0;
}

// The BSD names of `ids`, and the one of `ids` named `name`.
std::vector<std::string> names(VLANPreferences& preferences,
                               const std::vector<NetworkInterfaceID>& ids) {
  std::vector<std::string> result;
  result.reserve(ids.size());
  for (NetworkInterfaceID id : ids) result.push_back(preferences.bsdName(id).value_or("<none>"));
  return result;
}
std::optional<NetworkInterfaceID> named(VLANPreferences& preferences,
                                        const std::optional<std::vector<NetworkInterfaceID>>& ids,
                                        const std::string& name) {
  for (NetworkInterfaceID id : ids.value_or(std::vector<NetworkInterfaceID>{})) {
    if (preferences.bsdName(id) == name) return id;
  }
  return std::nullopt;
}
// A VLAN with `tag` planned in `preferences` on the physical interface named `parent`.
std::optional<NetworkInterfaceID> plan(VLANPreferences& preferences, const std::string& parent,
                                       std::int64_t tag) {
  std::optional<NetworkInterfaceID> physical =
      named(preferences, preferences.availablePhysicalInterfaces(), parent);
  return physical ? preferences.createVLAN(*physical, tag) : std::nullopt;
}

// What this machine offers the tests, found out once per process.
struct Places {
  std::string noNamespaces;  // why there are no network namespaces; empty when there are
  std::string noVLANs;       // why this kernel's namespaces have no VLAN links; empty when they do
  std::string noUML;         // why user-mode Linux cannot stand in; empty when it may be tried
};

HelperCommand::Result inFreshNamespace(const std::string& program) {
  return HelperCommand::run("/usr/bin/unshare", {"--net", "--", "/bin/sh", "-c", program});
}

const Places& places() {
  static const Places found = [] {
    Places offered;
    HelperCommand::Result namespaces = inFreshNamespace("true");
    if (namespaces.status != 0) {
      offered.noNamespaces =
          "network namespaces are unavailable here: " + namespaces.combinedOutput();
      return offered;
    }
    HelperCommand::Result vlan = inFreshNamespace(
        "PATH=/usr/sbin:/sbin:$PATH; { ip link add p type dummy || ip link add p type ifb; } "
        "2>/dev/null && ip link add link p name v type vlan id 1");
    if (vlan.status != 0) {
      offered.noVLANs =
          "this kernel has no 802.1Q VLAN links (CONFIG_VLAN_8021Q): " + vlan.combinedOutput();
    }
    offered.noUML = UserModeLinux::unavailableReason();
    return offered;
  }();
  return found;
}

class NetlinkVLANInNamespace : public ::testing::Test {
 protected:
  void SetUp() override {
    inNamespace_ = std::getenv(kNamespaceMarker) != nullptr;
    if (!inNamespace_) {
      runInItsNamespace();
      return;
    }
    // Only "lo" exists at the start. Parents are dummy links, or ifb links (also plain ethernet
    // links) where the kernel has no dummy driver.
    parentKind_ = ip({"link", "add", "probe0", "type", "dummy"}).status == 0 ? "dummy" : "ifb";
    ip({"link", "del", "probe0"});
    addParent("probe1");
    HelperCommand::Result vlan =
        ip({"link", "add", "link", "probe1", "name", "probe2", "type", "vlan", "id", "1"});
    vlanSupported_ = vlan.status == 0;
    vlanRefusal_ = vlan.combinedOutput();
    ip({"link", "del", "probe2"});
    ip({"link", "del", "probe1"});
  }

  // Runs this test in a namespace of its own and takes over its outcome there: a failure, a skip
  // with its reason, or nothing when it passed. The namespace is this kernel's when it has VLAN
  // links, else the one of a user-mode Linux kernel that loads them; this kernel's again when
  // user-mode Linux cannot be had, and then the parts that need VLANs skip.
  void runInItsNamespace() {
    const Places& here = places();
    if (!here.noNamespaces.empty()) GTEST_SKIP() << here.noNamespaces;
    std::vector<std::string> command = {"/usr/bin/unshare", "--net", "--"};
    std::string noUML = here.noUML;
    if (!here.noVLANs.empty() && noUML.empty()) {
      command = UserModeLinux::launcher({"8021q", "dummy", "ifb"});
      HelperCommand::Result run = runThisTest(command);
      noUML = UserModeLinux::failure(run.status, run.stderr);
      if (noUML.empty()) return takeOutcome(run, command, "");
      command = {"/usr/bin/unshare", "--net", "--"};
    }
    takeOutcome(runThisTest(command), command, here.noVLANs.empty() ? "" : noUML);
  }

  // This test alone, run by `command` in this binary with the marker set.
  HelperCommand::Result runThisTest(const std::vector<std::string>& command) {
    const ::testing::TestInfo* info = ::testing::UnitTest::GetInstance()->current_test_info();
    std::vector<std::string> arguments(command.begin() + 1, command.end());
    arguments.insert(
        arguments.end(),
        {"/usr/bin/env", "-u", "GTEST_OUTPUT", std::string(kNamespaceMarker) + "=1",
         currentExecutablePath(),
         std::string("--gtest_filter=") + info->test_suite_name() + "." + info->name()});
    return HelperCommand::run(command.front(), arguments);
  }

  // Skips with the run's reason (and `also`), or fails unless the run passed.
  void takeOutcome(const HelperCommand::Result& run, const std::vector<std::string>& command,
                   const std::string& also) {
    std::string output = run.stdout + run.stderr;
    if (std::string::size_type at = output.find(": Skipped\n"); at != std::string::npos) {
      GTEST_SKIP() << output.substr(at + 10, output.find('\n', at + 10) - at - 10)
                   << (also.empty() ? "" : "; " + also);
    }
    ASSERT_EQ(run.status, 0) << join(command, " ") << ":\n" << output;
    ASSERT_NE(output.find("[  PASSED  ] 1 test."), std::string::npos) << output;
  }

  void addParent(const std::string& name) { mustIP({"link", "add", name, "type", parentKind_}); }

  TestEnvironment test;
  NetlinkVLANConfiguration configuration;
  bool inNamespace_ = false;
  std::string parentKind_;
  bool vlanSupported_ = false;
  std::string vlanRefusal_;
};

// Opens every test: outside its namespace the test has already run there.
#define IN_ITS_OWN_NAMESPACE() \
  if (!inNamespace_) return

// For the tests, or their parts, that need kernel VLAN links.
#define SKIP_WITHOUT_VLANS() \
  if (!vlanSupported_)       \
  GTEST_SKIP() << "this kernel has no 802.1Q VLAN links (CONFIG_VLAN_8021Q): " << vlanRefusal_

TEST_F(NetlinkVLANInNamespace, CreateListsAndDeletesKernelVLANs) {
  IN_ITS_OWN_NAMESPACE();
  SKIP_WITHOUT_VLANS();
  addParent("eth0x");
  addParent("eth1x");
  mustIP({"link", "set", "eth1x", "up"});

  EXPECT_EQ(HelperVLAN::create(test.env, configuration, " \tOffice net ", 42, "eth1x"), "vlan0");
  std::string shown = details("vlan0");
  EXPECT_NE(shown.find("vlan0@eth1x"), std::string::npos) << shown;
  EXPECT_NE(shown.find("vlan protocol 802.1Q id 42 "), std::string::npos) << shown;
  EXPECT_NE(shown.find("alias Office net\n"), std::string::npos) << shown;
  EXPECT_NE(shown.find(",UP"), std::string::npos) << shown;

  // The same tag on another parent is another VLAN; a blank name sets no alias. The parent is
  // down, so the VLAN cannot be brought up, and is made all the same.
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, "   ", 42, "eth0x"), "vlan1");
  shown = details("vlan1");
  EXPECT_EQ(shown.find("alias"), std::string::npos) << shown;
  EXPECT_EQ(shown.find(",UP"), std::string::npos) << shown;
  EXPECT_EQ(contentOf(test.recordFile()), R"([{"bsdName":"vlan0","tag":42,"parentBSD":"eth1x"},)"
                                          R"({"bsdName":"vlan1","tag":42,"parentBSD":"eth0x"}])");

  EXPECT_EQ(
      HelperVLAN::createdVLANs(test.env, configuration),
      (std::vector<CreatedVLAN>{{"vlan0", 42, "eth1x", "Office net"}, {"vlan1", 42, "eth0x", ""}}));

  HelperVLAN::deleteVLAN(test.env, configuration, "vlan0");
  EXPECT_FALSE(linkExists("vlan0"));
  EXPECT_TRUE(linkExists("vlan1"));
  EXPECT_EQ(HelperVLAN::createdVLANs(test.env, configuration),
            (std::vector<CreatedVLAN>{{"vlan1", 42, "eth0x", ""}}));

  // The freed name is the lowest free one again.
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, "", 43, "eth1x"), "vlan0");
  EXPECT_EQ(test.logged(),
            (std::vector<std::string>{
                "Created VLAN vlan0 (tag 42) on eth1x.", "Created VLAN vlan1 (tag 42) on eth0x.",
                "Deleted VLAN vlan0.", "Created VLAN vlan0 (tag 43) on eth1x."}));
}

// The display name is best effort: a name the kernel cannot keep as alias leaves the VLAN made,
// recorded and listed all the same.
TEST_F(NetlinkVLANInNamespace, ADisplayNameTheKernelCannotKeepStillGivesARecordedVLAN) {
  IN_ITS_OWN_NAMESPACE();
  SKIP_WITHOUT_VLANS();
  addParent("eth6x");
  // The kernel keeps an alias of up to IFALIASZ (256) bytes with its terminating zero, which
  // netlink carries along: 254 bytes fit, 255 and 300 do not.
  const std::string longest(254, 'n');
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, "\t" + longest + " ", 60, "eth6x"),
            "vlan0");
  // The name's length is the tag.
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, std::string(255, 'n'), 255, "eth6x"),
            "vlan1");
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, std::string(300, 'n'), 300, "eth6x"),
            "vlan2");
  EXPECT_EQ(contentOf(test.recordFile()), R"([{"bsdName":"vlan0","tag":60,"parentBSD":"eth6x"},)"
                                          R"({"bsdName":"vlan1","tag":255,"parentBSD":"eth6x"},)"
                                          R"({"bsdName":"vlan2","tag":300,"parentBSD":"eth6x"}])");
  std::vector<std::string> listed;
  for (const CreatedVLAN& vlan : HelperVLAN::createdVLANs(test.env, configuration)) {
    listed.push_back(vlan.bsdName + " " + std::to_string(vlan.tag) + " " + vlan.parentBSD +
                     (vlan.name == longest ? " longest" : ""));
  }
  EXPECT_EQ(listed, (std::vector<std::string>{"vlan0 60 eth6x longest", "vlan1 255 eth6x",
                                              "vlan2 300 eth6x"}));
  EXPECT_NE(details("vlan1").find("vlan protocol 802.1Q id 255 "), std::string::npos);
  HelperVLAN::deleteVLAN(test.env, configuration, "vlan1");
  EXPECT_FALSE(linkExists("vlan1"));
}

TEST_F(NetlinkVLANInNamespace, VLANMadeOutsideIsListedButNotDeleted) {
  IN_ITS_OWN_NAMESPACE();
  SKIP_WITHOUT_VLANS();
  addParent("eth2x");
  mustIP({"link", "add", "link", "eth2x", "name", "vlan7", "type", "vlan", "id", "7"});

  std::unique_ptr<VLANPreferences> preferences = configuration.createPreferences("test");
  ASSERT_NE(preferences, nullptr);
  std::optional<NetworkInterfaceID> outside =
      named(*preferences, preferences->allVLANInterfaces(), "vlan7");
  ASSERT_TRUE(outside.has_value());
  EXPECT_EQ(preferences->tag(*outside), 7);
  std::optional<NetworkInterfaceID> parent = preferences->physicalInterface(*outside);
  ASSERT_TRUE(parent.has_value());
  EXPECT_EQ(preferences->bsdName(*parent), "eth2x");
  EXPECT_EQ(preferences->displayName(*outside), std::nullopt);

  EXPECT_EQ(errorOf([&] { HelperVLAN::deleteVLAN(test.env, configuration, "vlan7"); }),
            "Tarnly's helper only removes VLANs it created.");
  EXPECT_TRUE(linkExists("vlan7"));
  EXPECT_EQ(test.logged(),
            (std::vector<std::string>{"Left VLAN vlan7 alone: Tarnly's helper didn't create it."}));
  EXPECT_TRUE(HelperVLAN::createdVLANs(test.env, configuration).empty());

  // The outside VLAN keeps its parent and tag to itself, but not the names below its own.
  EXPECT_EQ(errorOf([&] { HelperVLAN::create(test.env, configuration, "", 7, "eth2x"); }),
            "macOS refused to create the VLAN interface.");
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, "", 8, "eth2x"), "vlan0");
  EXPECT_EQ(HelperVLAN::create(test.env, configuration, "", 9, "eth2x"), "vlan1");
}

// The descriptors this process has open (the listing's own left out).
std::set<std::string> openDescriptors() {
  std::set<std::string> fds;
  if (DIR* dir = ::opendir("/proc/self/fd")) {
    while (dirent* entry = ::readdir(dir)) fds.insert(entry->d_name);
    fds.erase(std::to_string(::dirfd(dir)));
    ::closedir(dir);
  }
  return fds;
}

TEST_F(NetlinkVLANInNamespace, OnlyPlainEthernetLinksCarryVLANsAndNoSocketStaysOpen) {
  IN_ITS_OWN_NAMESPACE();
  addParent("eth3x");
  // Link kinds the kernel may lack; each is checked where it has them.
  ip({"link", "add", "br3x", "type", "bridge"});
  ip({"link", "add", "link", "eth3x", "name", "mv3x", "type", "macvlan"});
  ip({"tuntap", "add", "dev", "tap3x", "mode", "tap"});
  ip({"tuntap", "add", "dev", "tun3x", "mode", "tun"});
  ip({"link", "add", "bond3x", "type", "bond"});
  ip({"link", "add", "link", "eth3x", "name", "vlan30", "type", "vlan", "id", "30"});
  const std::set<std::string> before = openDescriptors();
  {
    std::unique_ptr<VLANPreferences> preferences = configuration.createPreferences("test");
    ASSERT_NE(preferences, nullptr);
    std::optional<std::vector<NetworkInterfaceID>> physical =
        preferences->availablePhysicalInterfaces();
    ASSERT_TRUE(physical.has_value());
    EXPECT_EQ(names(*preferences, *physical), std::vector<std::string>{"eth3x"});
    // The handle's sockets are close-on-exec, and closed again with it.
    std::set<std::string> during = openDescriptors();
    ASSERT_GT(during.size(), before.size());
    for (const std::string& fd : during) {
      int flags = before.count(fd) != 0 ? FD_CLOEXEC : ::fcntl(std::stoi(fd), F_GETFD);
      EXPECT_TRUE(flags >= 0 && (flags & FD_CLOEXEC) != 0) << "descriptor " << fd;
    }
  }
  EXPECT_EQ(openDescriptors(), before);

  // Refused, failed and successful requests alike leave nothing open.
  for (const char* parent : {"eth9x", "br3x", "mv3x", "tap3x", "lo", "vlan30"}) {
    EXPECT_EQ(errorOf([&] { HelperVLAN::create(test.env, configuration, "x", 5, parent); }),
              std::string("No physical interface named ") + parent + ".");
  }
  // Ids outside 802.1Q's usable range never reach the kernel.
  for (std::int64_t tag : {0, 4095, 65536 + 5, -1}) {
    EXPECT_EQ(errorOf([&] { HelperVLAN::create(test.env, configuration, "", tag, "eth3x"); }),
              "macOS refused to create the VLAN interface.")
        << tag;
  }
  EXPECT_FALSE(pathExists(test.recordFile()));
  EXPECT_EQ(errorOf([&] { HelperVLAN::deleteVLAN(test.env, configuration, "vlan99"); }),
            "No VLAN interface named vlan99.");

  if (!vlanSupported_) {
    // The kernel refuses the link when it is carried out: nothing is recorded and nothing stays.
    EXPECT_EQ(errorOf([&] { HelperVLAN::create(test.env, configuration, "Lab", 4094, "eth3x"); }),
              "Could not save the network configuration.");
    EXPECT_FALSE(pathExists(test.recordFile()));
    EXPECT_FALSE(linkExists("vlan0"));
    EXPECT_TRUE(test.logged().empty());
  } else {
    // One VLAN per parent and tag.
    EXPECT_THROW(HelperVLAN::create(test.env, configuration, "", 30, "eth3x"),
                 HelperVLAN::VLANError);
    EXPECT_EQ(HelperVLAN::create(test.env, configuration, "", 4094, "eth3x"), "vlan0");
    EXPECT_NE(details("vlan0").find("id 4094 "), std::string::npos);
    EXPECT_EQ(HelperVLAN::createdVLANs(test.env, configuration).size(), 1U);
    HelperVLAN::deleteVLAN(test.env, configuration, "vlan0");
  }
  EXPECT_EQ(openDescriptors(), before);
}

TEST_F(NetlinkVLANInNamespace, CommitRefusesChangesTheKernelNoLongerAllows) {
  IN_ITS_OWN_NAMESPACE();
  addParent("eth4x");
  addParent("eth5x");
  // A VLAN on a parent that went away in between.
  std::unique_ptr<VLANPreferences> first = configuration.createPreferences("test");
  ASSERT_NE(first, nullptr);
  std::optional<NetworkInterfaceID> onEth4x = plan(*first, "eth4x", 200);
  ASSERT_TRUE(onEth4x.has_value());
  EXPECT_EQ(first->bsdName(*onEth4x), "vlan0");
  EXPECT_EQ(first->tag(*onEth4x), 200);
  EXPECT_EQ(first->physicalInterface(*onEth4x),
            named(*first, first->availablePhysicalInterfaces(), "eth4x"));
  std::optional<std::vector<NetworkInterfaceID>> listed = first->allVLANInterfaces();
  ASSERT_TRUE(listed.has_value());
  EXPECT_EQ(names(*first, *listed), std::vector<std::string>{"vlan0"});
  mustIP({"link", "del", "eth4x"});
  EXPECT_FALSE(first->commit());
  EXPECT_TRUE(first->apply());  // nothing was committed, so nothing is done
  EXPECT_FALSE(linkExists("vlan0"));

  // A VLAN made and removed again in the same handle is never carried out.
  std::unique_ptr<VLANPreferences> second = configuration.createPreferences("test");
  ASSERT_EQ(
      second->availablePhysicalInterfaces().value_or(std::vector<NetworkInterfaceID>{}).size(), 1U);
  std::optional<NetworkInterfaceID> dropped = plan(*second, "eth5x", 300);
  ASSERT_TRUE(dropped.has_value());
  EXPECT_TRUE(second->remove(*dropped));
  EXPECT_FALSE(second->remove(*dropped));
  EXPECT_TRUE(second->allVLANInterfaces()->empty());
  EXPECT_TRUE(second->commit());
  EXPECT_TRUE(second->apply());
  EXPECT_FALSE(linkExists("vlan0"));

  SKIP_WITHOUT_VLANS();
  // Another program takes the planned name in between: the VLAN gets the next free one.
  std::unique_ptr<VLANPreferences> third = configuration.createPreferences("test");
  std::optional<NetworkInterfaceID> vlan = plan(*third, "eth5x", 100);
  ASSERT_TRUE(vlan.has_value());
  std::string planned = third->bsdName(*vlan).value_or("");
  addParent(planned);
  ASSERT_TRUE(third->commit());
  ASSERT_TRUE(third->apply());
  std::string actual = third->bsdName(*vlan).value_or("");
  EXPECT_NE(actual, planned);
  EXPECT_NE(details(actual).find("id 100 "), std::string::npos);

  // A VLAN removed by another program in between.
  ASSERT_TRUE(third->remove(*vlan));
  mustIP({"link", "del", actual});
  EXPECT_FALSE(third->commit());

  // A parent and tag that another program took meanwhile.
  std::unique_ptr<VLANPreferences> fourth = configuration.createPreferences("test");
  std::optional<NetworkInterfaceID> onEth5x = plan(*fourth, "eth5x", 300);
  ASSERT_TRUE(onEth5x.has_value());
  std::string plannedOnEth5x = fourth->bsdName(*onEth5x).value_or("");
  mustIP({"link", "add", "link", "eth5x", "name", "outside300", "type", "vlan", "id", "300"});
  EXPECT_FALSE(fourth->commit());
  EXPECT_FALSE(linkExists(plannedOnEth5x));
}

}  // namespace
