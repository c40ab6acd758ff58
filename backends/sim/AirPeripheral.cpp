// The peripheral side of the air: peripheral sessions (what a
// CBPeripheralManager asks of the radio: the emulator's side) and the
// virtual centrals that drive them from the test's side. A peripheral
// session is one more advertiser in the air, and its registered services
// are what any connecting central discovers.
#include <algorithm>
#include <cstdio>
#include <utility>

#include "backends/sim/AirImpl.h"

namespace lumora::sim::detail {
namespace {

class PeripheralSession final : public radio::PeripheralRadio {
 public:
  PeripheralSession(std::shared_ptr<AirImpl> air, std::uint64_t id)
      : air_(std::move(air)), id_(id) {}
  ~PeripheralSession() override { close(); }

  CBManagerState state() const override { return air_->adapterState(); }

  void addService(radio::ServiceToken token, const radio::LocalService& service) override {
    std::lock_guard lock(air_->mutex_);
    PeripheralState* p = peripheralLocked();
    if (!p) return;
    std::optional<Error> failure;
    if (air_->state_ != CBManagerState::PoweredOn) {
      failure = linkError(CBError::Unknown, "The adapter is not powered on.");
    } else if (air_->failNextRegistration_) {
      failure = std::exchange(air_->failNextRegistration_, std::nullopt);
    }
    if (failure) {
      air_->postPeripheralLocked(
          id_, air_->latency_,
          TraceNote{"register", p->advertiser->address, "", "failed: " + failure->text, {}},
          [token, failure](radio::PeripheralEvents& rx) { rx.radioServiceAdded(token, failure); });
      return;
    }
    GattService registered;
    registered.uuid = service.uuid;
    registered.primary = service.primary;
    registered.token = token;
    for (const auto& c : service.characteristics) {
      GattCharacteristic gc;
      gc.uuid = c.uuid;
      gc.properties = c.properties;
      gc.fixedValue = c.value;
      registered.characteristics.push_back(std::move(gc));
    }
    p->registering.insert(token);
    AirImpl* air = air_.get();
    air->scheduleLocked(air->latency_, [air, id = id_, registered = std::move(registered)] {
      complete(*air, id, registered);
    });
  }

  void removeService(radio::ServiceToken token) override {
    std::lock_guard lock(air_->mutex_);
    PeripheralState* p = peripheralLocked();
    if (!p) return;
    p->registering.erase(token);
    std::erase_if(p->services, [token](const GattService& s) { return s.token == token; });
  }

  void removeAllServices() override {
    std::lock_guard lock(air_->mutex_);
    PeripheralState* p = peripheralLocked();
    if (!p) return;
    p->registering.clear();
    p->services.clear();
  }

  void startAdvertising(const CBAdvertisementData& data) override {
    std::lock_guard lock(air_->mutex_);
    PeripheralState* p = peripheralLocked();
    if (!p) return;
    std::optional<Error> failure;
    if (air_->state_ == CBManagerState::PoweredOn) {
      p->advertiser->content = data;
      p->advertiser->content.isConnectable = true;
      ++p->advertiser->contentVersion;
      air_->startAdvertiserLocked(p->advertiser);
      air_->retryAttemptsLocked(p->advertiser->address);
    } else {
      failure = linkError(CBError::Unknown, "The adapter is not powered on.");
    }
    air_->postPeripheralLocked(
        id_, Nanos{0},
        TraceNote{"advertise", p->advertiser->address, "",
                  failure ? "failed: " + failure->text
                          : "started " + data.localName.value_or(std::string()),
                  data.manufacturerData.value_or(Bytes{})},
        [failure](radio::PeripheralEvents& rx) { rx.radioAdvertisingStarted(failure); });
  }

  void stopAdvertising() override {
    std::lock_guard lock(air_->mutex_);
    if (PeripheralState* p = peripheralLocked()) air_->stopAdvertiserLocked(*p->advertiser);
  }

