// A finder and an emulator in one process, on one simulated air: the finder
// ranges the emulator's beacon, connects to it by its advertised name and
// exchanges data with it.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Lumora/TQBleFinder.h"
#include "emulator/EmulatorHarness.h"
#include "support/FinderRecorder.h"
#include "support/LogCapture.h"

namespace lumora::test {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// The adapter is on from the start, as on an application's usual run.
class EndToEndTest : public AdapterOnTest {};

TEST_F(EndToEndTest, FinderRangesConnectsWritesAndReadsTheEmulator) {
  ProcessRecorder app;
  app.setReadValue(Bytes{0x0A, 0x0B, 0x0C});
  // Major 0x12 and minor 0x34 advertise the name "1234".
  auto emulator = configured(kBeaconUuid, Number(0x12), Number(0x34), Number(-59), &app);
  air->advance(100ms);

  FinderRecorder recorder;
  auto finder = std::make_shared<TQBleFinder>();
  finder->setDelegate(&recorder);
  finder->initTQFinder();
  auto lobby = std::make_shared<CLBeaconRegion>(kBeaconUuid, std::optional<std::uint16_t>{},
                                                std::optional<std::uint16_t>{}, "lobby");
  finder->StartTQFinder(TQBleFinder::RegionList{lobby});
  air->advance(3s);

  auto ranged = recorder.beaconEvents();
  ASSERT_FALSE(ranged.empty());
  ASSERT_FALSE(ranged.back().beacons.empty());
  const auto& beacon = *ranged.back().beacons.front();
  EXPECT_EQ(beacon.proximityUUID(), kBeaconUuid);
  EXPECT_EQ(beacon.major(), Number(0x12));
  EXPECT_EQ(beacon.minor(), Number(0x34));
  finder->StopTQFinder();
  recorder.clear();

  LogCapture log;
  finder->TQBeacon_Connect("1234");
  air->advance(1s);
  ASSERT_THAT(recorder.states(),
              ElementsAre(State{90, "TQBeacon Conneting..."}, State{90, "Start Scan peripherals"},
                          State{90, "Stop Scan peripherals"}, State{50, "Connect Peripheral"}));

  Bytes sent{0x01, 0x02, 0x03, 0x04, 0x05};
  finder->TQBeacon_SendData(sent);
  air->advance(200ms);
  EXPECT_THAT(app.received(), ElementsAre(sent));

  finder->TQBeacon_ReqReadData();
  air->advance(200ms);
  EXPECT_EQ(app.reads(), 1);

  EXPECT_THAT(recorder.states(),
              ElementsAre(State{90, "TQBeacon Conneting..."}, State{90, "Start Scan peripherals"},
                          State{90, "Stop Scan peripherals"}, State{50, "Connect Peripheral"},
                          State{90, "TQBeacon SendData : <01020304 05>"},
                          State{90, "TQBeacon ReadData"}, State{80, "BLE RECV DATA"}));
  EXPECT_THAT(recorder.dataOf(80), ElementsAre(Bytes{0x0A, 0x0B, 0x0C}));
  // Both ends' log lines for the exchange.
  EXPECT_EQ(log.count("Write"), 1u);
  EXPECT_EQ(log.count("<01020304 05>"), 1u);
  EXPECT_EQ(log.count("Read"), 1u);
  EXPECT_EQ(log.count("didWriteValueForCharacteristic"), 1u);
  EXPECT_EQ(app.callsOnMainThread(), 0);
}

TEST_F(EndToEndTest, AStoppedEmulatorCannotBeFound) {
  auto emulator = configured(kBeaconUuid, Number(1), Number(2), Number(-59));
  air->advance(100ms);
  ASSERT_TRUE(emulator->StopTQBeacon());

  FinderRecorder recorder;
  auto finder = std::make_shared<TQBleFinder>();
  finder->setDelegate(&recorder);
  finder->initTQFinder();
  finder->TQBeacon_Connect("12");
  air->advance(2s);
  EXPECT_THAT(recorder.states(),
              ElementsAre(State{90, "TQBeacon Conneting..."}, State{90, "Start Scan peripherals"}));
}

}  // namespace
}  // namespace lumora::test
