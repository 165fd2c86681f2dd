#include "interfaces/helper_vlan.h"

#include <gtest/gtest.h>

#include <functional>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

#include "fake_vlan_configuration.h"
#include "test_environment.h"

namespace {

using HelperVLAN::Record;
using HelperVLAN::VLANError;
using Lines = std::vector<std::string>;

// The message of the VLANError the call throws, or "<no error>".
std::string errorOf(const std::function<void()>& call) {
  try {
    call();
  } catch (const VLANError& error) {
    return error.what();
  }
  return "<no error>";
}

class HelperVLANTest : public ::testing::Test {
 protected:
  HelperVLANTest() {
    fake.addPhysical(std::nullopt);  // an interface without a BSD name comes first
    en0 = fake.addPhysical("en0");
    en1 = fake.addPhysical("en1");
  }

  std::string create(const std::string& name, std::int64_t tag, const std::string& parent) {
    return HelperVLAN::create(test.env, fake, name, tag, parent);
  }
  void remove(const std::string& bsdName) { HelperVLAN::deleteVLAN(test.env, fake, bsdName); }
  std::vector<CreatedVLAN> list() { return HelperVLAN::createdVLANs(test.env, fake); }
  void writeRecords(const std::string& json) { test.tree.write(recordPath(), json, 0600); }
  std::string recordPath() const { return "Library/Application Support/Tarnly/vlans.json"; }
  std::string records() const { return contentOf(test.recordFile()); }

  TestEnvironment test;
  FakeVLANConfiguration fake;
  NetworkInterfaceID en0 = 0;
  NetworkInterfaceID en1 = 0;
};

TEST_F(HelperVLANTest, CreateMakesTheVLANRecordsItAndLogs) {
  EXPECT_EQ(create("Office", 5, "en1"), "vlan0");
  EXPECT_EQ(create("Lab", 6, "en0"), "vlan1");

  std::optional<FakeVLANConfiguration::Interface> vlan = fake.find("vlan0");
  ASSERT_TRUE(vlan.has_value());
  EXPECT_EQ(vlan->tag, 5);
  EXPECT_EQ(vlan->parent, en1);
  EXPECT_EQ(vlan->displayName, "Office");
  EXPECT_EQ(fake.clients(), (Lines{"TarnlyAdminHelper", "TarnlyAdminHelper"}));
  EXPECT_EQ(fake.commits(), 2);
  EXPECT_EQ(fake.applies(), 2);

  EXPECT_EQ(records(), R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan1","tag":6,"parentBSD":"en0"}])");
  EXPECT_EQ(modeOf(test.recordFile()), 0600);
  EXPECT_EQ(test.logged(),
            (Lines{"Created VLAN vlan0 (tag 5) on en1.", "Created VLAN vlan1 (tag 6) on en0."}));
}

TEST_F(HelperVLANTest, DisplayNameIsTrimmedOfBlanksOnlyAndABlankNameSetsNone) {
  create(" \t Office\u00a0", 1, "en0");
  create(" \t ", 2, "en0");
  create("\nLab\n", 3, "en0");
  EXPECT_EQ(fake.find("vlan0")->displayName, "Office");
  EXPECT_EQ(fake.find("vlan1")->displayName, std::nullopt);
  EXPECT_EQ(fake.find("vlan2")->displayName, "\nLab\n");
  // The system decides about tags; the helper passes any through.
  create("", -7, "en1");
  EXPECT_EQ(fake.find("vlan3")->tag, -7);
  EXPECT_EQ(test.logged().back(), "Created VLAN vlan3 (tag -7) on en1.");
}

TEST_F(HelperVLANTest, CreateDropsRecordsOfVanishedVLANsAndReplacesAReusedName) {
  fake.addVLAN("vlan0", 10, en0);
  fake.addVLAN("vlan2", 12, en1);
  writeRecords(R"([{"bsdName":"vlan2","tag":12,"parentBSD":"en1"},)"
               R"({"bsdName":"vlan1","tag":11,"parentBSD":"en0"},)"
               R"({"bsdName":"vlan0","tag":10,"parentBSD":"en0"}])");
  // vlan1 vanished by other means: its name is taken again and its record replaced.
  EXPECT_EQ(create("", 20, "en1"), "vlan1");
  EXPECT_EQ(records(), R"([{"bsdName":"vlan2","tag":12,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan0","tag":10,"parentBSD":"en0"},)"
                       R"({"bsdName":"vlan1","tag":20,"parentBSD":"en1"}])");

  fake.change("vlan0", [](FakeVLANConfiguration::Interface& i) { i.exists = false; });
  EXPECT_EQ(create("", 21, "en1"), "vlan0");
  EXPECT_EQ(records(), R"([{"bsdName":"vlan2","tag":12,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan1","tag":20,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan0","tag":21,"parentBSD":"en1"}])");
}

