#include "CoreBluetooth/CBPeripheralManager.h"

#include <map>
#include <unordered_map>
#include <utility>

#include "CoreBluetooth/SerialDelivery.h"

namespace lumora {
namespace {

// Namespace of the name-based identifiers of remote centrals.
constexpr Uuid kCentralNamespace{Uuid::Storage{0xC3, 0x08, 0x6E, 0x51, 0x2A, 0xF4, 0x4B, 0x97, 0xA1,
                                               0x3D, 0x75, 0x0E, 0xB2, 0x6C, 0x48, 0xD9}};

// A characteristic that is not a CBMutableCharacteristic has no permissions
// of its own: it gets the ones its properties need.
std::uint8_t permissionsOf(const CBCharacteristic& characteristic) {
  if (const auto* mutableOne = dynamic_cast<const CBMutableCharacteristic*>(&characteristic)) {
    return mutableOne->permissions();
  }
  std::uint8_t permissions = 0;
  const auto properties = characteristic.properties();
  if (properties & CBCharacteristicPropertyRead) permissions |= CBAttributePermissionsReadable;
  if (properties & (CBCharacteristicPropertyWrite | CBCharacteristicPropertyWriteWithoutResponse)) {
    permissions |= CBAttributePermissionsWriteable;
  }
  return permissions;
}

}  // namespace

// --- CBMutableCharacteristic, CBMutableService, CBCentral, CBATTRequest -----------

CBMutableCharacteristic::CBMutableCharacteristic(CBUUID type, std::uint8_t properties, Data value,
                                                 std::uint8_t permissions)
    : CBCharacteristic(std::move(type), properties, std::move(value)), permissions_(permissions) {}

CBMutableService::CBMutableService(CBUUID type, bool primary)
    : CBService(std::move(type), primary) {}

void CBMutableService::setCharacteristics(std::optional<CBCharacteristicList> characteristics) {
  if (characteristics) {
    for (const auto& characteristic : *characteristics) {
      if (characteristic) characteristic->setService(weak_from_this());
    }
  }
  setCharacteristicsList(std::move(characteristics));
}

CBCentral::CBCentral(std::string address, std::size_t maximumUpdateValueLength)
    : address_(std::move(address)),
      identifier_(Uuid::nameBased(kCentralNamespace, address_)),
      maximumUpdateValueLength_(maximumUpdateValueLength) {}

CBATTRequest::CBATTRequest(radio::RequestId id, std::shared_ptr<CBCentral> central,
                           std::shared_ptr<CBCharacteristic> characteristic, std::size_t offset,
                           Data value)
    : id_(id),
      central_(std::move(central)),
      characteristic_(std::move(characteristic)),
      offset_(offset),
      value_(std::move(value)) {}

Data CBATTRequest::value() const {
  std::lock_guard lock(mutex_);
  return value_;
}

void CBATTRequest::setValue(Data value) {
  std::lock_guard lock(mutex_);
  value_.swap(value);
}

// --- CBPeripheralManager ------------------------------------------------------

// `line` and `radio` are set once, before the manager is handed out; the rest
// is guarded by `mutex`.
struct CBPeripheralManager::Impl {
  struct Published {
    std::shared_ptr<CBMutableService> service;
    // The characteristics as they were published: request indices refer to
    // this list, whatever the application does to the service afterwards.
    CBCharacteristicList characteristics;
  };

  std::shared_ptr<detail::SerialDelivery> line;
  std::shared_ptr<radio::PeripheralRadio> radio;

