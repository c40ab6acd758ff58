#include "CoreBluetooth/CBCentralManager.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <functional>
#include <memory>
#include <string_view>
#include <unordered_map>
#include <utility>

#include "CoreBluetooth/SerialDelivery.h"

namespace lumora {

namespace {

// The name a manager last gave a peripheral object, kept beside it in the
// table so that an advertisement repeating the name leaves the object (and
// its lock) untouched. Only short names are kept (most devices' local names);
// a longer or unknown one never matches, and the object is given it again.
class NameMirror {
 public:
  bool matches(const std::optional<std::string>& name) const {
    if (!name) return state_ == kNone;
    return state_ == kText && size_ == name->size() && std::memcmp(text_, name->data(), size_) == 0;
  }
  void set(const std::optional<std::string>& name) {
    if (!name) {
      state_ = kNone;
    } else if (name->size() > sizeof text_) {
      state_ = kUnknown;
    } else {
      state_ = kText;
      size_ = static_cast<std::uint8_t>(name->size());
      std::memcpy(text_, name->data(), size_);
    }
  }
  void forget() { state_ = kUnknown; }

 private:
  enum : std::uint8_t { kUnknown, kNone, kText };
  std::uint8_t state_ = kUnknown;
  std::uint8_t size_ = 0;
  char text_[14];
};

// What the manager knows of a device, in one cache line: the radio's id of
// it (inline when short: a MAC address text is 17 characters), its one
// peripheral object and the name mirror.
struct alignas(64) Known {
  explicit Known(std::string_view id) {
    if (id.size() <= sizeof key) {
      keySize = static_cast<std::uint8_t>(id.size());
      std::memcpy(key, id.data(), id.size());
    } else {
      longKey = std::make_unique<std::string>(id);
    }
  }
  std::string_view id() const {
    return longKey ? std::string_view(*longKey) : std::string_view(key, keySize);
  }

  std::shared_ptr<CBPeripheral> peripheral;
  std::unique_ptr<std::string> longKey;  // ids too long for `key`
  std::uint8_t keySize = 0;
  bool pinned = false;  // connecting or connected: never pruned
  NameMirror name;
  char key[22];
};
static_assert(sizeof(Known) == 64, "one cache line per device");

// The device table, looked up for every advertisement heard: open
// addressing over a compact slot array (a slot is a tag of the hash and an
// index, eight to a cache line) in front of a dense array of entries of one
// cache line each. A hit costs about two cache lines where a node-based map
// costs three or more. Entries are only ever removed all together, by
// eraseIf(), which rebuilds the table.
class DeviceTable {
 public:
  DeviceTable() { slots_.assign(kMinSlots, Slot{}); }

  std::size_t size() const { return entries_.size(); }

  Known* find(std::string_view id) {
    const std::size_t hash = std::hash<std::string_view>{}(id);
    const std::uint32_t tag = tagOf(hash);
    for (std::size_t i = hash & mask();; i = (i + 1) & mask()) {
      const Slot slot = slots_[i];
      if (slot.index == kEmpty) return nullptr;
      if (slot.tag == tag && entries_[slot.index].id() == id) return &entries_[slot.index];
    }
  }

  /// Adds `id`, which must not be in the table. The reference lasts until
  /// the next change of the table.
  Known& insert(std::string_view id) {
    if (2 * (entries_.size() + 1) > slots_.size()) rehash(2 * slots_.size());
    entries_.emplace_back(id);
    place(std::hash<std::string_view>{}(id), static_cast<std::uint32_t>(entries_.size() - 1));
    return entries_.back();
  }

  Known& findOrInsert(std::string_view id) {
    if (Known* known = find(id)) return *known;
    return insert(id);
  }

  template <class Pred>
  void eraseIf(Pred pred) {
    std::erase_if(entries_, pred);
    std::size_t capacity = kMinSlots;
    while (capacity < 2 * entries_.size()) capacity *= 2;
    rehash(capacity);
  }

