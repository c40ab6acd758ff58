// The central manager and its peripherals against a scripted radio: scans,
// links, discovery, values, and delivery on the main queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <map>

#include "CoreBluetooth/CBCentralManager.h"
#include "Foundation/Dispatch.h"
#include "support/FakeRadio.h"

namespace lumora {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

const radio::PeripheralId kA = "C0:FF:EE:00:00:0A";
const radio::PeripheralId kB = "C0:FF:EE:00:00:0B";

std::string errorText(ErrorRef error) {
  return error ? error->domain + "/" + std::to_string(error->code) : "ok";
}

// Records every callback as a line, with what the model showed at that moment.
class Recorder : public CBCentralManagerDelegate, public CBPeripheralDelegate {
 public:
  std::vector<std::string> lines;
  std::vector<std::shared_ptr<CBPeripheral>> discovered;
  bool offMainThread = false;
  std::function<void(const std::shared_ptr<CBCentralManager>&)> onDiscover;

  void centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& c) override {
    note(std::string("state ") + toString(c->state()));
  }
  void didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>& c,
                             const std::shared_ptr<CBPeripheral>& p, const CBAdvertisementData& ad,
                             const Number& rssi) override {
    note("discover " + p->address() + " " + ad.localName.value_or("-") + " " + rssi.stringValue() +
         " name=" + p->name().value_or("-"));
    discovered.push_back(p);
    if (onDiscover) onDiscover(c);
  }
  void didConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                            const std::shared_ptr<CBPeripheral>& p) override {
    note("connected " + p->address() + " " + toString(p->state()));
  }
  void didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                                  const std::shared_ptr<CBPeripheral>& p, ErrorRef e) override {
    note("failed " + p->address() + " " + errorText(e) + " " + toString(p->state()));
  }
  void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                               const std::shared_ptr<CBPeripheral>& p, ErrorRef e) override {
    note("disconnected " + p->address() + " " + errorText(e) + " " + toString(p->state()) +
         " services=" + (p->services() ? "set" : "null"));
  }
  void didDiscoverServices(const std::shared_ptr<CBPeripheral>& p, ErrorRef e) override {
    std::string line = "services " + errorText(e) + ":";
    if (auto services = p->services()) {
      for (const auto& s : *services) {
        line += " " + s->UUID().UUIDString() + "@" + std::to_string(s->handle());
        if (s->peripheral() != p) line += "(wrong peripheral)";
      }
    } else {
      line += " null";
    }
    note(line);
  }
  void didDiscoverCharacteristicsForService(const std::shared_ptr<CBPeripheral>&,
                                            const std::shared_ptr<CBService>& s,
                                            ErrorRef e) override {
    std::string line = "characteristics " + s->UUID().UUIDString() + " " + errorText(e) + ":";
    if (auto list = s->characteristics()) {
      for (const auto& c : *list) {
        line += " " + c->UUID().UUIDString() + "@" + std::to_string(c->handle()) + "/" +
                std::to_string(c->properties());
        if (c->service() != s) line += "(wrong service)";
      }
    } else {
      line += " null";
    }
    note(line);
  }
  void didUpdateValueForCharacteristic(const std::shared_ptr<CBPeripheral>&,
                                       const std::shared_ptr<CBCharacteristic>& c,
                                       ErrorRef e) override {
    note("value " + c->UUID().UUIDString() + " " + test::hex(c->value()) + " " + errorText(e));
  }
  void didWriteValueForCharacteristic(const std::shared_ptr<CBPeripheral>&,
                                      const std::shared_ptr<CBCharacteristic>& c,
                                      ErrorRef e) override {
    note("written " + c->UUID().UUIDString() + " " + errorText(e));
  }

 private:
  void note(std::string line) {
    if (!isMainThread()) offMainThread = true;
    lines.push_back(std::move(line));
  }
};

radio::AdvertisingReport report(const radio::PeripheralId& address, std::optional<std::string> name,
                                int rssi = -60) {
  radio::AdvertisingReport r;
  r.address = address;
  r.advertisement.localName = std::move(name);
  r.rssi = rssi;
  return r;
}

