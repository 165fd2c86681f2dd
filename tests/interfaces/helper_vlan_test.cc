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
using Fake = FakeVLANConfiguration;

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
  void writeRecords(const std::vector<Record>& r) { writeRecords(HelperVLAN::encodeRecords(r)); }
  void writeRecords(const std::string& json) {
    test.tree.write("Library/Application Support/Tarnly/vlans.json", json, 0600);
  }
  std::string records() const { return contentOf(test.recordFile()); }
  std::vector<Record> stored() const { return HelperVLAN::loadRecords(test.env); }

  TestEnvironment test;
  Fake fake;
  NetworkInterfaceID en0 = 0;
  NetworkInterfaceID en1 = 0;
};

TEST_F(HelperVLANTest, CreateMakesTheVLANRecordsItAndLogs) {
  EXPECT_EQ(create(" \t Office\u00a0", 5, "en1"), "vlan0");
  EXPECT_EQ(create(" \t ", 6, "en0"), "vlan1");
  EXPECT_EQ(create("\nLab\n", -7, "en0"), "vlan2");  // the system decides about tags

  std::optional<Fake::Interface> vlan = fake.find("vlan0");
  ASSERT_TRUE(vlan.has_value());
  EXPECT_EQ(vlan->tag, 5);
  EXPECT_EQ(vlan->parent, en1);
  // Display names are trimmed of blanks only; a blank name sets none.
  EXPECT_EQ(vlan->displayName, "Office");
  EXPECT_EQ(fake.find("vlan1")->displayName, std::nullopt);
  EXPECT_EQ(fake.find("vlan2")->displayName, "\nLab\n");
  EXPECT_EQ(fake.clients(), Lines(3, "TarnlyAdminHelper"));
  EXPECT_EQ(fake.commits(), 3);
  EXPECT_EQ(fake.applies(), 3);

  EXPECT_EQ(records(), R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan1","tag":6,"parentBSD":"en0"},)"
                       R"({"bsdName":"vlan2","tag":-7,"parentBSD":"en0"}])");
  EXPECT_EQ(modeOf(test.recordFile()), 0600);
  EXPECT_EQ(test.logged(),
            (Lines{"Created VLAN vlan0 (tag 5) on en1.", "Created VLAN vlan1 (tag 6) on en0.",
                   "Created VLAN vlan2 (tag -7) on en0."}));
}

TEST_F(HelperVLANTest, CreateDropsRecordsOfVanishedVLANsAndReplacesAReusedName) {
  fake.addVLAN("vlan0", 10, en0);
  fake.addVLAN("vlan2", 12, en1);
  writeRecords({{"vlan2", 12, "en1"}, {"vlan1", 11, "en0"}, {"vlan0", 10, "en0"}});
  // vlan1 vanished by other means: its name is taken again and its record replaced.
  EXPECT_EQ(create("", 20, "en1"), "vlan1");
  EXPECT_EQ(stored(), (std::vector<Record>{
                          {"vlan2", 12, "en1"}, {"vlan0", 10, "en0"}, {"vlan1", 20, "en1"}}));

  // A VLAN without a BSD name is reported as "" and not recorded; the vanished vlan0 still goes.
  fake.change("vlan0", [](Fake::Interface& i) { i.exists = false; });
  fake.newVLANsWithoutName = true;
  EXPECT_EQ(create("x", 7, "en0"), "");
  EXPECT_EQ(test.logged().back(), "Created VLAN  (tag 7) on en0.");
  EXPECT_EQ(stored(), (std::vector<Record>{{"vlan2", 12, "en1"}, {"vlan1", 20, "en1"}}));

  // Without any VLAN listed, every record goes and the file is an empty array.
  fake.noVLANList = true;
  create("", 8, "en0");
  EXPECT_EQ(records(), "[]");
}

