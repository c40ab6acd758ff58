// Peripheral sessions (the emulator's side): registration, advertising in
// the air, and requests from virtual centrals and central sessions answered
// with respond().
#include <gtest/gtest.h>

#include <atomic>

#include "Foundation/Dispatch.h"
#include "Recorders.h"

namespace lumora::sim::test {
namespace {

const CBUUID kService = CBUUID::UUIDWithString("CC00FFC0-0451-4000-B000-000000000000");
const CBUUID kWrite = CBUUID::UUIDWithString("FF0C");
const CBUUID kRead = CBUUID::UUIDWithString("FFCC");
const CBUUID kFixed = CBUUID::UUIDWithString("2A29");

radio::LocalService customService() {
  radio::LocalService s;
  s.uuid = kService;
  s.characteristics = {
      {kWrite, CBCharacteristicPropertyWrite, CBAttributePermissionsWriteable, std::nullopt},
      {kRead, CBCharacteristicPropertyRead, CBAttributePermissionsReadable, std::nullopt},
      {kFixed, CBCharacteristicPropertyRead, CBAttributePermissionsReadable, ascii("Lumora")},
  };
  return s;
}

CBAdvertisementData advertisement(std::string name) {
  CBAdvertisementData ad;
  ad.localName = std::move(name);
  ad.manufacturerData = Bytes{0x4C, 0x00, 0x02, 0x15};
  return ad;
}

class AirPeripheral : public ::testing::Test {
 protected:
  void SetUp() override {
    air = Air::create({.seed = 5});
    recorder = std::make_shared<PeripheralRecorder>();
    session = air->openPeripheral(recorder);
  }

  // Registers the custom service as `token` and advertises under `name`.
  void publish(radio::ServiceToken token = 1, const std::string& name = "12") {
    session->addService(token, customService());
    air->advance(10ms);
    session->startAdvertising(advertisement(name));
    air->advance(10ms);
  }

  // Opens a central session that scans until it hears the manager; returns
  // the manager's address as heard.
  std::string openClient() {
    client = air->openCentral(central);
    client->startScan({});
    air->advance(200ms);
    return central->reports().at(0).address;
  }

