// The peripheral role: publishing services, advertising, answering requests.
//
//   auto pm = CBPeripheralManager::initWithDelegate(weak_from_this(),
//                                                   dispatch_get_global_queue(0, 0));
//   // on a worker: peripheralManagerDidUpdateState(pm) ... state() == PoweredOn
//   auto c = std::make_shared<CBMutableCharacteristic>(CBUUID::UUIDWithString("FFCC"),
//       CBCharacteristicPropertyRead, std::nullopt, CBAttributePermissionsReadable);
//   auto s = std::make_shared<CBMutableService>(CBUUID::UUIDWithString("CC00FFC0-..."), true);
//   s->setCharacteristics({c});
//   pm->addService(s);        // didAddService(pm, s, error) follows
//
// Callbacks arrive on the queue given at creation (null: the main queue). On
// the global concurrent queue they run on worker threads, never on the main
// thread. Requests of one central are delivered in the order they arrived;
// to keep that promise without a serial queue of its own, each manager
// delivers through a FIFO of its own that one worker task drains at a time:
// callbacks of one manager never overlap and come in the order the radio
// raised the events (state, service added, advertising, requests), while
// different managers proceed in parallel. A callback must therefore not
// wait for a later callback of the same manager. The manager holds its
// delegate weakly: a delegate that has been destroyed is never called.
//
// A request that cannot reach the application is answered by the manager so
// that the central is not left waiting: a request for a service that has
// been removed gets CBATTError::InvalidHandle, and a request that arrives
// while the manager has no delegate gets CBATTError::UnlikelyError.
//
// isAdvertising() is true from a successful peripheralManagerDidStartAdvertising
// until stopAdvertising() or the adapter leaves the powered-on state.
// Destroying the manager closes its radio session: advertising stops and its
// services are withdrawn.
//
// Every request handed to didReceiveReadRequest / didReceiveWriteRequests
// must be answered with respondToRequest, one answer per request.
#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreBluetooth/CBAdvertisementData.h"
#include "CoreBluetooth/CBPeripheral.h"
#include "CoreBluetooth/CBTypes.h"
#include "Foundation/Dispatch.h"
#include "Foundation/Object.h"

namespace lumora {

class CBMutableCharacteristic : public CBCharacteristic {
 public:
  /// initWithType:properties:value:permissions:. A null value makes every
  /// request go to the manager's delegate; a value is served as it stands.
  CBMutableCharacteristic(CBUUID type, std::uint8_t properties, Data value,
                          std::uint8_t permissions);
  std::uint8_t permissions() const { return permissions_; }

 private:
  std::uint8_t permissions_;
};

class CBMutableService : public CBService {
 public:
  /// initWithType:primary:
  CBMutableService(CBUUID type, bool primary);
  /// setCharacteristics: (the order is the order a central discovers).
  void setCharacteristics(std::optional<CBCharacteristicList> characteristics);
};

/// A remote central as the peripheral role sees it.
class CBCentral {
 public:
  explicit CBCentral(std::string address, std::size_t maximumUpdateValueLength = 20);
  Uuid identifier() const { return identifier_; }
  const std::string& address() const { return address_; }
  std::size_t maximumUpdateValueLength() const { return maximumUpdateValueLength_; }

 private:
  std::string address_;
  Uuid identifier_;
  std::size_t maximumUpdateValueLength_;
};

/// One read or write request of a remote central.
class CBATTRequest {
 public:
  CBATTRequest(radio::RequestId id, std::shared_ptr<CBCentral> central,
               std::shared_ptr<CBCharacteristic> characteristic, std::size_t offset, Data value);

  std::shared_ptr<CBCentral> central() const { return central_; }
  std::shared_ptr<CBCharacteristic> characteristic() const { return characteristic_; }
  std::size_t offset() const { return offset_; }
  /// Written bytes (writes), or the answer to send (reads: set it before
  /// respondToRequest).
  Data value() const;
  void setValue(Data value);
  radio::RequestId requestId() const { return id_; }

