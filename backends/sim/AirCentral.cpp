// The central side of the air: central sessions (what a CBCentralManager
// asks of the radio) and the virtual devices they connect to. A central
// session's peer is either a virtual device, answered by its GATT database
// and handlers, or a local peripheral manager, whose requests go to that
// manager and come back through respond() (AirPeripheral.cpp).
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>

#include "backends/sim/AirImpl.h"

namespace lumora::sim::detail {
namespace {

bool wantedUuid(const std::optional<std::vector<CBUUID>>& filter, const CBUUID& uuid) {
  return !filter || std::find(filter->begin(), filter->end(), uuid) != filter->end();
}

struct Located {
  const GattService* service = nullptr;
  GattCharacteristic* characteristic = nullptr;
  std::size_t index = 0;
};

Located findByHandle(std::vector<GattService>& services, AttHandle handle) {
  for (auto& s : services) {
    for (std::size_t i = 0; i < s.characteristics.size(); ++i) {
      if (s.characteristics[i].handle == handle) return {&s, &s.characteristics[i], i};
    }
  }
  return {};
}

// Why a scripted device refuses an access to `at`, if it does: no such
// handle, a property the access needs is missing, or the failure the
// scenario set for every such access.
std::optional<CBATTError> accessFailure(const Located& at, std::uint8_t needed,
                                        CBATTError notPermitted,
                                        const std::optional<CBATTError>& scripted) {
  if (!at.characteristic) return CBATTError::InvalidHandle;
  if (!(at.characteristic->properties & needed)) return notPermitted;
  return scripted;
}

std::vector<radio::RemoteService> listServices(const std::vector<GattService>& services,
                                               const std::optional<std::vector<CBUUID>>& filter) {
  std::vector<radio::RemoteService> out;
  for (const auto& s : services) {
    if (wantedUuid(filter, s.uuid)) out.push_back({s.handle, s.uuid, s.primary});
  }
  return out;
}

/// With the air locked: the central session `id` when its link to `peer` is
/// still the connected link of `generation`.
CentralState* linkedLocked(AirImpl& air, std::uint64_t id, const PeripheralId& peer,
                           std::uint64_t generation) {
  auto c = air.centrals_.find(id);
  if (c == air.centrals_.end()) return nullptr;
  auto link = c->second->links.find(peer);
  if (link == c->second->links.end() || !link->second.connected ||
      link->second.generation != generation) {
    return nullptr;
  }
  return c->second.get();
}

TraceNote note(std::string kind, const CentralState& c, const PeripheralId& peer,
               std::string detail, Bytes payload = {}) {
  return TraceNote{std::move(kind), c.address, peer, std::move(detail), std::move(payload)};
}

void postValue(AirImpl& air, const CentralState& c, const PeripheralId& peer,
               std::uint64_t generation, AttHandle handle, Data value, std::optional<Error> error) {
  std::string detail = handleText(handle) + (error ? " " + error.value().text : "");
  Bytes payload = value.value_or(Bytes{});
  air.postCentralLocked(
      c.id, Nanos{0}, AirImpl::LinkCheck{peer, generation},
      note("answer", c, peer, std::move(detail), std::move(payload)),
      [peer, handle, value = std::move(value), error = std::move(error)](radio::CentralEvents& rx) {
        rx.radioValueUpdated(peer, handle, value, error);
      });
}

void postWritten(AirImpl& air, const CentralState& c, const PeripheralId& peer,
                 std::uint64_t generation, AttHandle handle, std::optional<Error> error) {
  std::string detail = handleText(handle) + (error ? " " + error.value().text : " written");
  air.postCentralLocked(c.id, Nanos{0}, AirImpl::LinkCheck{peer, generation},
                        note("answer", c, peer, std::move(detail)),
                        [peer, handle, error = std::move(error)](radio::CentralEvents& rx) {
                          rx.radioValueWritten(peer, handle, error);
                        });
}

// --- Requests as they arrive at the peer (one link latency after asking) ---

void serveServices(AirImpl& air, std::uint64_t id, const PeripheralId& peer,
                   std::uint64_t generation, const std::optional<std::vector<CBUUID>>& filter) {
  std::lock_guard lock(air.mutex_);
  CentralState* c = linkedLocked(air, id, peer, generation);
  if (!c) return;
  std::vector<radio::RemoteService> found;
  if (auto device = air.deviceLocked(peer)) {
    if (device->dropOn.erase("services")) {
      air.dropCentralLinkLocked(*c, peer, droppedError());
      return;
    }
    found = listServices(device->services, filter);
  } else if (auto peripheral = air.peripheralAtLocked(peer)) {
    found = listServices(peripheral->services, filter);
  }
  air.postCentralLocked(id, Nanos{0}, AirImpl::LinkCheck{peer, generation},
                        note("services", *c, peer, std::to_string(found.size()) + " found"),
                        [peer, found = std::move(found)](radio::CentralEvents& rx) {
                          rx.radioServicesDiscovered(peer, found, std::nullopt);
                        });
}

void serveCharacteristics(AirImpl& air, std::uint64_t id, const PeripheralId& peer,
                          std::uint64_t generation, AttHandle service,
                          const std::optional<std::vector<CBUUID>>& filter) {
  std::lock_guard lock(air.mutex_);
  CentralState* c = linkedLocked(air, id, peer, generation);
  if (!c) return;
  const std::vector<GattService>* services = nullptr;
  if (auto device = air.deviceLocked(peer)) {
    if (device->dropOn.erase("characteristics")) {
      air.dropCentralLinkLocked(*c, peer, droppedError());
      return;
    }
    services = &device->services;
  } else if (auto peripheral = air.peripheralAtLocked(peer)) {
    services = &peripheral->services;
  }
  std::vector<radio::RemoteCharacteristic> found;
  std::optional<Error> error =
      linkError(CBError::InvalidHandle, "The specified handle is invalid.");
  if (services) {
    for (const auto& s : *services) {
      if (s.handle != service) continue;
      error.reset();
      for (const auto& ch : s.characteristics) {
        if (wantedUuid(filter, ch.uuid)) found.push_back({ch.handle, ch.uuid, ch.properties});
      }
      break;
    }
  }
  air.postCentralLocked(
      id, Nanos{0}, AirImpl::LinkCheck{peer, generation},
      note("characteristics", *c, peer,
           handleText(service) + (error ? " invalid" : ": " + std::to_string(found.size()))),
      [peer, service, found = std::move(found), error](radio::CentralEvents& rx) {
        rx.radioCharacteristicsDiscovered(peer, service, found, error);
      });
}

void serveRead(AirImpl& air, std::uint64_t id, const PeripheralId& peer, std::uint64_t generation,
               AttHandle handle) {
  TraceLater trace(air);
  std::unique_lock lock(air.mutex_);
  CentralState* c = linkedLocked(air, id, peer, generation);
  if (!c) return;
  trace.set(note("read", *c, peer, handleText(handle)));

  if (auto peripheral = air.peripheralAtLocked(peer)) {
    Located at = findByHandle(peripheral->services, handle);
    if (!at.characteristic) {
      return postValue(air, *c, peer, generation, handle, std::nullopt,
                       attError(CBATTError::InvalidHandle));
    }
    if (!(at.characteristic->properties & CBCharacteristicPropertyRead)) {
      return postValue(air, *c, peer, generation, handle, std::nullopt,
                       attError(CBATTError::ReadNotPermitted));
    }
    if (at.characteristic->fixedValue) {
      return postValue(air, *c, peer, generation, handle, at.characteristic->fixedValue,
                       std::nullopt);
    }
    radio::AttRequest request;
    request.id = peripheral->nextRequest++;
    request.central = c->address;
    request.service = at.service->token;
    request.characteristic = at.index;
    request.maximumUpdateValueLength = kMaximumUpdateValueLength;
    PendingRequest pending;
    pending.read = true;
    pending.handle = handle;
    pending.central = id;
    pending.linkGeneration = generation;
    peripheral->pending.emplace(request.id, std::move(pending));
    air.postPeripheralLocked(
        peripheral->id, Nanos{0}, std::nullopt,
        [request](radio::PeripheralEvents& rx) { rx.radioReadRequest(request); });
    return;
  }

  auto device = air.deviceLocked(peer);
  if (!device) return;
  if (device->dropOn.erase("read")) return air.dropCentralLinkLocked(*c, peer, droppedError());
  Located at = findByHandle(device->services, handle);
  const std::optional<CBATTError> failure = accessFailure(
      at, CBCharacteristicPropertyRead, CBATTError::ReadNotPermitted, device->readFailure);
  if (failure)
    return postValue(air, *c, peer, generation, handle, std::nullopt, attError(*failure));
  if (!at.characteristic->onRead) {
    return postValue(air, *c, peer, generation, handle, at.characteristic->value, std::nullopt);
  }

  // The device's handler is application code: it runs with the air unlocked.
  auto onRead = at.characteristic->onRead;
  lock.unlock();
  auto [result, bytes] = onRead(0);
  lock.lock();
  c = linkedLocked(air, id, peer, generation);
  if (!c) return;
  if (result == CBATTError::Success) {
    postValue(air, *c, peer, generation, handle, std::move(bytes), std::nullopt);
  } else {
    postValue(air, *c, peer, generation, handle, std::nullopt, attError(result));
  }
}

void serveWrite(AirImpl& air, std::uint64_t id, const PeripheralId& peer, std::uint64_t generation,
                AttHandle handle, const Bytes& value, bool withResponse) {
  TraceLater trace(air);
  std::unique_lock lock(air.mutex_);
  CentralState* c = linkedLocked(air, id, peer, generation);
  if (!c) return;
  trace.set(note("write", *c, peer, handleText(handle) + (withResponse ? "" : " without response"),
                 value));
  const std::uint8_t needed =
      withResponse ? CBCharacteristicPropertyWrite : CBCharacteristicPropertyWriteWithoutResponse;

  if (auto peripheral = air.peripheralAtLocked(peer)) {
    Located at = findByHandle(peripheral->services, handle);
    std::optional<CBATTError> failure;
    if (!at.characteristic) {
      failure = CBATTError::InvalidHandle;
    } else if (!(at.characteristic->properties & needed) || at.characteristic->fixedValue) {
      failure = CBATTError::WriteNotPermitted;
    }
    if (failure) {
      // A write command that is refused is dropped without a word.
      if (withResponse) postWritten(air, *c, peer, generation, handle, attError(*failure));
      return;
    }
    radio::AttRequest request;
    request.id = peripheral->nextRequest++;
    request.central = c->address;
    request.service = at.service->token;
    request.characteristic = at.index;
    request.value = value;
    request.maximumUpdateValueLength = kMaximumUpdateValueLength;
    if (withResponse) {
      PendingRequest pending;
      pending.handle = handle;
      pending.central = id;
      pending.linkGeneration = generation;
      peripheral->pending.emplace(request.id, std::move(pending));
    }
    air.postPeripheralLocked(
        peripheral->id, Nanos{0}, std::nullopt,
        [request](radio::PeripheralEvents& rx) { rx.radioWriteRequests({request}); });
    return;
  }

  auto device = air.deviceLocked(peer);
  if (!device) return;
  if (device->dropOn.erase("write")) return air.dropCentralLinkLocked(*c, peer, droppedError());
  Located at = findByHandle(device->services, handle);
  const std::optional<CBATTError> failure =
      accessFailure(at, needed, CBATTError::WriteNotPermitted, device->writeFailure);
  if (failure) {
    if (withResponse) postWritten(air, *c, peer, generation, handle, attError(*failure));
    return;
  }

  CBATTError result = CBATTError::Success;
  if (auto onWrite = at.characteristic->onWrite) {
    lock.unlock();
    result = onWrite(value);
    lock.lock();
    c = linkedLocked(air, id, peer, generation);
    if (!c) return;
    device = air.deviceLocked(peer);
    if (!device) return;
    at = findByHandle(device->services, handle);
    if (!at.characteristic) return;
  } else {
    at.characteristic->value = value;
  }
  if (result == CBATTError::Success) device->writeLog.emplace_back(at.characteristic->uuid, value);
  if (withResponse) {
    postWritten(
        air, *c, peer, generation, handle,
        result == CBATTError::Success ? std::nullopt : std::optional<Error>(attError(result)));
  }
  if (at.characteristic->echoWrites && result == CBATTError::Success) {
    air.postCentralLocked(id, Nanos{0}, AirImpl::LinkCheck{peer, generation},
                          note("notify", *c, peer, handleText(handle) + " echo", value),
                          [peer, handle, value](radio::CentralEvents& rx) {
                            rx.radioValueUpdated(peer, handle, value, std::nullopt);
                          });
  }
}

void completeAttempt(AirImpl& air, std::uint64_t id, const PeripheralId& peer,
                     std::uint64_t generation) {
  std::lock_guard lock(air.mutex_);
  auto c = air.centrals_.find(id);
  if (c == air.centrals_.end()) return;
  auto link = c->second->links.find(peer);
  if (link == c->second->links.end() || link->second.connected ||
      link->second.generation != generation || air.state_ != CBManagerState::PoweredOn) {
    return;
  }
  // A peer that went away meanwhile leaves the attempt pending, as a
  // controller keeps listening for it.
  auto device = air.deviceLocked(peer);
  if (device) {
    if (!device->connectable) return;
    device->links.insert(id);
  } else {
    auto peripheral = air.peripheralAtLocked(peer);
    if (!peripheral || !peripheral->advertiser->advertising) return;
  }
  link->second.connected = true;
  air.postCentralLocked(id, Nanos{0}, AirImpl::LinkCheck{peer, generation},
                        note("connect", *c->second, peer, "connected"),
                        [peer](radio::CentralEvents& rx) { rx.radioConnected(peer); });
}

void refuseAttempt(AirImpl& air, std::uint64_t id, const PeripheralId& peer,
                   std::uint64_t generation) {
  std::lock_guard lock(air.mutex_);
  auto c = air.centrals_.find(id);
  if (c == air.centrals_.end()) return;
  auto link = c->second->links.find(peer);
  if (link == c->second->links.end() || link->second.connected ||
      link->second.generation != generation) {
    return;
  }
  c->second->links.erase(link);
  Error error = linkError(CBError::ConnectionFailed, "The device refused the connection.");
  air.postCentralLocked(
      id, Nanos{0}, std::nullopt, note("connect", *c->second, peer, "refused"),
      [peer, error](radio::CentralEvents& rx) { rx.radioConnectFailed(peer, error); });
}

// Answers a pending attempt as the peer is set to: after the link latency
// (and a slow device's delay), accepted or refused; an ignoring or absent
// peer leaves it pending.
void scheduleAttemptLocked(AirImpl& air, std::uint64_t id, const PeripheralId& peer,
                           std::uint64_t generation) {
  ConnectBehaviour behaviour = ConnectBehaviour::Ignore;
  Nanos delay{0};
  if (auto device = air.deviceLocked(peer)) {
    if (device->connectable) behaviour = device->behaviour;
    delay = device->connectDelay;
  } else if (auto peripheral = air.peripheralAtLocked(peer)) {
    if (peripheral->advertiser->advertising) behaviour = ConnectBehaviour::Accept;
  }
  AirImpl* a = &air;
  if (behaviour == ConnectBehaviour::Accept) {
    air.scheduleLocked(air.latency_ + delay,
                       [a, id, peer, generation] { completeAttempt(*a, id, peer, generation); });
  } else if (behaviour == ConnectBehaviour::Refuse) {
    air.scheduleLocked(air.latency_ + delay,
                       [a, id, peer, generation] { refuseAttempt(*a, id, peer, generation); });
  }
}

class CentralSession final : public radio::CentralRadio {
 public:
  CentralSession(std::shared_ptr<AirImpl> air, std::uint64_t id) : air_(std::move(air)), id_(id) {}
  ~CentralSession() override { close(); }

