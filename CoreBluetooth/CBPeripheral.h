// Remote GATT objects a central manager hands out: CBPeripheral, CBService,
// CBCharacteristic and the peripheral's delegate.
//
//   peripheral->setDelegate(weak_from_this());
//   peripheral->discoverServices(std::nullopt);      // all services
//   // later, on the manager's queue: didDiscoverServices(peripheral, error)
//
// Every callback of a peripheral arrives on its central manager's queue (the
// main queue when the manager was made without one). The lists (services(),
// characteristics()) and values are updated on that queue just before the
// callback that reports them, so code running there sees them consistent;
// reading them from another thread is safe (each access is locked) but may
// see an older list.
#pragma once

#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreBluetooth/CBTypes.h"
#include "CoreBluetooth/CBUUID.h"
#include "Foundation/Bytes.h"
#include "Foundation/Object.h"
#include "Foundation/Uuid.h"

namespace lumora {

class CBPeripheral;
class CBService;
class CBCentralManager;

class CBCharacteristic : public std::enable_shared_from_this<CBCharacteristic> {
 public:
  CBCharacteristic(CBUUID uuid, std::uint8_t properties, Data value);
  virtual ~CBCharacteristic() = default;

  CBUUID UUID() const { return uuid_; }
  std::uint8_t properties() const { return properties_; }
  /// The last value read or notified (null before any).
  Data value() const;
  std::shared_ptr<CBService> service() const { return service_.lock(); }

  // Wiring used by the platform layer.
  void setValue(Data value);
  void setService(std::weak_ptr<CBService> service) { service_ = std::move(service); }
  radio::AttHandle handle() const { return handle_; }
  void setHandle(radio::AttHandle handle) { handle_ = handle; }

 protected:
  CBUUID uuid_;
  std::uint8_t properties_;
  mutable std::mutex mutex_;
  Data value_;
  std::weak_ptr<CBService> service_;
  radio::AttHandle handle_ = 0;
};

using CBCharacteristicList = std::vector<std::shared_ptr<CBCharacteristic>>;

class CBService : public std::enable_shared_from_this<CBService> {
 public:
  CBService(CBUUID uuid, bool primary);
  virtual ~CBService() = default;

  CBUUID UUID() const { return uuid_; }
  bool isPrimary() const { return primary_; }
  /// Null until characteristics were discovered (or set).
  std::optional<CBCharacteristicList> characteristics() const;
  std::shared_ptr<CBPeripheral> peripheral() const { return peripheral_.lock(); }

  // Wiring used by the platform layer.
  void setCharacteristicsList(std::optional<CBCharacteristicList> list);
  void setPeripheral(std::weak_ptr<CBPeripheral> peripheral) {
    peripheral_ = std::move(peripheral);
  }
  radio::AttHandle handle() const { return handle_; }
  void setHandle(radio::AttHandle handle) { handle_ = handle; }

 protected:
  CBUUID uuid_;
  bool primary_;
  mutable std::mutex mutex_;
  std::optional<CBCharacteristicList> characteristics_;
  std::weak_ptr<CBPeripheral> peripheral_;
  radio::AttHandle handle_ = 0;
};

using CBServiceList = std::vector<std::shared_ptr<CBService>>;

/// The peripheral's delegate. Every operation arrives on the manager's queue.
class CBPeripheralDelegate {
 public:
  virtual ~CBPeripheralDelegate() = default;
  virtual void didDiscoverServices(const std::shared_ptr<CBPeripheral>& peripheral,
                                   ErrorRef error) = 0;
  virtual void didDiscoverCharacteristicsForService(const std::shared_ptr<CBPeripheral>& peripheral,
                                                    const std::shared_ptr<CBService>& service,
                                                    ErrorRef error) = 0;
  virtual void didUpdateValueForCharacteristic(
      const std::shared_ptr<CBPeripheral>& peripheral,
      const std::shared_ptr<CBCharacteristic>& characteristic, ErrorRef error) = 0;
  virtual void didWriteValueForCharacteristic(
      const std::shared_ptr<CBPeripheral>& peripheral,
      const std::shared_ptr<CBCharacteristic>& characteristic, ErrorRef error) = 0;
};

class CBPeripheral : public std::enable_shared_from_this<CBPeripheral> {
 public:
  /// Made by a central manager for each remote device it reports.
  CBPeripheral(std::weak_ptr<CBCentralManager> manager, radio::PeripheralId address,
               std::optional<std::string> name);

  /// Stable identifier derived from the device's address.
  Uuid identifier() const { return identifier_; }
  /// The radio's address text of the device.
  const radio::PeripheralId& address() const { return address_; }
  /// The last advertised (or GAP) name; null when none was heard.
  std::optional<std::string> name() const;
  CBPeripheralState state() const;
  /// Null until services were discovered.
  std::optional<CBServiceList> services() const;

  std::shared_ptr<CBPeripheralDelegate> delegate() const;
  /// Held weakly: a delegate that is gone is not called.
  void setDelegate(std::weak_ptr<CBPeripheralDelegate> delegate);

  /// Null filter: all services. Answered by didDiscoverServices.
  void discoverServices(const std::optional<std::vector<CBUUID>>& serviceUUIDs);
  /// Null filter: all characteristics. Answered by
  /// didDiscoverCharacteristicsForService.
  void discoverCharacteristics(const std::optional<std::vector<CBUUID>>& characteristicUUIDs,
                               const std::shared_ptr<CBService>& service);
  /// Answered by didUpdateValueForCharacteristic.
  void readValueForCharacteristic(const std::shared_ptr<CBCharacteristic>& characteristic);
  /// With response: answered by didWriteValueForCharacteristic. A null value
  /// is written as zero bytes.
  void writeValue(const Data& data, const std::shared_ptr<CBCharacteristic>& characteristic,
                  CBCharacteristicWriteType type);

  /// "<CBPeripheral: identifier = ..., name = ..., state = connected>".
  std::string description() const;

  // Wiring used by the platform layer (on the manager's queue).
  void setName(std::optional<std::string> name);
  void setState(CBPeripheralState state);
  void setServicesList(std::optional<CBServiceList> services);
  std::shared_ptr<CBService> serviceWithHandle(radio::AttHandle handle) const;
  std::shared_ptr<CBCharacteristic> characteristicWithHandle(radio::AttHandle handle) const;

 private:
  std::weak_ptr<CBCentralManager> manager_;
  radio::PeripheralId address_;
  Uuid identifier_;
  mutable std::mutex mutex_;
  std::optional<std::string> name_;
  CBPeripheralState state_ = CBPeripheralState::Disconnected;
  std::optional<CBServiceList> services_;
  std::weak_ptr<CBPeripheralDelegate> delegate_;
};

/// "(null)" for a null handle, else the peripheral's description.
std::string description(const std::shared_ptr<CBPeripheral>& peripheral);

}  // namespace lumora
