#include "interfaces/helper_vlan.h"

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

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
using Lines = std::vector<std::string>;
using Text = std::optional<std::string>;

// An in-memory VLAN configuration. A handle works on a copy of the stored interfaces and stores it
// back at commit, so only the helper's lock keeps concurrent changes from losing each other.
// Thread-safe: one lock over the store; the test edits `all` and `refused` between requests.
struct FakeVLANs final : VLANConfiguration {
  struct Interface {
    Text bsdName{}, displayName{};
    bool physical = false, vlan = false;
    std::optional<std::int64_t> tag{};
    std::optional<ID> parent{};
    bool exists = true;
  };
  std::mutex lock;
  std::vector<Interface> all;     // ids are indexes
  std::set<std::string> refused;  // "handle", "physicals", "VLANs", "create", "name" (new VLANs
                                  // get none), "commit", "apply"
  Lines clients;
  int applies = 0;

  Interface* find(const std::string& name) {
    for (Interface& i : all) {
      if (i.exists && i.bsdName == name) return &i;
    }
    return nullptr;
  }
  std::unique_ptr<VLANPreferences> createPreferences(const std::string& client) override {
    std::lock_guard<std::mutex> guard(lock);
    clients.push_back(client);
    return refused.count("handle") ? nullptr : std::make_unique<Handle>(*this);
  }

  struct Handle final : VLANPreferences {
    explicit Handle(FakeVLANs& owner) : f(owner), s(owner.all) {}
    IDs select(const char* step, bool Interface::*kind) const {
      if (f.refused.count(step)) return std::nullopt;
      std::vector<ID> ids;
      for (ID id = 0; id < s.size(); ++id) {
        if (s[id].exists && s[id].*kind) ids.push_back(id);
      }
      return ids;
    }
    IDs availablePhysicalInterfaces() override { return select("physicals", &Interface::physical); }
    IDs allVLANInterfaces() override { return select("VLANs", &Interface::vlan); }
    Text bsdName(ID id) override { return s.at(id).bsdName; }
    Text displayName(ID id) override { return s.at(id).displayName; }
    std::optional<std::int64_t> tag(ID id) override { return s.at(id).tag; }
    std::optional<ID> physicalInterface(ID id) override { return s.at(id).parent; }
    std::optional<ID> createVLAN(ID physical, std::int64_t tag) override {
      if (f.refused.count("create") || !s.at(physical).physical) return std::nullopt;
      Interface vlan{.vlan = true, .tag = tag, .parent = physical};
      for (int n = 0; !f.refused.count("name") && !vlan.bsdName; ++n) {
        Text name = "vlan" + std::to_string(n);
        if (std::none_of(s.begin(), s.end(),
                         [&](auto& i) { return i.exists && i.bsdName == name; })) {
          vlan.bsdName = name;
        }
      }
      s.push_back(vlan);
      return s.size() - 1;
    }
    bool setDisplayName(ID id, const std::string& name) override {
      s.at(id).displayName = name;
      return true;
    }
    bool remove(ID id) override {
      s.at(id).exists = false;
      return true;
    }
    bool commit() override {
      std::lock_guard<std::mutex> guard(f.lock);
      if (f.refused.count("commit")) return false;
      f.all = s;
      return true;
    }
    bool apply() override {
      std::lock_guard<std::mutex> guard(f.lock);
      ++f.applies;
      return !f.refused.count("apply");
    }
    FakeVLANs& f;
    std::vector<Interface> s;  // the staged interfaces
  };
};

class HelperVLANTest : public ::testing::Test {
 protected:
  HelperVLANTest() {  // an interface without a BSD name comes first; en0 is 1, en1 is 2
    fake.all = {{.physical = true},
                {.bsdName = "en0", .physical = true},
                {.bsdName = "en1", .physical = true}};
  }
  // A VLAN made outside the helper.
  void vlan(const std::string& name, std::optional<std::int64_t> tag, std::optional<ID> parent,
            const Text& display = {}) {
    fake.all.push_back(
        {.bsdName = name, .displayName = display, .vlan = true, .tag = tag, .parent = parent});
  }
  std::string create(const std::string& name, std::int64_t tag, const std::string& parent) {
    return HelperVLAN::create(test.env, fake, name, tag, parent);
  }
  void remove(const std::string& bsdName) { HelperVLAN::deleteVLAN(test.env, fake, bsdName); }
  std::vector<CreatedVLAN> list() { return HelperVLAN::createdVLANs(test.env, fake); }
  void writeRecords(const std::vector<Record>& records, mode_t mode = 0600) {
    test.tree.write("state/vlans.json", HelperVLAN::encodeRecords(records), mode);
  }
  std::string records() const { return contentOf(test.recordFile()); }

