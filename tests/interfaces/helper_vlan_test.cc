#include "interfaces/helper_vlan.h"

#include <gtest/gtest.h>
#include <sys/stat.h>

#include <algorithm>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "test_environment.h"

namespace {

using HelperVLAN::Record;
using ID = NetworkInterfaceID;
using IDs = std::optional<std::vector<ID>>;
using Text = std::optional<std::string>;
using Listing = std::vector<CreatedVLAN>;

// An in-memory VLAN configuration. A handle works on a copy of the interfaces and stores it back
// at commit, so only the helper's lock keeps concurrent changes from losing each other.
// Thread-safe: one lock over the store; the test edits `all` and `refused` between requests.
struct FakeVLANs final : VLANConfiguration {
  struct Interface {
    Text bsdName{}, displayName{};
    bool physical = false;  // else a VLAN
    std::optional<std::int64_t> tag{};
    std::optional<ID> parent{};
  };
  std::mutex lock;
  std::vector<Interface> all;     // ids are indexes; a removed one loses its name
  std::set<std::string> refused;  // "handle", "VLANs", "create", "commit", "apply"
  int applies = 0;

  bool has(const std::string& name) {
    return std::any_of(all.begin(), all.end(), [&](Interface& i) { return i.bsdName == name; });
  }
  std::unique_ptr<VLANPreferences> createPreferences(const std::string&) override {
    std::lock_guard<std::mutex> guard(lock);
    return refused.count("handle") ? nullptr : std::make_unique<Handle>(*this);
  }
  struct Handle final : VLANPreferences {
    explicit Handle(FakeVLANs& owner) : f(owner), s(owner.all) {}
    IDs select(bool physical) const {
      std::vector<ID> ids;
      for (ID id = 0; id < s.size(); ++id) {
        if (s[id].physical == physical && (physical || s[id].bsdName)) ids.push_back(id);
      }
      return physical || !f.refused.count("VLANs") ? IDs(ids) : std::nullopt;
    }
    IDs availablePhysicalInterfaces() override { return select(true); }
    IDs allVLANInterfaces() override { return select(false); }
    Text bsdName(ID id) override { return s.at(id).bsdName; }
    Text displayName(ID id) override { return s.at(id).displayName; }
    std::optional<std::int64_t> tag(ID id) override { return s.at(id).tag; }
    std::optional<ID> physicalInterface(ID id) override { return s.at(id).parent; }
    std::optional<ID> createVLAN(ID physical, std::int64_t tag) override {
      if (f.refused.count("create")) return std::nullopt;
      s.push_back({.tag = tag, .parent = physical});
      for (int n = 0; !s.back().bsdName; ++n) {
        const std::string name = "vlan" + std::to_string(n);
        if (std::none_of(s.begin(), s.end(), [&](auto& i) { return i.bsdName == name; })) {
          s.back().bsdName = name;
        }
      }
      return s.size() - 1;
    }
    bool setDisplayName(ID id, const std::string& name) override {
      return bool(s.at(id).displayName = name);
    }
    bool remove(ID id) override { return bool(std::exchange(s.at(id).bsdName, std::nullopt)); }
    bool commit() override {
      std::lock_guard<std::mutex> guard(f.lock);
      return !f.refused.count("commit") && (f.all = s, true);
    }
    bool apply() override {
      std::lock_guard<std::mutex> guard(f.lock);
      return ++f.applies && !f.refused.count("apply");
    }
    FakeVLANs& f;
    std::vector<Interface> s;  // the staged interfaces
  };
};

class HelperVLANTest : public ::testing::Test {
 protected:
  HelperVLANTest() {  // an interface without a BSD name first; en0 is 1, en1 is 2
    fake.all = {{.physical = true},
                {.bsdName = "en0", .physical = true},
                {.bsdName = "en1", .physical = true}};
  }
  void vlan(const std::string& name, std::optional<std::int64_t> tag, std::optional<ID> parent,
            const Text& display = {}) {  // a VLAN made outside the helper
    fake.all.push_back({.bsdName = name, .displayName = display, .tag = tag, .parent = parent});
  }
  std::string create(const std::string& name, std::int64_t tag, const std::string& parent) {
    return HelperVLAN::create(test.env, fake, name, tag, parent);
  }
  void remove(const std::string& bsdName) { HelperVLAN::deleteVLAN(test.env, fake, bsdName); }
  Listing list() { return HelperVLAN::createdVLANs(test.env, fake); }
  std::vector<Record> records() { return HelperVLAN::loadRecords(test.env); }
  void writeRecords(const std::vector<Record>& records, mode_t mode = 0600) {
    test.tree.write("state/vlans.json", HelperVLAN::encodeRecords(records), mode);
  }