 private:
  static constexpr std::uint32_t kEmpty = ~std::uint32_t{0};
  static constexpr std::size_t kMinSlots = 64;

  struct Slot {
    std::uint32_t tag = 0;
    std::uint32_t index = kEmpty;
  };

  static std::uint32_t tagOf(std::size_t hash) {
    return static_cast<std::uint32_t>(static_cast<std::uint64_t>(hash) >> 32);
  }
  std::size_t mask() const { return slots_.size() - 1; }

  void place(std::size_t hash, std::uint32_t index) {
    std::size_t i = hash & mask();
    while (slots_[i].index != kEmpty) i = (i + 1) & mask();
    slots_[i] = Slot{tagOf(hash), index};
  }

  void rehash(std::size_t capacity) {
    slots_.assign(capacity, Slot{});
    for (std::size_t index = 0; index < entries_.size(); ++index) {
      place(std::hash<std::string_view>{}(entries_[index].id()), static_cast<std::uint32_t>(index));
    }
  }

  std::vector<Slot> slots_;  // a power of two, at most half full
  std::vector<Known> entries_;
};

}  // namespace

// Everything here is guarded by `mutex`, except `line` (set once, before the
// manager is handed out, and thread-safe itself).
struct CBCentralManager::Impl {
  std::shared_ptr<detail::SerialDelivery> line;

  std::mutex mutex;
  std::weak_ptr<CBCentralManagerDelegate> delegate;
  CBManagerState state = CBManagerState::Unknown;
  bool stateReported = false;

  bool scanning = false;
  bool allowDuplicates = false;
  std::optional<std::vector<CBUUID>> scanServices;
  // Without duplicates: the advertisement last reported per address in this
  // scan; a device is reported again only when it differs.
  std::unordered_map<radio::PeripheralId, CBAdvertisementData> reported;

  // Every device reported or connected, with its one peripheral object, so
  // that a device keeps its object (and a scan with duplicates builds none
  // per report). Once the table reaches kRemembered (or twice what survived
  // the last pruning), the peripherals that nobody else holds and that are
  // not linked are dropped: a long scan among rotating addresses stays
  // bounded.
  static constexpr std::size_t kRemembered = 16384;
  DeviceTable peripherals;
  std::size_t pruneAt = kRemembered;

  void pinLocked(const std::shared_ptr<CBPeripheral>& peripheral, bool pin) {
    Known& known = peripherals.findOrInsert(peripheral->address());
    if (known.peripheral != peripheral) {
      known.peripheral = peripheral;
      known.name.forget();
    }
    known.pinned = pin;
  }
};

namespace {

bool wantedByFilter(const std::optional<std::vector<CBUUID>>& filter,
                    const CBAdvertisementData& advertisement) {
  if (!filter || filter->empty()) return true;
  return std::any_of(filter->begin(), filter->end(), [&](const CBUUID& wanted) {
    const auto& offered = advertisement.serviceUUIDs;
    return std::find(offered.begin(), offered.end(), wanted) != offered.end();
  });
}

}  // namespace

CBCentralManager::CBCentralManager(DispatchQueuePtr queue)
    : impl_(std::make_shared<Impl>()), queue_(queue ? std::move(queue) : DispatchQueue::main()) {
  impl_->line = detail::SerialDelivery::make(queue_);
}

// Deliveries capture the radio's const& arguments with init-captures
// (`[report = report]`): a plain capture of a const reference is a const
// member, which every move of the closure would copy instead.
template <class Fn>
void CBCentralManager::post(Fn&& delivery) {
  impl_->line->post([weak = weak_from_this(), delivery = std::forward<Fn>(delivery)] {
    if (auto self = weak.lock()) delivery(self);
  });
}

std::shared_ptr<CBCentralManager> CBCentralManager::initWithDelegate(
    std::weak_ptr<CBCentralManagerDelegate> delegate, DispatchQueuePtr queue,
    std::optional<Dictionary> /*options*/) {
  auto manager = std::make_shared<CBCentralManager>(std::move(queue));
  manager->impl_->delegate = std::move(delegate);
  // The radio may raise events as soon as the session is open; they wait on
  // the held line until radio_ is in place.
  manager->radio_ = radio::Backend::current()->openCentral(manager->weak_from_this());
  // The first report reads the radio's state when it runs, so a change the
  // radio raised meanwhile is not undone by an older reading.
  manager->post([](const std::shared_ptr<CBCentralManager>& self) {
    self->deliverState(self->radio_->state());
  });
  manager->impl_->line->release();
  return manager;
}

CBCentralManager::~CBCentralManager() {
  if (radio_) radio_->close();
}

std::shared_ptr<CBCentralManagerDelegate> CBCentralManager::delegate() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->delegate.lock();
}

