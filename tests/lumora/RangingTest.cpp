// Finder set-up and region ranging through the simulated air.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const Uuid kUuidA = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kUuidB = *Uuid::fromString("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");
const Uuid kUuidNobody = *Uuid::fromString("74278BDA-B644-4520-8F0C-720EAF059935");

/// The manufacturer data of a beacon: 4C 00 02 15, UUID, major, minor, -59.
Bytes frame(const Uuid& uuid, std::uint16_t major, std::uint16_t minor) {
  Bytes b{0x4C, 0x00, 0x02, 0x15};
  b.insert(b.end(), uuid.bytes().begin(), uuid.bytes().end());
  b.push_back(static_cast<std::uint8_t>(major >> 8));
  b.push_back(static_cast<std::uint8_t>(major & 0xFF));
  b.push_back(static_cast<std::uint8_t>(minor >> 8));
  b.push_back(static_cast<std::uint8_t>(minor & 0xFF));
  b.push_back(0xC5);
  return b;
}

void addBeacon(sim::Air& air, const Uuid& uuid, std::uint16_t major, double distance) {
  sim::DeviceConfig config;
  config.manufacturerData = frame(uuid, major, 1);
  config.distance = distance;
  config.rssiNoiseSigma = 0;
  air.addDevice(config);
}

std::shared_ptr<CLBeaconRegion> region(const Uuid& uuid, const char* identifier) {
  return std::make_shared<CLBeaconRegion>(uuid, std::optional<std::uint16_t>{},
                                          std::optional<std::uint16_t>{}, identifier);
}

std::size_t eventsFor(const FinderRecorder& recorder,
                      const std::shared_ptr<CLBeaconRegion>& region) {
  std::size_t n = 0;
  for (const auto& e : recorder.beaconEvents()) n += e.region == region ? 1 : 0;
  return n;
}

TEST(Ranging, NonEmptyResultsReachTheDelegateOnTheMainThread) {
  FinderRig rig;
  addBeacon(*rig.air, kUuidA, 1, 1.0);
  addBeacon(*rig.air, kUuidA, 2, 3.0);
  addBeacon(*rig.air, kUuidA, 3, 8.0);
  addBeacon(*rig.air, kUuidB, 9, 1.0);
  const auto a = region(kUuidA, "a");
  const auto nobody = region(kUuidNobody, "nobody");
  rig.finder->StartTQFinder(TQBleFinder::RegionList{a, nobody});
  rig.air->advance(5s);

  const auto events = rig.recorder.beaconEvents();
  ASSERT_FALSE(events.empty());
  // The region nobody advertises is ranged too, but its empty results are
  // not passed on.
  EXPECT_EQ(eventsFor(rig.recorder, nobody), 0u);
  const auto& last = events.back();
  EXPECT_EQ(last.region, a);
  EXPECT_TRUE(last.onMainThread);
  std::vector<int> majors;
  for (const auto& b : last.beacons) majors.push_back(b->major().intValue());
  EXPECT_THAT(majors, ElementsAre(1, 2, 3));  // nearest first, as ranged
  EXPECT_THAT(rig.recorder.states(), IsEmpty());
  EXPECT_FALSE(rig.finder->is_TQFinderState());
  ASSERT_NE(rig.finder->beacons(), nullptr);
  EXPECT_TRUE(rig.finder->beacons()->empty());
}

TEST(Ranging, CallbackPassesThePlatformListThroughUnchanged) {
  FinderRig rig;
  const auto a = region(kUuidA, "a");
  CLBeaconList list;
  for (std::uint16_t major : {7, 3, 5}) {
    list.push_back(std::make_shared<CLBeacon>(kUuidA, major, 1, CLProximity::Far, 9.0, -80));
  }
  rig.finder->didRangeBeacons(rig.finder->locationManager(), list, a);
  rig.finder->didRangeBeacons(rig.finder->locationManager(), {}, a);
  const auto events = rig.recorder.beaconEvents();
  ASSERT_EQ(events.size(), 1u);
  EXPECT_EQ(events[0].beacons, list);  // same objects, same order
  EXPECT_EQ(events[0].region, a);
}

TEST(Ranging, RestartWithoutStopKeepsTheFirstRegionsRanged) {
  FinderRig rig;
  addBeacon(*rig.air, kUuidA, 1, 1.0);
  addBeacon(*rig.air, kUuidB, 2, 1.0);
  const auto a = region(kUuidA, "a");
  const auto b = region(kUuidB, "b");
  rig.finder->StartTQFinder(TQBleFinder::RegionList{a});
  rig.finder->StartTQFinder(TQBleFinder::RegionList{b});
  EXPECT_EQ(rig.finder->rangedRegions(), TQBleFinder::RegionList{b});
  rig.finder->StopTQFinder();
  EXPECT_EQ(rig.finder->rangedRegions(), TQBleFinder::RegionList{b});  // kept after stop
  EXPECT_EQ(rig.finder->locationManager()->rangedRegions(), TQBleFinder::RegionList{a});

  rig.air->advance(3s);
  EXPECT_GT(eventsFor(rig.recorder, a), 0u);
  EXPECT_EQ(eventsFor(rig.recorder, b), 0u);
  // A second stop stops the same (second) set again; the first stays.
  rig.finder->StopTQFinder();
  EXPECT_EQ(rig.finder->locationManager()->rangedRegions(), TQBleFinder::RegionList{a});
}

