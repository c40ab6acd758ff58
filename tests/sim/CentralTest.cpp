// Central sessions against virtual devices: links, discovery, reads, writes,
// notifications and the faults a device can be told to show.
#include <gtest/gtest.h>

#include "Recorders.h"

namespace lumora::sim::test {
namespace {

const std::string kDevice = "C0:00:00:00:00:01";
const CBUUID kData = CBUUID::UUIDWithString("FF0C");
const CBUUID kReply = CBUUID::UUIDWithString("FFCC");
const CBUUID kBattery = CBUUID::UUIDWithString("180F");
const CBUUID kLevel = CBUUID::UUIDWithString("2A19");
const CBUUID kCustom = CBUUID::UUIDWithString("CC00FFC0-0451-4000-B000-000000000000");

// Battery (level: read, notify, 0x64) and a custom service (data: write with
// and without response; reply: read, "hi").
DeviceConfig gattDevice() {
  return {
      .address = kDevice,
      .localName = "Gatt",
      .connectable = true,
      .services = {
          {kBattery,
           true,
           {{.uuid = kLevel,
             .properties = CBCharacteristicPropertyRead | CBCharacteristicPropertyNotify,
             .value = {0x64}}}},
          {kCustom,
           true,
           {{.uuid = kData,
             .properties =
                 CBCharacteristicPropertyWrite | CBCharacteristicPropertyWriteWithoutResponse},
            {.uuid = kReply, .properties = CBCharacteristicPropertyRead, .value = ascii("hi")}}}}};
}

class AirCentral : public ::testing::Test {
 protected:
  void SetUp() override { useDevice(gattDevice()); }
  void useDevice(const DeviceConfig& config) {
    air = Air::create({.seed = 1});
    device = air->addDevice(config);
    recorder = std::make_shared<CentralRecorder>();
    session = air->openCentral(recorder);
  }

  void connect() {
    session->connect(kDevice);
    air->advance(10ms);
    ASSERT_EQ(recorder->log(), Lines{"connected " + kDevice});
    recorder->clear();
  }
  // Links, discovers everything and keeps the value handles.
  void linkAndDiscover() {
    handles = recorder->discoverAll(*air, *session, kDevice);
    ASSERT_EQ(handles.size(), 3u);
  }
  radio::AttHandle handle(const CBUUID& uuid) { return handles.at(uuid.UUIDString()); }
  // A recorded line about one attribute: "value C0:... 12 <6869> ok".
  static std::string ev(const std::string& what, radio::AttHandle h, const std::string& rest) {
    return what + " " + kDevice + " " + std::to_string(h) + " " + rest;
  }

  std::shared_ptr<Air> air;
  std::shared_ptr<VirtualDevice> device;
  std::shared_ptr<CentralRecorder> recorder;
  std::shared_ptr<radio::CentralRadio> session;
  std::map<std::string, radio::AttHandle> handles;
};

struct BehaviourCase {
  ConnectBehaviour behaviour;
  Nanos delay;
  std::vector<std::string> expected;
};

class AirConnectBehaviour : public AirCentral,
                            public ::testing::WithParamInterface<BehaviourCase> {};

TEST_P(AirConnectBehaviour, DeviceAnswersAsToldAfterItsDelayAndTheLinkLatency) {
  device->setConnectBehaviour(GetParam().behaviour, GetParam().delay);
  session->connect(kDevice);
  air->advance(GetParam().delay + 4ms);
  EXPECT_TRUE(recorder->log().empty());  // nothing before one link latency
  air->advance(10s);
  EXPECT_EQ(recorder->log(), GetParam().expected);
  EXPECT_EQ(device->isConnected(), GetParam().behaviour == ConnectBehaviour::Accept);
}

INSTANTIATE_TEST_SUITE_P(
    All, AirConnectBehaviour,
    ::testing::Values(BehaviourCase{ConnectBehaviour::Accept, 0ms, {"connected " + kDevice}},
                      BehaviourCase{ConnectBehaviour::Accept, 200ms, {"connected " + kDevice}},
                      BehaviourCase{
                          ConnectBehaviour::Refuse, 0ms, {"connect failed " + kDevice + " cb 10"}},
                      BehaviourCase{ConnectBehaviour::Ignore, 0ms, {}}));

// An attempt is answered once, whenever the device answers; asking again
// or asking the unconnectable and the unknown gives nothing more.
TEST_F(AirCentral, AttemptsPendUntilTheDeviceAnswersAndAreNeverDoubled) {
  device->setConnectBehaviour(ConnectBehaviour::Ignore);
  session->connect(kDevice);
  air->advance(1s);
  EXPECT_TRUE(recorder->log().empty());
  device->setConnectBehaviour(ConnectBehaviour::Refuse);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), Lines{"connect failed " + kDevice + " cb 10"});

