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

TEST_F(HelperVLANTest, CreateRecordsWhatItMadeAndDeleteRemovesOnlyThat) {
  fake.addVLAN("vlan0", 10, en0);
  fake.addVLAN("vlan2", 12, en1);
  writeRecords({{"vlan2", 12, "en1"}, {"vlan1", 11, "en0"}, {"vlan0", 10, "en0"}});
  // vlan1 vanished by other means: its name is taken again and its record replaced. Display
  // names are trimmed of blanks only; a blank one sets none; the system decides about tags.
  EXPECT_EQ(create(" \t Office\u00a0", 20, "en1"), "vlan1");
  EXPECT_EQ(create(" \t ", -7, "en0"), "vlan3");
  EXPECT_EQ(create("\nLab\n", 6, "en0"), "vlan4");
  EXPECT_EQ(fake.find("vlan1")->displayName, "Office");
  EXPECT_EQ(fake.find("vlan1")->parent, en1);
  EXPECT_EQ(fake.find("vlan3")->displayName, std::nullopt);
  EXPECT_EQ(fake.find("vlan4")->displayName, "\nLab\n");
  EXPECT_EQ(fake.clients(), Lines(3, "TarnlyAdminHelper"));
  EXPECT_EQ(records(), R"([{"bsdName":"vlan2","tag":12,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan0","tag":10,"parentBSD":"en0"},)"
                       R"({"bsdName":"vlan1","tag":20,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan3","tag":-7,"parentBSD":"en0"},)"
                       R"({"bsdName":"vlan4","tag":6,"parentBSD":"en0"}])");
  EXPECT_EQ(modeOf(test.recordFile()), 0600);
  EXPECT_EQ(test.logged().front(), "Created VLAN vlan1 (tag 20) on en1.");

  // A VLAN without a BSD name is reported as "" and not recorded; the vanished vlan0 goes.
  fake.change("vlan0", [](Fake::Interface& i) { i.exists = false; });
  fake.newVLANsWithoutName = true;
  EXPECT_EQ(create("x", 7, "en0"), "");
  EXPECT_EQ(test.logged().back(), "Created VLAN  (tag 7) on en0.");
  EXPECT_EQ(stored().size(), 4U);
  fake.newVLANsWithoutName = false;

  // Delete: duplicated records all go; VLANs recorded otherwise or not at all are refused.
  writeRecords(
      {{"vlan1", 20, "en1"}, {"vlan1", 20, "en1"}, {"vlan2", 120, "en1"}, {"vlan3", -7, "en1"}});
  remove("vlan1");
  EXPECT_EQ(test.logged().back(), "Deleted VLAN vlan1.");
  fake.addVLAN("vlan6", std::nullopt, std::nullopt);  // no tag, no parent
  const int commits = fake.commits();
  for (const char* name : {"vlan4", "vlan2", "vlan3", "vlan6"}) {
    EXPECT_EQ(errorOf([&] { remove(name); }), "Tarnly's helper only removes VLANs it created.");
    EXPECT_EQ(test.logged().back(),
              std::string("Left VLAN ") + name + " alone: Tarnly's helper didn't create it.");
  }
  EXPECT_EQ(fake.commits(), commits);
  EXPECT_EQ(stored(), (std::vector<Record>{{"vlan2", 120, "en1"}, {"vlan3", -7, "en1"}}));
  // A VLAN without tag or parent is the helper's when recorded as (-1, "").
  writeRecords({{"vlan6", -1, ""}});
  remove("vlan6");
  EXPECT_EQ(records(), "[]");
  // Without any VLAN listed, every earlier record goes.
  writeRecords({{"vlan2", 12, "en1"}});
  fake.noVLANList = true;
  create("", 8, "en0");
  EXPECT_EQ(records(), R"([{"bsdName":"vlan0","tag":8,"parentBSD":"en0"}])");
}

TEST_F(HelperVLANTest, RefusalsCarryTheirMessagesAndLeaveTheRecordAlone) {
  fake.addVLAN("vlan9", 9, en0);
  create("", 5, "en0");  // vlan0
  const std::string before = records();
  const std::string noSave = "Could not save the network configuration.";
  const std::string noOpen = "Could not open the system network preferences.";
  const std::string noVLAN = "No VLAN interface named ";
  struct Case {
    bool Fake::*knob;
    std::string create, parent, remove, removed;
  };
  bool Fake::*none = nullptr;
  for (const Case& c :
       {Case{none, "No physical interface named en2.", "en2", noVLAN + "vlan4.", "vlan4"},
        Case{none, "No physical interface named vlan9.", "vlan9", noVLAN + "en0.", "en0"},
        Case{none, "No physical interface named .", "", "", ""},
        Case{none, "No physical interface named EN0.", "EN0", "", ""},
        Case{&Fake::noPhysicalList, "No physical interface named en0.", "en0", "", ""},
        Case{&Fake::noVLANList, "", "", noVLAN + "vlan0.", "vlan0"},
        Case{&Fake::refuseCreate, "macOS refused to create the VLAN interface.", "en0", "", ""},
        Case{&Fake::failCommit, noSave, "en0", noSave, "vlan0"},
        Case{&Fake::refuseHandle, noOpen, "en0", noOpen, "vlan0"}}) {
    if (c.knob) fake.*c.knob = true;
    if (!c.create.empty()) {
      EXPECT_EQ(errorOf([&] { create("", 5, c.parent); }), c.create);
    }
    if (!c.remove.empty()) {
      EXPECT_EQ(errorOf([&] { remove(c.removed); }), c.remove);
    }
    if (c.knob) fake.*c.knob = false;
  }
  EXPECT_EQ(fake.applies(), 1);  // no apply after a failed commit
  // A failed apply keeps what was saved: a created VLAN without a record, a deleted VLAN's record.
  fake.failApply = true;
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), noSave);
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), noSave);
  EXPECT_EQ(fake.vlanNames(), (Lines{"vlan9", "vlan1"}));
  EXPECT_EQ(records(), before);
  EXPECT_EQ(test.logged(), Lines{"Created VLAN vlan0 (tag 5) on en0."});
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
  create("Lab", 7, "en1");     // vlan2, moved below
  fake.change("vlan2", [&](Fake::Interface& i) { i.parent = en0; });
  create("Gone", 8, "en1");  // vlan4, vanishes below
  fake.change("vlan4", [](Fake::Interface& i) { i.exists = false; });
  const std::string before = records();
  EXPECT_EQ(list(),
            (std::vector<CreatedVLAN>{{"vlan0", 5, "en0", "Office"}, {"vlan1", 6, "en1", ""}}));
  EXPECT_EQ(records(), before);  // the vanished vlan4 stays recorded until the next create
  fake.change("vlan1", [](Fake::Interface& i) { i.tag = 60; });
  EXPECT_EQ(list().size(), 1U);
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