class CentralManagerTest : public ::testing::Test {
 protected:
  void SetUp() override { radio::Backend::setCurrent(backend); }
  void TearDown() override {
    manager.reset();
    dispatch::settle();
    radio::Backend::setCurrent(nullptr);
    EXPECT_FALSE(recorder->offMainThread);
  }

  // A manager whose initial state has been delivered and forgotten.
  void makeManager() {
    manager = CBCentralManager::initWithDelegate(recorder, nullptr);
    radio = backend->lastCentral();
    dispatch::settle();
    recorder->lines.clear();
    radio->calls.clear();
  }
  std::shared_ptr<radio::CentralEvents> events() { return radio->events(); }
  // A peripheral discovered under `name`, its delegate the recorder; the
  // radio's log and the recorded lines start empty.
  std::shared_ptr<CBPeripheral> discovered(const std::string& name) {
    makeManager();
    manager->scanForPeripheralsWithServices(std::nullopt, std::nullopt);
    events()->radioDiscovered(report(kA, name));
    dispatch::settle();
    auto peripheral = recorder->discovered.at(0);
    peripheral->setDelegate(recorder);
    recorder->lines.clear();
    radio->calls.clear();
    return peripheral;
  }
  std::vector<std::string> settled() {
    dispatch::settle();
    auto lines = recorder->lines;
    recorder->lines.clear();
    return lines;
  }

  const CBUUID kService = CBUUID::UUIDWithString("CC00FFC0-0451-4000-B000-000000000000");
  std::shared_ptr<test::FakeRadio> backend = std::make_shared<test::FakeRadio>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();
  std::shared_ptr<CBCentralManager> manager;
  std::shared_ptr<test::FakeCentralRadio> radio;
};

TEST_F(CentralManagerTest, ReportsTheInitialStateOnceThenOnlyChangesOnTheMainQueue) {
  manager = CBCentralManager::initWithDelegate(recorder, nullptr);
  radio = backend->lastCentral();
  ASSERT_TRUE(radio);
  // Nothing reaches the delegate until the main queue runs.
  EXPECT_THAT(recorder->lines, IsEmpty());
  EXPECT_EQ(manager->state(), CBManagerState::Unknown);
  EXPECT_THAT(settled(), ElementsAre("state poweredOn"));
  EXPECT_EQ(manager->state(), CBManagerState::PoweredOn);

  events()->radioStateChanged(CBManagerState::PoweredOn);
  EXPECT_THAT(settled(), IsEmpty());

  events()->radioStateChanged(CBManagerState::PoweredOff);
  events()->radioStateChanged(CBManagerState::PoweredOn);
  EXPECT_EQ(manager->state(), CBManagerState::PoweredOn);  // nothing delivered yet
  EXPECT_THAT(settled(), ElementsAre("state poweredOff", "state poweredOn"));
}

