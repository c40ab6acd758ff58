// The peripheral manager against a scripted radio: publishing, requests and
// their answers, advertising, and delivery on the global queue.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <atomic>

#include "CoreBluetooth/CBPeripheralManager.h"
#include "Foundation/Dispatch.h"
#include "support/FakeRadio.h"

namespace lumora {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

// Everything the callbacks saw; they run on workers, so every access is locked.
struct Seen {
  std::mutex mutex;
  std::vector<std::string> lines;
  std::vector<std::shared_ptr<CBService>> services;
  std::vector<std::vector<std::shared_ptr<CBATTRequest>>> batches;  // reads: batches of one
  std::atomic<int> calls{0}, onMainThread{0}, inside{0};
  std::atomic<bool> overlapped{false};
};

// Answers reads with the bytes {id} and every write with success, inside the
// callback, as an application must.
class Recorder : public CBPeripheralManagerDelegate {
 public:
  explicit Recorder(std::shared_ptr<Seen> seen) : seen_(std::move(seen)) {}

  void peripheralManagerDidUpdateState(const std::shared_ptr<CBPeripheralManager>& pm) override {
    Call call(*seen_, std::string("state ") + toString(pm->state()));
  }
  void didAddService(const std::shared_ptr<CBPeripheralManager>&,
                     const std::shared_ptr<CBService>& service, ErrorRef error) override {
    Call call(*seen_, "added " + service->UUID().UUIDString() + " " + (error ? error->text : "ok"));
    seen_->services.push_back(service);
  }
  void peripheralManagerDidStartAdvertising(const std::shared_ptr<CBPeripheralManager>& pm,
                                            ErrorRef error) override {
    Call call(*seen_, std::string("advertising ") + (error ? error->text : "ok") +
                          (pm->isAdvertising() ? " on" : " off"));
  }
  void didReceiveReadRequest(const std::shared_ptr<CBPeripheralManager>& pm,
                             const std::shared_ptr<CBATTRequest>& request) override {
    Call call(*seen_, request->value() ? "read request came with a value" : "");
    seen_->batches.push_back({request});
    request->setValue(Bytes{static_cast<std::uint8_t>(request->requestId())});
    pm->respondToRequest(request, CBATTError::Success);
  }
  void didReceiveWriteRequests(
      const std::shared_ptr<CBPeripheralManager>& pm,
      const std::vector<std::shared_ptr<CBATTRequest>>& requests) override {
    Call call(*seen_);
    seen_->batches.push_back(requests);
    for (const auto& r : requests) pm->respondToRequest(r, CBATTError::Success);
  }

 private:
  // Counts the call, notices two callbacks of one manager running at once and
  // holds the lock on what was seen for the rest of the callback.
  struct Call {
    explicit Call(Seen& seen, std::string line = {}) : seen(seen) {
      seen.calls++;
      if (isMainThread()) seen.onMainThread++;
      if (seen.inside.fetch_add(1) != 0) seen.overlapped = true;
      lock = std::unique_lock(seen.mutex);
      if (!line.empty()) seen.lines.push_back(std::move(line));
    }
    ~Call() {
      lock.unlock();
      seen.inside.fetch_sub(1);
    }
    Seen& seen;
    std::unique_lock<std::mutex> lock;
  };
  std::shared_ptr<Seen> seen_;
};

class PeripheralManagerTest : public ::testing::Test {
 protected:
  void SetUp() override {
    radio::Backend::setCurrent(backend);
    manager = CBPeripheralManager::initWithDelegate(recorder, dispatch_get_global_queue(0, 0));
    radio = backend->lastPeripheral();
    backend->advance(radio::Nanos{0});
    dispatch::settle();
  }
  void TearDown() override {
    manager.reset();
    dispatch::settle();
    radio::Backend::setCurrent(nullptr);
    EXPECT_EQ(seen->onMainThread.load(), 0);
    EXPECT_FALSE(seen->overlapped.load());
  }

  std::vector<std::string> settledLines() {
    dispatch::settle();
    std::lock_guard lock(seen->mutex);
    return std::exchange(seen->lines, {});
  }
  std::shared_ptr<radio::PeripheralEvents> events() { return radio->events(); }