  CBManagerState state() const override { return air_->adapterState(); }

  void startScan(const radio::ScanParameters& parameters) override {
    std::lock_guard lock(air_->mutex_);
    CentralState* c = centralLocked();
    // Scanning needs a powered adapter; after a power cycle the manager
    // starts again itself.
    if (!c || air_->state_ != CBManagerState::PoweredOn) return;
    c->scanning = true;
    c->scanServices = parameters.services;
    air_->rebuildScannersLocked();
  }

  void stopScan() override {
    std::lock_guard lock(air_->mutex_);
    CentralState* c = centralLocked();
    if (!c || !c->scanning) return;
    c->scanning = false;
    air_->rebuildScannersLocked();
  }

  void connect(const PeripheralId& peer) override {
    std::lock_guard lock(air_->mutex_);
    CentralState* c = centralLocked();
    if (!c || air_->state_ != CBManagerState::PoweredOn || c->links.count(peer)) return;
    const std::uint64_t generation = air_->nextLinkGeneration_++;
    c->links[peer] = CentralState::Link{false, generation};
    scheduleAttemptLocked(*air_, id_, peer, generation);
  }

  void cancelConnection(const PeripheralId& peer) override {
    std::lock_guard lock(air_->mutex_);
    CentralState* c = centralLocked();
    if (!c) return;
    auto link = c->links.find(peer);
    if (link == c->links.end()) return;
    c->links.erase(link);
    if (auto device = air_->deviceLocked(peer)) device->links.erase(id_);
    air_->forgetRequestsLocked(id_, peer);
    air_->postCentralLocked(
        id_, air_->latency_, std::nullopt, note("disconnect", *c, peer, "cancelled"),
        [peer](radio::CentralEvents& rx) { rx.radioDisconnected(peer, std::nullopt); });
  }