  std::shared_ptr<Air> air;
  std::shared_ptr<PeripheralRecorder> recorder;
  std::shared_ptr<radio::PeripheralRadio> session;
  std::shared_ptr<CentralRecorder> central = std::make_shared<CentralRecorder>();
  std::shared_ptr<radio::CentralRadio> client;
};

// Each registration is confirmed once, after the link latency; an injected
// failure registers nothing, and the same service twice makes two copies.
TEST_F(AirPeripheral, RegistrationsAreConfirmedOnceAfterTheLatency) {
  air->failNextServiceRegistration(Error{CBErrorDomain, 4, "full"});
  for (radio::ServiceToken token : {1, 2, 3}) session->addService(token, customService());
  air->advance(4ms);
  EXPECT_TRUE(recorder->log().empty());
  air->advance(1ms);
  EXPECT_EQ(recorder->log(), (Lines{"added 1 cb 4", "added 2 ok", "added 3 ok"}));

  session->startAdvertising(advertisement("12"));
  air->advance(10ms);
  auto remote = air->addCentral();
  ASSERT_TRUE(remote->connectByName("12"));
  const auto found = remote->discover();
  ASSERT_EQ(found.size(), 2u);
  for (const auto& [uuid, characteristics] : found) {
    EXPECT_EQ(uuid, kService);
    EXPECT_EQ(characteristics, (std::vector<CBUUID>{kWrite, kRead, kFixed}));
  }
  session->removeService(2);
  EXPECT_EQ(remote->discover().size(), 1u);
  session->removeAllServices();
  EXPECT_TRUE(remote->discover().empty());
}

TEST_F(AirPeripheral, AdvertisingIsHeardInTheAirLikeADevice) {
  client = air->openCentral(central);
  client->startScan({});
  air->setLocalPeripheralDistance(3.0);
  publish(1, "1234ab");
  EXPECT_EQ(recorder->log(), (Lines{"added 1 ok", "advertising ok"}));
  air->advance(60s);

  const auto reports = central->reports();
  ASSERT_GT(reports.size(), 400u);
  double sum = 0;
  for (const auto& r : reports) {
    ASSERT_EQ(r.advertisement.localName, "1234ab");
    ASSERT_EQ(r.advertisement.manufacturerData, (Bytes{0x4C, 0x00, 0x02, 0x15}));
    ASSERT_EQ(r.advertisement.isConnectable, true);
    sum += r.rssi;
  }
  EXPECT_NEAR(sum / static_cast<double>(reports.size()), -59 - 20 * std::log10(3.0), 0.5);

  session->stopAdvertising();
  air->advance(1s);
  const std::size_t heard = central->reports().size();
  air->advance(1s);
  EXPECT_EQ(central->reports().size(), heard);
}

TEST_F(AirPeripheral, VirtualCentralWritesAndBatchesAreAnsweredByRespond) {
  publish();
  auto remote = air->addCentral("5C:00:00:00:AA:01");
  EXPECT_FALSE(remote->connectByName("nobody"));
  ASSERT_TRUE(remote->connectByName("12"));
  std::vector<CBATTError> results;
  remote->write(kWrite, ascii("abc"), [&](CBATTError e) { results.push_back(e); });
  air->advance(5ms);

  const auto writes = recorder->writes();
  ASSERT_EQ(writes.size(), 1u);
  ASSERT_EQ(writes[0].size(), 1u);
  const radio::AttRequest request = writes[0][0];
  EXPECT_EQ(request.central, "5C:00:00:00:AA:01");
  EXPECT_EQ(request.service, 1u);
  EXPECT_EQ(request.characteristic, 0u);
  EXPECT_EQ(request.value, ascii("abc"));
  EXPECT_EQ(request.offset, 0);
  EXPECT_EQ(request.maximumUpdateValueLength, 20);
  EXPECT_TRUE(results.empty());

  session->respond(request.id, CBATTError::Success, std::nullopt);
  session->respond(request.id, CBATTError::UnlikelyError, std::nullopt);  // answered already
  session->respond(9999, CBATTError::Success, std::nullopt);              // never asked
  air->advance(10ms);
  EXPECT_EQ(results, std::vector<CBATTError>{CBATTError::Success});

  remote->write(kWrite, ascii("x"), [&](CBATTError e) { results.push_back(e); });
  air->advance(5ms);
  session->respond(recorder->writes().back()[0].id, CBATTError::InvalidOffset, std::nullopt);
  air->advance(5ms);
  EXPECT_EQ(results, (std::vector<CBATTError>{CBATTError::Success, CBATTError::InvalidOffset}));

  // A batch arrives as one list and completes once, when all are answered.
  std::vector<std::vector<CBATTError>> done;
  remote->writeBatch(kWrite, {ascii("ab"), ascii("cde"), ascii("f")},
                     [&](std::vector<CBATTError> r) { done.push_back(std::move(r)); });
  air->advance(5ms);
  const auto batches = recorder->writes();
  ASSERT_EQ(batches.size(), 3u);
  const auto& batch = batches[2];
  ASSERT_EQ(batch.size(), 3u);
  EXPECT_EQ(batch[0].value, ascii("ab"));
  EXPECT_EQ(batch[1].offset, 2);
  EXPECT_EQ(batch[2].offset, 5);

  session->respond(batch[0].id, CBATTError::Success, std::nullopt);
  session->respond(batch[2].id, CBATTError::Success, std::nullopt);
  air->advance(10ms);
  EXPECT_TRUE(done.empty());
  session->respond(batch[1].id, CBATTError::WriteNotPermitted, std::nullopt);
  air->advance(10ms);
  ASSERT_EQ(done.size(), 1u);
  EXPECT_EQ(done[0], (std::vector<CBATTError>{CBATTError::Success, CBATTError::WriteNotPermitted,
                                              CBATTError::Success}));
}

TEST_F(AirPeripheral, VirtualCentralReadsCarryTheOffsetAndGetTheAnswer) {
  publish();
  auto remote = air->addCentral();
  ASSERT_TRUE(remote->connectByName("12"));
  std::vector<std::pair<CBATTError, Data>> answers;
  auto keep = [&](CBATTError e, const Data& v) { answers.emplace_back(e, v); };
  remote->read(kRead, 0, keep);
  remote->read(kRead, 20, keep);
  remote->read(kRead, 0, keep);
  air->advance(5ms);
  const auto reads = recorder->reads();
  ASSERT_EQ(reads.size(), 3u);
  EXPECT_EQ(reads[0].offset, 0);
  EXPECT_EQ(reads[1].offset, 20);
  EXPECT_EQ(reads[0].characteristic, 1u);

  session->respond(reads[0].id, CBATTError::Success, ascii("data"));
  session->respond(reads[1].id, CBATTError::Success, std::nullopt);
  session->respond(reads[2].id, CBATTError::ReadNotPermitted, ascii("ignored"));
  air->advance(5ms);
  ASSERT_EQ(answers.size(), 3u);
  EXPECT_EQ(answers[0], (std::pair<CBATTError, Data>{CBATTError::Success, ascii("data")}));
  EXPECT_EQ(answers[1], (std::pair<CBATTError, Data>{CBATTError::Success, Bytes{}}));
  EXPECT_EQ(answers[2], (std::pair<CBATTError, Data>{CBATTError::ReadNotPermitted, std::nullopt}));

  // A value of the radio's own is served without asking the manager; the
  // wrong kind of request is refused by the radio.
  remote->read(kFixed, 2, keep);
  remote->write(kRead, ascii("no"), [&](CBATTError e) { answers.emplace_back(e, std::nullopt); });
  remote->read(CBUUID::UUIDWithString("2A00"), 0, keep);
  air->advance(5ms);
  ASSERT_EQ(answers.size(), 6u);
  EXPECT_EQ(answers[3], (std::pair<CBATTError, Data>{CBATTError::Success, ascii("mora")}));
  EXPECT_EQ(answers[4].first, CBATTError::WriteNotPermitted);
  EXPECT_EQ(answers[5].first, CBATTError::AttributeNotFound);
  EXPECT_EQ(recorder->reads().size(), 3u);
}

TEST_F(AirPeripheral, SeveralCentralsAreServedIndependentlyInArrivalOrder) {
  publish();
  auto first = air->addCentral("5C:00:00:00:AA:01");
  auto second = air->addCentral("5C:00:00:00:AA:02");
  ASSERT_TRUE(first->connectByName("12"));
  ASSERT_TRUE(second->connectByName("12"));
  std::vector<std::string> done;
  first->write(kWrite, ascii("1a"), [&](CBATTError) { done.push_back("1a"); });
  second->write(kWrite, ascii("2a"), [&](CBATTError) { done.push_back("2a"); });
  first->write(kWrite, ascii("1b"), [&](CBATTError) { done.push_back("1b"); });
  air->advance(5ms);

  const auto writes = recorder->writes();
  ASSERT_EQ(writes.size(), 3u);
  EXPECT_EQ(writes[0][0].central, "5C:00:00:00:AA:01");
  EXPECT_EQ(writes[0][0].value, ascii("1a"));
  EXPECT_EQ(writes[1][0].central, "5C:00:00:00:AA:02");
  EXPECT_EQ(writes[2][0].value, ascii("1b"));

  // Answering the second central first, then dropping the first one: its
  // waiting write fails, the second's answer stands.
  session->respond(writes[1][0].id, CBATTError::Success, std::nullopt);
  air->advance(5ms);
  EXPECT_EQ(done, Lines{"2a"});
  first->disconnect();
  EXPECT_FALSE(first->isConnected());
  EXPECT_TRUE(second->isConnected());
  session->respond(writes[0][0].id, CBATTError::Success, std::nullopt);
  air->advance(5ms);
  EXPECT_EQ(done, (Lines{"2a", "1a", "1b"}));
}

TEST_F(AirPeripheral, CentralSessionTalksToTheLocalManager) {
  publish(3, "12");
  const std::string address = openClient();
  client->stopScan();
  central->discoverAll(*air, *client, address);
  ASSERT_EQ(central->services().size(), 1u);
  EXPECT_EQ(central->services()[0].uuid, kService);
  const auto characteristics = central->characteristics();
  ASSERT_EQ(characteristics.size(), 3u);
  EXPECT_EQ(characteristics[0].uuid, kWrite);
  EXPECT_EQ(characteristics[1].uuid, kRead);

  client->write(address, characteristics[0].handle, ascii("hi"), true);
  client->read(address, characteristics[1].handle);
  client->read(address, characteristics[1].handle);
  client->read(address, characteristics[2].handle);
  air->advance(5ms);
  ASSERT_EQ(recorder->writes().size(), 1u);
  ASSERT_EQ(recorder->reads().size(), 2u);
  EXPECT_EQ(recorder->writes()[0][0].service, 3u);
  EXPECT_EQ(recorder->reads()[0].offset, 0);
  session->respond(recorder->writes()[0][0].id, CBATTError::Success, std::nullopt);
  session->respond(recorder->reads()[0].id, CBATTError::Success, ascii("ok"));
  session->respond(recorder->reads()[1].id, CBATTError::Success, std::nullopt);
  air->advance(5ms);
  const std::string w = std::to_string(characteristics[0].handle);
  const std::string r = std::to_string(characteristics[1].handle);
  const std::string f = std::to_string(characteristics[2].handle);
  EXPECT_EQ(central->log(), (Lines{"value " + address + " " + f + " <4c756d6f 7261> ok",
                                   "written " + address + " " + w + " ok",
                                   "value " + address + " " + r + " <6f6b> ok",
                                   "value " + address + " " + r + " <> ok"}));
}

TEST_F(AirPeripheral, AttemptWaitsUntilTheManagerAdvertises) {
  publish();
  const std::string address = openClient();
  session->stopAdvertising();
  client->connect(address);
  air->advance(1s);
  EXPECT_TRUE(central->log().empty());
  session->startAdvertising(advertisement("12"));
  air->advance(10ms);
  EXPECT_EQ(central->log(), Lines{"connected " + address});
}

TEST_F(AirPeripheral, ClosingWithdrawsEverythingAndFailsWaitingRequests) {
  publish();
  auto remote = air->addCentral();
  ASSERT_TRUE(remote->connectByName("12"));
  const std::string address = openClient();
  client->connect(address);
  air->advance(5ms);
  std::vector<CBATTError> results;
  remote->write(kWrite, ascii("late"), [&](CBATTError e) { results.push_back(e); });
  remote->write(kWrite, ascii("later"), [&](CBATTError e) { results.push_back(e); });
  air->advance(5ms);
  const auto writes = recorder->writes();
  central->clear();

  session->close();
  session->respond(writes.at(0)[0].id, CBATTError::Success, std::nullopt);  // gone: ignored
  air->advance(1s);
  EXPECT_EQ(results,
            (std::vector<CBATTError>{CBATTError::UnlikelyError, CBATTError::UnlikelyError}));
  EXPECT_FALSE(remote->isConnected());
  EXPECT_FALSE(remote->connectByName("12"));
  EXPECT_EQ(central->log(), Lines{"disconnected " + address + " cb 7"});
  EXPECT_TRUE(central->reports().empty());
}

// Registration and advertising need power; a power cycle stops advertising
// but keeps the services.
TEST_F(AirPeripheral, PowerCycleStopsAdvertisingButKeepsServices) {
  air->setAdapterState(CBManagerState::PoweredOff);
  session->addService(1, customService());
  session->startAdvertising(advertisement("12"));
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), (Lines{"state 4", "advertising cb 0", "added 1 cb 0"}));
  air->setAdapterState(CBManagerState::PoweredOn);
  air->advance(10ms);
  recorder->clear();

