// Data exchange with a linked device: writes to every "FF0C", reads of every
// "FFCC", and value updates handed on as event 80.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::ElementsAre;

const State kSend0102{90, "TQBeacon SendData : <0102>"};

TEST(Exchange, SendReportsFirstReadReportsAfterTheRequest) {
  FinderRig rig;
  auto device = rig.air->addDevice(
      beaconDevice("12", {service({kMajorUUID, kMinorUUID, kWriteUUID, kReadUUID})}));
  rig.connect("12");
  rig.recorder.clear();
  rig.log.clear();

  // What the log held when each event arrived tells the order of steps.
  std::vector<std::vector<std::string>> logAtEvent;
  rig.recorder.setHook([&](const FinderEvent&) { logAtEvent.push_back(rig.log.lines()); });

  rig.finder->TQBeacon_SendData(Bytes{0x01, 0x02, 0x03, 0x04});
  EXPECT_THAT(rig.recorder.states(), ElementsAre(State{90, "TQBeacon SendData : <01020304>"}));
  ASSERT_EQ(logAtEvent.size(), 1u);
  EXPECT_TRUE(logAtEvent[0].empty());
  EXPECT_THAT(rig.log.lines(), ElementsAre("BLE SEND data:<01020304>"));
  EXPECT_FALSE(rig.recorder.events()[0].data);

  rig.air->advance(1s);
  EXPECT_EQ(device->writesTo(kWriteUUID), std::vector<Bytes>{Bytes({0x01, 0x02, 0x03, 0x04})});
  EXPECT_EQ(rig.recorder.states().size(), 1u);  // a write's outcome is not reported

  rig.recorder.clear();
  rig.log.clear();
  logAtEvent.clear();
  rig.finder->TQBeacon_ReqReadData();
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kReadData));
  ASSERT_EQ(logAtEvent.size(), 1u);
  EXPECT_THAT(logAtEvent[0], ElementsAre("BLE ReqRead data"));

  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kReadData, kRecv));
  EXPECT_THAT(rig.recorder.dataOf(80), ElementsAre(Data(kReadValue)));
  for (const auto& e : rig.recorder.events()) EXPECT_TRUE(e.onMainThread);
}

TEST(Exchange, EveryMatchingCharacteristicIsUsed) {
  const CBUUID other = CBUUID::UUIDWithString("FFC1");
  const struct {
    const char* name;
    std::vector<sim::ServiceSpec> services;
    std::size_t writes, reads;
  } cases[] = {
      {"NoDataCharacteristics", {service({kMajorUUID, kMinorUUID})}, 0, 0},
      {"OneService", {service({kWriteUUID, kReadUUID})}, 1, 1},
      {"TwoServices",
       {service({kWriteUUID, kReadUUID}), service({kReadUUID, kWriteUUID}, other)},
       2,
       2},
      {"TwiceInOneService", {service({kWriteUUID, kWriteUUID, kReadUUID, kReadUUID})}, 2, 2},
      {"OnlyWrite", {service({kWriteUUID})}, 1, 0},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FinderRig rig;
    auto device = rig.air->addDevice(beaconDevice("12", c.services));
    rig.connect("12");
    rig.recorder.clear();
    rig.log.clear();
    rig.finder->TQBeacon_SendData(Bytes{0x01, 0x02});
    rig.finder->TQBeacon_ReqReadData();
    rig.air->advance(1s);

    EXPECT_EQ(device->writesTo(kWriteUUID), std::vector<Bytes>(c.writes, Bytes{0x01, 0x02}));
    EXPECT_EQ(rig.log.count("BLE SEND data:<0102>"), c.writes);
    EXPECT_EQ(rig.log.count("didWriteValueForCharacteristic"), c.writes);
    EXPECT_EQ(rig.log.count("BLE ReqRead data"), c.reads);
    std::vector<State> expected{kSend0102, kReadData};
    expected.insert(expected.end(), c.reads, kRecv);
    EXPECT_EQ(rig.recorder.states(), expected);
    EXPECT_EQ(rig.recorder.dataOf(80), std::vector<Data>(c.reads, kReadValue));
  }
}

TEST(Exchange, WithoutALinkOnlyTheApplicationEventsAreSentAndFailuresOnlyLog) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID, kReadUUID})}));
  const auto sendAndRead = [&] {
    rig.recorder.clear();
    rig.log.clear();
    rig.finder->TQBeacon_SendData(Bytes{0x01, 0x02});
    rig.finder->TQBeacon_ReqReadData();
    rig.air->advance(1s);
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kSend0102, kReadData));
  };
  // Never linked: nothing reaches the device, nothing is logged.
  sendAndRead();
  EXPECT_TRUE(rig.log.lines().empty());

  // A null buffer is passed on as it stands.
  rig.connect("12");
  rig.recorder.clear();
  rig.finder->TQBeacon_SendData(std::nullopt);
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(State{90, "TQBeacon SendData : (null)"}));
  EXPECT_EQ(rig.log.count("BLE SEND data:(null)"), 1u);
  EXPECT_EQ(device->writesTo(kWriteUUID), std::vector<Bytes>{Bytes{}});

  // A failed write only logs; a failed read without a value reaches nobody.
  device->failWrites(CBATTError::WriteNotPermitted);
  device->failReads(CBATTError::ReadNotPermitted);
  sendAndRead();
  EXPECT_EQ(rig.log.count("didWriteValueForCharacteristic"), 1u);

  // Linked and dropped: again nothing reaches the device.
  device->dropLink();
  rig.air->advance(1s);
  sendAndRead();
  EXPECT_TRUE(rig.log.lines().empty());
  EXPECT_EQ(device->writesTo(kWriteUUID), std::vector<Bytes>{Bytes{}});
}

TEST(Exchange, UpdatesWithAValueOrWithoutErrorAreDeliveredEveryTime) {
  const Error attError{"CBATTErrorDomain", 0x0E, "Unlikely error"};
  const struct {
    const char* name;
    Data value;
    std::optional<Error> error;
    bool delivered;
  } cases[] = {
      {"Value", Bytes{0x0A, 0x0B}, std::nullopt, true},
      {"ValueWithError", Bytes{0x0A, 0x0B}, attError, true},
      {"EmptyValue", Bytes{}, std::nullopt, true},
      {"NoValueNoError", std::nullopt, std::nullopt, true},
      {"NoValueWithError", std::nullopt, attError, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    FinderRig rig;  // a fresh characteristic: a null update keeps the value it held
    auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID, kReadUUID})}));
    rig.connect("12");
    rig.recorder.clear();
    // Repeated, and from any characteristic: the finder does not look at which one it is.
    device->pushValueUpdate(kReadUUID, c.value, c.error);
    device->pushValueUpdate(kWriteUUID, c.value, c.error);
    rig.air->advance(1s);
    const std::size_t n = c.delivered ? 2 : 0;
    EXPECT_EQ(rig.recorder.states(), std::vector<State>(n, kRecv));
    EXPECT_EQ(rig.recorder.dataOf(80), std::vector<Data>(n, c.value));
  }
}

}  // namespace
}  // namespace lumora::test