TEST_F(HelperVLANTest, CreateWithoutABSDNameRecordsNothingButStillPrunes) {
  fake.addVLAN("vlan0", 10, en0);
  writeRecords(R"([{"bsdName":"vlan0","tag":10,"parentBSD":"en0"},)"
               R"({"bsdName":"vlan5","tag":15,"parentBSD":"en0"}])");
  fake.newVLANsWithoutName = true;
  EXPECT_EQ(create("x", 7, "en0"), "");
  EXPECT_EQ(test.logged(), Lines{"Created VLAN  (tag 7) on en0."});
  EXPECT_EQ(records(), R"([{"bsdName":"vlan0","tag":10,"parentBSD":"en0"}])");

  // Without any VLAN listed, every record goes and the file is an empty array.
  fake.noVLANList = true;
  create("", 8, "en0");
  EXPECT_EQ(records(), "[]");
}

TEST_F(HelperVLANTest, CreateRefusalsCarryTheirMessagesAndLeaveTheRecordAlone) {
  const std::string before = R"([{"bsdName":"vlan9","tag":9,"parentBSD":"en0"}])";
  fake.addVLAN("vlan9", 9, en0);
  writeRecords(before);

  EXPECT_EQ(errorOf([&] { create("", 5, "en2"); }), "No physical interface named en2.");
  EXPECT_EQ(errorOf([&] { create("", 5, "vlan9"); }), "No physical interface named vlan9.");
  EXPECT_EQ(errorOf([&] { create("", 5, ""); }), "No physical interface named .");
  EXPECT_EQ(errorOf([&] { create("", 5, "EN0"); }), "No physical interface named EN0.");
  fake.noPhysicalList = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), "No physical interface named en0.");
  fake.noPhysicalList = false;

  fake.refuseCreate = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), "macOS refused to create the VLAN interface.");
  fake.refuseCreate = false;

  fake.failCommit = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), "Could not save the network configuration.");
  EXPECT_EQ(fake.applies(), 0);  // no apply after a failed commit
  fake.failCommit = false;

  // A failed apply keeps the saved VLAN, which then has no record.
  fake.failApply = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), "Could not save the network configuration.");
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan9", "vlan0"}));
  fake.failApply = false;

  fake.refuseHandle = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }),
            "Could not open the system network preferences.");

  EXPECT_EQ(records(), before);
  EXPECT_TRUE(test.logged().empty());
}

TEST_F(HelperVLANTest, DeleteRemovesARecordedVLANAndItsRecord) {
  create("A", 5, "en0");
  create("B", 6, "en1");
  remove("vlan0");
  EXPECT_EQ(fake.vlanNames(), Lines{"vlan1"});
  EXPECT_EQ(records(), R"([{"bsdName":"vlan1","tag":6,"parentBSD":"en1"}])");
  EXPECT_EQ(test.logged().back(), "Deleted VLAN vlan0.");

  // Duplicated records of the same VLAN all go.
  writeRecords(R"([{"bsdName":"vlan1","tag":6,"parentBSD":"en1"},)"
               R"({"bsdName":"vlan1","tag":6,"parentBSD":"en1"}])");
  remove("vlan1");
  EXPECT_EQ(records(), "[]");
  EXPECT_TRUE(fake.vlanNames().empty());
}

TEST_F(HelperVLANTest, DeleteLeavesVLANsTheHelperDidNotCreate) {
  fake.addVLAN("vlan7", 7, en0);                      // made by the user
  fake.addVLAN("vlan8", 8, en1);                      // recorded with another tag
  fake.addVLAN("vlan9", 9, en1);                      // recorded on another parent
  fake.addVLAN("vlan6", std::nullopt, std::nullopt);  // no tag, no parent
  const std::string before = R"([{"bsdName":"vlan8","tag":80,"parentBSD":"en1"},)"
                             R"({"bsdName":"vlan9","tag":9,"parentBSD":"en0"},)"
                             R"({"bsdName":"vlan6","tag":-1,"parentBSD":"x"}])";
  writeRecords(before);

  for (const char* name : {"vlan7", "vlan8", "vlan9", "vlan6"}) {
    EXPECT_EQ(errorOf([&] { remove(name); }), "Tarnly's helper only removes VLANs it created.");
  }
  EXPECT_EQ(test.logged(), (Lines{"Left VLAN vlan7 alone: Tarnly's helper didn't create it.",
                                  "Left VLAN vlan8 alone: Tarnly's helper didn't create it.",
                                  "Left VLAN vlan9 alone: Tarnly's helper didn't create it.",
                                  "Left VLAN vlan6 alone: Tarnly's helper didn't create it."}));
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan7", "vlan8", "vlan9", "vlan6"}));
  EXPECT_EQ(records(), before);
  EXPECT_EQ(fake.commits(), 0);

  // A VLAN without tag or parent is the helper's when recorded as (-1, "").
  writeRecords(R"([{"bsdName":"vlan6","tag":-1,"parentBSD":""}])");
  remove("vlan6");
  EXPECT_EQ(records(), "[]");
}