  TestEnvironment test;
  FakeVLANs fake;
};

TEST_F(HelperVLANTest, CreateRecordsWhatItMadeListingShowsItAndDeleteRemovesOnlyThat) {
  vlan("vlan0", 10, 1);
  vlan("vlan2", 12, 2, "Away");
  EXPECT_TRUE(list().empty() && fake.clients.empty());  // no records: no handle opened
  writeRecords({{"vlan2", 12, "en1"}, {"vlan1", 11, "en0"}, {"vlan0", 10, "en0"}}, 0644);
  EXPECT_EQ(list(),
            (std::vector<CreatedVLAN>{{"vlan0", 10, "en0", ""}, {"vlan2", 12, "en1", "Away"}}));
  EXPECT_EQ(HelperVLAN::loadRecords(test.env).size(), 3U);  // listing drops no record
  // vlan1 vanished by other means: its name is taken again and its record replaced. Display
  // names are trimmed of blanks only; a blank one sets none; the system decides about tags.
  ::umask(0);
  EXPECT_EQ(create(" \t Office\u00a0", 20, "en1"), "vlan1");
  ::umask(022);
  EXPECT_EQ(create(" \t ", -7, "en0"), "vlan3");
  EXPECT_EQ(create("\nLab\n", 6, "en0"), "vlan4");
  EXPECT_EQ(fake.clients, Lines(4, "TarnlyAdminHelper"));
  EXPECT_EQ(records(), R"([{"bsdName":"vlan2","tag":12,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan0","tag":10,"parentBSD":"en0"},)"
                       R"({"bsdName":"vlan1","tag":20,"parentBSD":"en1"},)"
                       R"({"bsdName":"vlan3","tag":-7,"parentBSD":"en0"},)"
                       R"({"bsdName":"vlan4","tag":6,"parentBSD":"en0"}])");
  EXPECT_EQ(modeOf(test.recordFile()), 0600);  // whatever the umask and the old file's mode
  EXPECT_EQ(list(), (std::vector<CreatedVLAN>{{"vlan0", 10, "en0", ""},
                                              {"vlan2", 12, "en1", "Away"},
                                              {"vlan1", 20, "en1", "Office"},
                                              {"vlan3", -7, "en0", ""},
                                              {"vlan4", 6, "en0", "\nLab\n"}}));
  // A VLAN without a BSD name is reported as "" and not recorded; the vanished vlan0 goes.
  fake.find("vlan0")->exists = false;
  fake.refused = {"name"};
  EXPECT_EQ(create("x", 7, "en0"), "");
  EXPECT_EQ(HelperVLAN::loadRecords(test.env).size(), 4U);
  fake.refused = {};

  // Delete: duplicated records all go; VLANs recorded otherwise or not at all are neither deleted
  // nor listed.
  writeRecords(
      {{"vlan1", 20, "en1"}, {"vlan1", 20, "en1"}, {"vlan2", 120, "en1"}, {"vlan3", -7, "en1"}});
  remove("vlan1");
  vlan("vlan6", std::nullopt, std::nullopt);
  for (const char* name : {"vlan4", "vlan2", "vlan3", "vlan6"}) {
    EXPECT_EQ(errorOf([&] { remove(name); }), "Tarnly's helper only removes VLANs it created.");
    EXPECT_NE(fake.find(name), nullptr) << name;
  }
  EXPECT_TRUE(list().empty());
  EXPECT_EQ(HelperVLAN::loadRecords(test.env),
            (std::vector<Record>{{"vlan2", 120, "en1"}, {"vlan3", -7, "en1"}}));
  const std::string alone = " alone: Tarnly's helper didn't create it.";
  EXPECT_EQ(test.logged(),
            (Lines{"Created VLAN vlan1 (tag 20) on en1.", "Created VLAN vlan3 (tag -7) on en0.",
                   "Created VLAN vlan4 (tag 6) on en0.", "Created VLAN  (tag 7) on en0.",
                   "Deleted VLAN vlan1.", "Left VLAN vlan4" + alone, "Left VLAN vlan2" + alone,
                   "Left VLAN vlan3" + alone, "Left VLAN vlan6" + alone}));
  // A VLAN without tag or parent is the helper's when recorded as (-1, "").
  writeRecords({{"vlan6", -1, ""}});
  remove("vlan6");
  EXPECT_EQ(records(), "[]");
  // Without any VLAN listed, every earlier record goes.
  writeRecords({{"vlan2", 12, "en1"}});
  fake.refused = {"VLANs"};
  create("", 8, "en0");
  EXPECT_EQ(records(), R"([{"bsdName":"vlan0","tag":8,"parentBSD":"en0"}])");
}