  void respond(radio::RequestId request, CBATTError result, const Data& value) override {
    TraceLater trace(*air_);
    std::lock_guard lock(air_->mutex_);
    PeripheralState* p = peripheralLocked();
    if (!p) return;
    auto it = p->pending.find(request);
    if (it == p->pending.end()) return;  // unknown, or answered already
    PendingRequest pending = std::move(it->second);
    p->pending.erase(it);

    const std::string& address = p->advertiser->address;
    const std::optional<Error> error =
        result == CBATTError::Success ? std::nullopt : std::optional<Error>(attError(result));
    // A null read value goes on the air as a zero-length value.
    Data answer;
    if (pending.read && result == CBATTError::Success) answer = value.value_or(Bytes{});

    if (pending.central != 0) {
      auto c = air_->centrals_.find(pending.central);
      if (c == air_->centrals_.end()) return;
      const std::string detail = handleText(pending.handle) + (error ? " " + error->text : "");
      AirImpl::LinkCheck check{address, pending.linkGeneration};
      TraceNote note{"answer", address, c->second->address, detail, answer.value_or(Bytes{})};
      const AttHandle handle = pending.handle;
      if (pending.read) {
        air_->postCentralLocked(pending.central, air_->latency_, check, std::move(note),
                                [address, handle, answer, error](radio::CentralEvents& rx) {
                                  rx.radioValueUpdated(address, handle, answer, error);
                                });
      } else {
        air_->postCentralLocked(pending.central, air_->latency_, check, std::move(note),
                                [address, handle, error](radio::CentralEvents& rx) {
                                  rx.radioValueWritten(address, handle, error);
                                });
      }
      return;
    }

    if (!pending.remote || pending.remote->peer != id_ ||
        pending.remote->generation != pending.linkGeneration) {
      return;
    }
    trace.set(TraceNote{"answer", address, pending.remote->address(),
                        handleText(pending.handle) + (error ? " " + error->text : ""),
                        answer.value_or(Bytes{})});
    if (pending.batch) {
      pending.batch->results[pending.batchIndex] = result;
      if (--pending.batch->remaining > 0) return;
      air_->scheduleLocked(air_->latency_, [batch = pending.batch] {
        if (batch->done) batch->done(batch->results);
      });
    } else if (pending.read) {
      air_->scheduleLocked(air_->latency_, [done = std::move(pending.readDone), result, answer] {
        if (done) done(result, answer);
      });
    } else {
      air_->scheduleLocked(air_->latency_, [done = std::move(pending.writeDone), result] {
        if (done) done(result);
      });
    }
  }

  void close() override {
    std::shared_ptr<PeripheralState> gone;  // released after the lock
    std::lock_guard lock(air_->mutex_);
    auto it = air_->peripherals_.find(id_);
    if (it == air_->peripherals_.end()) return;
    gone = it->second;
    air_->stopAdvertiserLocked(*gone->advertiser);
    air_->dropLinksToPeripheralLocked(*gone, peerGoneError());
    air_->peripherals_.erase(it);
    air_->peripheralByAddress_.erase(gone->advertiser->address);
  }

 private:
  PeripheralState* peripheralLocked() const {
    auto it = air_->peripherals_.find(id_);
    return it == air_->peripherals_.end() ? nullptr : it->second.get();
  }

  static void complete(AirImpl& air, std::uint64_t id, GattService service) {
    std::lock_guard lock(air.mutex_);
    auto it = air.peripherals_.find(id);
    if (it == air.peripherals_.end()) return;
    PeripheralState& p = *it->second;
    const radio::ServiceToken token = service.token;
    if (!p.registering.erase(token)) return;  // withdrawn before it was confirmed
    std::optional<Error> error;
    if (assignHandles(service, p.nextHandle)) {
      p.services.push_back(std::move(service));
    } else {
      error = linkError(CBError::OutOfSpace, "The GATT database is full.");
    }
    air.postPeripheralLocked(
        id, Nanos{0},
        TraceNote{"register",
                  p.advertiser->address,
                  "",
                  error ? "failed: " + error->text
                        : "service " + p.services.back().uuid.UUIDString() + " at " +
                              handleText(p.services.back().handle),
                  {}},
        [token, error](radio::PeripheralEvents& rx) { rx.radioServiceAdded(token, error); });
  }