  std::mutex mutex;
  std::weak_ptr<CBPeripheralManagerDelegate> delegate;
  CBManagerState state = CBManagerState::Unknown;
  bool stateReported = false;
  bool advertisingWanted = false;  // between startAdvertising and stopAdvertising
  bool advertising = false;        // confirmed by the radio
  radio::ServiceToken lastToken = 0;
  std::map<radio::ServiceToken, Published> published;
  // Services whose didAddService is still due, kept even when removed
  // meanwhile so the confirmation can name them.
  std::map<radio::ServiceToken, std::shared_ptr<CBMutableService>> unconfirmed;
  std::unordered_map<std::string, std::shared_ptr<CBCentral>> centrals;
};

CBPeripheralManager::CBPeripheralManager(DispatchQueuePtr queue) : impl_(std::make_shared<Impl>()) {
  impl_->line = detail::SerialDelivery::make(std::move(queue));
}

std::shared_ptr<CBPeripheralManager> CBPeripheralManager::initWithDelegate(
    std::weak_ptr<CBPeripheralManagerDelegate> delegate, DispatchQueuePtr queue,
    std::optional<Dictionary> /*options*/) {
  auto manager = std::make_shared<CBPeripheralManager>(std::move(queue));
  manager->impl_->delegate = std::move(delegate);
  // Events raised as soon as the session is open wait on the held line.
  auto backend = radio::Backend::current();
  manager->impl_->radio = backend->openPeripheral(manager->weak_from_this());
  manager->impl_->line->release();
  // The first state report is started from the radio's own thread, not posted
  // from here: on a concurrent queue a worker could otherwise act on it (an
  // emulator starting itself on power-on) before the creator has even stored
  // the manager and finished configuring. The radio's thread runs this only
  // after the creating call has returned to its run loop (or, on the virtual
  // clock, at the next advance or settle).
  backend->scheduleAfter(radio::Nanos{0}, [weak = manager->weak_from_this()] {
    auto self = weak.lock();
    if (!self) return;
    self->post([](const std::shared_ptr<CBPeripheralManager>& me) {
      me->deliverState(me->impl_->radio->state());
    });
  });
  return manager;
}

CBPeripheralManager::~CBPeripheralManager() {
  if (impl_->radio) impl_->radio->close();
}

void CBPeripheralManager::post(Delivery delivery) {
  impl_->line->post([weak = weak_from_this(), delivery = std::move(delivery)] {
    if (auto self = weak.lock()) delivery(self);
  });
}

std::shared_ptr<CBPeripheralManagerDelegate> CBPeripheralManager::delegate() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->delegate.lock();
}

void CBPeripheralManager::setDelegate(std::weak_ptr<CBPeripheralManagerDelegate> delegate) {
  std::lock_guard lock(impl_->mutex);
  impl_->delegate = std::move(delegate);
}

CBManagerState CBPeripheralManager::state() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->state;
}

bool CBPeripheralManager::isAdvertising() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->advertising;
}

void CBPeripheralManager::deliverState(CBManagerState state) {
  std::shared_ptr<CBPeripheralManagerDelegate> delegate;
  {
    std::lock_guard lock(impl_->mutex);
    if (impl_->stateReported && impl_->state == state) return;
    impl_->state = state;
    impl_->stateReported = true;
    // An adapter that leaves the powered-on state has stopped advertising;
    // it does not resume by itself.
    if (state != CBManagerState::PoweredOn) {
      impl_->advertising = false;
      impl_->advertisingWanted = false;
    }
    delegate = impl_->delegate.lock();
  }
  if (delegate) delegate->peripheralManagerDidUpdateState(shared_from_this());
}

void CBPeripheralManager::addService(const std::shared_ptr<CBMutableService>& service) {
  if (!service || !impl_->radio) return;
  radio::LocalService local{service->UUID(), service->isPrimary(), {}};
  CBCharacteristicList characteristics;
  if (auto list = service->characteristics()) {
    for (const auto& characteristic : *list) {
      if (!characteristic) continue;
      local.characteristics.push_back(
          radio::LocalCharacteristic{characteristic->UUID(), characteristic->properties(),
                                     permissionsOf(*characteristic), characteristic->value()});
      characteristics.push_back(characteristic);
    }
  }
  radio::ServiceToken token;
  {
    std::lock_guard lock(impl_->mutex);
    token = ++impl_->lastToken;
    impl_->published[token] = Impl::Published{service, std::move(characteristics)};
    impl_->unconfirmed[token] = service;
  }
  impl_->radio->addService(token, local);
}

void CBPeripheralManager::removeService(const std::shared_ptr<CBMutableService>& service) {
  if (!service || !impl_->radio) return;
  std::vector<radio::ServiceToken> tokens;
  {
    std::lock_guard lock(impl_->mutex);
    for (auto it = impl_->published.begin(); it != impl_->published.end();) {
      if (it->second.service == service) {
        tokens.push_back(it->first);
        it = impl_->published.erase(it);
      } else {
        ++it;
      }
    }
  }
  for (auto token : tokens) impl_->radio->removeService(token);
}

void CBPeripheralManager::removeAllServices() {
  if (!impl_->radio) return;
  std::map<radio::ServiceToken, Impl::Published> gone;
  {
    std::lock_guard lock(impl_->mutex);
    gone.swap(impl_->published);
  }
  impl_->radio->removeAllServices();
}

void CBPeripheralManager::startAdvertising(
    const std::optional<CBAdvertisementData>& advertisementData) {
  if (!impl_->radio) return;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->advertisingWanted = true;
  }
  impl_->radio->startAdvertising(advertisementData.value_or(CBAdvertisementData{}));
}

void CBPeripheralManager::stopAdvertising() {
  if (!impl_->radio) return;
  {
    std::lock_guard lock(impl_->mutex);
    impl_->advertisingWanted = false;
    impl_->advertising = false;
  }
  impl_->radio->stopAdvertising();
}