  publish();
  auto remote = air->addCentral();
  ASSERT_TRUE(remote->connectByName("12"));
  air->setAdapterState(CBManagerState::PoweredOff);
  air->advance(10ms);
  EXPECT_FALSE(remote->isConnected());
  air->setAdapterState(CBManagerState::PoweredOn);
  air->advance(10ms);
  EXPECT_EQ(recorder->log(), (Lines{"added 1 ok", "advertising ok", "state 4", "state 5"}));
  EXPECT_FALSE(remote->connectByName("12"));  // advertising must be started again

  session->startAdvertising(advertisement("12"));
  air->advance(10ms);
  ASSERT_TRUE(remote->connectByName("12"));
  EXPECT_EQ(remote->discover().size(), 1u);
}

// The managers answer on worker threads, as CBPeripheralManager does on the
// global queue, while devices are changed from workers too.
class WorkerResponder : public radio::PeripheralEvents {
 public:
  std::shared_ptr<radio::PeripheralRadio> session;
  void radioStateChanged(CBManagerState) override {}
  void radioServiceAdded(radio::ServiceToken, const std::optional<Error>&) override {}
  void radioAdvertisingStarted(const std::optional<Error>&) override {}
  void radioReadRequest(const radio::AttRequest& r) override {
    DispatchQueue::global()->async([s = session, r] {
      s->respond(r.id, CBATTError::Success, Bytes{static_cast<std::uint8_t>(r.offset)});
    });
  }
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override {
    for (const auto& r : requests) {
      DispatchQueue::global()->async(
          [s = session, id = r.id] { s->respond(id, CBATTError::Success, std::nullopt); });
    }
  }
};