  std::shared_ptr<AirImpl> air_;
  const std::uint64_t id_;
};

struct Target {
  radio::ServiceToken token = 0;
  std::size_t index = 0;
  AttHandle handle = 0;
  std::uint8_t properties = 0;
  Data fixedValue;
};

// The first characteristic of `uuid` among the registered services, in order.
std::optional<Target> findTarget(const PeripheralState& p, const CBUUID& uuid) {
  for (const auto& s : p.services) {
    for (std::size_t i = 0; i < s.characteristics.size(); ++i) {
      const auto& c = s.characteristics[i];
      if (c.uuid == uuid) return Target{s.token, i, c.handle, c.properties, c.fixedValue};
    }
  }
  return std::nullopt;
}

bool registered(const PeripheralState& p, radio::ServiceToken token) {
  return std::any_of(p.services.begin(), p.services.end(),
                     [token](const GattService& s) { return s.token == token; });
}

}  // namespace

std::shared_ptr<radio::PeripheralRadio> AirImpl::openPeripheral(
    std::weak_ptr<radio::PeripheralEvents> events) {
  std::lock_guard lock(mutex_);
  auto p = std::make_shared<PeripheralState>();
  p->id = nextSession_++;
  p->events = std::move(events);
  p->advertiser = std::make_shared<Advertiser>(nextDeviceAddressLocked());
  p->advertiser->distance = localDistance_;
  peripheralByAddress_.emplace(p->advertiser->address, p->id);
  peripherals_.emplace(p->id, p);
  return std::make_shared<PeripheralSession>(shared_from_this(), p->id);
}

void AirImpl::endRemoteLinkLocked(SimCentral& remote) {
  if (remote.peer == 0) return;
  auto it = peripherals_.find(remote.peer);
  remote.peer = 0;
  if (it == peripherals_.end()) return;
  // Requests still waiting for the manager's answer complete with an error
  // for the central; the manager is not told, and its late answers are
  // ignored.
  auto& pending = it->second->pending;
  for (auto entry = pending.begin(); entry != pending.end();) {
    PendingRequest& r = entry->second;
    if (r.remote.get() != &remote) {
      ++entry;
      continue;
    }
    if (r.batch) {
      r.batch->results[r.batchIndex] = CBATTError::UnlikelyError;
      if (--r.batch->remaining == 0) {
        scheduleLocked(Nanos{0}, [batch = r.batch] {
          if (batch->done) batch->done(batch->results);
        });
      }
    } else if (r.read) {
      scheduleLocked(Nanos{0}, [done = std::move(r.readDone)] {
        if (done) done(CBATTError::UnlikelyError, std::nullopt);
      });
    } else {
      scheduleLocked(Nanos{0}, [done = std::move(r.writeDone)] {
        if (done) done(CBATTError::UnlikelyError);
      });
    }
    entry = pending.erase(entry);
  }
}

void AirImpl::dropLinksToPeripheralLocked(PeripheralState& peripheral, const Error& error) {
  const std::string& address = peripheral.advertiser->address;
  for (const auto& [id, central] : centrals_) {
    auto link = central->links.find(address);
    if (link != central->links.end() && link->second.connected) {
      dropCentralLinkLocked(*central, address, error);
    }
  }
  for (const auto& remote : remotes_) {
    if (remote->peer != peripheral.id) continue;
    endRemoteLinkLocked(*remote);
    scheduleLocked(
        Nanos{0},
        [this,
         note = TraceNote{"disconnect", remote->address(), address, "dropped: " + error.text, {}}] {
          if (tracing()) record(now(), note);
        });
  }
}

std::shared_ptr<VirtualCentral> AirImpl::addCentral(std::string address) {
  std::lock_guard lock(mutex_);
  if (address.empty()) {
    const unsigned n = nextCentralAddress_++;
    char text[18];
    std::snprintf(text, sizeof text, "5C:00:00:00:%02X:%02X", (n >> 8) & 0xFF, n & 0xFF);
    address = text;
  }
  auto remote = std::make_shared<SimCentral>(weak_from_this(), std::move(address));
  remotes_.push_back(remote);
  return remote;
}

// --- Virtual centrals --------------------------------------------------------------

SimCentral::SimCentral(std::weak_ptr<AirImpl> air, std::string address)
    : air_(std::move(air)), address_(std::move(address)) {}

bool SimCentral::connectByName(const std::string& localName) {
  auto air = air_.lock();
  if (!air) return false;
  TraceLater trace(*air);
  std::lock_guard lock(air->mutex_);
  if (air->state_ != CBManagerState::PoweredOn) return false;
  for (const auto& [id, p] : air->peripherals_) {
    if (!p->advertiser->advertising || p->advertiser->content.localName != localName) continue;
    air->endRemoteLinkLocked(*this);
    peer = id;
    generation = air->nextLinkGeneration_++;
    trace.set(TraceNote{"connect", address_, p->advertiser->address, "connected", {}});
    return true;
  }
  return false;
}

void SimCentral::disconnect() {
  auto air = air_.lock();
  if (!air) return;
  TraceLater trace(*air);
  std::lock_guard lock(air->mutex_);
  auto p = air->peripherals_.find(peer);
  if (p == air->peripherals_.end()) return;
  trace.set(TraceNote{"disconnect", address_, p->second->advertiser->address, "requested", {}});
  air->endRemoteLinkLocked(*this);
}

bool SimCentral::isConnected() const {
  auto air = air_.lock();
  if (!air) return false;
  std::lock_guard lock(air->mutex_);
  return peer != 0;
}

std::vector<std::pair<CBUUID, std::vector<CBUUID>>> SimCentral::discover() const {
  auto air = air_.lock();
  if (!air) return {};
  std::lock_guard lock(air->mutex_);
  auto p = air->peripherals_.find(peer);
  if (p == air->peripherals_.end()) return {};
  std::vector<std::pair<CBUUID, std::vector<CBUUID>>> out;
  for (const auto& s : p->second->services) {
    std::vector<CBUUID> characteristics;
    for (const auto& c : s.characteristics) characteristics.push_back(c.uuid);
    out.emplace_back(s.uuid, std::move(characteristics));
  }
  return out;
}

void SimCentral::write(const CBUUID& characteristic, const Bytes& value,
                       std::function<void(CBATTError)> done) {
  writeBatch(characteristic, {value}, [done = std::move(done)](std::vector<CBATTError> results) {
    if (done) done(results.empty() ? CBATTError::UnlikelyError : results.front());
  });
}

void SimCentral::writeBatch(const CBUUID& characteristic, const std::vector<Bytes>& values,
                            std::function<void(std::vector<CBATTError>)> done) {
  auto air = air_.lock();
  if (!air) return;
  std::lock_guard lock(air->mutex_);
  auto fail = [&](CBATTError error, Nanos delay) {
    air->scheduleLocked(delay, [done, error, n = values.size()] {
      if (done) done(std::vector<CBATTError>(n, error));
    });
  };
  auto p = air->peripherals_.find(peer);
  if (p == air->peripherals_.end()) return fail(CBATTError::UnlikelyError, Nanos{0});
  std::optional<Target> target = findTarget(*p->second, characteristic);
  if (!target) return fail(CBATTError::AttributeNotFound, air->latency_);
  if (!(target->properties & CBCharacteristicPropertyWrite) || target->fixedValue) {
    return fail(CBATTError::WriteNotPermitted, air->latency_);
  }
  if (values.empty()) return fail(CBATTError::Success, air->latency_);

  AirImpl* a = air.get();
  a->scheduleLocked(a->latency_, [a, self = shared_from_this(), id = peer, link = generation,
                                  target = *target, values, done] {
    std::function<void(std::vector<CBATTError>)> failed;
    {
      TraceLater trace(*a);
      std::lock_guard lock(a->mutex_);
      auto p = a->peripherals_.find(id);
      if (p == a->peripherals_.end() || self->peer != id || self->generation != link) {
        failed = done;
      } else if (!registered(*p->second, target.token)) {
        return a->scheduleLocked(Nanos{0}, [done, n = values.size()] {
          if (done) done(std::vector<CBATTError>(n, CBATTError::AttributeNotFound));
        });
      } else {
        auto batch = std::make_shared<WriteBatch>();
        batch->results.assign(values.size(), CBATTError::UnlikelyError);
        batch->remaining = values.size();
        batch->done = done;
        std::vector<radio::AttRequest> requests;
        std::size_t offset = 0;
        Bytes joined;
        for (std::size_t i = 0; i < values.size(); ++i) {
          radio::AttRequest r;
          r.id = p->second->nextRequest++;
          r.central = self->address();
          r.service = target.token;
          r.characteristic = target.index;
          // The parts of a prepared write follow one another in the value.
          r.offset = static_cast<std::uint16_t>(std::min<std::size_t>(offset, 0xFFFF));
          r.value = values[i];
          r.maximumUpdateValueLength = kMaximumUpdateValueLength;
          offset += values[i].size();
          joined.insert(joined.end(), values[i].begin(), values[i].end());
          PendingRequest pending;
          pending.handle = target.handle;
          pending.remote = self;
          pending.linkGeneration = link;
          pending.batch = batch;
          pending.batchIndex = i;
          p->second->pending.emplace(r.id, std::move(pending));
          requests.push_back(std::move(r));
        }
        trace.set(TraceNote{
            "write", self->address(), p->second->advertiser->address,
            handleText(target.handle) +
                (values.size() > 1 ? " batch of " + std::to_string(values.size()) : std::string()),
            std::move(joined)});
        a->postPeripheralLocked(id, Nanos{0}, std::nullopt,
                                [requests = std::move(requests)](radio::PeripheralEvents& rx) {
                                  rx.radioWriteRequests(requests);
                                });
      }
    }
    if (failed) failed(std::vector<CBATTError>(values.size(), CBATTError::UnlikelyError));
  });
}

void SimCentral::read(const CBUUID& characteristic, std::uint16_t offset,
                      std::function<void(CBATTError, const Data&)> done) {
  auto air = air_.lock();
  if (!air) return;
  std::lock_guard lock(air->mutex_);
  auto answer = [&](CBATTError error, Data value, Nanos delay) {
    air->scheduleLocked(delay, [done, error, value = std::move(value)] {
      if (done) done(error, value);
    });
  };
  auto p = air->peripherals_.find(peer);
  if (p == air->peripherals_.end())
    return answer(CBATTError::UnlikelyError, std::nullopt, Nanos{0});
  std::optional<Target> target = findTarget(*p->second, characteristic);
  if (!target) return answer(CBATTError::AttributeNotFound, std::nullopt, air->latency_);
  if (!(target->properties & CBCharacteristicPropertyRead)) {
    return answer(CBATTError::ReadNotPermitted, std::nullopt, air->latency_);
  }
  if (target->fixedValue) {
    // A value the radio serves itself, as a read blob would.
    if (offset > target->fixedValue->size()) {
      return answer(CBATTError::InvalidOffset, std::nullopt, air->latency_);
    }
    return answer(CBATTError::Success,
                  Bytes(target->fixedValue->begin() + offset, target->fixedValue->end()),
                  air->latency_);
  }

  AirImpl* a = air.get();
  a->scheduleLocked(a->latency_, [a, self = shared_from_this(), id = peer, link = generation,
                                  target = *target, offset, done] {
    bool failed = false;
    {
      TraceLater trace(*a);
      std::lock_guard lock(a->mutex_);
      auto p = a->peripherals_.find(id);
      if (p == a->peripherals_.end() || self->peer != id || self->generation != link ||
          !registered(*p->second, target.token)) {
        failed = true;
      } else {
        radio::AttRequest r;
        r.id = p->second->nextRequest++;
        r.central = self->address();
        r.service = target.token;
        r.characteristic = target.index;
        r.offset = offset;
        r.maximumUpdateValueLength = kMaximumUpdateValueLength;
        PendingRequest pending;
        pending.read = true;
        pending.handle = target.handle;
        pending.remote = self;
        pending.linkGeneration = link;
        pending.readDone = done;
        p->second->pending.emplace(r.id, std::move(pending));
        trace.set(TraceNote{"read",
                            self->address(),
                            p->second->advertiser->address,
                            handleText(target.handle) + " offset " + std::to_string(offset),
                            {}});
        a->postPeripheralLocked(id, Nanos{0}, std::nullopt,
                                [r](radio::PeripheralEvents& rx) { rx.radioReadRequest(r); });
      }
    }
    if (failed && done) done(CBATTError::UnlikelyError, std::nullopt);
  });
}

}  // namespace lumora::sim::detail