TEST_F(HelperVLANTest, DeleteRefusalsCarryTheirMessages) {
  create("", 5, "en0");
  const std::string before = records();
  EXPECT_EQ(errorOf([&] { remove("vlan4"); }), "No VLAN interface named vlan4.");
  EXPECT_EQ(errorOf([&] { remove("en0"); }), "No VLAN interface named en0.");
  fake.noVLANList = true;
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), "No VLAN interface named vlan0.");
  fake.noVLANList = false;

  fake.failCommit = true;
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), "Could not save the network configuration.");
  fake.failCommit = false;
  EXPECT_EQ(fake.vlanNames(), Lines{"vlan0"});

  // Saved but not applied: the record stays.
  fake.failApply = true;
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), "Could not save the network configuration.");
  EXPECT_TRUE(fake.vlanNames().empty());
  fake.failApply = false;

  fake.refuseHandle = true;
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), "Could not open the system network preferences.");
  EXPECT_EQ(records(), before);
  EXPECT_EQ(test.logged(), Lines{"Created VLAN vlan0 (tag 5) on en0."});
}

TEST_F(HelperVLANTest, ListingShowsRecordedVLANsThatStillMatch) {
  fake.addVLAN("vlan3", 3, en0, "Outside");  // not recorded
  create("Office", 5, "en0");                // vlan0
  create("  ", 6, "en1");                    // vlan1, no display name
  create("Lab", 7, "en1");                   // vlan2
  fake.change("vlan2", [&](FakeVLANConfiguration::Interface& i) { i.parent = en0; });
  create("Gone", 8, "en1");  // vlan4
  fake.change("vlan4", [](FakeVLANConfiguration::Interface& i) { i.exists = false; });
  const std::string before = records();

  EXPECT_EQ(list(),
            (std::vector<CreatedVLAN>{{"vlan0", 5, "en0", "Office"}, {"vlan1", 6, "en1", ""}}));
  EXPECT_EQ(records(), before);  // the vanished vlan4 stays recorded until the next create

  fake.change("vlan1", [](FakeVLANConfiguration::Interface& i) { i.tag = 60; });
  EXPECT_EQ(list(), (std::vector<CreatedVLAN>{{"vlan0", 5, "en0", "Office"}}));

  fake.noVLANList = true;
  EXPECT_TRUE(list().empty());
  fake.noVLANList = false;
  fake.refuseHandle = true;
  EXPECT_TRUE(list().empty());
}

TEST_F(HelperVLANTest, ListingWithoutRecordsOpensNoHandle) {
  fake.addVLAN("vlan0", 5, en0);
  EXPECT_TRUE(list().empty());
  writeRecords("[]");
  EXPECT_TRUE(list().empty());
  writeRecords("not json");
  EXPECT_TRUE(list().empty());
  EXPECT_TRUE(fake.clients().empty());
  EXPECT_FALSE(pathExists(test.paths.stateDirectory + "/vlans.json.tmp"));
}

TEST_F(HelperVLANTest, ConcurrentCreatesAndDeletesLoseNoRecord) {
  constexpr int kThreads = 8;
  constexpr int kPerThread = 4;
  fake.addVLAN("vlan99", 99, en0);  // not the helper's; refused each time
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < kPerThread; ++i) {
        std::string name;
        EXPECT_NO_THROW(name = create("", 100 * t + i, t % 2 == 0 ? "en0" : "en1"));
        // Every other VLAN is deleted again right away.
        if (i % 2 == 1) {
          EXPECT_NO_THROW(remove(name)) << name;
        }
        EXPECT_THROW(remove("vlan99"), VLANError);
        HelperVLAN::removeRecordFileIfEmpty(test.env);
        list();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();

  std::vector<Record> stored = HelperVLAN::loadRecords(test.env);
  EXPECT_EQ(stored.size(), static_cast<size_t>(kThreads * kPerThread / 2));
  std::unordered_set<std::string> names;
  for (const Record& record : stored) {
    EXPECT_EQ(record.tag % 2, 0) << record.bsdName;
    EXPECT_TRUE(fake.find(record.bsdName).has_value()) << record.bsdName;
    names.insert(record.bsdName);
  }
  EXPECT_EQ(names.size(), stored.size());
  EXPECT_EQ(list().size(), stored.size());
}

}  // namespace
