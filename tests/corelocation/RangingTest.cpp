// Ranging driven through a hand-fed radio, where every reading and every
// tick is chosen by the test.
#include <gtest/gtest.h>

#include <algorithm>
#include <list>
#include <random>
#include <thread>

#include "CoreLocation/CLLocationManager.h"
#include "Recorder.h"
#include "support/FakeRadio.h"

namespace lumora {
namespace {

using namespace std::chrono_literals;
using test::FakeRadio;
using test::RangingRecorder;
using U16 = std::optional<std::uint16_t>;

const Uuid kUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kOther = *Uuid::fromString("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");

// "major.minor" of each beacon, in the order given.
std::string ids(const CLBeaconList& beacons) {
  std::string out;
  for (const auto& b : beacons) {
    out += (out.empty() ? "" : " ") + b->major().stringValue() + "." + b->minor().stringValue();
  }
  return out;
}

class Ranging : public ::testing::Test {
 protected:
  void SetUp() override {
    saved_ = CLLocationManager::defaultRangingOptions();
    radio_ = std::make_shared<FakeRadio>();
    radio::Backend::setCurrent(radio_);
    recorder_ = std::make_shared<RangingRecorder>();
  }
  void TearDown() override {
    manager_.reset();
    dispatch::settle();
    CLLocationManager::setDefaultRangingOptions(saved_);
    radio::Backend::setCurrent(nullptr);
  }

  std::shared_ptr<CLLocationManager> makeManager(const RangingOptions& options = {}) {
    CLLocationManager::setDefaultRangingOptions(options);
    manager_ = std::make_shared<CLLocationManager>();
    manager_->setDelegate(recorder_);
    return manager_;
  }

  std::shared_ptr<CLBeaconRegion> range(U16 major = {}, U16 minor = {}, Uuid uuid = kUuid) {
    auto region = std::make_shared<CLBeaconRegion>(uuid, major, minor, "region");
    manager_->startRangingBeaconsInRegion(region);
    return region;
  }

  // Each reading one millisecond after the previous one.
  void emitReadings(const std::vector<int>& rssis, std::uint16_t minor = 1, int power = -59) {
    for (int rssi : rssis) {
      radio_->emit(FakeRadio::beacon(kUuid, 1, minor, rssi, power));
      radio_->advance(1ms);
    }
  }

  // Moves the clock to the next whole second, where the tick falls.
  void toNextTick() {
    const auto now = radio_->now();
    radio_->advance(std::chrono::ceil<std::chrono::seconds>(now + 1ns) - now);
  }

  const RangingRecorder::Call& lastCall() {
    EXPECT_FALSE(recorder_->calls.empty());
    return recorder_->calls.back();
  }