TEST(Ranging, StopEndsResults) {
  FinderRig rig;
  addBeacon(*rig.air, kUuidA, 1, 1.0);
  const auto a = region(kUuidA, "a");
  rig.finder->StopTQFinder();  // before any start: nothing to stop
  rig.finder->StartTQFinder(TQBleFinder::RegionList{a});
  rig.air->advance(3s);
  ASSERT_GT(eventsFor(rig.recorder, a), 0u);
  rig.finder->StopTQFinder();
  rig.recorder.clear();
  rig.air->advance(3s);
  EXPECT_THAT(rig.recorder.events(), IsEmpty());
  EXPECT_THAT(rig.finder->locationManager()->rangedRegions(), IsEmpty());
}

TEST(Ranging, NullOrEmptyRegionsRangeNothing) {
  FinderRig rig;
  for (const auto& regions : {std::optional<TQBleFinder::RegionList>{},
                              std::optional<TQBleFinder::RegionList>{TQBleFinder::RegionList{}}}) {
    rig.finder->StartTQFinder(regions);
    ASSERT_TRUE(rig.finder->rangedRegions());
    EXPECT_THAT(*rig.finder->rangedRegions(), IsEmpty());
    EXPECT_THAT(rig.finder->locationManager()->rangedRegions(), IsEmpty());
  }
}

TEST(Ranging, StartBeforeSetUpOnlyRemembersTheRegions) {
  auto air = sim::Air::create({});
  radio::Backend::setCurrent(air);
  FinderRecorder recorder;
  auto finder = std::make_shared<TQBleFinder>();
  finder->setDelegate(&recorder);
  const auto a = region(kUuidA, "a");
  finder->StartTQFinder(TQBleFinder::RegionList{a});
  finder->StopTQFinder();
  EXPECT_EQ(finder->rangedRegions(), TQBleFinder::RegionList{a});
  EXPECT_EQ(finder->locationManager(), nullptr);
  EXPECT_EQ(finder->beacons(), nullptr);
  finder.reset();
  air->settle();
  radio::Backend::setCurrent(nullptr);
}

TEST(Ranging, SetUpAgainReplacesTheLocationManagerAndClearsTheLink) {
  FinderRig rig;
  addBeacon(*rig.air, kUuidA, 1, 1.0);
  const auto a = region(kUuidA, "a");
  rig.finder->StartTQFinder(TQBleFinder::RegionList{a});
  rig.air->advance(2s);
  ASSERT_GT(eventsFor(rig.recorder, a), 0u);
  const auto oldManager = rig.finder->locationManager();
  const auto oldBeacons = rig.finder->beacons();
  rig.finder->setPeripheral_uuid("12");
  rig.finder->setIs_connectBeacon(true);

  rig.finder->initTQFinder();
  EXPECT_NE(rig.finder->locationManager(), oldManager);
  EXPECT_NE(rig.finder->beacons(), oldBeacons);
  EXPECT_TRUE(rig.finder->beacons()->empty());
  EXPECT_FALSE(rig.finder->peripheral_uuid());
  EXPECT_FALSE(rig.finder->is_TQFinderState());
  EXPECT_EQ(rig.finder->centralManager(), nullptr);
  EXPECT_THAT(rig.finder->locationManager()->rangedRegions(), IsEmpty());
}

struct AuthorizationCase {
  int status;
  std::vector<std::string> lines;
};

class Authorization : public testing::TestWithParam<AuthorizationCase> {};

TEST_P(Authorization, OneLogLineAndSetUpGoesOn) {
  FinderRig rig;
  rig.air->setLocationAuthorization(GetParam().status);
  rig.log.clear();
  rig.finder->initTQFinder();
  EXPECT_EQ(rig.log.lines(), GetParam().lines);
  EXPECT_THAT(rig.recorder.events(), IsEmpty());
  const auto manager = rig.finder->locationManager();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->delegate(), rig.finder);
  EXPECT_EQ(manager->requestedAuthorization(), CLAuthorizationStatus::AuthorizedAlways);
  EXPECT_FALSE(manager->pausesLocationUpdatesAutomatically());
}

INSTANTIATE_TEST_SUITE_P(
    Statuses, Authorization,
    testing::Values(AuthorizationCase{0, {"Not determined"}}, AuthorizationCase{1, {"Restricted"}},
                    AuthorizationCase{2, {"Denied"}}, AuthorizationCase{3, {"Authorized Always"}},
                    AuthorizationCase{4, {"Authorized when in use"}}, AuthorizationCase{5, {}}),
    [](const auto& info) { return std::to_string(info.param.status); });

}  // namespace
}  // namespace lumora::test