void CBCentralManager::setDelegate(std::weak_ptr<CBCentralManagerDelegate> delegate) {
  std::lock_guard lock(impl_->mutex);
  impl_->delegate = std::move(delegate);
}

CBManagerState CBCentralManager::state() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->state;
}

bool CBCentralManager::isScanning() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->scanning;
}

void CBCentralManager::deliverState(CBManagerState state) {
  std::shared_ptr<CBCentralManagerDelegate> delegate;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->stateReported && impl_->state == state) return;
    impl_->state = state;
    impl_->stateReported = true;
    delegate = impl_->delegate.lock();
  }
  if (delegate) delegate->centralManagerDidUpdateState(shared_from_this());
}

std::shared_ptr<CBPeripheral> CBCentralManager::peripheralFor(const radio::PeripheralId& address,
                                                              bool create) {
  std::lock_guard lock(impl_->mutex);
  return peripheralForLocked(address, create, std::nullopt);
}

std::shared_ptr<CBPeripheral> CBCentralManager::peripheralForLocked(
    const radio::PeripheralId& address, bool create, const std::optional<std::string>& name,
    bool* rename) {
  if (rename) *rename = false;
  auto& peripherals = impl_->peripherals;
  if (Known* known = peripherals.find(address)) {
    if (rename && name && !known->name.matches(name)) {
      known->name.set(name);
      *rename = true;
    }
    return known->peripheral;
  }
  if (!create) return nullptr;
  if (peripherals.size() >= impl_->pruneAt) {
    // use_count() is exact here: new references are only taken from the
    // table under this lock, so an entry seen unshared stays unshared.
    peripherals.eraseIf(
        [](const Known& known) { return !known.pinned && known.peripheral.use_count() == 1; });
    impl_->pruneAt = std::max(Impl::kRemembered, 2 * peripherals.size());
  }
  auto peripheral = std::make_shared<CBPeripheral>(weak_from_this(), address, name);
  Known& known = peripherals.insert(address);
  known.peripheral = peripheral;
  known.name.set(name);
  return peripheral;
}

void CBCentralManager::scanForPeripheralsWithServices(
    const std::optional<std::vector<CBUUID>>& serviceUUIDs,
    const std::optional<Dictionary>& options) {
  bool allowDuplicates = false;
  if (options) {
    if (auto it = options->find(CBCentralManagerScanOptionAllowDuplicatesKey);
        it != options->end()) {
      allowDuplicates = numberValue(it->second).value_or(Number(false)).boolValue();
    }
  }
  {
    std::lock_guard lock(impl_->mutex);
    impl_->scanning = true;
    impl_->allowDuplicates = allowDuplicates;
    impl_->scanServices = serviceUUIDs;
    impl_->reported.clear();
  }
  if (radio_) radio_->startScan(radio::ScanParameters{allowDuplicates, serviceUUIDs});
}

void CBCentralManager::stopScan() {
  {
    std::lock_guard lock(impl_->mutex);
    impl_->scanning = false;
    impl_->reported.clear();
  }
  if (radio_) radio_->stopScan();
}

