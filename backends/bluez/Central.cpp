// The central role: scans, links to remote devices and their GATT databases
// as bluetoothd resolves them.
#include <algorithm>
#include <utility>

#include "backends/bluez/Engine.h"

namespace lumora::bluez {

namespace {

// BlueZ answers Connect itself after far longer than we wait (its LE
// connection attempt runs until cancelled); our own timer decides, the D-Bus
// time-out only guards against a peer that never answers.
constexpr std::chrono::seconds kConnectCallSlack{5};

bool wanted(const std::optional<std::vector<CBUUID>>& filter, const CBUUID& uuid) {
  return !filter || std::find(filter->begin(), filter->end(), uuid) != filter->end();
}

}  // namespace

template <class F>
void Engine::toCentral(std::uint64_t session, F&& f) {
  const auto it = centrals_.find(session);
  if (it == centrals_.end()) return;
  if (auto events = it->second.events.lock()) f(*events);
}

// --- sessions -------------------------------------------------------------------------

void Engine::openCentral(std::uint64_t session, std::weak_ptr<radio::CentralEvents> events,
                         CBManagerState seen) {
  centrals_[session].events = std::move(events);
  const auto state = centralState();
  if (state != seen)
    toCentral(session, [state](radio::CentralEvents& e) { e.radioStateChanged(state); });
}

void Engine::closeCentral(std::uint64_t session) {
  const auto it = centrals_.find(session);
  if (it == centrals_.end()) return;
  // Links close without events: the manager is gone.
  auto links = std::move(it->second.links);
  centrals_.erase(it);
  for (auto& [address, link] : links) {
    if (link.timer) RunLoop::main().cancelTimer(*link.timer);
    if (!othersHold(address, session)) disconnectDevice(pathOf(address));
  }
  reconcileDiscovery();
}

void Engine::startScan(std::uint64_t session, const radio::ScanParameters& parameters) {
  const auto it = centrals_.find(session);
  if (it == centrals_.end()) return;
  // As on the platform, a scan asked for while Bluetooth is not on is dropped;
  // the manager asks again once it reports "powered on".
  if (centralState() != CBManagerState::PoweredOn) return;
  it->second.scanning = true;
  it->second.scan = parameters;
  discovery_.stalled = false;
  reconcileDiscovery();
}

void Engine::stopScan(std::uint64_t session) {
  const auto it = centrals_.find(session);
  if (it == centrals_.end()) return;
  it->second.scanning = false;
  reconcileDiscovery();
}

// --- links ----------------------------------------------------------------------------

Engine::Link* Engine::findLink(std::uint64_t session, const radio::PeripheralId& peripheral) {
  const auto it = centrals_.find(session);
  if (it == centrals_.end()) return nullptr;
  const auto link = it->second.links.find(peripheral);
  return link == it->second.links.end() ? nullptr : &link->second;
}

bool Engine::othersHold(const radio::PeripheralId& peripheral, std::uint64_t except) const {
  return std::any_of(centrals_.begin(), centrals_.end(), [&](const auto& entry) {
    return entry.first != except && entry.second.links.count(peripheral) != 0;
  });
}

std::string Engine::pathOf(const radio::PeripheralId& peripheral) const {
  return devicePath(adapterPath_, peripheral);
}

std::string Engine::addressOf(const std::string& path) const {
  if (const auto* device = props(path, kDevice1)) {
    if (const auto* address = dbus::get<std::string>(*device, "Address")) return *address;
  }
  return addressFromDevicePath(path);
}

std::string Engine::deviceOf(const std::string& path) const {
  // GATT objects live below their device, which is a child of the adapter.
  if (!isBelow(path, adapterPath_)) return {};
  return path.substr(0, path.find('/', adapterPath_.size() + 1));
}

void Engine::disconnectDevice(const std::string& devicePath) {
  if (owner_.empty() || props(devicePath, kDevice1) == nullptr) return;
  callBluez(devicePath, kDevice1, "Disconnect", {}, dbus::ReplyKind::None, dbus::kDefaultTimeout,
            [](Engine&, const dbus::Result&) {});
}

void Engine::connect(std::uint64_t session, const radio::PeripheralId& peripheral) {
  const auto it = centrals_.find(session);
  if (it == centrals_.end()) return;
  if (const auto link = it->second.links.find(peripheral);
      link != it->second.links.end() && link->second.phase != Link::Phase::Cancelling) {
    return;  // asked already, or up: nothing more follows
  }
  const auto path = pathOf(peripheral);
  const auto* device = props(path, kDevice1);
  if (centralState() != CBManagerState::PoweredOn || device == nullptr) {
    auto error = linkError(CBError::ConnectionFailed);
    if (device == nullptr) error.text = "Unknown peripheral " + peripheral + ".";
    toCentral(session, [&](radio::CentralEvents& e) { e.radioConnectFailed(peripheral, error); });
    return;
  }
  auto& link = it->second.links[peripheral];
  if (link.timer) RunLoop::main().cancelTimer(*link.timer);
  link = Link{};
  link.attempt = ++attempts_;
  if (const auto* connected = dbus::get<bool>(*device, "Connected"); connected && *connected) {
    linkUp(session, peripheral);  // up already (another client's link): ours now too
    return;
  }
  const auto attempt = link.attempt;
  link.timer = after(options_.connectTimeout, [session, peripheral, attempt](Engine& e) {
    e.connectTimedOut(session, peripheral, attempt);
  });
  callBluez(path, kDevice1, "Connect", {}, dbus::ReplyKind::None,
            options_.connectTimeout + kConnectCallSlack,
            [session, peripheral, attempt](Engine& e, const dbus::Result& result) {
              e.connectReplied(session, peripheral, attempt, result);
            });
}

void Engine::connectReplied(std::uint64_t session, const radio::PeripheralId& peripheral,
                            std::uint64_t attempt, const dbus::Result& result) {
  auto* link = findLink(session, peripheral);
  if (link == nullptr || link->attempt != attempt || link->phase != Link::Phase::Connecting) {
    return;  // cancelled, timed out or replaced meanwhile
  }
  if (!result.error || result.error->name == "org.bluez.Error.AlreadyConnected") {
    linkUp(session, peripheral);
    return;
  }
  // Someone else's attempt is running: its Connected change (or our timer) settles it.
  if (result.error->name == "org.bluez.Error.InProgress") return;
  if (link->timer) RunLoop::main().cancelTimer(*link->timer);
  centrals_[session].links.erase(peripheral);
  const auto error = connectError(*result.error);
  toCentral(session, [&](radio::CentralEvents& e) { e.radioConnectFailed(peripheral, error); });
}

void Engine::connectTimedOut(std::uint64_t session, const radio::PeripheralId& peripheral,
                             std::uint64_t attempt) {
  auto* link = findLink(session, peripheral);
  if (link == nullptr || link->attempt != attempt || link->phase != Link::Phase::Connecting) {
    return;
  }
  centrals_[session].links.erase(peripheral);
  // Disconnect is how BlueZ cancels a pending Connect.
  if (!othersHold(peripheral, session)) disconnectDevice(pathOf(peripheral));
  const auto error = linkError(CBError::ConnectionTimeout);
  toCentral(session, [&](radio::CentralEvents& e) { e.radioConnectFailed(peripheral, error); });
}

void Engine::linkUp(std::uint64_t session, const radio::PeripheralId& peripheral) {
  auto* link = findLink(session, peripheral);
  if (link == nullptr) return;
  if (link->timer) RunLoop::main().cancelTimer(*link->timer);
  link->timer.reset();
  link->phase = Link::Phase::Connected;
  toCentral(session, [&](radio::CentralEvents& e) { e.radioConnected(peripheral); });
}

void Engine::cancelConnection(std::uint64_t session, const radio::PeripheralId& peripheral) {
  auto* link = findLink(session, peripheral);
  if (link == nullptr || link->phase == Link::Phase::Cancelling) return;
  const auto path = pathOf(peripheral);
  if (link->phase == Link::Phase::Connecting || othersHold(peripheral, session)) {
    if (link->timer) RunLoop::main().cancelTimer(*link->timer);
    const bool attempt = link->phase == Link::Phase::Connecting;
    centrals_[session].links.erase(peripheral);
    if (attempt && !othersHold(peripheral, session)) disconnectDevice(path);
    toCentral(session,
              [&](radio::CentralEvents& e) { e.radioDisconnected(peripheral, std::nullopt); });
    return;
  }
  link->phase = Link::Phase::Cancelling;
  const auto attempt = link->attempt;
  callBluez(path, kDevice1, "Disconnect", {}, dbus::ReplyKind::None, dbus::kDefaultTimeout,
            [session, peripheral, attempt](Engine& e, const dbus::Result&) {
              // Normally Connected=false has settled it already.
              auto* l = e.findLink(session, peripheral);
              if (l == nullptr || l->attempt != attempt || l->phase != Link::Phase::Cancelling) {
                return;
              }
              e.centrals_[session].links.erase(peripheral);
              e.toCentral(session, [&](radio::CentralEvents& ev) {
                ev.radioDisconnected(peripheral, std::nullopt);
              });
            });
}

void Engine::deviceConnected(const std::string& devicePath, bool connected) {
  const auto peripheral = addressOf(devicePath);
  std::vector<std::uint64_t> sessions;
  for (auto& [id, session] : centrals_) {
    if (session.links.count(peripheral) != 0) sessions.push_back(id);
  }
  for (const auto id : sessions) {
    auto* link = findLink(id, peripheral);
    if (link == nullptr) continue;
    if (connected) {
      if (link->phase == Link::Phase::Connecting) linkUp(id, peripheral);
      continue;
    }
    // A Connecting link waits for its Connect reply or its timer.
    if (link->phase == Link::Phase::Connecting) continue;
    std::optional<Error> error;
    if (link->phase == Link::Phase::Connected) error = linkError(CBError::PeripheralDisconnected);
    centrals_[id].links.erase(peripheral);
    toCentral(id, [&](radio::CentralEvents& e) { e.radioDisconnected(peripheral, error); });
  }
  if (!connected) {
    for (auto it = expectedEcho_.begin(); it != expectedEcho_.end();) {
      it = isBelow(it->first, devicePath) ? expectedEcho_.erase(it) : std::next(it);
    }
    for (auto it = notifyRequested_.begin(); it != notifyRequested_.end();) {
      it = isBelow(*it, devicePath) ? notifyRequested_.erase(it) : std::next(it);
    }
  }
}

void Engine::forgetDevice(const std::string& devicePath) {
  deviceConnected(devicePath, false);
  // A device object that goes away takes pending attempts with it.
  const auto peripheral = addressOf(devicePath);
  for (auto& [id, session] : centrals_) {
    const auto link = session.links.find(peripheral);
    if (link == session.links.end()) continue;
    if (link->second.timer) RunLoop::main().cancelTimer(*link->second.timer);
    session.links.erase(link);
    const auto error = linkError(CBError::ConnectionFailed);
    if (auto events = session.events.lock()) events->radioConnectFailed(peripheral, error);
  }
  heard_.erase(devicePath);
  for (auto it = objects_.begin(); it != objects_.end();) {
    it = isBelow(it->first, devicePath) ? objects_.erase(it) : std::next(it);
  }
}

void Engine::dropLinks() {
  // Power loss, adapter loss or bluetoothd gone: every link and attempt ends
  // and so does every scan (the manager restarts it when power is back).
  for (auto& [id, session] : centrals_) {
    session.scanning = false;
    auto links = std::move(session.links);
    session.links.clear();
    auto events = session.events.lock();
    for (auto& [peripheral, link] : links) {
      if (link.timer) RunLoop::main().cancelTimer(*link.timer);
      if (!events) continue;
      switch (link.phase) {
        case Link::Phase::Connecting:
          events->radioConnectFailed(peripheral, linkError(CBError::ConnectionFailed));
          break;
        case Link::Phase::Connected:
          events->radioDisconnected(peripheral, linkError(CBError::PeripheralDisconnected));
          break;
        case Link::Phase::Cancelling:
          events->radioDisconnected(peripheral, std::nullopt);
          break;
      }
    }
  }
  expectedEcho_.clear();
  notifyRequested_.clear();
  // The links are gone; replies to writes still in flight find no queue.
  writes_.clear();
}

// --- GATT client ----------------------------------------------------------------------

radio::AttHandle Engine::handleOf(const std::string& path, const char* prefix) {
  // BlueZ names GATT objects after their handles ("service000a", "char000b");
  // anything else gets a stable handle of our own.
  if (const auto handle = handleFromPath(path, prefix); handle && *handle != 0) return *handle;
  auto& handle = synthetic_[path];
  if (handle == 0) {
    handle = nextSynthetic_++;
    if (nextSynthetic_ == 0) nextSynthetic_ = 0xF000;
  }
  return handle;
}

std::vector<radio::RemoteService> Engine::servicesOf(
    const std::string& devicePath, const std::optional<std::vector<CBUUID>>& filter) {
  std::vector<radio::RemoteService> services;
  for (auto it = objects_.upper_bound(devicePath); it != objects_.end(); ++it) {
    if (!isBelow(it->first, devicePath)) break;
    const auto service = it->second.find(kGattService1);
    if (service == it->second.end()) continue;
    const auto* text = dbus::get<std::string>(service->second, "UUID");
    const auto uuid = text ? CBUUID::fromString(*text) : std::nullopt;
    if (!uuid || !wanted(filter, *uuid)) continue;
    const auto* primary = dbus::get<bool>(service->second, "Primary");
    services.push_back({handleOf(it->first, "service"), *uuid, primary == nullptr || *primary});
  }
  std::sort(services.begin(), services.end(),
            [](const auto& a, const auto& b) { return a.handle < b.handle; });
  return services;
}

std::optional<std::string> Engine::objectWithHandle(const std::string& devicePath,
                                                    const char* interface, const char* prefix,
                                                    radio::AttHandle handle) {
  for (auto it = objects_.upper_bound(devicePath); it != objects_.end(); ++it) {
    if (!isBelow(it->first, devicePath)) break;
    if (it->second.count(interface) != 0 && handleOf(it->first, prefix) == handle) {
      return it->first;
    }
  }
  return std::nullopt;
}

void Engine::discoverServices(std::uint64_t session, const radio::PeripheralId& peripheral,
                              const std::optional<std::vector<CBUUID>>& filter) {
  auto* link = findLink(session, peripheral);
  if (link == nullptr || link->phase != Link::Phase::Connected) {
    toCentral(session, [&](radio::CentralEvents& e) {
      e.radioServicesDiscovered(peripheral, {}, linkError(CBError::NotConnected));
    });
    return;
  }
  const auto path = pathOf(peripheral);
  const auto* device = props(path, kDevice1);
  const auto* resolved = device ? dbus::get<bool>(*device, "ServicesResolved") : nullptr;
  if (resolved == nullptr || !*resolved) {
    // bluetoothd discovers the whole database itself; ServicesResolved says when.
    link->waitingForServices.push_back(filter);
    return;
  }
  const auto services = servicesOf(path, filter);
  toCentral(session, [&](radio::CentralEvents& e) {
    e.radioServicesDiscovered(peripheral, services, std::nullopt);
  });
}

void Engine::servicesResolved(const std::string& devicePath) {
  const auto peripheral = addressOf(devicePath);
  for (auto& [id, session] : centrals_) {
    const auto link = session.links.find(peripheral);
    if (link == session.links.end() || link->second.phase != Link::Phase::Connected) continue;
    auto waiting = std::move(link->second.waitingForServices);
    link->second.waitingForServices.clear();
    auto events = session.events.lock();
    for (const auto& filter : waiting) {
      const auto services = servicesOf(devicePath, filter);
      if (events) events->radioServicesDiscovered(peripheral, services, std::nullopt);
    }
  }
}

void Engine::discoverCharacteristics(std::uint64_t session, const radio::PeripheralId& peripheral,
                                     radio::AttHandle service,
                                     const std::optional<std::vector<CBUUID>>& filter) {
  auto* link = findLink(session, peripheral);
  if (link == nullptr || link->phase != Link::Phase::Connected) {
    toCentral(session, [&](radio::CentralEvents& e) {
      e.radioCharacteristicsDiscovered(peripheral, service, {}, linkError(CBError::NotConnected));
    });
    return;
  }
  const auto devicePath = pathOf(peripheral);
  const auto servicePath = objectWithHandle(devicePath, kGattService1, "service", service);
  if (!servicePath) {
    toCentral(session, [&](radio::CentralEvents& e) {
      e.radioCharacteristicsDiscovered(peripheral, service, {}, linkError(CBError::InvalidHandle));
    });
    return;
  }
  std::vector<radio::RemoteCharacteristic> characteristics;
  std::vector<std::string> toNotify;
  for (auto it = objects_.upper_bound(*servicePath); it != objects_.end(); ++it) {
    if (!isBelow(it->first, *servicePath)) break;
    const auto chr = it->second.find(kGattCharacteristic1);
    if (chr == it->second.end()) continue;
    const auto* text = dbus::get<std::string>(chr->second, "UUID");
    const auto uuid = text ? CBUUID::fromString(*text) : std::nullopt;
    if (!uuid || !wanted(filter, *uuid)) continue;
    const auto* flags = dbus::get<std::vector<std::string>>(chr->second, "Flags");
    const auto properties = flags ? characteristicProperties(*flags) : std::uint8_t{0};
    characteristics.push_back({handleOf(it->first, "char"), *uuid, properties});
    const auto* notifying = dbus::get<bool>(chr->second, "Notifying");
    if ((properties & (CBCharacteristicPropertyNotify | CBCharacteristicPropertyIndicate)) != 0 &&
        (notifying == nullptr || !*notifying) && notifyRequested_.count(it->first) == 0) {
      toNotify.push_back(it->first);
    }
  }
  std::sort(characteristics.begin(), characteristics.end(),
            [](const auto& a, const auto& b) { return a.handle < b.handle; });
  toCentral(session, [&](radio::CentralEvents& e) {
    e.radioCharacteristicsDiscovered(peripheral, service, characteristics, std::nullopt);
  });
  // The radio interface has no subscription call: value updates of every
  // notifying characteristic are wanted, so subscribe as they are found.
  for (const auto& path : toNotify) {
    notifyRequested_.insert(path);
    callBluez(path, kGattCharacteristic1, "StartNotify", {}, dbus::ReplyKind::None,
              dbus::kDefaultTimeout, [path](Engine& e, const dbus::Result& result) {
                if (result.error) e.notifyRequested_.erase(path);
              });
  }
}

void Engine::read(std::uint64_t session, const radio::PeripheralId& peripheral,
                  radio::AttHandle characteristic) {
  auto* link = findLink(session, peripheral);
  std::optional<std::string> path;
  if (link != nullptr && link->phase == Link::Phase::Connected) {
    path = objectWithHandle(pathOf(peripheral), kGattCharacteristic1, "char", characteristic);
  }
  if (!path) {
    const auto error = linkError(link == nullptr || link->phase != Link::Phase::Connected
                                     ? CBError::NotConnected
                                     : CBError::InvalidHandle);
    toCentral(session, [&](radio::CentralEvents& e) {
      e.radioValueUpdated(peripheral, characteristic, std::nullopt, error);
    });
    return;
  }
  callBluez(*path, kGattCharacteristic1, "ReadValue", {dbus::OutDict{}}, dbus::ReplyKind::Bytes,
            dbus::kDefaultTimeout,
            [session, peripheral, characteristic, path = *path](Engine& e, dbus::Result result) {
              if (result.error) {
                const auto error = clientError(*result.error, false);
                e.toCentral(session, [&](radio::CentralEvents& ev) {
                  ev.radioValueUpdated(peripheral, characteristic, std::nullopt, error);
                });
                return;
              }
              auto value = std::get<Bytes>(std::move(result.value));
              // bluetoothd echoes a read as a Value change; that is not a notification.
              e.expectedEcho_[path] = value;
              e.toCentral(session, [&](radio::CentralEvents& ev) {
                ev.radioValueUpdated(peripheral, characteristic, value, std::nullopt);
              });
            });
}

void Engine::write(std::uint64_t session, const radio::PeripheralId& peripheral,
                   radio::AttHandle characteristic, const Bytes& value, bool withResponse) {
  auto* link = findLink(session, peripheral);
  std::optional<std::string> path;
  if (link != nullptr && link->phase == Link::Phase::Connected) {
    path = objectWithHandle(pathOf(peripheral), kGattCharacteristic1, "char", characteristic);
  }
  if (!path) {
    if (!withResponse) return;
    const auto error = linkError(link == nullptr || link->phase != Link::Phase::Connected
                                     ? CBError::NotConnected
                                     : CBError::InvalidHandle);
    toCentral(session, [&](radio::CentralEvents& e) {
      e.radioValueWritten(peripheral, characteristic, error);
    });
    return;
  }
  auto& queue = writes_[*path];
  queue.push_back({++writeSerial_, session, peripheral, characteristic, value, withResponse});
  if (queue.size() == 1) sendWrite(*path);
}

// Sends the write at the front of the characteristic's queue; its reply
// sends the next one. A write whose link went away while it waited fails
// as the platform fails it.
void Engine::sendWrite(const std::string& characteristicPath) {
  while (true) {
    const auto queue = writes_.find(characteristicPath);
    if (queue == writes_.end()) return;
    if (queue->second.empty()) {
      writes_.erase(queue);
      return;
    }
    const QueuedWrite& next = queue->second.front();
    const auto* link = findLink(next.session, next.peripheral);
    if (link != nullptr && link->phase == Link::Phase::Connected) break;
    const QueuedWrite dropped = next;
    queue->second.pop_front();
    if (dropped.withResponse) {
      const auto error = linkError(CBError::NotConnected);
      toCentral(dropped.session, [&](radio::CentralEvents& e) {
        e.radioValueWritten(dropped.peripheral, dropped.characteristic, error);
      });
    }
  }
  const QueuedWrite& next = writes_[characteristicPath].front();
  dbus::OutDict options{{"type", std::string(next.withResponse ? "request" : "command")}};
  callBluez(characteristicPath, kGattCharacteristic1, "WriteValue", {next.value, options},
            dbus::ReplyKind::None, dbus::kDefaultTimeout,
            [characteristicPath, serial = next.serial](Engine& e, const dbus::Result& result) {
              auto queue = e.writes_.find(characteristicPath);
              if (queue == e.writes_.end() || queue->second.empty() ||
                  queue->second.front().serial != serial) {
                return;  // dropped with its link
              }
              const QueuedWrite done = std::move(queue->second.front());
              queue->second.pop_front();
              if (done.withResponse) {
                std::optional<Error> error;
                if (result.error) error = clientError(*result.error, true);
                e.toCentral(done.session, [&](radio::CentralEvents& ev) {
                  ev.radioValueWritten(done.peripheral, done.characteristic, error);
                });
              }
              e.sendWrite(characteristicPath);
            });
}

void Engine::valueChanged(const std::string& characteristicPath, const Bytes& value) {
  if (const auto echo = expectedEcho_.find(characteristicPath); echo != expectedEcho_.end()) {
    const bool same = echo->second == value;
    expectedEcho_.erase(echo);
    if (same) return;
  }
  const auto* chr = props(characteristicPath, kGattCharacteristic1);
  const auto* notifying = chr ? dbus::get<bool>(*chr, "Notifying") : nullptr;
  if (notifying == nullptr || !*notifying) return;  // another client's read
  const auto devicePath = deviceOf(characteristicPath);
  const auto peripheral = addressOf(devicePath);
  const auto handle = handleOf(characteristicPath, "char");
  for (auto& [id, session] : centrals_) {
    const auto link = session.links.find(peripheral);
    if (link == session.links.end() || link->second.phase != Link::Phase::Connected) continue;
    if (auto events = session.events.lock()) {
      events->radioValueUpdated(peripheral, handle, value, std::nullopt);
    }
  }
}

}  // namespace lumora::bluez