TEST_F(HelperVLANTest, RefusalsCarryTheirMessagesAndLeaveTheRecordAlone) {
  vlan("vlan9", 9, 1);
  create("", 5, "en0");  // vlan0
  const std::string before = records();
  const std::string noSave = "Could not save the network configuration.";
  const std::string noOpen = "Could not open the system network preferences.";
  const std::string noVLAN = "No VLAN interface named ";
  struct Case {
    std::string refused, create, parent, remove, removed;
  };
  for (const Case& c :
       {Case{"", "No physical interface named en2.", "en2", noVLAN + "vlan4.", "vlan4"},
        Case{"", "No physical interface named vlan9.", "vlan9", noVLAN + "en0.", "en0"},
        Case{"", "No physical interface named .", "", "", ""},
        Case{"", "No physical interface named EN0.", "EN0", "", ""},
        Case{"physicals", "No physical interface named en0.", "en0", "", ""},
        Case{"VLANs", "", "", noVLAN + "vlan0.", "vlan0"},
        Case{"create", "macOS refused to create the VLAN interface.", "en0", "", ""},
        Case{"commit", noSave, "en0", noSave, "vlan0"},
        Case{"handle", noOpen, "en0", noOpen, "vlan0"}}) {
    fake.refused = {c.refused};
    if (!c.create.empty()) {
      EXPECT_EQ(errorOf([&] { create("", 5, c.parent); }), c.create);
    }
    if (!c.remove.empty()) {
      EXPECT_EQ(errorOf([&] { remove(c.removed); }), c.remove);
    }
    if (c.refused == "handle" || c.refused == "VLANs") {
      EXPECT_TRUE(list().empty()) << c.refused;
    }
  }
  EXPECT_EQ(fake.applies, 1);  // no apply after a failed commit
  // A failed apply keeps what was saved: a created VLAN without a record, a deleted VLAN's record.
  fake.refused = {"apply"};
  EXPECT_EQ(errorOf([&] { create("", 5, "en0"); }), noSave);
  EXPECT_EQ(errorOf([&] { remove("vlan0"); }), noSave);
  EXPECT_TRUE(fake.find("vlan1") && !fake.find("vlan0"));
  EXPECT_EQ(records(), before);
  EXPECT_EQ(test.logged(), Lines{"Created VLAN vlan0 (tag 5) on en0."});
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
  std::set<std::string> names;
  for (const Record& record : HelperVLAN::loadRecords(test.env)) {
    EXPECT_EQ(record.tag % 2, 0) << record.bsdName;
    EXPECT_NE(fake.find(record.bsdName), nullptr) << record.bsdName;
    names.insert(record.bsdName);
  }
  EXPECT_EQ(names.size(), 16U);  // as many as there are records: no name twice
  EXPECT_EQ(HelperVLAN::loadRecords(test.env).size(), 16U);
  EXPECT_EQ(list().size(), 16U);
}