TEST_F(CentralManagerTest, FoldsDuplicatesUnlessAsked) {
  struct Case {
    const char* label;
    std::optional<Dictionary> options;
    bool duplicates;
  };
  const Case cases[] = {
      {"no options", std::nullopt, false},
      {"false", Dictionary{{CBCentralManagerScanOptionAllowDuplicatesKey, Number(false)}}, false},
      {"true", Dictionary{{CBCentralManagerScanOptionAllowDuplicatesKey, Number(true)}}, true},
      {"1", Dictionary{{"kCBScanOptionAllowDuplicates", Number(1)}}, true},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.label);
    makeManager();
    recorder->discovered.clear();
    manager->scanForPeripheralsWithServices(std::nullopt, c.options);
    EXPECT_THAT(radio->calls.lines(), ElementsAre(std::string("startScan duplicates=") +
                                                  (c.duplicates ? "1" : "0") + " services=all"));
    events()->radioDiscovered(report(kA, "one", -60));
    events()->radioDiscovered(report(kA, "one", -70));  // same data, other RSSI
    events()->radioDiscovered(report(kB, std::nullopt, -50));
    events()->radioDiscovered(report(kA, "two", -61));  // data changed
    events()->radioDiscovered(report(kA, "two", -62));
    const std::vector<std::string> all = {"discover C0:FF:EE:00:00:0A one -60 name=one",
                                          "discover C0:FF:EE:00:00:0A one -70 name=one",
                                          "discover C0:FF:EE:00:00:0B - -50 name=-",
                                          "discover C0:FF:EE:00:00:0A two -61 name=two",
                                          "discover C0:FF:EE:00:00:0A two -62 name=two"};
    EXPECT_EQ(settled(), (c.duplicates ? all : std::vector<std::string>{all[0], all[2], all[3]}));
    // One object per address, whatever the number of reports.
    std::map<radio::PeripheralId, std::shared_ptr<CBPeripheral>> first;
    for (const auto& p : recorder->discovered) {
      EXPECT_EQ(first.try_emplace(p->address(), p).first->second, p);
    }
    EXPECT_EQ(first.size(), 2u);

    // A new scan reports a device it already reported in the last one.
    manager->scanForPeripheralsWithServices(std::nullopt, c.options);
    events()->radioDiscovered(report(kA, "two", -63));
    EXPECT_THAT(settled(), ElementsAre("discover C0:FF:EE:00:00:0A two -63 name=two"));
  }
}

TEST_F(CentralManagerTest, DropsReportsThatReachTheQueueAfterStopScanOrRelease) {
  makeManager();
  manager->scanForPeripheralsWithServices(std::nullopt, std::nullopt);
  events()->radioDiscovered(report(kA, "a"));
  manager->stopScan();
  EXPECT_FALSE(manager->isScanning());
  EXPECT_THAT(settled(), IsEmpty());
  EXPECT_THAT(radio->calls.lines(), ElementsAre("startScan duplicates=0 services=all", "stopScan"));

  // The finder's pattern: stop from inside the first report; the ones queued
  // behind it are not delivered.
  manager->scanForPeripheralsWithServices(std::nullopt, std::nullopt);
  recorder->onDiscover = [](const std::shared_ptr<CBCentralManager>& c) { c->stopScan(); };
  events()->radioDiscovered(report(kA, "a"));
  events()->radioDiscovered(report(kB, "b"));
  EXPECT_THAT(settled(), ElementsAre("discover C0:FF:EE:00:00:0A a -60 name=a"));

  // A service filter holds even when the radio reports more than asked.
  recorder->onDiscover = nullptr;
  manager->scanForPeripheralsWithServices(std::vector{CBUUID::UUIDWithString("FF0C")},
                                          std::nullopt);
  auto offering = report(kB, "b");
  offering.advertisement.serviceUUIDs = {
      CBUUID::UUIDWithString("0000FF0C-0000-1000-8000-00805F9B34FB")};
  events()->radioDiscovered(report(kA, "a"));
  events()->radioDiscovered(offering);
  EXPECT_THAT(settled(), ElementsAre("discover C0:FF:EE:00:00:0B b -60 name=b"));
  EXPECT_EQ(radio->calls.lines().back(), "startScan duplicates=0 services=FF0C");

  // Released by the application from inside one of its own callbacks.
  manager->scanForPeripheralsWithServices(std::nullopt, std::nullopt);
  recorder->onDiscover = [this](const std::shared_ptr<CBCentralManager>&) { manager.reset(); };
  events()->radioDiscovered(report(kA, "a"));
  events()->radioDiscovered(report(kB, "b"));
  EXPECT_THAT(settled(), ElementsAre("discover C0:FF:EE:00:00:0A a -60 name=a"));
  EXPECT_EQ(radio->calls.lines().back(), "close");
}

