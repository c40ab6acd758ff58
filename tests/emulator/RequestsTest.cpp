// Remote centrals reading and writing the emulator's service, and a finder
// that ranges the emulator's beacon, connects to it by its advertised name and
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

class RequestsTest : public EmulatorTest {
 protected:
  /// An advertising emulator named "12" whose delegate is `app`.
  std::shared_ptr<TQBleProcess> advertising(TQBleProcessDelegate* app) {
    auto emulator = configured(kBeaconUuid, Number(1), Number(2), std::nullopt, app);
    powerOn();
    EXPECT_EQ(journal->count("startAdvertising 12"), 1u);
    return emulator;
  }
};

TEST_F(RequestsTest, EachWriteIsAnsweredThenDeliveredExactlyAsSentOnAWorkerThread) {
  ProcessRecorder app(journal);
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");
  // Log lines, and whether any was written on the main thread (the
  // power-state report below runs where the delegate calls do).
  std::mutex mutex;
  std::vector<std::string> lines;
  bool loggedOnMain = false;
  auto previous = setLogSink([&](std::string_view line) {
    std::lock_guard lock(mutex);
    lines.emplace_back(line);
    loggedOnMain = loggedOnMain || isMainThread();
  });

  auto mark = journal->size();
  std::vector<CBATTError> results;
  central->writeBatch(kWriteChar,
                      {Bytes{0x01}, Bytes{0x02, 0x03}, Bytes{0x04, 0x05, 0x06, 0x07, 0x08}},
                      [&](std::vector<CBATTError> r) { results = std::move(r); });
  air->advance(100ms);
  EXPECT_THAT(journal->since(mark),
              ElementsAre("request writes 3",                             //
                          "respond 0 write <01>", "didRevData <01>",      //
                          "respond 0 write <0203>", "didRevData <0203>",  //
                          "respond 0 write <04050607 08>", "didRevData <04050607 08>"));

  // Single writes, an empty one and one of a full attribute payload (longer
  // values may be split by the radio).
  Bytes big(20);
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i);
  for (const auto& value : {Bytes{0xAA}, Bytes{}, big}) {
    central->write(kWriteChar, value, [&](CBATTError r) { results.push_back(r); });
    air->advance(50ms);
  }
  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(100ms);
  setLogSink(std::move(previous));

  EXPECT_EQ(results, std::vector<CBATTError>(6, CBATTError::Success));
  EXPECT_THAT(app.record().received,
              ElementsAre(Bytes{0x01}, Bytes{0x02, 0x03}, Bytes{0x04, 0x05, 0x06, 0x07, 0x08},
                          Bytes{0xAA}, Bytes{}, big));
  EXPECT_EQ(app.record().misplacedCalls, 0);
  std::lock_guard lock(mutex);
  EXPECT_THAT(
      lines, ElementsAre("Write", "<01>", "<0203>", "<04050607 08>", "Write", "<aa>", "Write", "<>",
                         "Write", description(big), "Peripheral Manager did change state"));
  EXPECT_FALSE(loggedOnMain);
}