TEST_F(HelperVLANTest, RecordFileAndItsJSON) {
  const std::vector<Record> records{{"vlan0", 5, "en0"}, {"vlan1", INT64_MIN, "en \"1\""}};
  const std::string json =
      R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0"},)"
      R"({"bsdName":"vlan1","tag":-9223372036854775808,"parentBSD":"en \"1\""}])";
  EXPECT_EQ(HelperVLAN::encodeRecords(records), json);
  EXPECT_EQ(HelperVLAN::decodeRecords(json), records);
  EXPECT_EQ(
      HelperVLAN::decodeRecords(R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0","extra":[1]},)"
                                R"( {"parentBSD":"en1","tag":9223372036854775807,"bsdName":""}])"),
      (std::vector<Record>{{"vlan0", 5, "en0"}, {"", INT64_MAX, "en1"}}));
  for (const char* bad : {"", "{}", "null", "[1]", "[null]", R"([{"bsdName":"v","tag":5}])",
                          R"([{"bsdName":"v","parentBSD":"p"}])", R"([{"tag":5,"parentBSD":"p"}])",
                          R"([{"bsdName":"v","tag":"5","parentBSD":"p"}])",
                          R"([{"bsdName":"v","tag":5.5,"parentBSD":"p"}])",
                          R"([{"bsdName":"v","tag":9223372036854775808,"parentBSD":"p"}])",
                          R"([{"bsdName":null,"tag":5,"parentBSD":"p"}])",
                          R"([{"bsdName":"v","tag":5,"parentBSD":7}])",
                          R"([{"bsdName":"v","tag":5,"parentBSD":"p"}] trailing)",
                          "[{\"bsdName\":\"\xff\",\"tag\":5,\"parentBSD\":\"p\"}]"}) {
    EXPECT_EQ(HelperVLAN::decodeRecords(bad), std::nullopt) << bad;
  }
  // The listing's JSON carries the display name; bytes that are not UTF-8 never fail it.
  const std::vector<CreatedVLAN> vlans{{"vlan0", 5, "en0", "Office \"A\""},
                                       {"vlan1", 4094, "en1", ""}};
  EXPECT_EQ(encodeCreatedVLANs(vlans),
            R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0","name":"Office \"A\""},)"
            R"({"bsdName":"vlan1","tag":4094,"parentBSD":"en1","name":""}])");
  EXPECT_EQ(decodeCreatedVLANs(encodeCreatedVLANs(vlans)), vlans);
  EXPECT_EQ(decodeCreatedVLANs(R"([{"bsdName":"v","tag":1,"parentBSD":"p"}])"), std::nullopt);
  EXPECT_EQ(encodeCreatedVLANs({{"v", 5, "e", "\xff"}}),
            "[{\"bsdName\":\"v\",\"tag\":5,\"parentBSD\":\"e\",\"name\":\"\xef\xbf\xbd\"}]");

  // The file: when absent, nothing is made; when unreadable, it counts as no records and goes like
  // an empty one; a failed save is logged, not thrown.
  EXPECT_TRUE(HelperVLAN::loadRecords(test.env).empty());
  HelperVLAN::removeRecordFileIfEmpty(test.env);
  EXPECT_FALSE(pathExists(test.paths.stateDirectory));
  test.tree.write("state", "not a folder");
  EXPECT_NO_THROW(HelperVLAN::saveRecords(test.env, records));
  ASSERT_EQ(test.logged().size(), 1U);
  EXPECT_EQ(test.logged()[0].rfind("Could not record Tarnly's VLANs: ", 0), 0U) << test.logged()[0];
  EXPECT_NE(test.logged()[0].find(test.paths.stateDirectory), std::string::npos)
      << test.logged()[0];
  ASSERT_EQ(::unlink(test.paths.stateDirectory.c_str()), 0);
  HelperVLAN::saveRecords(test.env, records);
  HelperVLAN::removeRecordFileIfEmpty(test.env);  // a file listing VLANs stays
  EXPECT_EQ(HelperVLAN::loadRecords(test.env), records);
  for (const char* empty : {"[]", "", "{\"a\":1}", "[{\"bsdName\":\"v\"}]", "garbage"}) {
    test.tree.write("state/vlans.json", empty);
    EXPECT_TRUE(HelperVLAN::loadRecords(test.env).empty()) << empty;
    HelperVLAN::removeRecordFileIfEmpty(test.env);
    EXPECT_FALSE(pathExists(test.recordFile())) << empty;
  }
}

}  // namespace