  TestEnvironment test;
  FakeVLANs fake;
};

TEST_F(HelperVLANTest, CreateRecordsWhatItMadeListingShowsItAndDeleteRemovesOnlyThat) {
  vlan("vlan0", 10, 1);
  vlan("vlan2", 12, 2, "Away");
  EXPECT_TRUE(list().empty());
  writeRecords({{"vlan2", 12, "en1"}, {"vlan1", 11, "en0"}, {"vlan0", 10, "en0"}}, 0644);
  EXPECT_EQ(list(), (Listing{{"vlan0", 10, "en0", ""}, {"vlan2", 12, "en1", "Away"}}));
  EXPECT_EQ(records().size(), 3U);  // listing drops no record
  // vlan1 vanished by other means: its name is taken again and its record replaced. Display
  // names are trimmed; a blank one sets none; the system decides about tags.
  ::umask(0);
  EXPECT_EQ(create(" \t Office\u00a0", 20, "en1"), "vlan1");
  ::umask(022);
  EXPECT_EQ(create(" \t ", -7, "en0"), "vlan3");
  EXPECT_EQ(
      records(),
      (std::vector<Record>{
          {"vlan2", 12, "en1"}, {"vlan0", 10, "en0"}, {"vlan1", 20, "en1"}, {"vlan3", -7, "en0"}}));
  EXPECT_EQ(modeOf(test.recordFile()), 0600);  // whatever the umask and the old file's mode
  EXPECT_EQ(list(), (Listing{{"vlan0", 10, "en0", ""},
                             {"vlan2", 12, "en1", "Away"},
                             {"vlan1", 20, "en1", "Office"},
                             {"vlan3", -7, "en0", ""}}));

  // Delete: duplicated records all go; VLANs recorded otherwise or not at all stay and are not
  // listed.
  vlan("vlan4", 6, 1);
  vlan("vlan6", std::nullopt, std::nullopt);
  writeRecords(
      {{"vlan1", 20, "en1"}, {"vlan1", 20, "en1"}, {"vlan2", 120, "en1"}, {"vlan3", -7, "en1"}});
  remove("vlan1");
  for (const char* name : {"vlan4", "vlan2", "vlan3", "vlan6"}) {
    EXPECT_THROW(remove(name), HelperVLAN::VLANError);
    EXPECT_TRUE(fake.has(name)) << name;
  }
  EXPECT_TRUE(list().empty());
  EXPECT_EQ(records(), (std::vector<Record>{{"vlan2", 120, "en1"}, {"vlan3", -7, "en1"}}));
  const std::string alone = " alone: Tarnly's helper didn't create it.";
  EXPECT_EQ(test.logged(),
            (std::vector<std::string>{"Created VLAN vlan1 (tag 20) on en1.",
                                      "Created VLAN vlan3 (tag -7) on en0.", "Deleted VLAN vlan1.",
                                      "Left VLAN vlan4" + alone, "Left VLAN vlan2" + alone,
                                      "Left VLAN vlan3" + alone, "Left VLAN vlan6" + alone}));
  // A VLAN without tag or parent is the helper's when recorded as (-1, "").
  writeRecords({{"vlan6", -1, ""}});
  remove("vlan6");
  EXPECT_TRUE(records().empty() && pathExists(test.recordFile()));
  // Without any VLAN listed, every earlier record goes.
  writeRecords({{"vlan2", 12, "en1"}});
  fake.refused = {"VLANs"};
  EXPECT_EQ(create("", 8, "en0"), "vlan1");
  EXPECT_EQ(records(), (std::vector<Record>{{"vlan1", 8, "en0"}}));
}

TEST_F(HelperVLANTest, RefusalsCarryTheirMessagesAndLeaveTheRecordAlone) {
  vlan("vlan9", 9, 1);
  create("", 5, "en0");  // vlan0
  const std::vector<Record> before = records();
  const std::string noSave = "Could not save the network configuration.",
                    noVLAN = "No VLAN interface named ";
  const std::string noOpen = "Could not open the system network preferences.",
                    noPhysical = "No physical interface named ";
  struct Case {
    std::string refused, parent, createError, removed, removeError;
  };
  for (const Case& c : std::vector<Case>{
           {"", "en2", noPhysical + "en2.", "vlan4", noVLAN + "vlan4."},
           {"", "", noPhysical + ".", "vlan9", "Tarnly's helper only removes VLANs it created."},
           {"VLANs", "en3", noPhysical + "en3.", "vlan0", noVLAN + "vlan0."},
           {"create", "en0", "macOS refused to create the VLAN interface.", "en1", noVLAN + "en1."},
           {"commit", "en0", noSave, "vlan0", noSave},
           {"handle", "en0", noOpen, "vlan0", noOpen}}) {
    fake.refused = {c.refused};
    EXPECT_EQ(errorOf([&] { create("", 5, c.parent); }), c.createError);
    EXPECT_EQ(errorOf([&] { remove(c.removed); }), c.removeError);
    EXPECT_EQ(list().size(), c.refused == "handle" || c.refused == "VLANs" ? 0U : 1U) << c.refused;
  }
  EXPECT_EQ(fake.applies, 1);  // no apply after a failed commit
  // A failed apply keeps what was saved: a created VLAN without a record, a deleted VLAN's record.
  fake.refused = {"apply"};
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), noSave);
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), noSave);
  EXPECT_TRUE(fake.has("vlan1") && !fake.has("vlan0"));
  EXPECT_EQ(records(), before);
  EXPECT_EQ(test.logged().size(), 2U);  // the first creation, and vlan9 left alone
}