void CBCentralManager::connectPeripheral(const std::shared_ptr<CBPeripheral>& peripheral,
                                         const std::optional<Dictionary>& /*options*/) {
  if (!peripheral || !radio_) return;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->pinLocked(peripheral, true);
  }
  // The radio answers nothing for a link that is already up, so a connected
  // peripheral keeps its state.
  if (peripheral->state() != CBPeripheralState::Connected) {
    peripheral->setState(CBPeripheralState::Connecting);
  }
  radio_->connect(peripheral->address());
}

void CBCentralManager::cancelPeripheralConnection(const std::shared_ptr<CBPeripheral>& peripheral) {
  if (!peripheral || !radio_) return;
  // Only a link or an attempt is answered by a disconnection; without one
  // the peripheral stays Disconnected.
  const auto state = peripheral->state();
  if (state == CBPeripheralState::Connected || state == CBPeripheralState::Connecting) {
    peripheral->setState(CBPeripheralState::Disconnecting);
  }
  radio_->cancelConnection(peripheral->address());
}

// --- radio events: radio thread, queue only -------------------------------------

void CBCentralManager::radioStateChanged(CBManagerState state) {
  post([state](const std::shared_ptr<CBCentralManager>& self) { self->deliverState(state); });
}

void CBCentralManager::radioDiscovered(const radio::AdvertisingReport& report) {
  post([report = report](const std::shared_ptr<CBCentralManager>& self) {
    auto& impl = *self->impl_;
    std::shared_ptr<CBPeripheral> peripheral;
    std::shared_ptr<CBCentralManagerDelegate> delegate;
    bool rename = false;  // the object is to take the advertised name
    {
      // One lock for the whole report: this runs for every advertisement
      // heard while scanning.
      std::lock_guard lock(impl.mutex);
      if (!impl.scanning || !wantedByFilter(impl.scanServices, report.advertisement)) return;
      if (!impl.allowDuplicates) {
        auto [it, first] = impl.reported.try_emplace(report.address, report.advertisement);
        if (!first) {
          if (it->second == report.advertisement) return;
          it->second = report.advertisement;
        }
      }
      const auto& name = report.advertisement.localName;
      peripheral = self->peripheralForLocked(report.address, true, name, &rename);
      delegate = impl.delegate.lock();
    }
    if (rename) peripheral->setName(report.advertisement.localName);
    if (delegate) {
      delegate->didDiscoverPeripheral(self, peripheral, report.advertisement, Number(report.rssi));
    }
  });
}

void CBCentralManager::radioConnected(const radio::PeripheralId& address) {
  post([address = address](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, true);
    {
      std::lock_guard lock(self->impl_->mutex);
      self->impl_->pinLocked(peripheral, true);
    }
    peripheral->setState(CBPeripheralState::Connected);
    if (auto delegate = self->delegate()) delegate->didConnectPeripheral(self, peripheral);
  });
}

void CBCentralManager::radioConnectFailed(const radio::PeripheralId& address, const Error& error) {
  post([address = address, error = error](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, true);
    {
      std::lock_guard lock(self->impl_->mutex);
      self->impl_->pinLocked(peripheral, false);
    }
    peripheral->setState(CBPeripheralState::Disconnected);
    if (auto delegate = self->delegate()) {
      delegate->didFailToConnectPeripheral(self, peripheral, error);
    }
  });
}

void CBCentralManager::radioDisconnected(const radio::PeripheralId& address,
                                         const std::optional<Error>& error) {
  post([address = address, error = error](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, true);
    {
      std::lock_guard lock(self->impl_->mutex);
      self->impl_->pinLocked(peripheral, false);
    }
    peripheral->setState(CBPeripheralState::Disconnected);
    // The remote database is gone with the link; its handles mean nothing on
    // the next one.
    peripheral->setServicesList(std::nullopt);
    if (auto delegate = self->delegate())
      delegate->didDisconnectPeripheral(self, peripheral, error);
  });
}

