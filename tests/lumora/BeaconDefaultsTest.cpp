// The process-wide beacon defaults and the exported constants.
#include <gtest/gtest.h>

#include <cstring>
#include <set>
#include <thread>
#include <vector>

#include "Lumora/Lumora.h"

namespace lumora {
namespace {

TEST(BeaconDefaults, SharedObjectIsMadeOnceWhenManyThreadsAskFirst) {
  constexpr int kThreads = 8;
  std::vector<std::shared_ptr<TQBeaconAP>> seen(kThreads);
  std::atomic<bool> go{false};
  std::vector<std::thread> threads;
  for (int i = 0; i < kThreads; ++i) {
    threads.emplace_back([&, i] {
      while (!go.load()) std::this_thread::yield();
      seen[i] = TQBeaconAP::sharedDefaults();
    });
  }
  go = true;
  for (auto& t : threads) t.join();

  ASSERT_NE(seen[0], nullptr);
  for (const auto& s : seen) EXPECT_EQ(s, seen[0]);
  EXPECT_EQ(TQBeaconAP::sharedDefaults(), seen[0]);
  // Fully initialised whichever thread got there first.
  EXPECT_EQ(seen[0]->supportedProximityUUIDs().size(), 3u);
}

TEST(BeaconDefaults, ValuesInOrder) {
  const auto ap = TQBeaconAP::sharedDefaults();
  std::vector<std::string> texts;
  for (const auto& u : ap->supportedProximityUUIDs()) texts.push_back(u.UUIDString());
  EXPECT_EQ(texts, (std::vector<std::string>{"E2C56DB5-DFFB-48D2-B060-D0F5A71096E0",
                                             "5A4BCFCE-174E-4BAC-A814-092E77F6B7E5",
                                             "74278BDA-B644-4520-8F0C-720EAF059935"}));
  ASSERT_TRUE(ap->defaultProximityUUID());
  EXPECT_EQ(ap->defaultProximityUUID()->UUIDString(), "E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

  ASSERT_TRUE(ap->defaultPower());
  EXPECT_EQ(ap->defaultPower()->intValue(), -59);
  // Made from the integer, so it reads back as an integer, not a double.
  EXPECT_EQ(ap->defaultPower()->kind(), Number::Kind::Signed);
  EXPECT_EQ(ap->defaultPower()->doubleValue(), -59.0);
}

TEST(BeaconDefaults, EachInitBuildsAFreshObjectWithEqualValues) {
  auto a = std::make_shared<TQBeaconAP>();
  auto b = std::make_shared<TQBeaconAP>();
  EXPECT_FALSE(a->defaultProximityUUID());  // nothing before init
  EXPECT_EQ(a->init(), a);
  EXPECT_EQ(b->init(), b);
  EXPECT_NE(a, b);
  EXPECT_NE(a, TQBeaconAP::sharedDefaults());
  EXPECT_EQ(a->supportedProximityUUIDs(), b->supportedProximityUUIDs());
  EXPECT_EQ(a->supportedProximityUUIDs(), TQBeaconAP::sharedDefaults()->supportedProximityUUIDs());
  EXPECT_EQ(a->defaultPower(), b->defaultPower());
}

TEST(FrameworkConstants, VersionStringBytes) {
  static constexpr char kExpected[] = "@(#)PROGRAM:Lumora  PROJECT:Lumora-1\n";
  // 36 visible characters, the line feed and the terminating zero.
  ASSERT_EQ(sizeof(kExpected), 38u);
  EXPECT_EQ(std::memcmp(LumoraVersionString, kExpected, sizeof(kExpected)), 0);
  const auto* text = reinterpret_cast<const char*>(LumoraVersionString);
  EXPECT_EQ(std::strlen(text), 37u);
  EXPECT_EQ(std::string(text).find("Lumora  PROJECT"), 12u);  // two blanks
  EXPECT_EQ(text[36], '\n');
  EXPECT_EQ(LumoraVersionNumber, 1.0);
}

TEST(FrameworkConstants, BeaconIdentifierIsALowercaseThreeLabelReverseDomain) {
  ASSERT_NE(BeaconIdentifier, nullptr);
  const std::string id = BeaconIdentifier;
  std::vector<std::string> labels(1);
  for (const char c : id) {
    if (c == '.') {
      labels.emplace_back();
    } else {
      labels.back().push_back(c);
    }
  }
  ASSERT_EQ(labels.size(), 3u) << id;
  for (const auto& label : labels) {
    ASSERT_FALSE(label.empty()) << id;
    EXPECT_TRUE(label[0] >= 'a' && label[0] <= 'z') << id;
    for (const char c : label) {
      EXPECT_TRUE((c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '-') << id;
    }
  }
}

}  // namespace
}  // namespace lumora