 private:
  radio::RequestId id_;
  std::shared_ptr<CBCentral> central_;
  std::shared_ptr<CBCharacteristic> characteristic_;
  std::size_t offset_;
  mutable std::mutex mutex_;
  Data value_;
};

class CBPeripheralManager;

/// The peripheral manager's delegate; every operation on the manager's queue.
class CBPeripheralManagerDelegate {
 public:
  virtual ~CBPeripheralManagerDelegate() = default;
  virtual void peripheralManagerDidUpdateState(
      const std::shared_ptr<CBPeripheralManager>& peripheral) = 0;
  virtual void didAddService(const std::shared_ptr<CBPeripheralManager>& peripheral,
                             const std::shared_ptr<CBService>& service, ErrorRef error) = 0;
  virtual void peripheralManagerDidStartAdvertising(
      const std::shared_ptr<CBPeripheralManager>& peripheral, ErrorRef error) = 0;
  virtual void didReceiveReadRequest(const std::shared_ptr<CBPeripheralManager>& peripheral,
                                     const std::shared_ptr<CBATTRequest>& request) = 0;
  virtual void didReceiveWriteRequests(
      const std::shared_ptr<CBPeripheralManager>& peripheral,
      const std::vector<std::shared_ptr<CBATTRequest>>& requests) = 0;
};

class CBPeripheralManager : public std::enable_shared_from_this<CBPeripheralManager>,
                            public radio::PeripheralEvents {
 public:
  /// initWithDelegate:queue:options:. Null queue: the main queue.
  static std::shared_ptr<CBPeripheralManager> initWithDelegate(
      std::weak_ptr<CBPeripheralManagerDelegate> delegate, DispatchQueuePtr queue,
      std::optional<Dictionary> options = std::nullopt);
  ~CBPeripheralManager() override;

  std::shared_ptr<CBPeripheralManagerDelegate> delegate() const;
  /// Re-points every later callback (held weakly).
  void setDelegate(std::weak_ptr<CBPeripheralManagerDelegate> delegate);

  CBManagerState state() const;
  bool isAdvertising() const;

  /// addService: publishes `service` as it is now; didAddService follows.
  void addService(const std::shared_ptr<CBMutableService>& service);
  void removeService(const std::shared_ptr<CBMutableService>& service);
  void removeAllServices();
  /// startAdvertising: null data advertises nothing but still succeeds.
  void startAdvertising(const std::optional<CBAdvertisementData>& advertisementData);
  void stopAdvertising();
  /// respondToRequest:withResult:. The request's value is the read answer.
  void respondToRequest(const std::shared_ptr<CBATTRequest>& request, CBATTError result);

  // radio::PeripheralEvents: raised on the radio's thread; queue deliveries.
  void radioStateChanged(CBManagerState state) override;
  void radioServiceAdded(radio::ServiceToken service, const std::optional<Error>& error) override;
  void radioAdvertisingStarted(const std::optional<Error>& error) override;
  void radioReadRequest(const radio::AttRequest& request) override;
  void radioWriteRequests(const std::vector<radio::AttRequest>& requests) override;

  explicit CBPeripheralManager(DispatchQueuePtr queue);  // use initWithDelegate

 private:
  struct Impl;
  using Delivery = std::function<void(const std::shared_ptr<CBPeripheralManager>&)>;

  // Queues `delivery` on this manager's delivery line (see the top of this
  // file); it runs only while the manager lives.
  void post(Delivery delivery);
  // On the queue: records `state` and reports it unless it was reported last.
  void deliverState(CBManagerState state);
  // The front object of a radio request; null when its service or
  // characteristic is no longer published.
  std::shared_ptr<CBATTRequest> requestFor(const radio::AttRequest& request, bool isWrite);

  std::shared_ptr<Impl> impl_;
};

}  // namespace lumora