TEST_F(CentralManagerTest, ConnectionStatesFollowTheRadio) {
  auto peripheral = discovered("Beacon");

  manager->connectPeripheral(peripheral, std::nullopt);
  EXPECT_EQ(peripheral->state(), CBPeripheralState::Connecting);
  events()->radioConnected(kA);
  EXPECT_EQ(peripheral->state(), CBPeripheralState::Connecting);  // applied on the queue
  EXPECT_THAT(settled(), ElementsAre("connected C0:FF:EE:00:00:0A connected"));
  EXPECT_EQ(peripheral->description(),
            "<CBPeripheral: identifier = " + peripheral->identifier().UUIDString() +
                ", name = Beacon, state = connected>");

  // Asking again for a link that is up: the radio stays silent, so must the state.
  manager->connectPeripheral(peripheral, std::nullopt);
  EXPECT_EQ(peripheral->state(), CBPeripheralState::Connected);

  peripheral->discoverServices(std::nullopt);
  events()->radioServicesDiscovered(kA, {{1, CBUUID::UUIDWithString("180A"), true}}, std::nullopt);
  dispatch::settle();
  ASSERT_TRUE(peripheral->services());

  manager->cancelPeripheralConnection(nullptr);
  manager->cancelPeripheralConnection(peripheral);
  EXPECT_EQ(peripheral->state(), CBPeripheralState::Disconnecting);
  events()->radioDisconnected(kA, std::nullopt);
  EXPECT_THAT(settled(),
              ElementsAre("services ok: 180A@1",
                          "disconnected C0:FF:EE:00:00:0A ok disconnected services=null"));

  manager->connectPeripheral(peripheral, std::nullopt);
  events()->radioConnectFailed(kA, Error{CBErrorDomain, 10, "refused"});
  manager->connectPeripheral(peripheral, std::nullopt);
  events()->radioConnected(kA);
  events()->radioDisconnected(kA, Error{CBErrorDomain, 7, "gone"});
  EXPECT_THAT(
      settled(),
      ElementsAre("failed C0:FF:EE:00:00:0A CBErrorDomain/10 disconnected",
                  "connected C0:FF:EE:00:00:0A connected",
                  "disconnected C0:FF:EE:00:00:0A CBErrorDomain/7 disconnected services=null"));
  EXPECT_THAT(radio->calls.lines(),
              ElementsAre("connect C0:FF:EE:00:00:0A", "connect C0:FF:EE:00:00:0A",
                          "discoverServices C0:FF:EE:00:00:0A all", "cancel C0:FF:EE:00:00:0A",
                          "connect C0:FF:EE:00:00:0A", "connect C0:FF:EE:00:00:0A"));
}

