// Choosing the radio by name, and the air on the real-time clock.
#include <gtest/gtest.h>

#include <cstdlib>
#include <fstream>

#include "Foundation/RunLoop.h"
#include "Recorders.h"
#include "backends/Radio.h"
#include "support/TempDir.h"

namespace lumora::sim::test {
namespace {

struct SpecCase {
  std::string name;
  std::string error;  // empty: a simulated air is made
};

class RadioSpecs : public ::testing::TestWithParam<SpecCase> {};

TEST_P(RadioSpecs, AreParsedInOnePlace) {
  const SpecCase& c = GetParam();
  if (c.error.empty()) {
    auto backend = radio::makeBackend(c.name);
    ASSERT_NE(backend, nullptr);
    EXPECT_EQ(backend->name(), "sim");
    auto air = std::dynamic_pointer_cast<Air>(backend);
    ASSERT_NE(air, nullptr);
    EXPECT_EQ(air->clockMode(), ClockMode::RealTime);
    return;
  }
  try {
    radio::makeBackend(c.name);
    FAIL() << "accepted " << c.name;
  } catch (const radio::BackendError& e) {
    EXPECT_NE(std::string(e.what()).find(c.error), std::string::npos) << e.what();
    EXPECT_EQ(std::string(e.what()).find('\n'), std::string::npos);
  }
}

INSTANTIATE_TEST_SUITE_P(
    Table, RadioSpecs,
    ::testing::Values(SpecCase{"sim", ""}, SpecCase{"sim:", "needs a scenario file"},
                      SpecCase{"sim:/no/such/scenario.json", "/no/such/scenario.json: cannot open"},
                      SpecCase{"bluez:", "needs an adapter"},
                      // Names come from the environment: any line break is quoted away.
                      SpecCase{"sim\nbluez",
                               "unknown radio \"sim bluez\" (expected sim, sim:SCENARIO.json, "
                               "bluez or bluez:ADAPTER)"}));

class DefaultRadio : public ::testing::Test {
 protected:
  void TearDown() override { unsetenv("LUMORA_BACKEND"); }
};

TEST_F(DefaultRadio, IsTheBuiltInSceneUnlessTheEnvironmentNamesAnother) {
  unsetenv("LUMORA_BACKEND");
  auto air = std::dynamic_pointer_cast<Air>(radio::makeDefaultBackend());
  ASSERT_NE(air, nullptr);
  EXPECT_EQ(air->deviceAddresses(), loadScenario(defaultScenarioJson())->deviceAddresses());

  lumora::test::TempDir dir;
  const std::string path = dir.file("one.json").string();
  std::ofstream(path) << R"({"devices": [{"address": "C0:FF:EE:00:00:42"}]})";
  setenv("LUMORA_BACKEND", ("sim:" + path).c_str(), 1);
  air = std::dynamic_pointer_cast<Air>(radio::makeDefaultBackend());
  ASSERT_NE(air, nullptr);
  EXPECT_EQ(air->deviceAddresses(), Lines{"C0:FF:EE:00:00:42"});

  setenv("LUMORA_BACKEND", "carrier-pigeon", 1);
  try {
    radio::makeDefaultBackend();
    FAIL();
  } catch (const radio::BackendError& e) {
    EXPECT_NE(std::string(e.what()).find("LUMORA_BACKEND: unknown radio"), std::string::npos);
  }
}

// The tool's tests run this air too, but pass as well when an earlier timer
// waits for a later one: only the order below tells.
TEST(RealTimeAir, TimersAndAdvertisementsRunFromTheMainRunLoop) {
  auto air = Air::create({.clock = ClockMode::RealTime});
  EXPECT_THROW(air->advance(1s), std::logic_error);
  bool late = false, early = false;
  air->scheduleAfter(30s, [&] { late = true; });
  // Queued after the first timer was armed, due before it: the air re-arms.
  air->scheduleAfter(1ms, [&] { early = true; });
  air->addDevice({.localName = "RealTime", .advertisingInterval = 20ms});
  ReportSink sink;
  sink.observe(*air);
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return early; }, 5s));
  EXPECT_FALSE(late);
  EXPECT_TRUE(RunLoop::main().runUntil([&] { return sink.reports->size() >= 3; }, 5s));
  EXPECT_GE(air->now(), 40ms);
  EXPECT_EQ(sink.reports->front().advertisement.localName, "RealTime");
}

}  // namespace
}  // namespace lumora::sim::test