void CBCentralManager::radioServicesDiscovered(const radio::PeripheralId& address,
                                               const std::vector<radio::RemoteService>& services,
                                               const std::optional<Error>& error) {
  post([address = address, services = services,
        error = error](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, false);
    if (!peripheral) return;
    // A failed discovery that found nothing leaves the earlier list alone.
    if (!error || !services.empty()) {
      const auto previous = peripheral->services();
      CBServiceList list;
      list.reserve(services.size());
      for (const auto& found : services) {
        std::shared_ptr<CBService> service;
        // Rediscovery hands out the objects the application already holds.
        if (previous) {
          for (const auto& old : *previous) {
            if (old && old->handle() == found.handle && old->UUID() == found.uuid) service = old;
          }
        }
        if (!service) {
          service = std::make_shared<CBService>(found.uuid, found.primary);
          service->setHandle(found.handle);
          service->setPeripheral(peripheral);
        }
        list.push_back(std::move(service));
      }
      peripheral->setServicesList(std::move(list));
    }
    if (auto delegate = peripheral->delegate()) delegate->didDiscoverServices(peripheral, error);
  });
}

void CBCentralManager::radioCharacteristicsDiscovered(
    const radio::PeripheralId& address, radio::AttHandle serviceHandle,
    const std::vector<radio::RemoteCharacteristic>& characteristics,
    const std::optional<Error>& error) {
  post([address = address, serviceHandle, characteristics = characteristics,
        error = error](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, false);
    if (!peripheral) return;
    auto service = peripheral->serviceWithHandle(serviceHandle);
    if (!service) return;
    if (!error || !characteristics.empty()) {
      const auto previous = service->characteristics();
      CBCharacteristicList list;
      list.reserve(characteristics.size());
      for (const auto& found : characteristics) {
        std::shared_ptr<CBCharacteristic> characteristic;
        if (previous) {
          for (const auto& old : *previous) {
            if (old && old->handle() == found.handle && old->UUID() == found.uuid) {
              characteristic = old;
            }
          }
        }
        if (!characteristic) {
          characteristic =
              std::make_shared<CBCharacteristic>(found.uuid, found.properties, std::nullopt);
          characteristic->setHandle(found.handle);
          characteristic->setService(service);
        }
        list.push_back(std::move(characteristic));
      }
      service->setCharacteristicsList(std::move(list));
    }
    if (auto delegate = peripheral->delegate()) {
      delegate->didDiscoverCharacteristicsForService(peripheral, service, error);
    }
  });
}

void CBCentralManager::radioValueUpdated(const radio::PeripheralId& address,
                                         radio::AttHandle handle, const Data& value,
                                         const std::optional<Error>& error) {
  post([address = address, handle, value = value,
        error = error](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, false);
    if (!peripheral) return;
    auto characteristic = peripheral->characteristicWithHandle(handle);
    if (!characteristic) return;
    // A failed read without a value keeps the last good one.
    if (value) characteristic->setValue(value);
    if (auto delegate = peripheral->delegate()) {
      delegate->didUpdateValueForCharacteristic(peripheral, characteristic, error);
    }
  });
}

void CBCentralManager::radioValueWritten(const radio::PeripheralId& address,
                                         radio::AttHandle handle,
                                         const std::optional<Error>& error) {
  post([address = address, handle, error = error](const std::shared_ptr<CBCentralManager>& self) {
    auto peripheral = self->peripheralFor(address, false);
    if (!peripheral) return;
    auto characteristic = peripheral->characteristicWithHandle(handle);
    if (!characteristic) return;
    if (auto delegate = peripheral->delegate()) {
      delegate->didWriteValueForCharacteristic(peripheral, characteristic, error);
    }
  });
}

}  // namespace lumora