  void discoverServices(const PeripheralId& peer,
                        const std::optional<std::vector<CBUUID>>& filter) override {
    request(
        peer,
        [filter](AirImpl& air, std::uint64_t id, const PeripheralId& p, std::uint64_t g) {
          serveServices(air, id, p, g, filter);
        },
        [peer](radio::CentralEvents& rx) {
          rx.radioServicesDiscovered(peer, {}, notConnectedError());
        });
  }

  void discoverCharacteristics(const PeripheralId& peer, AttHandle service,
                               const std::optional<std::vector<CBUUID>>& filter) override {
    request(
        peer,
        [service, filter](AirImpl& air, std::uint64_t id, const PeripheralId& p, std::uint64_t g) {
          serveCharacteristics(air, id, p, g, service, filter);
        },
        [peer, service](radio::CentralEvents& rx) {
          rx.radioCharacteristicsDiscovered(peer, service, {}, notConnectedError());
        });
  }

  void read(const PeripheralId& peer, AttHandle characteristic) override {
    request(
        peer,
        [characteristic](AirImpl& air, std::uint64_t id, const PeripheralId& p, std::uint64_t g) {
          serveRead(air, id, p, g, characteristic);
        },
        [peer, characteristic](radio::CentralEvents& rx) {
          rx.radioValueUpdated(peer, characteristic, std::nullopt, notConnectedError());
        });
  }