  recorder->clear();
  device->setConnectable(false);
  device->setConnectBehaviour(ConnectBehaviour::Accept);
  session->connect(kDevice);
  session->connect(kDevice);
  air->advance(1s);
  EXPECT_TRUE(recorder->log().empty());
  device->setConnectable(true);
  air->advance(10ms);
  session->connect(kDevice);
  air->advance(1s);
  EXPECT_EQ(recorder->log(), Lines{"connected " + kDevice});

  air->addDevice({.address = "C0:00:00:00:00:02"});  // not connectable
  session->connect("C0:00:00:00:00:02");
  session->connect("AA:BB:CC:DD:EE:FF");  // never heard of
  air->advance(5s);
  EXPECT_EQ(recorder->log().size(), 1u);
}

TEST_F(AirCentral, CancelEndsALinkOrAnAttemptWithoutError) {
  connect();
  session->cancelConnection(kDevice);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), Lines{"disconnected " + kDevice + " ok"});
  EXPECT_FALSE(device->isConnected());

  recorder->clear();
  device->setConnectBehaviour(ConnectBehaviour::Ignore);
  session->connect(kDevice);
  air->advance(1s);
  session->cancelConnection(kDevice);
  session->cancelConnection(kDevice);  // nothing left to cancel
  air->advance(1s);
  EXPECT_EQ(recorder->log(), Lines{"disconnected " + kDevice + " ok"});

  // A cancelled slow attempt never completes.
  recorder->clear();
  device->setConnectBehaviour(ConnectBehaviour::Accept, 100ms);
  session->connect(kDevice);
  session->cancelConnection(kDevice);
  air->advance(1s);
  EXPECT_EQ(recorder->log(), Lines{"disconnected " + kDevice + " ok"});
}

TEST_F(AirCentral, DiscoveryGivesStableHandlesAndHonoursFilters) {
  // Without a link every request fails with "not connected".
  session->discoverServices(kDevice, std::nullopt);
  session->read(kDevice, 3);
  session->write(kDevice, 3, {1}, true);
  session->write(kDevice, 3, {1}, false);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(),
            (Lines{"services " + kDevice + " 0 cb 3", "value " + kDevice + " 3 null cb 3",
                   "written " + kDevice + " 3 cb 3"}));
  recorder->clear();
  connect();
  session->discoverServices(kDevice, std::nullopt);
  air->advance(10ms);
  const auto services = recorder->services();
  ASSERT_EQ(services.size(), 2u);
  EXPECT_EQ(services[0].uuid, kBattery);
  EXPECT_EQ(services[1].uuid, kCustom);
  EXPECT_LT(services[0].handle, services[1].handle);

  session->discoverCharacteristics(kDevice, services[1].handle, std::nullopt);
  air->advance(10ms);
  const auto all = recorder->characteristics();
  ASSERT_EQ(all.size(), 2u);
  EXPECT_EQ(all[0].uuid, kData);
  EXPECT_EQ(all[1].uuid, kReply);
  EXPECT_EQ(all[1].properties, CBCharacteristicPropertyRead);
  EXPECT_GT(all[0].handle, services[1].handle);

  session->discoverCharacteristics(kDevice, services[1].handle, std::vector<CBUUID>{kReply});
  air->advance(10ms);
  ASSERT_EQ(recorder->characteristics().size(), 1u);
  EXPECT_EQ(recorder->characteristics()[0].handle, all[1].handle);

  session->discoverServices(kDevice, std::vector<CBUUID>{kCustom});
  air->advance(10ms);
  ASSERT_EQ(recorder->services().size(), 1u);
  EXPECT_EQ(recorder->services()[0].handle, services[1].handle);

  recorder->clear();
  session->discoverCharacteristics(kDevice, 0x7777, std::nullopt);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), Lines{"characteristics " + kDevice + " 30583 0 cb 2"});
}

