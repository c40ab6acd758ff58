#include "backends/bluez/Engine.h"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <utility>

#include "backends/Radio.h"

namespace lumora::bluez {

namespace {

constexpr std::chrono::milliseconds kStartupTimeout{5000};
// A device that reported within this window and then fell silent for a whole
// ranging cycle makes discovery restart (cf. the 5 s tracking age of ranging).
constexpr std::chrono::seconds kHeardWindow{5};

const char* const kReportKeys[] = {"RSSI",  "ManufacturerData", "ServiceData", "Name",
                                   "UUIDs", "TxPower"};

std::string lastSegment(const std::string& path) {
  const auto slash = path.rfind('/');
  return slash == std::string::npos ? path : path.substr(slash + 1);
}

bool equalsIgnoringCase(const std::string& a, const std::string& b) {
  return a.size() == b.size() && std::equal(a.begin(), a.end(), b.begin(), [](char x, char y) {
           return std::tolower(static_cast<unsigned char>(x)) ==
                  std::tolower(static_cast<unsigned char>(y));
         });
}

// rfkill as the kernel reports it for `hciN` (only meaningful for the local
// system bus: a private bus may describe any machine).
bool blockedByRfkill(const std::string& adapterName) {
  namespace fs = std::filesystem;
  std::error_code ec;
  const fs::path dir = fs::path("/sys/class/bluetooth") / adapterName;
  for (fs::directory_iterator it(dir, ec), end; !ec && it != end; it.increment(ec)) {
    if (it->path().filename().string().rfind("rfkill", 0) != 0) continue;
    for (const char* file : {"soft", "hard"}) {
      std::ifstream in(it->path() / file);
      int value = 0;
      if (in >> value && value != 0) return true;
    }
  }
  return false;
}

}  // namespace

// --- making one -------------------------------------------------------------------

Engine::Engine(const Options& options, std::shared_ptr<dbus::Connection> bus, bool systemBus)
    : options_(options), systemBus_(systemBus), bus_(std::move(bus)) {}

Engine::~Engine() {
  for (auto& [id, session] : centrals_) {
    for (auto& [address, link] : session.links) {
      if (link.timer) RunLoop::main().cancelTimer(*link.timer);
    }
  }
  if (discovery_.rangingTimer) RunLoop::main().cancelTimer(*discovery_.rangingTimer);
  if (graceTimer_) RunLoop::main().cancelTimer(*graceTimer_);
  // Pending incoming calls hold messages of the connection: they go first,
  // then the connection is closed on the loop thread.
  peripherals_.clear();
  RunLoop::main().post([bus = std::move(bus_)] { bus->close(); });
}

std::shared_ptr<Engine> Engine::start(const Options& options) {
  std::string address = options.busAddress;
  if (address.empty()) {
    if (const char* env = std::getenv("LUMORA_BLUEZ_BUS"); env != nullptr) address = env;
  }
  const bool systemBus = address.empty();
  std::shared_ptr<dbus::Connection> bus;
  try {
    bus = dbus::Connection::open(address);
  } catch (const std::exception& e) {
    throw radio::BackendError(std::string("cannot connect to the ") +
                              (systemBus ? "D-Bus system bus" : "D-Bus bus " + address) + ": " +
                              e.what());
  }
  std::shared_ptr<Engine> engine(new Engine(options, bus, systemBus));
  const auto fail = [&bus](const std::string& why) {
    bus->close();
    return radio::BackendError(why);
  };

  // Subscribed before reading the objects, so that no change falls in between.
  try {
    engine->subscribe();
  } catch (const std::exception& e) {
    throw fail(std::string("cannot watch bluetoothd on the bus: ") + e.what());
  }

  const auto owner = bus->callSync(
      {"org.freedesktop.DBus", "/org/freedesktop/DBus", "org.freedesktop.DBus", "GetNameOwner"},
      {std::string(kBluez)}, dbus::ReplyKind::Text, kStartupTimeout);
  if (owner.error) {
    if (owner.error->name == "org.freedesktop.DBus.Error.NameHasNoOwner") {
      throw fail("bluetoothd is not running (org.bluez is not on the system bus)");
    }
    throw fail("cannot ask the bus for bluetoothd: " + owner.error->message);
  }
  engine->owner_ = std::get<std::string>(owner.value);

  const auto objects =
      bus->callSync({kBluez, "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"}, {},
                    dbus::ReplyKind::Objects, kStartupTimeout);
  if (objects.error) {
    if (objects.error->name == "org.freedesktop.DBus.Error.AccessDenied") {
      throw fail("permission denied: the D-Bus policy does not let this user use bluetoothd (" +
                 objects.error->message + ")");
    }
    throw fail("bluetoothd did not answer: " + objects.error->message);
  }
  engine->adopt(std::get<dbus::ManagedObjects>(objects.value));
  if (engine->adapterPath_.empty()) {
    throw fail(options.adapter.empty() ? "no Bluetooth adapter found"
                                       : "Bluetooth adapter \"" + options.adapter + "\" not found");
  }
  const std::string adapterName = lastSegment(engine->adapterPath_);
  if (!engine->powered()) {
    const auto* adapter = engine->props(engine->adapterPath_, kAdapter1);
    const auto* powerState = adapter ? dbus::get<std::string>(*adapter, "PowerState") : nullptr;
    if ((powerState && *powerState == "off-blocked") ||
        (systemBus && blockedByRfkill(adapterName))) {
      throw fail("Bluetooth adapter " + adapterName +
                 " is blocked by rfkill (try: rfkill unblock bluetooth)");
    }
  }
  engine->name_ = "bluez:" + adapterName;
  engine->updateState();
  bus->onClosed([weak = std::weak_ptr<Engine>(engine)] {
    if (auto e = weak.lock()) e->onBusClosed();
  });
  bus->attach();
  return engine;
}

void Engine::post(std::function<void(Engine&)> fn) {
  RunLoop::main().post([self = weak_from_this(), fn = std::move(fn)] {
    if (auto engine = self.lock()) fn(*engine);
  });
}

RunLoop::TimerId Engine::after(std::chrono::milliseconds delay, std::function<void(Engine&)> fn) {
  return RunLoop::main().addTimer(delay, [self = weak_from_this(), fn = std::move(fn)] {
    if (auto engine = self.lock()) fn(*engine);
  });
}

void Engine::callBluez(const std::string& path, const char* interface, const char* method,
                       std::vector<dbus::Arg> args, dbus::ReplyKind kind,
                       std::chrono::milliseconds timeout,
                       std::function<void(Engine&, dbus::Result)> done) {
  bus_->call({kBluez, path, interface, method}, args, kind, timeout,
             [self = weak_from_this(), done = std::move(done)](dbus::Result result) {
               if (auto engine = self.lock()) done(*engine, std::move(result));
             });
}

// --- bluetoothd and its adapter -------------------------------------------------------

void Engine::subscribe() {
  bus_->subscribeNameOwner(
      kBluez, weak([](Engine& e, const std::string& owner) { e.onOwnerChanged(owner); }));
  bus_->subscribeObjectManager(
      weak([](Engine& e, const std::string& sender, const std::string& path,
              dbus::InterfaceMap interfaces) {
        e.onInterfacesAdded(sender, path, std::move(interfaces));
      }),
      weak([](Engine& e, const std::string& sender, const std::string& path,
              std::vector<std::string> interfaces) {
        e.onInterfacesRemoved(sender, path, interfaces);
      }));
  bus_->subscribePropertiesChanged(
      "/org/bluez", weak([](Engine& e, const std::string& sender, const std::string& path,
                            const std::string& interface, dbus::Props changed,
                            std::vector<std::string> invalidated) {
        e.onPropertiesChanged(sender, path, interface, changed, invalidated);
      }));
}

bool Engine::selects(const std::string& path, const dbus::Props& adapter) const {
  const auto& wanted = options_.adapter;
  if (wanted.empty()) return true;
  if (lastSegment(path) == wanted) return true;
  const auto* address = dbus::get<std::string>(adapter, "Address");
  return address != nullptr && equalsIgnoringCase(*address, wanted);
}

void Engine::adopt(const dbus::ManagedObjects& objects) {
  objects_.clear();
  adapterPath_.clear();
  // Managed objects come sorted by path, so "" picks hci0 before hci1.
  for (const auto& [path, interfaces] : objects) {
    const auto adapter = interfaces.find(kAdapter1);
    if (adapter != interfaces.end() && selects(path, adapter->second)) {
      adapterPath_ = path;
      break;
    }
  }
  if (adapterPath_.empty()) return;
  for (const auto& [path, interfaces] : objects) {
    if (path == adapterPath_ || isBelow(path, adapterPath_)) objects_.emplace(path, interfaces);
  }
}

void Engine::onOwnerChanged(const std::string& owner) {
  if (owner == owner_) return;
  if (!owner_.empty()) {
    // bluetoothd went away (or was replaced): everything it held is gone.
    owner_.clear();
    daemonWasLost_ = true;
    dropRadio();
    objects_.clear();
    adapterPath_.clear();
    if (graceTimer_) RunLoop::main().cancelTimer(*graceTimer_);
    graceTimer_ = after(options_.restartGrace, [](Engine& e) {
      e.graceTimer_.reset();
      e.daemonWasLost_ = false;
      e.updateState();
    });
  }
  if (!owner.empty()) {
    owner_ = owner;
    enumerating_ = true;
    bus_->call({kBluez, "/", "org.freedesktop.DBus.ObjectManager", "GetManagedObjects"}, {},
               dbus::ReplyKind::Objects, dbus::kDefaultTimeout,
               weak([owner](Engine& e, dbus::Result result) {
                 e.onEnumerated(owner, std::move(result));
               }));
  }
  updateState();
}

void Engine::onEnumerated(const std::string& owner, dbus::Result result) {
  if (owner != owner_) return;  // replaced again meanwhile
  enumerating_ = false;
  accessDenied_ = false;
  if (result.error) {
    accessDenied_ = result.error->name == "org.freedesktop.DBus.Error.AccessDenied";
  } else {
    adopt(std::get<dbus::ManagedObjects>(result.value));
  }
  daemonWasLost_ = false;
  if (graceTimer_) RunLoop::main().cancelTimer(*graceTimer_);
  graceTimer_.reset();
  updateState();
  discovery_.stalled = false;
  reconcileDiscovery();
}

void Engine::onInterfacesAdded(const std::string& sender, const std::string& path,
                               dbus::InterfaceMap interfaces) {
  if (sender != owner_ || enumerating_) return;
  if (adapterPath_.empty()) {
    // An adapter plugged in (or bluetoothd brought it back).
    const auto adapter = interfaces.find(kAdapter1);
    if (adapter == interfaces.end() || !selects(path, adapter->second)) return;
    adapterPath_ = path;
    objects_.clear();
    objects_.emplace(path, std::move(interfaces));
    updateState();
    discovery_.stalled = false;
    reconcileDiscovery();
    return;
  }
  if (path != adapterPath_ && !isBelow(path, adapterPath_)) return;
  auto& object = objects_[path];
  const bool newDevice = interfaces.count(kDevice1) != 0 && object.count(kDevice1) == 0;
  for (auto& [name, props] : interfaces) {
    auto& mine = object[name];
    for (auto& [key, value] : props) mine[key] = std::move(value);
  }
  if (path == adapterPath_) {
    updateState();
  } else if (newDevice) {
    // A device that appears by being heard carries its RSSI.
    const auto* device = props(path, kDevice1);
    if (device != nullptr && device->count("RSSI") != 0) report(path);
  }
}

void Engine::onInterfacesRemoved(const std::string& sender, const std::string& path,
                                 const std::vector<std::string>& interfaces) {
  if (sender != owner_ || adapterPath_.empty()) return;
  const bool adapterGone = path == adapterPath_ && std::find(interfaces.begin(), interfaces.end(),
                                                             kAdapter1) != interfaces.end();
  if (adapterGone) {
    dropRadio();
    objects_.clear();
    adapterPath_.clear();
    updateState();
    return;
  }
  const auto it = objects_.find(path);
  if (it == objects_.end()) return;
  const bool deviceGone =
      std::find(interfaces.begin(), interfaces.end(), kDevice1) != interfaces.end();
  for (const auto& name : interfaces) it->second.erase(name);
  if (it->second.empty()) objects_.erase(it);
  if (path == adapterPath_) updateState();
  if (deviceGone) forgetDevice(path);
}

void Engine::onPropertiesChanged(const std::string& sender, const std::string& path,
                                 const std::string& interface, const dbus::Props& changed,
                                 const std::vector<std::string>& invalidated) {
  if (sender != owner_ || enumerating_) return;
  auto object = objects_.find(path);
  if (object == objects_.end()) return;
  const auto known = object->second.find(interface);
  if (known == object->second.end()) return;
  auto& props = known->second;
  const bool wasPowered = path == adapterPath_ && powered();
  for (const auto& [key, value] : changed) props[key] = value;
  for (const auto& key : invalidated) props.erase(key);

  if (path == adapterPath_ && interface == kAdapter1) {
    const bool isPowered = powered();
    if (wasPowered && !isPowered) {
      dropRadio();
    } else if (const auto* discovering = dbus::get<bool>(props, "Discovering");
               changed.count("Discovering") != 0 && discovering != nullptr && !*discovering &&
               !discovery_.busy) {
      // Nobody discovers any more, so neither do we.
      discovery_.active = false;
    }
    updateState();
    if (!wasPowered && isPowered) discovery_.stalled = false;
    reconcileDiscovery();
    return;
  }
  if (interface == kDevice1) {
    if (const auto* connected = dbus::get<bool>(changed, "Connected")) {
      deviceConnected(path, *connected);
    }
    if (const auto* resolved = dbus::get<bool>(changed, "ServicesResolved");
        resolved && *resolved) {
      servicesResolved(path);
    }
    for (const char* key : kReportKeys) {
      if (changed.count(key) != 0) {
        report(path);
        break;
      }
    }
    return;
  }
  if (interface == kGattCharacteristic1) {
    if (const auto* value = dbus::get<Bytes>(changed, "Value")) valueChanged(path, *value);
  }
}

void Engine::onBusClosed() {
  busOpen_ = false;
  owner_.clear();
  dropRadio();
  objects_.clear();
  adapterPath_.clear();
  updateState();
}

void Engine::dropRadio() {
  ++discovery_.epoch;
  discovery_.active = false;
  discovery_.restart = false;
  heard_.clear();
  dropLinks();
  for (auto& [id, session] : peripherals_) withdrawAll(session);
}

const dbus::Props* Engine::props(const std::string& path, const char* interface) const {
  const auto object = objects_.find(path);
  if (object == objects_.end()) return nullptr;
  const auto it = object->second.find(interface);
  return it == object->second.end() ? nullptr : &it->second;
}

bool Engine::powered() const {
  const auto* adapter = props(adapterPath_, kAdapter1);
  const auto* on = adapter ? dbus::get<bool>(*adapter, "Powered") : nullptr;
  return on != nullptr && *on;
}

AdapterView Engine::view() const {
  AdapterView v;
  v.busOpen = busOpen_;
  v.daemonPresent = !owner_.empty() && !enumerating_;
  v.daemonWasLost = daemonWasLost_;
  v.accessDenied = accessDenied_;
  const auto object = objects_.find(adapterPath_);
  v.adapterPresent =
      !adapterPath_.empty() && object != objects_.end() && object->second.count(kAdapter1) != 0;
  if (v.adapterPresent) {
    const auto& adapter = object->second.at(kAdapter1);
    v.powered = powered();
    if (const auto* roles = dbus::get<std::vector<std::string>>(adapter, "Roles")) v.roles = *roles;
    v.advertisingManager = object->second.count(kAdvertisingManager1) != 0;
    v.gattManager = object->second.count(kGattManager1) != 0;
  }
  return v;
}

void Engine::updateState() {
  const auto v = view();
  const auto central = bluez::centralState(v);
  const auto peripheral = bluez::peripheralState(v);
  if (centralState_.exchange(central) != central) {
    for (auto& [id, session] : centrals_) {
      if (auto events = session.events.lock()) events->radioStateChanged(central);
    }
  }
  if (peripheralState_.exchange(peripheral) != peripheral) {
    for (auto& [id, session] : peripherals_) {
      if (auto events = session.events.lock()) events->radioStateChanged(peripheral);
    }
  }
}

// --- discovery ------------------------------------------------------------------------

bool Engine::discoveryWanted() const {
  if (centralState() != CBManagerState::PoweredOn) return false;
  if (!observations_.empty()) return true;
  return std::any_of(centrals_.begin(), centrals_.end(),
                     [](const auto& entry) { return entry.second.scanning; });
}

Engine::DiscoveryFilter Engine::wantedFilter() const {
  DiscoveryFilter filter;
  // Ranging wants every report; so does a scan that allows duplicates.
  filter.duplicates = !observations_.empty();
  bool everyone = !observations_.empty();
  std::set<std::string> uuids;
  for (const auto& [id, session] : centrals_) {
    if (!session.scanning) continue;
    filter.duplicates = filter.duplicates || session.scan.allowDuplicates;
    if (!session.scan.services) {
      everyone = true;
      continue;
    }
    for (const auto& uuid : *session.scan.services) uuids.insert(uuidText(uuid));
  }
  // One scan without a service list needs every advertiser; bluetoothd merges
  // filters across clients anyway, so reports are filtered again in report().
  if (!everyone) filter.uuids.assign(uuids.begin(), uuids.end());
  return filter;
}

void Engine::reconcileDiscovery() {
  if (discovery_.busy || adapterPath_.empty() || owner_.empty()) return;
  const bool want = discoveryWanted();
  const auto epoch = discovery_.epoch;
  if (!want) {
    if (!discovery_.active) return;
    discovery_.busy = true;
    callBluez(adapterPath_, kAdapter1, "StopDiscovery", {}, dbus::ReplyKind::None,
              dbus::kDefaultTimeout, [epoch](Engine& e, const dbus::Result&) {
                e.discovery_.busy = false;
                if (epoch == e.discovery_.epoch) e.discovery_.active = false;
                e.reconcileDiscovery();
              });
    return;
  }
  if (discovery_.stalled) return;
  const auto filter = wantedFilter();
  if (discovery_.active && !discovery_.restart && discovery_.applied == filter) return;
  discovery_.busy = true;
  if (discovery_.active && discovery_.restart) {
    callBluez(adapterPath_, kAdapter1, "StopDiscovery", {}, dbus::ReplyKind::None,
              dbus::kDefaultTimeout, [epoch](Engine& e, const dbus::Result&) {
                e.discovery_.busy = false;
                if (epoch == e.discovery_.epoch) {
                  e.discovery_.active = false;
                  e.discovery_.restart = false;
                }
                e.reconcileDiscovery();
              });
    return;
  }
  // Always with a filter: without one, bluetoothd 5.66 drops advertisers
  // that are not discoverable (most beacons) and damps RSSI updates.
  dbus::OutDict dict{{"Transport", std::string("le")}, {"DuplicateData", filter.duplicates}};
  if (!filter.uuids.empty()) dict.emplace("UUIDs", filter.uuids);
  callBluez(adapterPath_, kAdapter1, "SetDiscoveryFilter", {dict}, dbus::ReplyKind::None,
            dbus::kDefaultTimeout, [epoch, filter](Engine& e, const dbus::Result& set) {
              if (epoch != e.discovery_.epoch || set.error) {
                e.discovery_.busy = false;
                if (set.error) e.discovery_.stalled = true;
                e.reconcileDiscovery();
                return;
              }
              if (e.discovery_.active) {
                // A running discovery takes the new filter as it is.
                e.discovery_.busy = false;
                e.discovery_.applied = filter;
                e.reconcileDiscovery();
                return;
              }
              e.callBluez(
                  e.adapterPath_, kAdapter1, "StartDiscovery", {}, dbus::ReplyKind::None,
                  dbus::kDefaultTimeout, [epoch, filter](Engine& e2, const dbus::Result& start) {
                    e2.discovery_.busy = false;
                    if (epoch == e2.discovery_.epoch) {
                      if (!start.error || start.error->name == "org.bluez.Error.InProgress") {
                        e2.discovery_.active = true;
                        e2.discovery_.applied = filter;
                        e2.discovery_.cycleStart = Clock::now();
                      } else {
                        e2.discovery_.stalled = true;
                      }
                    }
                    e2.reconcileDiscovery();
                  });
            });
}

void Engine::rangingTick() {
  discovery_.rangingTimer.reset();
  if (observations_.empty()) return;
  const auto now = Clock::now();
  bool silent = false;
  for (auto it = heard_.begin(); it != heard_.end();) {
    if (now - it->second > kHeardWindow) {
      it = heard_.erase(it);
      continue;
    }
    silent = silent || it->second < discovery_.cycleStart;
    ++it;
  }
  if (silent && discovery_.active && !discovery_.busy) {
    discovery_.restart = true;
    discovery_.cycleStart = now;
    reconcileDiscovery();
  } else if (discovery_.active) {
    discovery_.cycleStart = now;
  }
  discovery_.rangingTimer = after(options_.rangingCycle, [](Engine& e) { e.rangingTick(); });
}

void Engine::report(const std::string& devicePath) {
  const auto* device = props(devicePath, kDevice1);
  if (device == nullptr) return;
  const bool anyScan = std::any_of(centrals_.begin(), centrals_.end(),
                                   [](const auto& entry) { return entry.second.scanning; });
  if (!anyScan && observations_.empty()) return;

  radio::AdvertisingReport report;
  report.address = addressOf(devicePath);
  if (report.address.empty()) return;
  report.advertisement = advertisementFromDevice(*device);
  if (const auto* rssi = dbus::get<std::int64_t>(*device, "RSSI")) {
    if (*rssi >= -127 && *rssi <= 127) report.rssi = static_cast<int>(*rssi);
  }
  const auto now = Clock::now();
  report.time = std::chrono::duration_cast<radio::Nanos>(now.time_since_epoch());
  heard_[devicePath] = now;

  for (auto& [id, session] : centrals_) {
    if (!session.scanning) continue;
    if (session.scan.services) {
      const auto& wanted = *session.scan.services;
      const auto& offered = report.advertisement.serviceUUIDs;
      const bool match = std::any_of(offered.begin(), offered.end(), [&wanted](const CBUUID& u) {
        return std::find(wanted.begin(), wanted.end(), u) != wanted.end();
      });
      if (!match) continue;
    }
    if (auto events = session.events.lock()) events->radioDiscovered(report);
  }
  for (auto& [id, sink] : observations_) sink(report);
}

// --- ranging observations -------------------------------------------------------------

void Engine::addObservation(std::uint64_t id,
                            std::function<void(const radio::AdvertisingReport&)> sink) {
  observations_.emplace(id, std::move(sink));
  discovery_.stalled = false;
  if (!discovery_.rangingTimer) {
    discovery_.rangingTimer = after(options_.rangingCycle, [](Engine& e) { e.rangingTick(); });
  }
  reconcileDiscovery();
}

void Engine::removeObservation(std::uint64_t id) {
  observations_.erase(id);
  if (observations_.empty() && discovery_.rangingTimer) {
    RunLoop::main().cancelTimer(*discovery_.rangingTimer);
    discovery_.rangingTimer.reset();
  }
  reconcileDiscovery();
}

}  // namespace lumora::bluez