void CBPeripheralManager::respondToRequest(const std::shared_ptr<CBATTRequest>& request,
                                           CBATTError result) {
  if (!request || !impl_->radio) return;
  impl_->radio->respond(request->requestId(), result, request->value());
}

std::shared_ptr<CBATTRequest> CBPeripheralManager::requestFor(const radio::AttRequest& request,
                                                              bool isWrite) {
  std::shared_ptr<CBCharacteristic> characteristic;
  std::shared_ptr<CBCentral> central;
  {
    std::lock_guard lock(impl_->mutex);
    auto it = impl_->published.find(request.service);
    if (it == impl_->published.end() ||
        request.characteristic >= it->second.characteristics.size()) {
      return nullptr;
    }
    characteristic = it->second.characteristics[request.characteristic];
    // One CBCentral per remote central; a new one when its link's payload
    // size changed, since a CBCentral does not change once handed out.
    auto& known = impl_->centrals[request.central];
    if (!known || known->maximumUpdateValueLength() != request.maximumUpdateValueLength) {
      known = std::make_shared<CBCentral>(request.central, request.maximumUpdateValueLength);
    }
    central = known;
  }
  return std::make_shared<CBATTRequest>(request.id, std::move(central), std::move(characteristic),
                                        request.offset, isWrite ? Data(request.value) : Data());
}

// --- radio events: radio thread, queue only -------------------------------------

void CBPeripheralManager::radioStateChanged(CBManagerState state) {
  post([state](const std::shared_ptr<CBPeripheralManager>& self) { self->deliverState(state); });
}

void CBPeripheralManager::radioServiceAdded(radio::ServiceToken token,
                                            const std::optional<Error>& error) {
  post([token, error = error](const std::shared_ptr<CBPeripheralManager>& self) {
    std::shared_ptr<CBMutableService> service;
    std::shared_ptr<CBPeripheralManagerDelegate> delegate;
    {
      std::lock_guard lock(self->impl_->mutex);
      auto it = self->impl_->unconfirmed.find(token);
      if (it == self->impl_->unconfirmed.end()) return;
      service = std::move(it->second);
      self->impl_->unconfirmed.erase(it);
      // A refused service was never published.
      if (error) self->impl_->published.erase(token);
      delegate = self->impl_->delegate.lock();
    }
    if (delegate) delegate->didAddService(self, service, error);
  });
}

void CBPeripheralManager::radioAdvertisingStarted(const std::optional<Error>& error) {
  post([error = error](const std::shared_ptr<CBPeripheralManager>& self) {
    std::shared_ptr<CBPeripheralManagerDelegate> delegate;
    {
      std::lock_guard lock(self->impl_->mutex);
      // A confirmation that arrives after stopAdvertising() does not revive it.
      self->impl_->advertising = !error && self->impl_->advertisingWanted;
      delegate = self->impl_->delegate.lock();
    }
    if (delegate) delegate->peripheralManagerDidStartAdvertising(self, error);
  });
}

void CBPeripheralManager::radioReadRequest(const radio::AttRequest& request) {
  post([request = request](const std::shared_ptr<CBPeripheralManager>& self) {
    auto& radio = *self->impl_->radio;
    auto front = self->requestFor(request, false);
    if (!front) {
      radio.respond(request.id, CBATTError::InvalidHandle, std::nullopt);
      return;
    }
    auto delegate = self->delegate();
    if (!delegate) {
      radio.respond(request.id, CBATTError::UnlikelyError, std::nullopt);
      return;
    }
    delegate->didReceiveReadRequest(self, front);
  });
}

void CBPeripheralManager::radioWriteRequests(const std::vector<radio::AttRequest>& requests) {
  if (requests.empty()) return;
  post([requests = requests](const std::shared_ptr<CBPeripheralManager>& self) {
    auto& radio = *self->impl_->radio;
    std::vector<std::shared_ptr<CBATTRequest>> front;
    front.reserve(requests.size());
    for (const auto& request : requests) {
      auto one = self->requestFor(request, true);
      if (!one) break;
      front.push_back(std::move(one));
    }
    // The requests of a batch stand or fall together.
    std::optional<CBATTError> refusal;
    std::shared_ptr<CBPeripheralManagerDelegate> delegate;
    if (front.size() != requests.size()) {
      refusal = CBATTError::InvalidHandle;
    } else if (!(delegate = self->delegate())) {
      refusal = CBATTError::UnlikelyError;
    }
    if (refusal) {
      for (const auto& request : requests) radio.respond(request.id, *refusal, std::nullopt);
      return;
    }
    delegate->didReceiveWriteRequests(self, front);
  });
}

}  // namespace lumora