  // Publishes a service of FF0C (write) and FFCC (read), confirms it and
  // returns its token; the radio's log and the delegate's lines start empty.
  radio::ServiceToken published() {
    writeChar = std::make_shared<CBMutableCharacteristic>(
        CBUUID::UUIDWithString("FF0C"), CBCharacteristicPropertyWrite, std::nullopt,
        CBAttributePermissionsWriteable);
    readChar = std::make_shared<CBMutableCharacteristic>(CBUUID::UUIDWithString("FFCC"),
                                                         CBCharacteristicPropertyRead, std::nullopt,
                                                         CBAttributePermissionsReadable);
    auto service = std::make_shared<CBMutableService>(
        CBUUID::UUIDWithString("CC00FFC0-0451-4000-B000-000000000000"), true);
    service->setCharacteristics(CBCharacteristicList{writeChar, readChar});
    manager->addService(service);
    const auto token = radio->tokens().back();
    events()->radioServiceAdded(token, std::nullopt);
    settledLines();
    radio->calls.clear();
    return token;
  }

  static radio::AttRequest request(radio::RequestId id, radio::ServiceToken token,
                                   std::size_t characteristic, Bytes value = {}) {
    radio::AttRequest r;
    r.id = id;
    r.central = "AA:00:00:00:00:01";
    r.service = token;
    r.characteristic = characteristic;
    r.value = std::move(value);
    return r;
  }