TEST_F(HelperVLANTest, RefusalsCarryTheirMessagesAndLeaveTheRecordAlone) {
  fake.addVLAN("vlan9", 9, en0);
  create("", 5, "en0");  // vlan0
  const std::string before = records();
  const std::string noSave = "Could not save the network configuration.";
  const std::string noOpen = "Could not open the system network preferences.";

  for (const char* parent : {"en2", "vlan9", "", "EN0"}) {
    EXPECT_EQ(errorOf([&] { create("", 5, parent); }),
              std::string("No physical interface named ") + parent + ".");
  }
  EXPECT_EQ(errorOf([&] { remove("vlan4"); }), "No VLAN interface named vlan4.");
  EXPECT_EQ(errorOf([&] { remove("en0"); }), "No VLAN interface named en0.");

  struct Case {
    bool Fake::*knob;
    std::string onCreate;
    std::string onDelete;
  };
  for (const Case& c :
       {Case{&Fake::noPhysicalList, "No physical interface named en0.", ""},
        Case{&Fake::noVLANList, "", "No VLAN interface named vlan0."},
        Case{&Fake::refuseCreate, "macOS refused to create the VLAN interface.", ""},
        Case{&Fake::failCommit, noSave, noSave}, Case{&Fake::refuseHandle, noOpen, noOpen}}) {
    fake.*c.knob = true;
    if (!c.onCreate.empty()) {
      EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), c.onCreate);
    }
    if (!c.onDelete.empty()) {
      EXPECT_EQ(errorOf([&] { remove("vlan0"); }), c.onDelete);
    }
    fake.*c.knob = false;
  }
  EXPECT_EQ(fake.applies(), 1);  // no apply after a failed commit
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan9", "vlan0"}));

  // A failed apply keeps what was saved: a created VLAN without a record, a deleted VLAN's record.
  fake.failApply = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), noSave);
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan9", "vlan0", "vlan1"}));
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), noSave);
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan9", "vlan1"}));

  EXPECT_EQ(records(), before);
  EXPECT_EQ(test.logged(), Lines{"Created VLAN vlan0 (tag 5) on en0."});
}

TEST_F(HelperVLANTest, DeleteRemovesOnlyVLANsTheHelperRecorded) {
  create("A", 5, "en0");
  create("B", 6, "en1");
  remove("vlan0");
  EXPECT_EQ(fake.vlanNames(), Lines{"vlan1"});
  EXPECT_EQ(stored(), (std::vector<Record>{{"vlan1", 6, "en1"}}));
  EXPECT_EQ(test.logged().back(), "Deleted VLAN vlan0.");
  // Duplicated records of the same VLAN all go.
  writeRecords({{"vlan1", 6, "en1"}, {"vlan1", 6, "en1"}});
  remove("vlan1");
  EXPECT_EQ(records(), "[]");
  EXPECT_TRUE(fake.vlanNames().empty());

  fake.addVLAN("vlan7", 7, en0);                      // made by the user
  fake.addVLAN("vlan8", 8, en1);                      // recorded with another tag
  fake.addVLAN("vlan9", 9, en1);                      // recorded on another parent
  fake.addVLAN("vlan6", std::nullopt, std::nullopt);  // no tag, no parent
  const std::vector<Record> before{{"vlan8", 80, "en1"}, {"vlan9", 9, "en0"}, {"vlan6", -1, "x"}};
  writeRecords(before);
  const int commits = fake.commits();
  Lines expected = test.logged();
  for (const char* name : {"vlan7", "vlan8", "vlan9", "vlan6"}) {
    EXPECT_EQ(errorOf([&] { remove(name); }), "Tarnly's helper only removes VLANs it created.");
    expected.push_back(std::string("Left VLAN ") + name +
                       " alone: Tarnly's helper didn't create it.");
  }
  EXPECT_EQ(test.logged(), expected);
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan7", "vlan8", "vlan9", "vlan6"}));
  EXPECT_EQ(stored(), before);
  EXPECT_EQ(fake.commits(), commits);

  // A VLAN without tag or parent is the helper's when recorded as (-1, "").
  writeRecords({{"vlan6", -1, ""}});
  remove("vlan6");
  EXPECT_EQ(records(), "[]");
}

TEST_F(HelperVLANTest, ListingShowsRecordedVLANsThatStillMatch) {
  // Without records (no file, empty, unreadable) no handle is opened.
  fake.addVLAN("vlan3", 3, en0, "Outside");  // not recorded
  for (const char* json : {"", "[]", "not json"}) {
    if (*json != '\0') writeRecords(json);
    EXPECT_TRUE(list().empty()) << json;
  }
  EXPECT_TRUE(fake.clients().empty());

  create("Office", 5, "en0");  // vlan0
  create("  ", 6, "en1");      // vlan1, no display name
  create("Lab", 7, "en1");     // vlan2
  fake.change("vlan2", [&](Fake::Interface& i) { i.parent = en0; });
  create("Gone", 8, "en1");  // vlan4
  fake.change("vlan4", [](Fake::Interface& i) { i.exists = false; });
  const std::string before = records();

  EXPECT_EQ(list(),
            (std::vector<CreatedVLAN>{{"vlan0", 5, "en0", "Office"}, {"vlan1", 6, "en1", ""}}));
  EXPECT_EQ(records(), before);  // the vanished vlan4 stays recorded until the next create

  fake.change("vlan1", [](Fake::Interface& i) { i.tag = 60; });
  EXPECT_EQ(list(), (std::vector<CreatedVLAN>{{"vlan0", 5, "en0", "Office"}}));
  fake.noVLANList = true;
  EXPECT_TRUE(list().empty());
  fake.noVLANList = false;
  fake.refuseHandle = true;
  EXPECT_TRUE(list().empty());
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
        if (i % 2 == 1) {
          EXPECT_NO_THROW(remove(name)) << name;  // every other one goes again
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