  void write(const PeripheralId& peer, AttHandle characteristic, const Bytes& value,
             bool withResponse) override {
    std::function<void(radio::CentralEvents&)> notConnected;
    if (withResponse) {
      notConnected = [peer, characteristic](radio::CentralEvents& rx) {
        rx.radioValueWritten(peer, characteristic, notConnectedError());
      };
    }
    request(
        peer,
        [characteristic, value, withResponse](AirImpl& air, std::uint64_t id, const PeripheralId& p,
                                              std::uint64_t g) {
          serveWrite(air, id, p, g, characteristic, value, withResponse);
        },
        std::move(notConnected));
  }

  void close() override {
    std::shared_ptr<CentralState> gone;  // released after the lock
    std::lock_guard lock(air_->mutex_);
    auto it = air_->centrals_.find(id_);
    if (it == air_->centrals_.end()) return;
    gone = it->second;
    air_->centrals_.erase(it);
    if (gone->scanning) air_->rebuildScannersLocked();
    for (const auto& [peer, link] : gone->links) {
      if (auto device = air_->deviceLocked(peer)) device->links.erase(id_);
      air_->forgetRequestsLocked(id_, peer);
    }
  }

 private:
  using Serve = std::function<void(AirImpl&, std::uint64_t, const PeripheralId&, std::uint64_t)>;