TEST_F(HelperVLANTest, ConcurrentCreatesAndDeletesLoseNoRecord) {
  vlan("vlan99", 99, 1);  // not the helper's; refused each time
  std::vector<std::thread> threads;
  threads.reserve(8);
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([this, t] {
      for (int i = 0; i < 4; ++i) {
        std::string name;
        EXPECT_NO_THROW(name = create("", 100 * t + i, t % 2 == 0 ? "en0" : "en1"));
        if (i % 2 == 1) {
          EXPECT_NO_THROW(remove(name)) << name;  // every other one goes again
        }
        EXPECT_THROW(remove("vlan99"), HelperVLAN::VLANError);
        HelperVLAN::removeRecordFileIfEmpty(test.env);
        list();
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  const Listing vlans = list();  // with as many records: none lost, none stale, no name twice
  EXPECT_EQ(records().size(), 16U);
  EXPECT_EQ(vlans.size(), 16U);
  EXPECT_TRUE(std::all_of(vlans.begin(), vlans.end(), [](auto& v) { return v.tag % 2 == 0; }));
}

TEST_F(HelperVLANTest, RecordFileAndItsJSON) {
  const std::vector<Record> records{{"vlan0", 5, "en0"}, {"vlan1", INT64_MIN, "en \"1\""}};
  const std::string json =
      R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0"},)"
      R"({"bsdName":"vlan1","tag":-9223372036854775808,"parentBSD":"en \"1\""}])";
  EXPECT_EQ(HelperVLAN::encodeRecords(records), json);
  EXPECT_EQ(HelperVLAN::decodeRecords(json), records);
  for (const char* bad : {"{}", "[1]", R"([{"bsdName":"v","parentBSD":"p"}])",
                          R"([{"bsdName":null,"tag":5,"parentBSD":"p"}])",
                          R"([{"bsdName":"v","tag":5.5,"parentBSD":"p"}])",
                          R"([{"bsdName":"v","tag":9223372036854775808,"parentBSD":"p"}])"}) {
    EXPECT_EQ(HelperVLAN::decodeRecords(bad), std::nullopt) << bad;
  }
  // The listing's JSON carries the display name; bytes that are not UTF-8 never fail it.
  const Listing vlans{{"vlan0", 5, "en0", "Office"}, {"v", 1, "e", "\xff"}};
  EXPECT_EQ(encodeCreatedVLANs(vlans),
            R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0","name":"Office"},)"
            "{\"bsdName\":\"v\",\"tag\":1,\"parentBSD\":\"e\",\"name\":\"\xef\xbf\xbd\"}]");
  EXPECT_EQ(decodeCreatedVLANs(encodeCreatedVLANs({vlans[0]})), Listing{vlans[0]});
  EXPECT_EQ(decodeCreatedVLANs(R"([{"bsdName":"v","tag":1,"parentBSD":"p"}])"), std::nullopt);

  // The file: when absent, nothing is made; when unreadable, it counts as no records and goes like
  // an empty one; a failed save is logged, not thrown.
  HelperVLAN::removeRecordFileIfEmpty(test.env);
  EXPECT_FALSE(pathExists(test.paths.stateDirectory));
  test.tree.write("state", "not a folder");
  EXPECT_NO_THROW(HelperVLAN::saveRecords(test.env, records));
  EXPECT_EQ(test.logged(), std::vector<std::string>{
                               "Could not record Tarnly's VLANs: Could not create the folder " +
                               test.paths.stateDirectory + ": Not a directory."});
  ASSERT_EQ(::unlink(test.paths.stateDirectory.c_str()), 0);
  HelperVLAN::saveRecords(test.env, records);
  HelperVLAN::removeRecordFileIfEmpty(test.env);  // a file listing VLANs stays
  EXPECT_EQ(this->records(), records);
  for (const char* empty : {"[]", "garbage"}) {
    test.tree.write("state/vlans.json", empty);
    EXPECT_TRUE(this->records().empty()) << empty;
    HelperVLAN::removeRecordFileIfEmpty(test.env);
    EXPECT_FALSE(pathExists(test.recordFile())) << empty;
  }
}

}  // namespace
