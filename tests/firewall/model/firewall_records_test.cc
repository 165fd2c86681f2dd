#include "firewall/model/firewall_records.h"

#include <gtest/gtest.h>

#include <functional>
#include <unordered_set>

#include "firewall/model/uuid.h"
#include "model_fixtures.h"

namespace {

using model_test::rule;
using Act = FirewallRule::Action;
using Proto = FirewallRule::Proto;

TEST(Uuid, ReadsEitherCaseWritesUpperCaseAndRefusesOtherForms) {
  std::optional<Uuid> lower = Uuid::parse("6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b");
  ASSERT_TRUE(lower);
  EXPECT_EQ(lower, Uuid::parse("6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B"));
  EXPECT_EQ(lower->text(), "6F1C2A7E-3B4D-4E5F-8A9B-0C1D2E3F4A5B");
  EXPECT_EQ(lower->bytes[0], 0x6F);
  EXPECT_EQ(lower->bytes[15], 0x5B);
  for (const char* text :
       {"", "6f1c2a7e3b4d4e5f8a9b0c1d2e3f4a5b", "{6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5b}",
        "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5", "6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5bc",
        "6f1c2a7e3-b4d-4e5f-8a9b-0c1d2e3f4a5b", "6f1c2a7g-3b4d-4e5f-8a9b-0c1d2e3f4a5b",
        " 6f1c2a7e-3b4d-4e5f-8a9b-0c1d2e3f4a5", "6f1c2a7e-3b4d-4e5f-8a9b+0c1d2e3f4a5b"}) {
    EXPECT_FALSE(Uuid::parse(text)) << text;
  }
  std::unordered_set<std::size_t> seen;
  for (int i = 0; i < 256; ++i) seen.insert(std::hash<Uuid>{}(model_test::uuidNumber(i)));
  EXPECT_GT(seen.size(), 250u);
}

}  // namespace