  std::shared_ptr<test::FakeRadio> backend = std::make_shared<test::FakeRadio>();
  std::shared_ptr<Seen> seen = std::make_shared<Seen>();
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>(seen);
  std::shared_ptr<CBPeripheralManager> manager;
  std::shared_ptr<test::FakePeripheralRadio> radio;
  std::shared_ptr<CBMutableCharacteristic> writeChar, readChar;
};

TEST_F(PeripheralManagerTest, PublishesASnapshotAndConfirmsWithTheServiceObject) {
  settledLines();
  auto fixed = std::make_shared<CBMutableCharacteristic>(CBUUID::UUIDWithString("2A19"),
                                                         CBCharacteristicPropertyRead, Bytes{0x64},
                                                         CBAttributePermissionsReadable);
  auto first = std::make_shared<CBMutableService>(CBUUID::UUIDWithString("180F"), true);
  first->setCharacteristics(CBCharacteristicList{fixed});
  auto second = std::make_shared<CBMutableService>(CBUUID::UUIDWithString("FFF0"), false);
  manager->addService(first);
  manager->addService(second);
  const auto tokens = radio->tokens();
  ASSERT_EQ(tokens.size(), 2u);
  EXPECT_NE(tokens[0], tokens[1]);
  EXPECT_THAT(radio->calls.lines(),
              ElementsAre("addService 180F primary 2A19/2/1/<64>", "addService FFF0 secondary"));
  EXPECT_EQ(fixed->service(), first);

  // Confirmations name the service they are about, in whatever order they come.
  events()->radioServiceAdded(tokens[1], Error{CBErrorDomain, 0, "refused"});
  events()->radioServiceAdded(tokens[0], std::nullopt);
  EXPECT_THAT(settledLines(), ElementsAre("added FFF0 refused", "added 180F ok"));
  {
    std::lock_guard lock(seen->mutex);
    EXPECT_THAT(seen->services, ElementsAre(second, first));
  }

  // A refused service was never published: its requests are turned away.
  radio->calls.clear();
  events()->radioReadRequest(request(7, tokens[1], 0));
  events()->radioReadRequest(request(8, tokens[0], 0));
  dispatch::settle();
  manager->removeService(first);
  manager->removeAllServices();
  EXPECT_THAT(radio->calls.lines(),
              ElementsAre("respond 7 1 null", "respond 8 0 <08>",
                          "removeService " + std::to_string(tokens[0]), "removeAllServices"));
}

TEST_F(PeripheralManagerTest, AWriteBatchArrivesInOneCallbackInOrder) {
  const auto token = published();
  events()->radioWriteRequests(
      {request(1, token, 0, {0x01}), request(2, token, 0, {0x02, 0x02}), request(3, token, 0, {})});
  events()->radioReadRequest(request(4, token, 1));
  dispatch::settle();

  std::lock_guard lock(seen->mutex);
  ASSERT_EQ(seen->batches.size(), 2u);
  const auto& batch = seen->batches[0];
  ASSERT_EQ(batch.size(), 3u);
  const Data expected[] = {Bytes{0x01}, Bytes{0x02, 0x02}, Bytes{}};
  for (std::size_t i = 0; i < 3; ++i) {
    EXPECT_EQ(batch[i]->requestId(), i + 1);
    EXPECT_EQ(batch[i]->value(), expected[i]);
    EXPECT_EQ(batch[i]->characteristic(), writeChar);
    EXPECT_EQ(batch[i]->central(), batch[0]->central());  // one object per central
  }
  EXPECT_EQ(batch[0]->central()->address(), "AA:00:00:00:00:01");
  EXPECT_EQ(seen->batches[1][0]->characteristic(), readChar);
  EXPECT_EQ(seen->batches[1][0]->central(), batch[0]->central());
  EXPECT_THAT(seen->lines, IsEmpty());  // the read came without a value
  EXPECT_THAT(radio->calls.lines(), ElementsAre("respond 1 0 <01>", "respond 2 0 <0202>",
                                                "respond 3 0 <>", "respond 4 0 <04>"));
}

// Only this test sees the manager's own delivery order: the end-to-end
// tests still pass when the manager hands its callbacks to the pool
// unordered.
TEST_F(PeripheralManagerTest, RequestsOfOneCentralKeepTheirOrderUnderLoad) {
  const auto token = published();
  constexpr radio::RequestId kRequests = 10000;
  for (radio::RequestId id = 1; id <= kRequests; ++id) {
    if (id % 3 == 0) {
      events()->radioReadRequest(request(id, token, 1));
    } else {
      events()->radioWriteRequests({request(id, token, 0, {0x00})});
    }
  }
  dispatch::settle();

  std::vector<radio::RequestId> delivered;
  {
    std::lock_guard lock(seen->mutex);
    for (const auto& batch : seen->batches) {
      for (const auto& r : batch) delivered.push_back(r->requestId());
    }
  }
  ASSERT_EQ(delivered.size(), kRequests);
  for (radio::RequestId i = 0; i < kRequests; ++i) ASSERT_EQ(delivered[i], i + 1);
  EXPECT_EQ(radio->calls.lines().size(), kRequests);
}

TEST_F(PeripheralManagerTest, StateGoesToTheDelegateOfTheMomentAndNoCentralIsLeftWaiting) {
  EXPECT_THAT(settledLines(), ElementsAre("state poweredOn"));
  events()->radioStateChanged(CBManagerState::PoweredOn);  // no change: no callback
  const auto token = published();
  const int before = seen->calls.load();
  recorder.reset();
  events()->radioReadRequest(request(1, token, 1));
  events()->radioWriteRequests({request(2, token, 0, {0x01}), request(3, token, 0, {0x02})});
  events()->radioStateChanged(CBManagerState::PoweredOff);
  dispatch::settle();
  EXPECT_EQ(seen->calls.load(), before);
  EXPECT_EQ(manager->state(), CBManagerState::PoweredOff);
  EXPECT_THAT(radio->calls.lines(),
              ElementsAre("respond 1 14 null", "respond 2 14 null", "respond 3 14 null"));

  auto other = std::make_shared<Recorder>(seen);  // held weakly: kept here
  manager->setDelegate(other);
  events()->radioStateChanged(CBManagerState::PoweredOn);
  EXPECT_THAT(settledLines(), ElementsAre("state poweredOn"));
}

TEST_F(PeripheralManagerTest, AdvertisingFollowsConfirmationAndStop) {
  settledLines();
  manager->startAdvertising(std::nullopt);
  EXPECT_FALSE(manager->isAdvertising());
  events()->radioAdvertisingStarted(std::nullopt);
  EXPECT_THAT(settledLines(), ElementsAre("advertising ok on"));
  EXPECT_TRUE(manager->isAdvertising());

  manager->stopAdvertising();
  EXPECT_FALSE(manager->isAdvertising());
  events()->radioAdvertisingStarted(std::nullopt);  // late: does not revive it
  EXPECT_THAT(settledLines(), ElementsAre("advertising ok off"));

  CBAdvertisementData named;
  named.localName = "12";
  manager->startAdvertising(named);
  events()->radioAdvertisingStarted(Error{CBErrorDomain, 9, "busy"});
  EXPECT_THAT(settledLines(), ElementsAre("advertising busy off"));

  manager.reset();
  dispatch::settle();
  EXPECT_THAT(radio->calls.lines(), ElementsAre("startAdvertising empty", "stopAdvertising",
                                                "startAdvertising 12", "close"));
  EXPECT_EQ(radio->events(), nullptr);
}

}  // namespace
}  // namespace lumora