  RangingOptions saved_;
  std::shared_ptr<FakeRadio> radio_;
  std::shared_ptr<RangingRecorder> recorder_;
  std::shared_ptr<CLLocationManager> manager_;
};

TEST_F(Ranging, RunningAverageDropsATenthPlusOneAtEachEnd) {
  struct Case {
    const char* name;
    std::vector<int> rssis;
    int expected;
  };
  const Case cases[] = {
      {"one sample", {-70}, -70},
      {"two: both kept", {-70, -62}, -66},
      {"three: the middle one", {-40, -60, -100}, -60},
      {"ten: two off each end", {-20, -55, -58, -60, -60, -60, -62, -65, -99, -127}, -61},
      {"eleven: outliers gone", {-50, -50, -50, -50, -50, -50, -50, -50, -50, -100, -110}, -50},
      {"a fast advertiser: the latest samples count",
       [] {
         std::vector<int> rssis(100, -90);
         rssis.insert(rssis.end(), 255, -50);
         return rssis;
       }(),
       -50},
  };
  for (const Case& c : cases) {
    SetUp();
    makeManager();
    range();
    emitReadings(c.rssis);
    toNextTick();
    ASSERT_EQ(lastCall().beacons.size(), 1u) << c.name;
    EXPECT_EQ(lastCall().beacons[0]->rssi(), c.expected) << c.name;
    TearDown();
  }
}

// Samples are timed on a 24-bit clock of 2^20 ns that wraps at 2^44 ns
// (about 4.9 hours of radio time): the window holds across that instant too.
TEST_F(Ranging, RunningAverageForgetsSamplesOutsideTheWindow) {
  for (const radio::Nanos start : {radio::Nanos(0), radio::Nanos(std::int64_t{1} << 44) - 2500ms}) {
    SCOPED_TRACE(start.count());
    SetUp();
    radio_->advance(start);
    RangingOptions options;
    options.averageWindow = 3500ms;
    makeManager(options);
    range();  // ticks one, two, three and four seconds after the start
    emitReadings({-90, -90, -90, -90, -90});
    radio_->advance(2600ms - 5ms);  // past the wrap, if there is one
    emitReadings({-60, -60, -60, -60, -60});
    recorder_->calls.clear();
    radio_->advance(1400ms);
    ASSERT_EQ(recorder_->calls.size(), 2u);
    // At three seconds all ten count (two off each end); at four the first
    // five are older than the window.
    EXPECT_EQ(recorder_->calls[0].beacons.at(0)->rssi(), -75);
    EXPECT_EQ(recorder_->calls[1].beacons.at(0)->rssi(), -60);
    TearDown();
  }
}

TEST_F(Ranging, AReadingTimedJustAfterTheTickStillCounts) {
  makeManager();
  range();
  radio::AdvertisingReport early = FakeRadio::beacon(kUuid, 1, 1, -70);
  early.time = 1s + 3ms;  // heard as the tick at 1 s was starting
  radio_->emit(early);
  radio_->advance(1s);
  ASSERT_EQ(lastCall().beacons.size(), 1u);
  EXPECT_EQ(lastCall().beacons[0]->rssi(), -70);
}

TEST_F(Ranging, ArmaFollowsEachSampleFromTheFirst) {
  RangingOptions options;
  options.filter = RangingOptions::Filter::Arma;
  options.armaSpeed = 0.25;
  makeManager(options);
  range();
  emitReadings({-60});
  toNextTick();
  EXPECT_EQ(lastCall().beacons.at(0)->rssi(), -60);
  emitReadings({-70, -80});  // -62.5, then -66.875
  toNextTick();
  EXPECT_EQ(lastCall().beacons.at(0)->rssi(), -67);
  EXPECT_DOUBLE_EQ(lastCall().beacons.at(0)->accuracy(), RangingOptions::accuracyFor(-67, -59));
}

TEST_F(Ranging, InvalidReadingsAndOtherFramesAreIgnored) {
  makeManager();
  range();
  // Another identity that only ever reports unusable readings never shows.
  for (int rssi : {0, 127, 21, 126, -128, -1000}) {
    radio_->emit(FakeRadio::beacon(kUuid, 1, 9, rssi));
  }
  // Frames that are not beacons.
  radio::AdvertisingReport other = FakeRadio::beacon(kUuid, 1, 8, -40);
  other.advertisement.manufacturerData->at(0) = 0x4D;
  radio_->emit(other);
  other.advertisement.manufacturerData->resize(24);
  other.advertisement.manufacturerData->at(0) = 0x4C;
  radio_->emit(other);
  other.advertisement.manufacturerData.reset();
  radio_->emit(other);

  emitReadings({-60, -60, -60});
  for (int i = 0; i < 28; ++i) {
    emitReadings({0, 127});
    radio_->advance(100ms);
  }
  // The unusable readings kept coming for 3 s but neither moved the average
  // nor kept the beacon fresh.
  radio_->advance(3001ms - radio_->now());
  const auto& beacons = lastCall().beacons;
  ASSERT_EQ(beacons.size(), 1u);
  EXPECT_EQ(beacons[0]->minor(), Number(1));
  EXPECT_EQ(beacons[0]->rssi(), 0);
  EXPECT_EQ(beacons[0]->proximity(), CLProximity::Unknown);
  ASSERT_GE(recorder_->calls.size(), 2u);
  EXPECT_EQ(recorder_->calls[recorder_->calls.size() - 2].beacons.at(0)->rssi(), -60);
}

TEST_F(Ranging, ABeaconGoesStaleThenDropsOut) {
  makeManager();
  range();
  radio_->advance(500ms);
  emitReadings({-65});
  radio_->advance(6s - radio_->now());
  // Fresh for two seconds, then stale (no reading, no distance), then gone.
  std::vector<std::string> ticks;
  for (const auto& call : recorder_->calls) {
    std::string tick;
    for (const auto& b : call.beacons)
      tick = std::to_string(b->rssi()) + " " + toString(b->proximity()) + " " +
             std::to_string(b->accuracy());
    ticks.push_back(tick);
  }
  const std::string fresh = "-65 Near " + std::to_string(RangingOptions::accuracyFor(-65, -59));
  const std::string stale = "0 Unknown -1.000000";
  EXPECT_EQ(ticks, (std::vector<std::string>{fresh, fresh, stale, stale, stale, ""}));
}

// Accuracy comes from each beacon's own measured power.
TEST_F(Ranging, ResultsAreNearestFirstUnknownLastTiesByIdentity) {
  makeManager();
  auto region = range();
  radio_->emit(FakeRadio::beacon(kUuid, 1, 7, -80));  // goes stale
  radio_->advance(2500ms);
  radio_->emit(FakeRadio::beacon(kUuid, 1, 5, -70, -70));  // its own power: about 1 m
  radio_->emit(FakeRadio::beacon(kUuid, 2, 1, -60));
  radio_->emit(FakeRadio::beacon(kUuid, 1, 2, -60));
  radio_->emit(FakeRadio::beacon(kUuid, 1, 3, -50));
  radio_->emit(FakeRadio::beacon(kUuid, 1, 4, -40, 0));  // no measured power: unknown
  toNextTick();
  const auto& beacons = lastCall().beacons;
  EXPECT_EQ(ids(beacons), "1.3 1.5 1.2 2.1 1.4 1.7");
  EXPECT_NEAR(beacons[1]->accuracy(), 1.01076, 1e-4);
  EXPECT_EQ(beacons[1]->proximity(), CLProximity::Near);
  // The uncalibrated beacon still shows what it was heard at.
  EXPECT_EQ(beacons[4]->rssi(), -40);
  EXPECT_EQ(beacons[4]->accuracy(), -1.0);
}

TEST_F(Ranging, EachRegionSeesItsOwnBeaconsInStartOrder) {
  makeManager();
  auto any = range();
  auto major1 = range(1);
  auto exact = range(1, 2);
  auto other = range({}, {}, kOther);
  const std::tuple<Uuid, int, int> heard[] = {
      {kUuid, 1, 2}, {kUuid, 1, 3}, {kUuid, 2, 2}, {kOther, 1, 2}};
  for (const auto& [uuid, major, minor] : heard) {
    radio_->emit(FakeRadio::beacon(uuid, static_cast<std::uint16_t>(major),
                                   static_cast<std::uint16_t>(minor), -60));
  }
  toNextTick();
  ASSERT_EQ(recorder_->calls.size(), 4u);
  const std::pair<std::shared_ptr<CLBeaconRegion>, std::string> expected[] = {
      {any, "1.2 1.3 2.2"}, {major1, "1.2 1.3"}, {exact, "1.2"}, {other, "1.2"}};
  for (std::size_t i = 0; i < 4; ++i) {
    EXPECT_EQ(recorder_->calls[i].region, expected[i].first) << i;
    EXPECT_EQ(ids(recorder_->calls[i].beacons), expected[i].second) << i;
    EXPECT_EQ(recorder_->calls[i].manager, manager_.get());
  }
}

TEST_F(Ranging, StartIsNotDoubledAndUnknownStopsAreIgnored) {
  makeManager();
  auto region = range();
  manager_->startRangingBeaconsInRegion(region);
  manager_->startRangingBeaconsInRegion(nullptr);
  manager_->stopRangingBeaconsInRegion(std::make_shared<CLBeaconRegion>(*region));
  manager_->stopRangingBeaconsInRegion(nullptr);
  EXPECT_EQ(manager_->rangedRegions(), std::vector{region});
  radio_->advance(2s);
  EXPECT_EQ(recorder_->calls.size(), 2u);
  EXPECT_EQ(radio_->observers(), 1u);
  EXPECT_EQ(radio_->pendingTimers(), 1u);

  // A tick that outlives its stop neither reports nor doubles the ticking.
  radio_->setCancelTooLate(true);
  manager_->stopRangingBeaconsInRegion(region);
  manager_->startRangingBeaconsInRegion(region);
  radio_->advance(3s);
  EXPECT_EQ(recorder_->calls.size(), 5u);
}

TEST_F(Ranging, StopOrDestroyWithholdsEvenAResultAlreadyQueued) {
  makeManager();
  auto region = range();
  auto kept = range(1);
  radio_->advance(1s, /*settle=*/false);  // the tick ran; its delivery waits on the main queue
  manager_->stopRangingBeaconsInRegion(region);
  dispatch::settle();
  ASSERT_EQ(recorder_->calls.size(), 1u);
  EXPECT_EQ(recorder_->calls[0].region, kept);

  // Started again before the old result is delivered: the old one stays
  // withheld, the new start reports from its own first tick.
  radio_->advance(1s, /*settle=*/false);
  manager_->stopRangingBeaconsInRegion(kept);
  manager_->startRangingBeaconsInRegion(kept);
  dispatch::settle();
  EXPECT_EQ(recorder_->calls.size(), 1u);
  radio_->advance(1s);
  EXPECT_EQ(recorder_->calls.size(), 2u);

  manager_->stopRangingBeaconsInRegion(kept);
  EXPECT_EQ(radio_->observers(), 0u);
  EXPECT_EQ(radio_->pendingTimers(), 0u);
  radio_->advance(3s);
  EXPECT_EQ(recorder_->calls.size(), 2u);

  // Destroying the manager withholds a queued result too, and stops everything.
  range();
  radio_->emit(FakeRadio::beacon(kUuid, 1, 1, -60));
  radio_->advance(1s, /*settle=*/false);
  manager_.reset();
  EXPECT_EQ(radio_->observers(), 0u);
  EXPECT_EQ(radio_->pendingTimers(), 0u);
  dispatch::settle();
  EXPECT_EQ(recorder_->calls.size(), 2u);
}

TEST_F(Ranging, ADelegateMayStopAnotherRegionFromItsCallback) {
  makeManager();
  auto first = range();
  auto second = range(1);
  recorder_->onCall = [&](const RangingRecorder::Call&) {
    manager_->stopRangingBeaconsInRegion(second);
  };
  radio_->advance(1s);
  ASSERT_EQ(recorder_->calls.size(), 1u);
  EXPECT_EQ(recorder_->calls[0].region, first);
}

// Identities churn through a small table (lookups, evictions, slot reuse):
// what is reported is always exactly the most recently heard identities.
TEST_F(Ranging, RecordsStayExactUnderChurn) {
  RangingOptions options;
  options.maxBeaconsPerRegion = 64;
  makeManager(options);
  range();
  std::mt19937 random(5);
  std::list<std::pair<int, int>> recent;  // newest first
  for (int round = 0; round < 4; ++round) {
    for (int i = 0; i < 700; ++i) {
      const std::pair<int, int> id(static_cast<int>(random() % 4),
                                   static_cast<int>(random() % 150));
      radio_->emit(FakeRadio::beacon(kUuid, static_cast<std::uint16_t>(id.first),
                                     static_cast<std::uint16_t>(id.second), -60));
      recent.remove(id);
      recent.push_front(id);
      if (recent.size() > 64) recent.pop_back();
    }
    toNextTick();
    std::vector<std::pair<int, int>> seen;
    for (const auto& b : lastCall().beacons)
      seen.emplace_back(b->major().intValue(), b->minor().intValue());
    std::vector<std::pair<int, int>> expected(recent.begin(), recent.end());
    std::sort(expected.begin(), expected.end());
    EXPECT_EQ(seen, expected) << "round " << round;
  }
}

TEST_F(Ranging, OnlyAnAuthorizedApplicationWithPowerSeesBeacons) {
  makeManager();
  range();
  const std::pair<int, bool> cases[] = {{0, false}, {1, false}, {2, false},
                                        {3, true},  {4, true},  {5, false}};
  for (const auto& [status, seen] : cases) {
    radio_->setAuthorization(status);
    EXPECT_EQ(static_cast<int>(CLLocationManager::authorizationStatus()), status);
    emitReadings({-60});
    toNextTick();
    EXPECT_EQ(lastCall().beacons.size(), seen ? 1u : 0u) << "status " << status;
  }
  EXPECT_EQ(recorder_->failures, 0);

  // Power off empties the results; nothing heard before the outage counts
  // after it.
  radio_->setAuthorization(3);
  emitReadings({-90, -90, -90});
  toNextTick();
  ASSERT_EQ(lastCall().beacons.size(), 1u);
  radio_->setAdapterState(CBManagerState::PoweredOff);
  emitReadings({-90});
  toNextTick();
  EXPECT_TRUE(lastCall().beacons.empty());
  radio_->setAdapterState(CBManagerState::PoweredOn);
  emitReadings({-50});
  toNextTick();
  ASSERT_EQ(lastCall().beacons.size(), 1u);
  EXPECT_EQ(lastCall().beacons[0]->rssi(), -50);
}

TEST_F(Ranging, OptionsAreTakenAtCreationAndKeptSane) {
  RangingOptions options;
  options.period = 0ms;
  options.maxBeaconsPerRegion = 0;
  CLLocationManager::setDefaultRangingOptions(options);
  EXPECT_EQ(CLLocationManager::defaultRangingOptions().period, 1ms);
  EXPECT_EQ(CLLocationManager::defaultRangingOptions().maxBeaconsPerRegion, 1u);

  RangingOptions quick;
  quick.period = 250ms;
  makeManager(quick);
  range();
  CLLocationManager::setDefaultRangingOptions({});  // affects later managers only
  radio_->advance(1s);
  ASSERT_EQ(recorder_->calls.size(), 4u);  // empty results come every period too
  for (const auto& call : recorder_->calls) EXPECT_TRUE(call.beacons.empty());
  // The delegate is held weakly: once gone it is simply not called.
  recorder_.reset();
  EXPECT_EQ(manager_->delegate(), nullptr);
  radio_->advance(1s);
}

// The radio's thread feeds readings and runs ticks while the main thread
// starts and stops a second region; every callback still arrives on the main
// thread, and the stopped region reports nothing once stopped.
TEST_F(Ranging, CallbacksArriveOnTheMainThreadWhateverThreadTheRadioUses) {
  makeManager();
  auto steady = range();
  auto flapping = std::make_shared<CLBeaconRegion>(kUuid, U16(1), U16(), "flapping");
  std::thread radioThread([&] {
    for (int i = 0; i < 200; ++i) {
      radio_->emit(FakeRadio::beacon(kUuid, 1, static_cast<std::uint16_t>(i % 5), -60 - i % 7));
      radio_->advance(100ms, /*settle=*/false);
    }
  });
  for (int i = 0; i < 200; ++i) {
    manager_->startRangingBeaconsInRegion(flapping);
    manager_->stopRangingBeaconsInRegion(flapping);
  }
  radioThread.join();
  dispatch::settle();
  EXPECT_EQ(recorder_->callsFor(steady).size(), 20u);
  EXPECT_TRUE(recorder_->callsFor(flapping).empty());
  for (const auto& call : recorder_->calls) EXPECT_TRUE(call.onMainThread);
}

}  // namespace
}  // namespace lumora
