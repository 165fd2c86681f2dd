#include <gtest/gtest.h>
#include <sys/stat.h>

#include <string>
#include <vector>

#include "interfaces/created_vlan.h"
#include "interfaces/helper_vlan.h"
#include "test_environment.h"

namespace {

using HelperVLAN::Record;

TEST(VLANRecords, DecodingNeedsAnArrayOfObjectsWithAllThreeKeysOfTheirTypes) {
  EXPECT_EQ(
      HelperVLAN::decodeRecords(R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0","extra":[1]},)"
                                R"( {"parentBSD":"en1","tag":-1,"bsdName":""}])"),
      (std::vector<Record>{{"vlan0", 5, "en0"}, {"", -1, "en1"}}));
  EXPECT_EQ(HelperVLAN::decodeRecords("[]"), std::vector<Record>{});
  EXPECT_EQ(HelperVLAN::decodeRecords(R"([{"bsdName":"v","tag":9223372036854775807,)"
                                      R"("parentBSD":"p"}])"),
            (std::vector<Record>{{"v", INT64_MAX, "p"}}));

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
}

TEST(VLANRecords, EncodingIsCompactInDeclaredOrder) {
  EXPECT_EQ(HelperVLAN::encodeRecords({}), "[]");
  std::vector<Record> records{{"vlan0", 5, "en0"}, {"vlan1", INT64_MIN, "en \"1\""}};
  std::string json = HelperVLAN::encodeRecords(records);
  EXPECT_EQ(json, R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0"},)"
                  R"({"bsdName":"vlan1","tag":-9223372036854775808,"parentBSD":"en \"1\""}])");
  EXPECT_EQ(HelperVLAN::decodeRecords(json), records);
}

TEST(VLANRecords, LoadAndSaveKeepAPrivateFileAndNeverThrow) {
  TestEnvironment test;
  EXPECT_TRUE(HelperVLAN::loadRecords(test.env).empty());
  HelperVLAN::removeRecordFileIfEmpty(test.env);  // no file, no folder: nothing happens
  EXPECT_FALSE(pathExists(test.paths.stateDirectory));

  ::umask(0);
  HelperVLAN::saveRecords(test.env, {{"vlan3", 3, "en0"}});
  ::umask(022);
  EXPECT_EQ(contentOf(test.recordFile()), R"([{"bsdName":"vlan3","tag":3,"parentBSD":"en0"}])");
  EXPECT_EQ(modeOf(test.recordFile()), 0600);
  EXPECT_EQ(HelperVLAN::loadRecords(test.env), (std::vector<Record>{{"vlan3", 3, "en0"}}));
  HelperVLAN::removeRecordFileIfEmpty(test.env);  // a file listing VLANs stays
  EXPECT_EQ(HelperVLAN::loadRecords(test.env).size(), 1U);
  // An existing file of another mode is replaced by a private one.
  ASSERT_EQ(::chmod(test.recordFile().c_str(), 0644), 0);
  HelperVLAN::saveRecords(test.env, {});
  EXPECT_EQ(contentOf(test.recordFile()), "[]");
  EXPECT_EQ(modeOf(test.recordFile()), 0600);

  // Unreadable files count as no records, and go as empty ones.
  for (const char* empty : {"[]", "", "{\"a\":1}", "[{\"bsdName\":\"v\"}]", "garbage"}) {
    test.tree.write("Library/Application Support/Tarnly/vlans.json", empty, 0600);
    EXPECT_TRUE(HelperVLAN::loadRecords(test.env).empty()) << empty;
    HelperVLAN::removeRecordFileIfEmpty(test.env);
    EXPECT_FALSE(pathExists(test.recordFile())) << empty;
  }
  EXPECT_TRUE(test.logged().empty());

  // A failed save is logged, not thrown: the state folder's place is taken by a file.
  TestEnvironment blocked;
  blocked.tree.write("Library/Application Support/Tarnly", "not a folder");
  EXPECT_NO_THROW(HelperVLAN::saveRecords(blocked.env, {{"vlan0", 5, "en0"}}));
  std::vector<std::string> logged = blocked.logged();
  ASSERT_EQ(logged.size(), 1U);
  EXPECT_EQ(logged[0].rfind("Could not record Tarnly's VLANs: ", 0), 0U) << logged[0];
  EXPECT_NE(logged[0].find(blocked.paths.stateDirectory), std::string::npos) << logged[0];
}

TEST(CreatedVLANJSON, EncodesCompactlyAndReadsBack) {
  EXPECT_EQ(encodeCreatedVLANs({}), "[]");
  std::vector<CreatedVLAN> vlans{{"vlan0", 5, "en0", "Office \"A\""}, {"vlan1", 4094, "en1", ""}};
  std::string json = encodeCreatedVLANs(vlans);
  EXPECT_EQ(json, R"([{"bsdName":"vlan0","tag":5,"parentBSD":"en0","name":"Office \"A\""},)"
                  R"({"bsdName":"vlan1","tag":4094,"parentBSD":"en1","name":""}])");
  EXPECT_EQ(decodeCreatedVLANs(json), vlans);
  EXPECT_EQ(decodeCreatedVLANs(R"([{"bsdName":"v","tag":1,"parentBSD":"p"}])"), std::nullopt);
  // Bytes that are not UTF-8 never fail the encoding.
  EXPECT_EQ(encodeCreatedVLANs({{"vlan0", 5, "en0", "bad \xff name"}}),
            "[{\"bsdName\":\"vlan0\",\"tag\":5,\"parentBSD\":\"en0\",\"name\":\"bad "
            "\xef\xbf\xbd name\"}]");
}

}  // namespace
