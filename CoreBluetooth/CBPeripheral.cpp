#include "CoreBluetooth/CBPeripheral.h"

#include <utility>

#include "CoreBluetooth/CBCentralManager.h"

namespace lumora {
namespace {

// Namespace of the name-based identifiers of remote peripherals: the same
// address gives the same identifier in every process and every run.
constexpr Uuid kPeripheralNamespace{Uuid::Storage{0x5A, 0x1E, 0x7C, 0x3B, 0x90, 0x4D, 0x4E, 0x21,
                                                  0x8F, 0x62, 0x0B, 0xC4, 0x19, 0xD7, 0xA3, 0x55}};

}  // namespace

// --- CBCharacteristic ---------------------------------------------------------

CBCharacteristic::CBCharacteristic(CBUUID uuid, std::uint8_t properties, Data value)
    : uuid_(std::move(uuid)), properties_(properties), value_(std::move(value)) {}

Data CBCharacteristic::value() const {
  std::lock_guard lock(mutex_);
  return value_;
}

void CBCharacteristic::setValue(Data value) {
  std::lock_guard lock(mutex_);
  value_.swap(value);
}

// --- CBService ----------------------------------------------------------------

CBService::CBService(CBUUID uuid, bool primary) : uuid_(std::move(uuid)), primary_(primary) {}

std::optional<CBCharacteristicList> CBService::characteristics() const {
  std::lock_guard lock(mutex_);
  return characteristics_;
}

void CBService::setCharacteristicsList(std::optional<CBCharacteristicList> list) {
  // The old list is released after the lock is dropped.
  std::lock_guard lock(mutex_);
  characteristics_.swap(list);
}

// --- CBPeripheral -------------------------------------------------------------

CBPeripheral::CBPeripheral(std::weak_ptr<CBCentralManager> manager, radio::PeripheralId address,
                           std::optional<std::string> name)
    : manager_(std::move(manager)),
      address_(std::move(address)),
      identifier_(Uuid::nameBased(kPeripheralNamespace, address_)),
      name_(std::move(name)) {}

std::optional<std::string> CBPeripheral::name() const {
  std::lock_guard lock(mutex_);
  return name_;
}

CBPeripheralState CBPeripheral::state() const {
  std::lock_guard lock(mutex_);
  return state_;
}

std::optional<CBServiceList> CBPeripheral::services() const {
  std::lock_guard lock(mutex_);
  return services_;
}

std::shared_ptr<CBPeripheralDelegate> CBPeripheral::delegate() const {
  std::lock_guard lock(mutex_);
  return delegate_.lock();
}

void CBPeripheral::setDelegate(std::weak_ptr<CBPeripheralDelegate> delegate) {
  std::lock_guard lock(mutex_);
  delegate_ = std::move(delegate);
}

void CBPeripheral::setName(std::optional<std::string> name) {
  std::lock_guard lock(mutex_);
  name_ = std::move(name);
}

void CBPeripheral::setState(CBPeripheralState state) {
  std::lock_guard lock(mutex_);
  state_ = state;
}

void CBPeripheral::setServicesList(std::optional<CBServiceList> services) {
  std::lock_guard lock(mutex_);
  services_.swap(services);
}

std::shared_ptr<CBService> CBPeripheral::serviceWithHandle(radio::AttHandle handle) const {
  const auto list = services();
  if (!list) return nullptr;
  for (const auto& service : *list) {
    if (service && service->handle() == handle) return service;
  }
  return nullptr;
}

std::shared_ptr<CBCharacteristic> CBPeripheral::characteristicWithHandle(
    radio::AttHandle handle) const {
  const auto list = services();
  if (!list) return nullptr;
  for (const auto& service : *list) {
    if (!service) continue;
    const auto characteristics = service->characteristics();
    if (!characteristics) continue;
    for (const auto& characteristic : *characteristics) {
      if (characteristic && characteristic->handle() == handle) return characteristic;
    }
  }
  return nullptr;
}

void CBPeripheral::discoverServices(const std::optional<std::vector<CBUUID>>& serviceUUIDs) {
  if (auto manager = manager_.lock()) manager->radio().discoverServices(address_, serviceUUIDs);
}

void CBPeripheral::discoverCharacteristics(
    const std::optional<std::vector<CBUUID>>& characteristicUUIDs,
    const std::shared_ptr<CBService>& service) {
  if (!service) return;
  if (auto manager = manager_.lock()) {
    manager->radio().discoverCharacteristics(address_, service->handle(), characteristicUUIDs);
  }
}

void CBPeripheral::readValueForCharacteristic(
    const std::shared_ptr<CBCharacteristic>& characteristic) {
  if (!characteristic) return;
  if (auto manager = manager_.lock()) manager->radio().read(address_, characteristic->handle());
}

void CBPeripheral::writeValue(const Data& data,
                              const std::shared_ptr<CBCharacteristic>& characteristic,
                              CBCharacteristicWriteType type) {
  if (!characteristic) return;
  auto manager = manager_.lock();
  if (!manager) return;
  static const Bytes kNothing;
  manager->radio().write(address_, characteristic->handle(), data ? *data : kNothing,
                         type == CBCharacteristicWriteType::WithResponse);
}

std::string CBPeripheral::description() const {
  std::optional<std::string> name;
  CBPeripheralState state;
  {
    std::lock_guard lock(mutex_);
    name = name_;
    state = state_;
  }
  return "<CBPeripheral: identifier = " + identifier_.UUIDString() +
         ", name = " + name.value_or("(null)") + ", state = " + toString(state) + ">";
}

std::string description(const std::shared_ptr<CBPeripheral>& peripheral) {
  return peripheral ? peripheral->description() : "(null)";
}

}  // namespace lumora