TEST_F(RequestsTest, ReadsGetTheWholeValueWhateverTheOffsetAndNullOrNoDelegateStillSucceed) {
  ProcessRecorder app(journal);
  Bytes value(30);
  for (std::size_t i = 0; i < value.size(); ++i) value[i] = static_cast<std::uint8_t>(0xA0 + i);
  app.setReadValue(value);
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");
  LogCapture log;
  std::vector<std::pair<CBATTError, Data>> answers;
  const auto read = [&](std::uint16_t offset) {
    central->read(kReadChar, offset,
                  [&](CBATTError r, const Data& v) { answers.emplace_back(r, v); });
    air->advance(50ms);
  };
  read(0);
  read(20);
  EXPECT_EQ(app.record().reads, 2);
  EXPECT_EQ(journal->count("respond 0 read " + description(value)), 2u);

  // A null value stays null at the radio and is still a success.
  app.setReadValue(std::nullopt);
  read(0);
  EXPECT_EQ(journal->count("respond 0 read (null)"), 1u);

  // Without a delegate reads and writes are answered and go nowhere.
  emulator->setDelegate(nullptr);
  read(0);
  std::optional<CBATTError> writeResult;
  central->write(kWriteChar, Bytes{0x01, 0x02}, [&](CBATTError r) { writeResult = r; });
  air->advance(50ms);
  EXPECT_EQ(writeResult, CBATTError::Success);
  EXPECT_EQ(journal->count("respond 0 read (null)"), 2u);
  EXPECT_EQ(app.record().reads, 3);
  EXPECT_THAT(app.record().received, IsEmpty());

  ASSERT_EQ(answers.size(), 4u);
  for (std::size_t i = 0; i < answers.size(); ++i) {
    SCOPED_TRACE(i);
    EXPECT_EQ(answers[i].first, CBATTError::Success);
    if (i < 2) {
      EXPECT_EQ(answers[i].second, value);
    } else {
      EXPECT_TRUE(!answers[i].second || answers[i].second->empty());
    }
  }
  EXPECT_THAT(log.lines(), ElementsAre("Read", "Read", "Read", "Read", "Write", "<0102>"));
}

TEST_F(RequestsTest, TwoInstancesShareOneManagerAndTheLastConfiguredIsCalledBack) {
  ProcessRecorder firstApp, secondApp;
  firstApp.setReadValue(Bytes{0x11});
  secondApp.setReadValue(Bytes{0x22});
  auto first = configured(kBeaconUuid, Number(1), Number(2), std::nullopt, &firstApp);
  auto manager = peripheralManager.load();
  auto second = configured(kBeaconUuid, Number(1), Number(2), std::nullopt, &secondApp);
  EXPECT_EQ(peripheralManager.load(), manager);
  EXPECT_EQ(journal->count("openPeripheral"), 1u);
  powerOn();
  EXPECT_FALSE(first->is_TQBeaconState());  // the powered-on report went to the second
  EXPECT_TRUE(second->is_TQBeaconState());

  auto central = connectedCentral("12");
  Data answer;
  central->write(kWriteChar, Bytes{0x05}, [](CBATTError) {});
  central->read(kReadChar, 0, [&](CBATTError, const Data& v) { answer = v; });
  air->advance(100ms);
  EXPECT_THAT(secondApp.record().received, ElementsAre(Bytes{0x05}));
  EXPECT_EQ(answer, Bytes{0x22});
  EXPECT_THAT(firstApp.record().received, IsEmpty());
  EXPECT_EQ(firstApp.record().reads, 0);

  // Stopping through either releases the manager for both.
  EXPECT_TRUE(first->StopTQBeacon());
  EXPECT_FALSE(second->StartTQBeacon());
}

TEST_F(RequestsTest, ADestroyedInstanceIsNeverCalledBack) {
  ProcessRecorder app;
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");
  std::weak_ptr<TQBleProcess> gone = emulator;
  emulator.reset();
  ASSERT_TRUE(gone.expired());

  LogCapture log;
  central->write(kWriteChar, Bytes{0x01}, [](CBATTError) {});
  central->read(kReadChar, 0, [](CBATTError, const Data&) {});
  air->advance(100ms);
  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(100ms);
  EXPECT_THAT(app.record().received, IsEmpty());
  EXPECT_EQ(app.record().reads, 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

// --- A finder and an emulator in one process, on one simulated air --------------

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
  auto lobby = std::make_shared<CLBeaconRegion>(kBeaconUuid, "lobby");
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
  ASSERT_EQ(recorder.count(50, "Connect Peripheral"), 1u);
  const Bytes sent{0x01, 0x02, 0x03, 0x04, 0x05};
  finder->TQBeacon_SendData(sent);
  air->advance(200ms);
  finder->TQBeacon_ReqReadData();
  air->advance(200ms);
  EXPECT_THAT(app.record().received, ElementsAre(sent));
  EXPECT_EQ(app.record().reads, 1);

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
  EXPECT_EQ(app.record().misplacedCalls, 0);
}

}  // namespace
}  // namespace lumora::test
