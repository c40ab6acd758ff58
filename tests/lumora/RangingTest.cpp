// Finder set-up and region ranging through the simulated air.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

const Uuid kUuidA = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");
const Uuid kUuidB = *Uuid::fromString("5A4BCFCE-174E-4BAC-A814-092E77F6B7E5");
const Uuid kUuidNobody = *Uuid::fromString("74278BDA-B644-4520-8F0C-720EAF059935");

void addBeacon(sim::Air& air, const Uuid& uuid, std::uint16_t major, double distance) {
  const CLBeaconRegion identity(uuid, std::optional(major), std::optional<std::uint16_t>(1), "b");
  air.addDevice(
      {.manufacturerData = identity.peripheralDataWithMeasuredPower(Number(-59))->manufacturerData,
       .distance = distance,
       .rssiNoiseSigma = 0});
}

std::shared_ptr<CLBeaconRegion> region(const Uuid& uuid, const char* identifier) {
  return std::make_shared<CLBeaconRegion>(uuid, identifier);
}

std::size_t eventsFor(const FinderRecorder& recorder,
                      const std::shared_ptr<CLBeaconRegion>& region) {
  const auto events = recorder.beaconEvents();
  return std::count_if(events.begin(), events.end(),
                       [&](const auto& e) { return e.region == region; });
}

TEST(Ranging, NonEmptyResultsReachTheDelegateOnTheMainThreadUnchanged) {
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

  // The platform's list is passed on as it stands: same objects, same order.
  rig.recorder.clear();
  CLBeaconList list;
  for (std::uint16_t major : {7, 3, 5}) {
    list.push_back(std::make_shared<CLBeacon>(kUuidA, major, 1, CLProximity::Far, 9.0, -80));
  }
  rig.finder->didRangeBeacons(rig.finder->locationManager(), list, a);
  rig.finder->didRangeBeacons(rig.finder->locationManager(), {}, a);
  ASSERT_EQ(rig.recorder.beaconEvents().size(), 1u);
  EXPECT_EQ(rig.recorder.beaconEvents()[0].beacons, list);
}

TEST(Ranging, StopEndsResultsAndARestartWithoutStopKeepsTheFirstRegionsRanged) {
  FinderRig rig;
  addBeacon(*rig.air, kUuidA, 1, 1.0);
  addBeacon(*rig.air, kUuidB, 2, 1.0);
  const auto a = region(kUuidA, "a");
  const auto b = region(kUuidB, "b");
  rig.finder->StopTQFinder();  // before any start: nothing to stop
  // Null or empty lists range nothing.
  for (const auto& regions : {std::optional<TQBleFinder::RegionList>{},
                              std::optional<TQBleFinder::RegionList>{TQBleFinder::RegionList{}}}) {
    rig.finder->StartTQFinder(regions);
    ASSERT_TRUE(rig.finder->rangedRegions());
    EXPECT_THAT(*rig.finder->rangedRegions(), IsEmpty());
    EXPECT_THAT(rig.finder->locationManager()->rangedRegions(), IsEmpty());
  }

  rig.finder->StartTQFinder(TQBleFinder::RegionList{a});
  rig.finder->StartTQFinder(TQBleFinder::RegionList{b});
  EXPECT_EQ(rig.finder->rangedRegions(), TQBleFinder::RegionList{b});
  rig.finder->StopTQFinder();
  EXPECT_EQ(rig.finder->rangedRegions(), TQBleFinder::RegionList{b});  // kept after stop
  EXPECT_EQ(rig.finder->locationManager()->rangedRegions(), TQBleFinder::RegionList{a});
  rig.air->advance(3s);
  EXPECT_GT(eventsFor(rig.recorder, a), 0u);
  EXPECT_EQ(eventsFor(rig.recorder, b), 0u);

  // Starting the first set again and stopping it ends every result.
  rig.finder->StartTQFinder(TQBleFinder::RegionList{a});
  rig.finder->StopTQFinder();
  rig.recorder.clear();
  rig.air->advance(3s);
  EXPECT_THAT(rig.recorder.events(), IsEmpty());
  EXPECT_THAT(rig.finder->locationManager()->rangedRegions(), IsEmpty());
}

TEST(Ranging, SetUpLogsTheAuthorizationAndStartsAfresh) {
  FinderRig rig;
  addBeacon(*rig.air, kUuidA, 1, 1.0);
  const auto a = region(kUuidA, "a");
  // Before set-up a finder only remembers the regions.
  auto bare = std::make_shared<TQBleFinder>();
  bare->StartTQFinder(TQBleFinder::RegionList{a});
  bare->StopTQFinder();
  EXPECT_EQ(bare->rangedRegions(), TQBleFinder::RegionList{a});
  EXPECT_EQ(bare->locationManager(), nullptr);
  EXPECT_EQ(bare->beacons(), nullptr);

  rig.finder->StartTQFinder(TQBleFinder::RegionList{a});
  rig.air->advance(2s);
  ASSERT_GT(eventsFor(rig.recorder, a), 0u);
  const std::vector<std::string> lines[] = {{"Not determined"},
                                            {"Restricted"},
                                            {"Denied"},
                                            {"Authorized Always"},
                                            {"Authorized when in use"},
                                            {}};
  for (int status = 0; status <= 5; ++status) {
    SCOPED_TRACE(status);
    const auto oldManager = rig.finder->locationManager();
    const auto oldBeacons = rig.finder->beacons();
    rig.finder->setPeripheral_uuid("12");
    rig.finder->setIs_connectBeacon(true);
    rig.air->setLocationAuthorization(status);
    rig.log.clear();
    rig.recorder.clear();

    rig.finder->initTQFinder();
    EXPECT_EQ(rig.log.lines(), lines[status]);  // one line, and set-up goes on
    EXPECT_THAT(rig.recorder.events(), IsEmpty());
    const auto manager = rig.finder->locationManager();
    ASSERT_NE(manager, nullptr);
    EXPECT_NE(manager, oldManager);
    EXPECT_EQ(manager->delegate(), rig.finder);
    EXPECT_EQ(manager->requestedAuthorization(), CLAuthorizationStatus::AuthorizedAlways);
    EXPECT_FALSE(manager->pausesLocationUpdatesAutomatically());
    EXPECT_THAT(manager->rangedRegions(), IsEmpty());
    EXPECT_NE(rig.finder->beacons(), oldBeacons);
    EXPECT_TRUE(rig.finder->beacons()->empty());
    EXPECT_FALSE(rig.finder->peripheral_uuid());
    EXPECT_FALSE(rig.finder->is_TQFinderState());
    EXPECT_EQ(rig.finder->centralManager(), nullptr);
  }
}

}  // namespace
}  // namespace lumora::test