  CentralState* centralLocked() const {
    auto it = air_->centrals_.find(id_);
    return it == air_->centrals_.end() ? nullptr : it->second.get();
  }

  // A request travels for one link latency and is served by the peer; with
  // no link it fails with `notConnected` (if given) instead.
  void request(const PeripheralId& peer, Serve serve,
               std::function<void(radio::CentralEvents&)> notConnected) {
    std::lock_guard lock(air_->mutex_);
    CentralState* c = centralLocked();
    if (!c) return;
    auto link = c->links.find(peer);
    if (link == c->links.end() || !link->second.connected) {
      if (notConnected) {
        air_->postCentralLocked(id_, Nanos{0}, std::nullopt, std::nullopt, std::move(notConnected));
      }
      return;
    }
    AirImpl* air = air_.get();
    air->scheduleLocked(air->latency_,
                        [air, id = id_, peer, generation = link->second.generation,
                         serve = std::move(serve)] { serve(*air, id, peer, generation); });
  }

  std::shared_ptr<AirImpl> air_;
  const std::uint64_t id_;
};

}  // namespace

std::shared_ptr<radio::CentralRadio> AirImpl::openCentral(
    std::weak_ptr<radio::CentralEvents> events) {
  std::lock_guard lock(mutex_);
  auto c = std::make_shared<CentralState>();
  c->id = nextSession_++;
  const unsigned n = nextCentralAddress_++;
  char address[18];
  std::snprintf(address, sizeof address, "5C:00:00:00:%02X:%02X", (n >> 8) & 0xFF, n & 0xFF);
  c->address = address;
  c->events = std::move(events);
  centrals_.emplace(c->id, c);
  return std::make_shared<CentralSession>(shared_from_this(), c->id);
}

void AirImpl::dropCentralLinkLocked(CentralState& central, const PeripheralId& peer,
                                    const Error& error) {
  auto link = central.links.find(peer);
  if (link == central.links.end()) return;
  central.links.erase(link);
  if (auto device = deviceLocked(peer)) device->links.erase(central.id);
  forgetRequestsLocked(central.id, peer);
  postCentralLocked(central.id, Nanos{0}, std::nullopt,
                    note("disconnect", central, peer, "dropped: " + error.text),
                    [peer, error](radio::CentralEvents& rx) { rx.radioDisconnected(peer, error); });
}

void AirImpl::forgetRequestsLocked(std::uint64_t central, const PeripheralId& peer) {
  auto peripheral = peripheralAtLocked(peer);
  if (!peripheral) return;
  std::erase_if(peripheral->pending,
                [central](const auto& entry) { return entry.second.central == central; });
}

void AirImpl::retryAttemptsLocked(const PeripheralId& peer) {
  for (const auto& [id, central] : centrals_) {
    auto link = central->links.find(peer);
    if (link != central->links.end() && !link->second.connected) {
      scheduleAttemptLocked(*this, id, peer, link->second.generation);
    }
  }
}

// --- Virtual devices ---------------------------------------------------------

SimDevice::SimDevice(std::weak_ptr<AirImpl> air, std::string address)
    : air_(std::move(air)), address_(std::move(address)) {}

namespace {
// Runs `change` with the air locked, unless the air or the device is gone.
template <class F>
void withAir(const std::weak_ptr<AirImpl>& weak, const SimDevice& device, F&& change) {
  auto air = weak.lock();
  if (!air) return;
  std::lock_guard lock(air->mutex_);
  if (!device.removed) change(*air);
}
}  // namespace

void SimDevice::setAdvertising(bool on) {
  withAir(air_, *this, [&](AirImpl& air) {
    if (on) {
      air.startAdvertiserLocked(advertiser);
    } else {
      air.stopAdvertiserLocked(*advertiser);
    }
  });
}

void SimDevice::setLocalName(std::optional<std::string> name) {
  withAir(air_, *this, [&](AirImpl&) {
    advertiser->content.localName = std::move(name);
    ++advertiser->contentVersion;
  });
}

void SimDevice::setManufacturerData(Data data) {
  withAir(air_, *this, [&](AirImpl&) {
    advertiser->content.manufacturerData = std::move(data);
    ++advertiser->contentVersion;
  });
}

void SimDevice::setDistance(double metres) {
  withAir(air_, *this, [&](AirImpl&) {
    if (!std::isfinite(metres)) return;
    advertiser->distance = std::max(metres, 0.0);
    advertiser->path.clear();  // a position given now replaces the walk
  });
}

void SimDevice::setPath(std::vector<Waypoint> path) {
  std::stable_sort(path.begin(), path.end(),
                   [](const Waypoint& a, const Waypoint& b) { return a.at < b.at; });
  withAir(air_, *this, [&](AirImpl&) { advertiser->path = std::move(path); });
}

void SimDevice::setPacketLoss(double probability) {
  withAir(air_, *this, [&](AirImpl&) {
    advertiser->packetLoss = std::isfinite(probability) ? std::clamp(probability, 0.0, 1.0) : 0.0;
  });
}

void SimDevice::setConnectable(bool on) {
  withAir(air_, *this, [&](AirImpl& air) {
    if (connectable == on) return;
    connectable = on;
    advertiser->content.isConnectable = on;
    ++advertiser->contentVersion;
    if (on) return air.retryAttemptsLocked(address_);
    const std::set<std::uint64_t> linked = links;
    for (std::uint64_t id : linked) {
      auto c = air.centrals_.find(id);
      if (c != air.centrals_.end())
        air.dropCentralLinkLocked(*c->second, address_, peerGoneError());
    }
  });
}

void SimDevice::setConnectBehaviour(ConnectBehaviour how, Nanos delay) {
  withAir(air_, *this, [&](AirImpl& air) {
    behaviour = how;
    connectDelay = std::max(delay, Nanos{0});
    // Waiting centrals hear the new answer (a controller keeps trying).
    air.retryAttemptsLocked(address_);
  });
}

void SimDevice::dropLink() {
  withAir(air_, *this, [&](AirImpl& air) {
    const std::set<std::uint64_t> linked = links;
    for (std::uint64_t id : linked) {
      auto c = air.centrals_.find(id);
      if (c != air.centrals_.end()) air.dropCentralLinkLocked(*c->second, address_, droppedError());
    }
  });
}

void SimDevice::dropLinkOn(const std::string& request) {
  if (request != "services" && request != "characteristics" && request != "read" &&
      request != "write") {
    throw std::invalid_argument("dropLinkOn: unknown request kind \"" + request +
                                "\" (services, characteristics, read, write)");
  }
  withAir(air_, *this, [&](AirImpl&) { dropOn.insert(request); });
}

void SimDevice::failReads(std::optional<CBATTError> error) {
  withAir(air_, *this, [&](AirImpl&) { readFailure = error; });
}

void SimDevice::failWrites(std::optional<CBATTError> error) {
  withAir(air_, *this, [&](AirImpl&) { writeFailure = error; });
}

void SimDevice::pushValueUpdate(const CBUUID& characteristic, const Data& value,
                                const std::optional<Error>& error) {
  withAir(air_, *this, [&](AirImpl& air) {
    AttHandle handle = 0;
    for (const auto& s : services) {
      for (const auto& c : s.characteristics) {
        if (c.uuid == characteristic && handle == 0) handle = c.handle;
      }
    }
    if (handle == 0) return;
    for (std::uint64_t id : links) {
      auto c = air.centrals_.find(id);
      if (c == air.centrals_.end()) continue;
      auto link = c->second->links.find(address_);
      if (link == c->second->links.end()) continue;
      air.postCentralLocked(id, air.latency_, AirImpl::LinkCheck{address_, link->second.generation},
                            TraceNote{"notify", address_, c->second->address, handleText(handle),
                                      value.value_or(Bytes{})},
                            [peer = address_, handle, value, error](radio::CentralEvents& rx) {
                              rx.radioValueUpdated(peer, handle, value, error);
                            });
    }
  });
}

bool SimDevice::isConnected() const {
  auto air = air_.lock();
  if (!air) return false;
  std::lock_guard lock(air->mutex_);
  return !links.empty();
}

std::vector<Bytes> SimDevice::writesTo(const CBUUID& characteristic) const {
  auto air = air_.lock();
  if (!air) return {};
  std::lock_guard lock(air->mutex_);
  std::vector<Bytes> out;
  for (const auto& [uuid, value] : writeLog) {
    if (uuid == characteristic) out.push_back(value);
  }
  return out;
}

}  // namespace lumora::sim::detail