TEST(AirPeripheralThreads, RequestsAnsweredFromWorkersAllComplete) {
  auto air = Air::create({.seed = 8});
  auto responder = std::make_shared<WorkerResponder>();
  responder->session = air->openPeripheral(responder);
  auto device = air->addDevice({.localName = "moving"});
  responder->session->addService(1, customService());
  responder->session->startAdvertising(advertisement("12"));
  air->advance(10ms);
  auto first = air->addCentral();
  auto second = air->addCentral();
  ASSERT_TRUE(first->connectByName("12"));
  ASSERT_TRUE(second->connectByName("12"));
  ReportSink sink;
  sink.observe(*air);

  std::atomic<int> writes{0};
  std::vector<Data> reads;
  for (int i = 0; i < 50; ++i) {
    for (auto* c : {first.get(), second.get()}) {
      c->write(kWrite, {static_cast<std::uint8_t>(i)}, [&](CBATTError e) {
        if (e == CBATTError::Success) ++writes;
      });
    }
    first->read(kRead, static_cast<std::uint16_t>(i),
                [&](CBATTError, const Data& v) { reads.push_back(v); });
    DispatchQueue::global()->async([device, i] { device->setDistance(1.0 + i); });
    air->advance(3ms);
  }
  air->advance(100ms);
  EXPECT_EQ(writes.load(), 100);
  ASSERT_EQ(reads.size(), 50u);
  for (int i = 0; i < 50; ++i) EXPECT_EQ(reads[i], Bytes{static_cast<std::uint8_t>(i)});
  EXPECT_FALSE(sink.reports->empty());
  responder->session->close();
}

}  // namespace
}  // namespace lumora::sim::test
