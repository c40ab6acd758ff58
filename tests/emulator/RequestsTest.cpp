// Remote centrals reading and writing the emulator's service.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "emulator/EmulatorHarness.h"
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

TEST_F(RequestsTest, BatchOfWritesIsAnsweredAndDeliveredOneRequestAtATime) {
  ProcessRecorder app(journal);
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");

  LogCapture log;
  auto mark = journal->size();
  std::vector<CBATTError> results;
  central->writeBatch(kWriteChar,
                      {Bytes{0x01}, Bytes{0x02, 0x03}, Bytes{0x04, 0x05, 0x06, 0x07, 0x08}},
                      [&](std::vector<CBATTError> r) { results = std::move(r); });
  air->advance(100ms);

  EXPECT_THAT(log.lines(), ElementsAre("Write", "<01>", "<0203>", "<04050607 08>"));
  EXPECT_THAT(results, ElementsAre(CBATTError::Success, CBATTError::Success, CBATTError::Success));
  EXPECT_THAT(journal->since(mark),
              ElementsAre("request writes 3",                             //
                          "respond 0 write <01>", "didRevData <01>",      //
                          "respond 0 write <0203>", "didRevData <0203>",  //
                          "respond 0 write <04050607 08>", "didRevData <04050607 08>"));
  EXPECT_THAT(app.received(),
              ElementsAre(Bytes{0x01}, Bytes{0x02, 0x03}, Bytes{0x04, 0x05, 0x06, 0x07, 0x08}));
}

TEST_F(RequestsTest, SingleWritesArriveExactlyAsSentIncludingEmptyOnes) {
  ProcessRecorder app;
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");

  Bytes big(20);  // one attribute payload: longer values may be split by the radio
  for (std::size_t i = 0; i < big.size(); ++i) big[i] = static_cast<std::uint8_t>(i);
  std::vector<CBATTError> results;
  for (const auto& value : {Bytes{0xAA}, Bytes{}, big}) {
    central->write(kWriteChar, value, [&](CBATTError r) { results.push_back(r); });
    air->advance(50ms);
  }
  EXPECT_THAT(results, ElementsAre(CBATTError::Success, CBATTError::Success, CBATTError::Success));
  EXPECT_THAT(app.received(), ElementsAre(Bytes{0xAA}, Bytes{}, big));
}

TEST_F(RequestsTest, ReadsGetTheWholeValueWhateverTheOffset) {
  ProcessRecorder app(journal);
  Bytes value(30);
  for (std::size_t i = 0; i < value.size(); ++i) value[i] = static_cast<std::uint8_t>(0xA0 + i);
  app.setReadValue(value);
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");

  LogCapture log;
  std::vector<std::pair<CBATTError, Data>> answers;
  for (std::uint16_t offset : {0, 20}) {
    central->read(kReadChar, offset,
                  [&](CBATTError r, const Data& v) { answers.emplace_back(r, v); });
    air->advance(50ms);
  }

  EXPECT_THAT(log.lines(), ElementsAre("Read", "Read"));
  EXPECT_EQ(app.reads(), 2);
  ASSERT_EQ(answers.size(), 2u);
  for (const auto& [result, answer] : answers) {
    EXPECT_EQ(result, CBATTError::Success);
    EXPECT_EQ(answer, value);
  }
  EXPECT_EQ(journal->count("respond 0 read " + description(value)), 2u);
}

TEST_F(RequestsTest, ReadOfANullValueIsStillASuccess) {
  ProcessRecorder app(journal);
  app.setReadValue(std::nullopt);
  auto emulator = advertising(&app);
  auto central = connectedCentral("12");

  std::optional<CBATTError> result;
  Data answer = Bytes{0xFF};
  central->read(kReadChar, 0, [&](CBATTError r, const Data& v) {
    result = r;
    answer = v;
  });
  air->advance(50ms);

  EXPECT_EQ(result, CBATTError::Success);
  EXPECT_EQ(journal->count("respond 0 read (null)"), 1u);  // null stays null at the radio
  EXPECT_TRUE(!answer || answer->empty());
}

