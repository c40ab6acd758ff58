// The finder's whole path through real bluetoothd to the emulator in another
// process: scan for the advertised name, connect, discover, write, read and
// the two kinds of disconnection, with the same status events the simulated
// air gives.
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/wait.h>

#include "Foundation/NSUserDefaults.h"
#include "GuestRig.h"

extern char** environ;

namespace lumora::test {
namespace {

using ::testing::ElementsAre;

const Uuid kBeaconUuid = *Uuid::fromString("E2C56DB5-DFFB-48D2-B060-D0F5A71096E0");

State sendData(const Bytes& bytes) {
  return {90, "TQBeacon SendData : " + description(bytes)};
}

// Runs a program of the guest system to its end; its exit status, or -1.
int runProgram(std::vector<std::string> args) {
  std::vector<char*> argv;
  for (auto& a : args) argv.push_back(a.data());
  argv.push_back(nullptr);
  pid_t pid = -1;
  if (::posix_spawnp(&pid, argv[0], nullptr, nullptr, argv.data(), environ) != 0) return -1;
  int status = 0;
  if (::waitpid(pid, &status, 0) != pid) return -1;
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

class Finder : public RealBluezTest {
 protected:
  /// Asks the finder for the device named "1234", then starts the emulator
  /// that advertises it (major 0x12, minor 0x34) answering reads with
  /// `reply`, and waits until the finder knows the emulator's
  /// characteristics.
  std::unique_ptr<EmulatorProcess> connectToEmulator(Data reply) {
    makeFinder();
    if (HasFatalFailure()) return nullptr;
    finder->TQBeacon_Connect("1234");
    if (!waitForScan()) {
      ADD_FAILURE() << "the finder never scanned\n" << statesText();
      return nullptr;
    }
    auto emulator = std::make_unique<EmulatorProcess>(EmulatorProcess::Options{
        .adapter = emulatorAdapter,
        .uuid = kBeaconUuid,
        .major = 0x12,
        .minor = 0x34,
        .power = -59,
        .reply = std::move(reply),
    });
    if (!emulator->waitUntilAdvertising(30s)) {
      ADD_FAILURE() << "the emulator did not advertise\n" << emulator->transcript();
      return nullptr;
    }
    EXPECT_EQ(emulator->advertisedName(), "1234");
    if (!waitForCharacteristics()) {
      ADD_FAILURE() << "the finder did not connect and discover\n"
                    << statesText() << "\n"
                    << emulator->transcript();
      return nullptr;
    }
    return emulator;
  }
};

TEST_F(Finder, ConnectsByNameWritesReadsAndDisconnectsQuietly) {
  const auto emulator = connectToEmulator(Bytes{0x0A, 0x0B, 0x0C});
  ASSERT_TRUE(emulator);
  // The emulator's service has two of the characteristics the finder
  // recognises, too few for the confirming second connect.
  EXPECT_THAT(recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral));

  // Three writes in a row, as an application makes them: a short one, one
  // longer than the default ATT payload (20 bytes) and a single byte. Each
  // arrives whole and in order; bluetoothd takes one write per
  // characteristic at a time, so the radio has to queue the others.
  const Bytes shortWrite{0x01, 0x02, 0x03, 0x04, 0x05};
  Bytes longWrite(100);
  for (std::size_t i = 0; i < longWrite.size(); ++i) longWrite[i] = static_cast<std::uint8_t>(i);
  const Bytes oneByte{0xFF};
  finder->TQBeacon_SendData(shortWrite);
  finder->TQBeacon_SendData(longWrite);
  finder->TQBeacon_SendData(oneByte);
  ASSERT_TRUE(emulator->waitForWrites(3, 15s)) << emulator->transcript();
  EXPECT_THAT(emulator->writes(), ElementsAre(shortWrite, longWrite, oneByte));

  finder->TQBeacon_ReqReadData();
  ASSERT_TRUE(runUntil([&] { return recorder.count(kRecv.code, kRecv.message) > 0; }, 15s))
      << statesText() << "\n"
      << emulator->transcript();
  EXPECT_THAT(recorder.dataOf(80), ElementsAre(Bytes{0x0A, 0x0B, 0x0C}));
  EXPECT_TRUE(emulator->waitForReads(1, 5s)) << emulator->transcript();

  NSUserDefaults::standardUserDefaults()->setObject(Number::numberWithBool(true),
                                                    TQDisconnectFlagKey);
  finder->TQBeacon_Disconnect();
  ASSERT_TRUE(runUntil([&] { return finder->peripheral() == nullptr; }, 15s)) << statesText();
  EXPECT_THAT(recorder.states(),
              ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral,
                          sendData(shortWrite), sendData(longWrite), sendData(oneByte), kReadData,
                          kRecv, kDisconnected, kDidDisconnect));
  // The requested disconnection consumed the flag.
  NSUserDefaults::resetStandardUserDefaults();
  const auto flag =
      numberValue(NSUserDefaults::standardUserDefaults()->objectForKey(TQDisconnectFlagKey));
  ASSERT_TRUE(flag);
  EXPECT_FALSE(flag->boolValue());
  // The emulator saw no more than the finder asked for.
  EXPECT_EQ(emulator->writes().size(), 3u);
  EXPECT_EQ(emulator->reads(), 1u);
  EXPECT_EQ(emulator->stop(), 0) << emulator->transcript();
}

TEST_F(Finder, ReadOfAnEmulatorWithoutDataGivesAnEmptyValue) {
  const auto emulator = connectToEmulator(std::nullopt);
  ASSERT_TRUE(emulator);

  finder->TQBeacon_ReqReadData();
  ASSERT_TRUE(runUntil([&] { return recorder.count(kRecv.code, kRecv.message) > 0; }, 15s))
      << statesText() << "\n"
      << emulator->transcript();
  // Answered with success and no bytes: empty, not null.
  EXPECT_THAT(recorder.dataOf(80), ElementsAre(Bytes{}));
}

TEST_F(Finder, AnUnrequestedDropIsReportedAsALoss) {
  const auto emulator = connectToEmulator(Bytes{0x01});
  ASSERT_TRUE(emulator);

  // Powering the emulator's controller off ends the link from the other
  // side, as a device that goes away does.
  ASSERT_TRUE(emulatorAdapter.starts_with("hci")) << emulatorAdapter;
  ASSERT_EQ(runProgram({"btmgmt", "--index", emulatorAdapter.substr(3), "power", "off"}), 0);
  ASSERT_TRUE(runUntil([&] { return recorder.count(kLost.code, kLost.message) > 0; }, 30s))
      << statesText();
  EXPECT_THAT(recorder.states(), ElementsAre(kConneting, kStartScan, kStopScan, kConnectPeripheral,
                                             kDidDisconnect, kLost));
  EXPECT_EQ(finder->peripheral(), nullptr);
}

}  // namespace
}  // namespace lumora::test