class AirDropOn : public AirCentral, public ::testing::WithParamInterface<std::string> {};

TEST_P(AirDropOn, LinkDropsWhenThatRequestArrivesAndOnlyOnce) {
  EXPECT_THROW(device->dropLinkOn("notify"), std::invalid_argument);
  linkAndDiscover();
  const radio::AttHandle reply = handle(kReply), data = handle(kData);
  auto ask = [&] {
    const std::string& kind = GetParam();
    if (kind == "services") session->discoverServices(kDevice, std::nullopt);
    if (kind == "characteristics") session->discoverCharacteristics(kDevice, 1, std::nullopt);
    if (kind == "read") session->read(kDevice, reply);
    if (kind == "write") session->write(kDevice, data, {1}, true);
  };
  device->dropLinkOn(GetParam());
  ask();
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), Lines{"disconnected " + kDevice + " cb 6"});
  EXPECT_FALSE(device->isConnected());

  recorder->clear();
  connect();
  ask();
  air->advance(10ms);
  ASSERT_EQ(recorder->log().size(), 1u);
  EXPECT_EQ(recorder->log()[0].find("disconnected"), std::string::npos);
}

INSTANTIATE_TEST_SUITE_P(Kinds, AirDropOn,
                         ::testing::Values("services", "characteristics", "read", "write"));

TEST_F(AirCentral, ReadsAndWritesGoThroughTheDatabase) {
  linkAndDiscover();
  const radio::AttHandle data = handle(kData), reply = handle(kReply), level = handle(kLevel);

  session->read(kDevice, reply);
  session->write(kDevice, data, {0x01, 0x02}, true);
  session->write(kDevice, data, {0x03}, false);  // no answer
  session->read(kDevice, data);                  // not readable
  session->write(kDevice, reply, {0x09}, true);  // not writable
  session->read(kDevice, 0x0999);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), (Lines{ev("value", reply, "<6869> ok"), ev("written", data, "ok"),
                                    ev("value", data, "null att 2"), ev("written", reply, "att 3"),
                                    ev("value", 0x0999, "null att 1")}));
  EXPECT_EQ(device->writesTo(kData), (std::vector<Bytes>{{0x01, 0x02}, {0x03}}));

  recorder->clear();
  device->failReads(CBATTError::InsufficientAuthentication);
  device->failWrites(CBATTError::WriteNotPermitted);
  session->read(kDevice, level);
  session->write(kDevice, data, {0x04}, true);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(),
            (Lines{ev("value", level, "null att 5"), ev("written", data, "att 3")}));
  EXPECT_EQ(device->writesTo(kData).size(), 2u);  // the refused write is not kept

  recorder->clear();
  device->failReads(std::nullopt);
  device->failWrites(std::nullopt);
  session->read(kDevice, level);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), Lines{ev("value", level, "<64> ok")});
}

TEST_F(AirCentral, HandlersAnswerAndEchoWritesComeBack) {
  DeviceConfig c = gattDevice();
  std::vector<std::uint16_t> offsets;
  auto& custom = c.services[1].characteristics;
  custom[1].onRead = [&](std::uint16_t offset) {
    offsets.push_back(offset);
    return std::pair{CBATTError::Success, ascii("handled")};
  };
  custom[0].properties |= CBCharacteristicPropertyRead | CBCharacteristicPropertyNotify;
  custom[0].echoWrites = true;
  std::vector<Bytes> seen;
  custom[0].onWrite = [&](const Bytes& v) {
    seen.push_back(v);
    return v.empty() ? CBATTError::InvalidAttributeValueLength : CBATTError::Success;
  };
  useDevice(c);
  linkAndDiscover();
  const radio::AttHandle data = handle(kData), reply = handle(kReply);
  session->read(kDevice, reply);
  session->write(kDevice, data, ascii("ping"), true);
  session->write(kDevice, data, {}, true);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(),
            (Lines{ev("value", reply, "<68616e64 6c6564> ok"), ev("written", data, "ok"),
                   ev("value", data, "<70696e67> ok"), ev("written", data, "att 13")}));
  EXPECT_EQ(offsets, std::vector<std::uint16_t>{0});
  EXPECT_EQ(seen, (std::vector<Bytes>{ascii("ping"), {}}));
  EXPECT_EQ(device->writesTo(kData), std::vector<Bytes>{ascii("ping")});
}

