// Data exchange with a linked device: writes to every "FF0C", reads of every
// "FFCC", and value updates handed on as event 80.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "FinderRig.h"

namespace lumora::test {
namespace {

using testing::ElementsAre;

const Bytes kReadValue{0x0A, 0x0B};

/// Gives every "FFCC" characteristic of `services` the value 0A 0B.
std::vector<sim::ServiceSpec> withReadValue(std::vector<sim::ServiceSpec> services) {
  for (auto& s : services) {
    for (auto& c : s.characteristics) {
      if (c.uuid == kReadUUID) c.value = kReadValue;
    }
  }
  return services;
}

const State kSend0102{90, "TQBeacon SendData : <0102>"};

TEST(Exchange, SendReportsFirstReadReportsAfterTheRequest) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice(
      "12", withReadValue({service({kMajorUUID, kMinorUUID, kWriteUUID, kReadUUID})})));
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
  EXPECT_EQ(rig.log.count("didWriteValueForCharacteristic"), 1u);
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

struct WalkCase {
  const char* name;
  std::vector<sim::ServiceSpec> services;
  std::size_t writes;
  std::size_t reads;
};

class Walk : public testing::TestWithParam<WalkCase> {};

TEST_P(Walk, EveryMatchingCharacteristicIsUsed) {
  const auto& c = GetParam();
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", withReadValue(c.services)));
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
  EXPECT_EQ(rig.recorder.dataOf(80), std::vector<Data>(c.reads, kReadValue));
  const auto states = rig.recorder.states();
  ASSERT_GE(states.size(), 2u);
  EXPECT_EQ(states[0], kSend0102);
  EXPECT_EQ(states[1], kReadData);
}

INSTANTIATE_TEST_SUITE_P(
    Services, Walk,
    testing::Values(WalkCase{"NoDataCharacteristics", {service({kMajorUUID, kMinorUUID})}, 0, 0},
                    WalkCase{"OneService", {service({kWriteUUID, kReadUUID})}, 1, 1},
                    WalkCase{"TwoServices",
                             {service({kWriteUUID, kReadUUID}, uuid16("FFC0")),
                              service({kReadUUID, kWriteUUID}, uuid16("FFC1"))},
                             2,
                             2},
                    WalkCase{"TwiceInOneService",
                             {service({kWriteUUID, kWriteUUID, kReadUUID, kReadUUID})},
                             2,
                             2},
                    WalkCase{"OnlyWrite", {service({kWriteUUID})}, 1, 0}),
    [](const auto& info) { return info.param.name; });

TEST(Exchange, WithoutALinkOnlyTheApplicationEventsAreSent) {
  FinderRig rig;
  rig.log.clear();
  rig.finder->TQBeacon_SendData(Bytes{0x01, 0x02});
  rig.finder->TQBeacon_ReqReadData();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kSend0102, kReadData));
  EXPECT_TRUE(rig.log.lines().empty());
}

TEST(Exchange, AfterADisconnectionNothingIsWritten) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID, kReadUUID})}));
  rig.connect("12");
  device->dropLink();
  rig.air->advance(1s);
  rig.recorder.clear();
  rig.log.clear();
  rig.finder->TQBeacon_SendData(Bytes{0x01, 0x02});
  rig.finder->TQBeacon_ReqReadData();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kSend0102, kReadData));
  EXPECT_TRUE(device->writesTo(kWriteUUID).empty());
  EXPECT_TRUE(rig.log.lines().empty());
}

TEST(Exchange, NullBufferIsPassedOnAsItStands) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID})}));
  rig.connect("12");
  rig.recorder.clear();
  rig.log.clear();
  rig.finder->TQBeacon_SendData(std::nullopt);
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(State{90, "TQBeacon SendData : (null)"}));
  EXPECT_EQ(rig.log.count("BLE SEND data:(null)"), 1u);
  EXPECT_EQ(device->writesTo(kWriteUUID), std::vector<Bytes>{Bytes{}});
}

TEST(Exchange, WriteErrorOnlyLogs) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID})}));
  rig.connect("12");
  device->failWrites(CBATTError::WriteNotPermitted);
  rig.recorder.clear();
  rig.log.clear();
  rig.finder->TQBeacon_SendData(Bytes{0x01, 0x02});
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kSend0102));
  EXPECT_EQ(rig.log.count("didWriteValueForCharacteristic"), 1u);
}

TEST(Exchange, ReadErrorWithoutValueReachesNobody) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", withReadValue({service({kReadUUID})})));
  rig.connect("12");
  device->failReads(CBATTError::ReadNotPermitted);
  rig.recorder.clear();
  rig.finder->TQBeacon_ReqReadData();
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kReadData));
}

struct UpdateCase {
  const char* name;
  Data value;
  std::optional<Error> error;
  bool delivered;
};

class ValueUpdate : public testing::TestWithParam<UpdateCase> {};

TEST_P(ValueUpdate, ValueOrNoErrorIsDelivered) {
  const auto& c = GetParam();
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID, kReadUUID})}));
  rig.connect("12");
  rig.recorder.clear();
  device->pushValueUpdate(kReadUUID, c.value, c.error);
  rig.air->advance(1s);
  if (c.delivered) {
    EXPECT_THAT(rig.recorder.states(), ElementsAre(kRecv));
    EXPECT_THAT(rig.recorder.dataOf(80), ElementsAre(c.value));
  } else {
    EXPECT_TRUE(rig.recorder.states().empty());
  }
}

const Error kAttError{"CBATTErrorDomain", 0x0E, "Unlikely error"};

INSTANTIATE_TEST_SUITE_P(
    Cases, ValueUpdate,
    testing::Values(UpdateCase{"Value", Bytes{0x0A, 0x0B}, std::nullopt, true},
                    UpdateCase{"ValueWithError", Bytes{0x0A, 0x0B}, kAttError, true},
                    UpdateCase{"EmptyValue", Bytes{}, std::nullopt, true},
                    UpdateCase{"NoValueNoError", std::nullopt, std::nullopt, true},
                    UpdateCase{"NoValueWithError", std::nullopt, kAttError, false}),
    [](const auto& info) { return info.param.name; });

TEST(Exchange, EveryUpdateIsDeliveredEvenRepeatedOnes) {
  FinderRig rig;
  auto device = rig.air->addDevice(beaconDevice("12", {service({kWriteUUID})}));
  rig.connect("12");
  rig.recorder.clear();
  // Any characteristic: the finder does not look at which one it is.
  for (int i = 0; i < 3; ++i) device->pushValueUpdate(kWriteUUID, Bytes{0x07}, std::nullopt);
  rig.air->advance(1s);
  EXPECT_THAT(rig.recorder.states(), ElementsAre(kRecv, kRecv, kRecv));
  EXPECT_EQ(rig.recorder.dataOf(80), std::vector<Data>(3, Bytes{0x07}));
}

}  // namespace
}  // namespace lumora::test