TEST_F(RequestsTest, WithoutADelegateReadsAndWritesAreAnsweredAndGoNowhere) {
  auto emulator = advertising(nullptr);
  auto central = connectedCentral("12");

  LogCapture log;
  std::optional<CBATTError> readResult;
  Data readValue = Bytes{0xFF};
  std::optional<CBATTError> writeResult;
  central->read(kReadChar, 0, [&](CBATTError r, const Data& v) {
    readResult = r;
    readValue = v;
  });
  air->advance(50ms);
  central->write(kWriteChar, Bytes{0x01, 0x02}, [&](CBATTError r) { writeResult = r; });
  air->advance(50ms);

  EXPECT_EQ(readResult, CBATTError::Success);
  EXPECT_TRUE(!readValue || readValue->empty());
  EXPECT_EQ(journal->count("respond 0 read (null)"), 1u);
  EXPECT_EQ(writeResult, CBATTError::Success);
  EXPECT_THAT(log.lines(), ElementsAre("Read", "Write", "<0102>"));
}

TEST_F(RequestsTest, DelegateIsCalledOnWorkerThreadsNeverTheMainThread) {
  ProcessRecorder app;
  app.setReadValue(Bytes{0x0A, 0x0B});
  auto emulator = advertising(&app);

  // The power-state report runs there too: watch the thread of its log line.
  std::mutex mutex;
  std::vector<bool> logThreadsMain;
  auto previous = setLogSink([&](std::string_view) {
    std::lock_guard lock(mutex);
    logThreadsMain.push_back(isMainThread());
  });
  auto central = connectedCentral("12");
  for (int i = 0; i < 5; ++i) {
    central->write(kWriteChar, Bytes{static_cast<std::uint8_t>(i)}, [](CBATTError) {});
    central->read(kReadChar, 0, [](CBATTError, const Data&) {});
    air->advance(50ms);
  }
  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(100ms);
  setLogSink(std::move(previous));

  EXPECT_EQ(app.received().size(), 5u);
  EXPECT_EQ(app.reads(), 5);
  EXPECT_EQ(app.callsOnMainThread(), 0);
  EXPECT_EQ(app.callsOffGlobalQueue(), 0);
  std::lock_guard lock(mutex);
  EXPECT_FALSE(logThreadsMain.empty());
  EXPECT_TRUE(std::none_of(logThreadsMain.begin(), logThreadsMain.end(), [](bool b) { return b; }));
}

TEST_F(RequestsTest, TheSecondInstanceConfiguredReceivesTheTraffic) {
  ProcessRecorder firstApp, secondApp;
  secondApp.setReadValue(Bytes{0x22});
  firstApp.setReadValue(Bytes{0x11});
  auto first = configured(kBeaconUuid, Number(1), Number(2), std::nullopt, &firstApp);
  auto second = configured(kBeaconUuid, Number(1), Number(2), std::nullopt, &secondApp);
  powerOn();
  auto central = connectedCentral("12");

  Data answer;
  central->write(kWriteChar, Bytes{0x05}, [](CBATTError) {});
  central->read(kReadChar, 0, [&](CBATTError, const Data& v) { answer = v; });
  air->advance(100ms);

  EXPECT_THAT(secondApp.received(), ElementsAre(Bytes{0x05}));
  EXPECT_EQ(answer, Bytes{0x22});
  EXPECT_THAT(firstApp.received(), IsEmpty());
  EXPECT_EQ(firstApp.reads(), 0);
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

  EXPECT_THAT(app.received(), IsEmpty());
  EXPECT_EQ(app.reads(), 0);
  EXPECT_THAT(log.lines(), IsEmpty());
}

}  // namespace
}  // namespace lumora::test