TEST_F(AirCentral, PushedUpdatesReachEveryLinkedSession) {
  auto other = std::make_shared<CentralRecorder>();
  auto otherSession = air->openCentral(other);
  auto idle = std::make_shared<CentralRecorder>();
  auto idleSession = air->openCentral(idle);
  linkAndDiscover();
  otherSession->connect(kDevice);
  air->advance(10ms);

  device->pushValueUpdate(kLevel, Bytes{0x50}, std::nullopt);
  device->pushValueUpdate(kLevel, std::nullopt, Error{CBATTErrorDomain, 0x0E, "unlikely"});
  device->pushValueUpdate(kLevel, std::nullopt, std::nullopt);
  device->pushValueUpdate(CBUUID::UUIDWithString("2A00"), Bytes{1}, std::nullopt);  // not there
  air->advance(10ms);
  const radio::AttHandle h = handle(kLevel);
  const Lines expected{ev("value", h, "<50> ok"), ev("value", h, "null att 14"),
                       ev("value", h, "null ok")};
  EXPECT_EQ(recorder->log(), expected);
  auto otherLog = other->log();
  ASSERT_EQ(otherLog.size(), 4u);
  EXPECT_EQ(Lines(otherLog.begin() + 1, otherLog.end()), expected);
  EXPECT_TRUE(idle->log().empty());
}

TEST_F(AirCentral, DroppedRemovedOrUnconnectablePeersEndLinksWithAnError) {
  const std::pair<std::function<void()>, std::string> cases[] = {
      {[&] { device->dropLink(); }, "cb 6"},
      {[&] { device->setConnectable(false); }, "cb 7"},
      {[&] { air->removeDevice(kDevice); }, "cb 7"},  // last: the device is gone
  };
  for (const auto& [end, error] : cases) {
    device->setConnectable(true);
    connect();
    end();
    air->advance(1ms);
    EXPECT_EQ(recorder->log(), Lines{"disconnected " + kDevice + " " + error});
    recorder->clear();
  }
  EXPECT_EQ(air->device(kDevice), nullptr);
}

TEST_F(AirCentral, PowerOffDropsLinksAndFailsAttempts) {
  auto pending = std::make_shared<CentralRecorder>();
  auto pendingSession = air->openCentral(pending);
  linkAndDiscover();
  device->setConnectBehaviour(ConnectBehaviour::Ignore);
  pendingSession->connect(kDevice);
  session->read(kDevice, handle(kReply));  // in flight when the power goes
  air->advance(1ms);

  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(1s);
  EXPECT_EQ(recorder->log(), (Lines{"state 4", "disconnected " + kDevice + " cb 0"}));
  EXPECT_EQ(pending->log(), (Lines{"state 4", "connect failed " + kDevice + " cb 0"}));
  EXPECT_FALSE(device->isConnected());

  session->connect(kDevice);  // refused while off
  air->setAdapterState(CBManagerState::PoweredOn);
  air->advance(1s);
  EXPECT_EQ(recorder->log().back(), "state 5");
}

TEST_F(AirCentral, AClosedSessionHearsNothingMore) {
  linkAndDiscover();
  session->read(kDevice, handle(kReply));
  session->startScan({});
  session->close();
  air->advance(1s);
  EXPECT_TRUE(recorder->log().empty());
  EXPECT_TRUE(recorder->reports().empty());
  EXPECT_FALSE(device->isConnected());
  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(1s);
  EXPECT_TRUE(recorder->log().empty());
}

TEST_F(AirCentral, ReceiverThatIsGoneIsSkipped) {
  connect();
  recorder.reset();
  device->dropLink();
  air->advance(1s);  // nothing to call, nothing breaks
  EXPECT_FALSE(device->isConnected());
}

}  // namespace
}  // namespace lumora::sim::test