// Discovery fills the lists before the callback; values and writes reach the
// right characteristic; a destroyed manager delivers nothing more.
TEST_F(CentralManagerTest, DiscoveryValuesAndTheEndOfTheManager) {
  auto peripheral = discovered("12");
  manager->connectPeripheral(peripheral, std::nullopt);
  events()->radioConnected(kA);
  radio->calls.clear();

  peripheral->discoverServices(std::vector{CBUUID::UUIDWithString("180A"), kService});
  events()->radioServicesDiscovered(
      kA, {{1, CBUUID::UUIDWithString("180A"), true}, {10, kService, true}}, std::nullopt);
  EXPECT_FALSE(peripheral->services());  // not before the queue runs
  EXPECT_THAT(settled(),
              ElementsAre("connected C0:FF:EE:00:00:0A connected",
                          "services ok: 180A@1 CC00FFC0-0451-4000-B000-000000000000@10"));

  auto service = peripheral->services()->at(1);
  peripheral->discoverCharacteristics(std::nullopt, service);
  peripheral->discoverCharacteristics(std::vector{CBUUID::UUIDWithString("FFCC")}, nullptr);
  events()->radioCharacteristicsDiscovered(
      kA, 10,
      {{12, CBUUID::UUIDWithString("FF0C"), CBCharacteristicPropertyWrite},
       {14, CBUUID::UUIDWithString("FFCC"), CBCharacteristicPropertyRead}},
      std::nullopt);
  // A second discovery hands out the same objects; a failed one keeps them.
  peripheral->discoverServices(std::nullopt);
  events()->radioServicesDiscovered(
      kA, {{1, CBUUID::UUIDWithString("180A"), true}, {10, kService, true}}, std::nullopt);
  events()->radioServicesDiscovered(kA, {}, Error{CBATTErrorDomain, 0x0A, "not found"});
  EXPECT_THAT(settled(),
              ElementsAre("characteristics CC00FFC0-0451-4000-B000-000000000000 ok: FF0C@12/8 "
                          "FFCC@14/2",
                          "services ok: 180A@1 CC00FFC0-0451-4000-B000-000000000000@10",
                          "services CBATTErrorDomain/10: 180A@1 "
                          "CC00FFC0-0451-4000-B000-000000000000@10"));
  EXPECT_EQ(peripheral->services()->at(1), service);
  EXPECT_EQ(service->characteristics()->size(), 2u);
  EXPECT_THAT(
      radio->calls.lines(),
      ElementsAre("discoverServices C0:FF:EE:00:00:0A 180A,CC00FFC0-0451-4000-B000-000000000000",
                  "discoverCharacteristics C0:FF:EE:00:00:0A 10 all",
                  "discoverServices C0:FF:EE:00:00:0A all"));

  auto ff0c = service->characteristics()->at(0);
  auto ffcc = service->characteristics()->at(1);
  radio->calls.clear();

  peripheral->readValueForCharacteristic(ffcc);
  events()->radioValueUpdated(kA, 14, Bytes{0x0A, 0x0B}, std::nullopt);
  EXPECT_EQ(ffcc->value(), std::nullopt);  // applied on the queue
  // A failure without a value keeps the last one; a value with an error is kept.
  events()->radioValueUpdated(kA, 14, std::nullopt, Error{CBATTErrorDomain, 2, "no"});
  events()->radioValueUpdated(kA, 14, std::nullopt, std::nullopt);
  events()->radioValueUpdated(kA, 14, Bytes{}, Error{CBATTErrorDomain, 14, "odd"});
  events()->radioValueUpdated(kA, 99, Bytes{0x01}, std::nullopt);  // unknown handle
  EXPECT_THAT(settled(), ElementsAre("value FFCC <0a0b> ok", "value FFCC <0a0b> CBATTErrorDomain/2",
                                     "value FFCC <0a0b> ok", "value FFCC <> CBATTErrorDomain/14"));

  peripheral->writeValue(Bytes{0x01, 0x02}, ff0c, CBCharacteristicWriteType::WithResponse);
  peripheral->writeValue(std::nullopt, ff0c, CBCharacteristicWriteType::WithoutResponse);
  events()->radioValueWritten(kA, 12, std::nullopt);
  events()->radioValueWritten(kA, 12, Error{CBATTErrorDomain, 3, "not permitted"});
  EXPECT_THAT(settled(), ElementsAre("written FF0C ok", "written FF0C CBATTErrorDomain/3"));
  EXPECT_EQ(ff0c->value(), std::nullopt);
  EXPECT_THAT(radio->calls.lines(), ElementsAre("read C0:FF:EE:00:00:0A 14",
                                                "write C0:FF:EE:00:00:0A 12 <0102> withResponse",
                                                "write C0:FF:EE:00:00:0A 12 <> withoutResponse"));

  events()->radioValueUpdated(kA, 14, Bytes{0x0A}, std::nullopt);
  events()->radioDisconnected(kA, std::nullopt);
  radio->calls.clear();
  manager.reset();
  EXPECT_THAT(settled(), IsEmpty());
  EXPECT_THAT(radio->calls.lines(), ElementsAre("close"));
  EXPECT_EQ(radio->events(), nullptr);
  // A peripheral that outlives its manager asks nothing of the radio.
  peripheral->discoverServices(std::nullopt);
  EXPECT_THAT(radio->calls.lines(), ElementsAre("close"));
}

}  // namespace
}  // namespace lumora
