// The central role: scanning, connecting, and the remote GATT objects.
//
//   auto manager = CBCentralManager::initWithDelegate(weak_from_this(), nullptr);
//   // on the main queue: centralManagerDidUpdateState(manager)
//   if (manager->state() == CBManagerState::PoweredOn)
//     manager->scanForPeripheralsWithServices(std::nullopt, {});
//
// A manager made with a null queue delivers every callback, its peripherals'
// included, on the main queue (RunLoop::main()); with a queue, on that queue.
// The manager uses the process-wide radio current when it is made
// (radio::Backend::current()). It reports its state once after creation and
// then on every change; state() reads the last reported value.
//
// Scan reports: with CBCentralManagerScanOptionAllowDuplicatesKey false (the
// default) a device is reported once per scan, and again only when its
// advertised data changes; with true, every report. Reports that reach the
// queue after stopScan() are dropped. Peripherals are kept per device address,
// so repeated reports hand out the same CBPeripheral object.
//
// Connecting to a peripheral that is already connected succeeds silently (no
// second didConnectPeripheral). A disconnection (requested or not) leaves the
// peripheral Disconnected with its services() null: the remote database has
// to be discovered again on the next link.
//
// Delivery: radio events are only queued on the radio's thread. Each one
// becomes one delivery on the manager's queue, run one at a time in the order
// the radio raised them even when the queue is the global concurrent one (a
// per-manager FIFO that a single task drains at a time). A delivery applies
// the model change it reports (state, peripheral state, services and
// characteristics lists, a characteristic's value) and then calls the
// delegate, without holding any lock. A delegate callback must therefore not
// wait for a later callback of the same manager. A manager that has been
// destroyed delivers nothing more; destroying it closes its radio session.
//
// Lifetime of peripherals: a device keeps one peripheral object, which the
// manager holds and hands out for every report and link. Once the manager
// knows 16,384 devices, it drops the objects that are neither linked
// (connecting or connected) nor held by anyone else (the application, a
// pending delivery); a device heard again later gets a new object with the
// same identifier. A long scan among rotating addresses therefore stays
// bounded.
#pragma once

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreBluetooth/CBAdvertisementData.h"
#include "CoreBluetooth/CBPeripheral.h"
#include "CoreBluetooth/CBTypes.h"
#include "Foundation/Dispatch.h"
#include "Foundation/Number.h"
#include "Foundation/Object.h"

namespace lumora {

class CBCentralManager;

/// The central manager's delegate; every operation on the manager's queue.
class CBCentralManagerDelegate {
 public:
  virtual ~CBCentralManagerDelegate() = default;
  virtual void centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) = 0;
  virtual void didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>& central,
                                     const std::shared_ptr<CBPeripheral>& peripheral,
                                     const CBAdvertisementData& advertisementData,
                                     const Number& RSSI) = 0;
  virtual void didConnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                                    const std::shared_ptr<CBPeripheral>& peripheral) = 0;
  virtual void didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                                          const std::shared_ptr<CBPeripheral>& peripheral,
                                          ErrorRef error) = 0;
  virtual void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                                       const std::shared_ptr<CBPeripheral>& peripheral,
                                       ErrorRef error) = 0;
};

class CBCentralManager : public std::enable_shared_from_this<CBCentralManager>,
                         public radio::CentralEvents {
 public:
  /// initWithDelegate:queue:. A null queue means the main queue. The
  /// delegate is held weakly.
  static std::shared_ptr<CBCentralManager> initWithDelegate(
      std::weak_ptr<CBCentralManagerDelegate> delegate, DispatchQueuePtr queue,
      std::optional<Dictionary> options = std::nullopt);
  ~CBCentralManager() override;

  std::shared_ptr<CBCentralManagerDelegate> delegate() const;
  void setDelegate(std::weak_ptr<CBCentralManagerDelegate> delegate);

  CBManagerState state() const;
  bool isScanning() const;

  /// Null services: every advertiser. Options: CBCentralManagerScanOptionAllowDuplicatesKey.
  void scanForPeripheralsWithServices(const std::optional<std::vector<CBUUID>>& serviceUUIDs,
                                      const std::optional<Dictionary>& options);
  void stopScan();
  /// Options are accepted for the platform's signature and not used.
  void connectPeripheral(const std::shared_ptr<CBPeripheral>& peripheral,
                         const std::optional<Dictionary>& options);
  /// A null peripheral is ignored.
  void cancelPeripheralConnection(const std::shared_ptr<CBPeripheral>& peripheral);

  // Used by CBPeripheral to reach the radio.
  radio::CentralRadio& radio() const { return *radio_; }
  const DispatchQueuePtr& queue() const { return queue_; }

  // radio::CentralEvents: raised on the radio's thread; each queues its
  // delivery on this manager's queue.
  void radioStateChanged(CBManagerState state) override;
  void radioDiscovered(const radio::AdvertisingReport& report) override;
  void radioConnected(const radio::PeripheralId& peripheral) override;
  void radioConnectFailed(const radio::PeripheralId& peripheral, const Error& error) override;
  void radioDisconnected(const radio::PeripheralId& peripheral,
                         const std::optional<Error>& error) override;
  void radioServicesDiscovered(const radio::PeripheralId& peripheral,
                               const std::vector<radio::RemoteService>& services,
                               const std::optional<Error>& error) override;
  void radioCharacteristicsDiscovered(
      const radio::PeripheralId& peripheral, radio::AttHandle service,
      const std::vector<radio::RemoteCharacteristic>& characteristics,
      const std::optional<Error>& error) override;
  void radioValueUpdated(const radio::PeripheralId& peripheral, radio::AttHandle characteristic,
                         const Data& value, const std::optional<Error>& error) override;
  void radioValueWritten(const radio::PeripheralId& peripheral, radio::AttHandle characteristic,
                         const std::optional<Error>& error) override;

  CBCentralManager(DispatchQueuePtr queue);  // use initWithDelegate

 private:
  struct Impl;
  // Queues `delivery(self)` on this manager's delivery line; it runs on the
  // queue, after everything queued before it, and only while the manager
  // lives. A template so that each delivery costs one closure, not two.
  template <class Fn>
  void post(Fn&& delivery);
  // On the queue: records `state` and reports it unless it was reported last.
  void deliverState(CBManagerState state);
  // The peripheral object of `address`: the known one, else (with `create`) a
  // new one. Null when unknown and not created.
  std::shared_ptr<CBPeripheral> peripheralFor(const radio::PeripheralId& address, bool create);
  // The same with impl_->mutex held; a new object is made with `name`.
  // `rename` (when given) tells whether a known object must still be given
  // `name` (a null name never renames); the caller does so outside the lock.
  std::shared_ptr<CBPeripheral> peripheralForLocked(const radio::PeripheralId& address, bool create,
                                                    const std::optional<std::string>& name,
                                                    bool* rename = nullptr);

  std::shared_ptr<Impl> impl_;
  DispatchQueuePtr queue_;
  std::shared_ptr<radio::CentralRadio> radio_;  // set once, before any delivery runs
};

}  // namespace lumora
