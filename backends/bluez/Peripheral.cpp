// The peripheral role: an LEAdvertisement1 object per advertisement and one
// GATT application (ObjectManager root) per published service, registered
// with bluetoothd; its ReadValue/WriteValue calls become ATT requests that
// the manager answers later through respond().
#include <algorithm>
#include <string>
#include <utility>

#include "backends/bluez/Engine.h"

namespace lumora::bluez {

namespace {

Error notPoweredOn() {
  return Error{CBErrorDomain, static_cast<int>(CBError::Unknown), "Bluetooth is not powered on."};
}

Error registrationError(const dbus::CallError& error) {
  return Error{CBErrorDomain, static_cast<int>(CBError::Unknown),
               error.message.empty() ? error.name : error.message};
}

void replyWith(dbus::IncomingCall& call, CBATTError result) {
  if (const auto error = serverError(result)) call.replyError(error->name, error->message);
}

}  // namespace

template <class F>
void Engine::toPeripheral(std::uint64_t session, F&& f) {
  const auto it = peripherals_.find(session);
  if (it == peripherals_.end()) return;
  if (auto events = it->second.events.lock()) f(*events);
}

// --- sessions -------------------------------------------------------------------------

void Engine::openPeripheral(std::uint64_t session, std::weak_ptr<radio::PeripheralEvents> events,
                            CBManagerState seen) {
  auto& s = peripherals_[session];
  s.events = std::move(events);
  s.base = "/org/lumora/bluez/p" + std::to_string(session);
  const auto state = peripheralState();
  if (state != seen) {
    toPeripheral(session, [state](radio::PeripheralEvents& e) { e.radioStateChanged(state); });
  }
}

void Engine::closePeripheral(std::uint64_t session) {
  const auto it = peripherals_.find(session);
  if (it == peripherals_.end()) return;
  withdrawAll(it->second);
  peripherals_.erase(it);
}

void Engine::retire(const char* manager, const char* method, std::string path,
                    std::vector<dbus::Connection::Id> objects, bool registered) {
  const auto unexport = [objects](Engine& e) {
    for (const auto id : objects) e.bus_->unexport(id);
  };
  if (registered && !owner_.empty() && !adapterPath_.empty()) {
    // Unexported only once bluetoothd let go, so it never finds them missing.
    callBluez(adapterPath_, manager, method, {dbus::ObjectPath{std::move(path)}},
              dbus::ReplyKind::None, dbus::kDefaultTimeout,
              [unexport](Engine& e, const dbus::Result&) { unexport(e); });
  } else {
    // Possibly inside one of the objects' own handlers: later.
    post(unexport);
  }
}

void Engine::withdrawApp(PeripheralSession& session, radio::ServiceToken token) {
  const auto app = session.apps.find(token);
  if (app == session.apps.end()) return;
  for (auto it = session.requests.begin(); it != session.requests.end();) {
    if (it->second.service != token) {
      ++it;
      continue;
    }
    replyWith(it->second.call, CBATTError::UnlikelyError);
    it = session.requests.erase(it);
  }
  // One still registering is retired by its registration reply.
  if (app->second.registered) {
    retire(kGattManager1, "UnregisterApplication", app->second.root, app->second.objects, true);
  }
  session.apps.erase(app);
}

void Engine::withdrawAdvert(PeripheralSession& session) {
  if (!session.advert) return;
  if (session.advert->registered) {
    retire(kAdvertisingManager1, "UnregisterAdvertisement", session.advert->path,
           {session.advert->object}, true);
  }
  session.advert.reset();
}

void Engine::withdrawAll(PeripheralSession& session) {
  // Power-off or loss of the adapter: as on the platform, advertising stops
  // and the published services are gone (bluetoothd would keep them across a
  // power cycle; a manager that re-adds them would then publish them twice).
  withdrawAdvert(session);
  std::vector<radio::ServiceToken> tokens;
  for (const auto& [token, app] : session.apps) tokens.push_back(token);
  for (const auto token : tokens) withdrawApp(session, token);
  for (auto& [id, request] : session.requests) replyWith(request.call, CBATTError::UnlikelyError);
  session.requests.clear();
}

// --- services -------------------------------------------------------------------------

void Engine::addService(std::uint64_t session, radio::ServiceToken token,
                        const radio::LocalService& service) {
  const auto it = peripherals_.find(session);
  if (it == peripherals_.end()) return;
  auto& s = it->second;
  std::optional<Error> refusal;
  if (peripheralState() != CBManagerState::PoweredOn) {
    refusal = notPoweredOn();
  } else if (s.apps.count(token) != 0) {
    refusal = linkError(CBError::InvalidParameters);
  }
  if (refusal) {
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioServiceAdded(token, refusal); });
    return;
  }

  // A registered application cannot change (bluetoothd ignores later
  // InterfacesAdded), so every service gets an application root of its own.
  App app;
  app.serial = ++serial_;
  app.root = s.base + "/app" + std::to_string(app.serial);
  app.service = service;
  const auto servicePath = app.root + "/service0";
  app.objects.push_back(bus_->exportObject(app.root, {}, {}, true));
  app.objects.push_back(bus_->exportObject(servicePath,
                                           {{kGattService1, "UUID", uuidText(service.uuid)},
                                            {kGattService1, "Primary", service.primary}},
                                           {}, false));
  for (std::size_t i = 0; i < service.characteristics.size(); ++i) {
    const auto& chr = service.characteristics[i];
    std::vector<dbus::ExportedProperty> properties{
        {kGattCharacteristic1, "UUID", uuidText(chr.uuid)},
        {kGattCharacteristic1, "Service", dbus::ObjectPath{servicePath}},
        {kGattCharacteristic1, "Flags", characteristicFlags(chr.properties, chr.permissions)},
    };
    const auto ack = [](dbus::IncomingCall call) { call.reply(); };
    std::vector<dbus::ExportedMethod> methods{
        {kGattCharacteristic1, "ReadValue", "a{sv}", "ay",
         weak([session, token, i](Engine& e, dbus::IncomingCall call) {
           e.onReadValue(session, token, i, std::move(call));
         })},
        {kGattCharacteristic1, "WriteValue", "aya{sv}", "",
         weak([session, token, i](Engine& e, dbus::IncomingCall call) {
           e.onWriteValue(session, token, i, std::move(call));
         })},
        // Subscriptions are accepted; the radio interface sends no updates.
        {kGattCharacteristic1, "StartNotify", "", "", ack},
        {kGattCharacteristic1, "StopNotify", "", "", ack},
    };
    app.objects.push_back(
        bus_->exportObject(servicePath + "/char" + std::to_string(i), properties, methods, false));
  }
  if (std::find(app.objects.begin(), app.objects.end(), 0) != app.objects.end()) {
    retire(kGattManager1, "UnregisterApplication", app.root, app.objects, false);
    const auto error = Error{CBErrorDomain, static_cast<int>(CBError::Unknown),
                             "The service could not be exported on D-Bus."};
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioServiceAdded(token, error); });
    return;
  }
  const auto serial = app.serial;
  const auto root = app.root;
  const auto objects = app.objects;
  s.apps.emplace(token, std::move(app));
  // Asynchronous: bluetoothd reads our objects back before it answers.
  callBluez(adapterPath_, kGattManager1, "RegisterApplication",
            {dbus::ObjectPath{root}, dbus::OutDict{}}, dbus::ReplyKind::None, dbus::kDefaultTimeout,
            [session, token, serial, root, objects](Engine& e, const dbus::Result& result) {
              e.applicationRegistered(session, token, serial, root, objects, result);
            });
}

void Engine::applicationRegistered(std::uint64_t session, radio::ServiceToken token,
                                   std::uint64_t serial, const std::string& root,
                                   const std::vector<dbus::Connection::Id>& objects,
                                   const dbus::Result& result) {
  const auto s = peripherals_.find(session);
  App* app = nullptr;
  if (s != peripherals_.end()) {
    const auto it = s->second.apps.find(token);
    if (it != s->second.apps.end() && it->second.serial == serial) app = &it->second;
  }
  if (app == nullptr) {
    // Removed (or powered off) while bluetoothd was registering it.
    retire(kGattManager1, "UnregisterApplication", root, objects, !result.error);
    const auto error = linkError(CBError::OperationCancelled);
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioServiceAdded(token, error); });
    return;
  }
  if (result.error) {
    s->second.apps.erase(token);
    retire(kGattManager1, "UnregisterApplication", root, objects, false);
    const auto error = registrationError(*result.error);
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioServiceAdded(token, error); });
    return;
  }
  app->registered = true;
  toPeripheral(session,
               [&](radio::PeripheralEvents& e) { e.radioServiceAdded(token, std::nullopt); });
}

void Engine::removeService(std::uint64_t session, radio::ServiceToken token) {
  const auto it = peripherals_.find(session);
  if (it != peripherals_.end()) withdrawApp(it->second, token);
}

void Engine::removeAllServices(std::uint64_t session) {
  const auto it = peripherals_.find(session);
  if (it == peripherals_.end()) return;
  std::vector<radio::ServiceToken> tokens;
  for (const auto& [token, app] : it->second.apps) tokens.push_back(token);
  for (const auto token : tokens) withdrawApp(it->second, token);
}

// --- ATT requests -----------------------------------------------------------------------

radio::AttRequest Engine::requestFrom(const dbus::IncomingCall& call, radio::RequestId id,
                                      radio::ServiceToken token, std::size_t index) const {
  radio::AttRequest request;
  request.id = id;
  request.service = token;
  request.characteristic = index;
  const auto& options = call.options();
  if (const auto* device = dbus::get<std::string>(options, "device")) {
    request.central = addressOf(*device);
  }
  if (const auto* offset = dbus::get<std::int64_t>(options, "offset")) {
    request.offset = static_cast<std::uint16_t>(std::clamp<std::int64_t>(*offset, 0, 0xFFFF));
  }
  if (const auto* mtu = dbus::get<std::int64_t>(options, "mtu"); mtu && *mtu >= 23) {
    request.maximumUpdateValueLength =
        static_cast<std::uint16_t>(std::min<std::int64_t>(*mtu, 0xFFFF) - 3);
  }
  return request;
}

const Engine::App* Engine::appFor(std::uint64_t session, radio::ServiceToken token,
                                  std::size_t index, PeripheralSession*& owner) {
  const auto s = peripherals_.find(session);
  if (s == peripherals_.end()) return nullptr;
  const auto it = s->second.apps.find(token);
  if (it == s->second.apps.end() || index >= it->second.service.characteristics.size()) {
    return nullptr;
  }
  owner = &s->second;
  return &it->second;
}

void Engine::onReadValue(std::uint64_t session, radio::ServiceToken token, std::size_t index,
                         dbus::IncomingCall call) {
  PeripheralSession* owner = nullptr;
  const App* app = appFor(session, token, index, owner);
  if (app == nullptr) {
    replyWith(call, CBATTError::UnlikelyError);
    return;
  }
  auto request = requestFrom(call, 0, token, index);
  if (const auto& fixed = app->service.characteristics[index].value) {
    // A value given at publication is served here; the manager never sees it.
    if (request.offset > fixed->size()) {
      replyWith(call, CBATTError::InvalidOffset);
      return;
    }
    call.reply(Bytes(fixed->begin() + request.offset, fixed->end()));
    return;
  }
  request.id = owner->nextRequest++;
  owner->requests.emplace(request.id, PendingRequest{std::move(call), true, token});
  toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioReadRequest(request); });
}

void Engine::onWriteValue(std::uint64_t session, radio::ServiceToken token, std::size_t index,
                          dbus::IncomingCall call) {
  PeripheralSession* owner = nullptr;
  const App* app = appFor(session, token, index, owner);
  if (app == nullptr) {
    replyWith(call, CBATTError::UnlikelyError);
    return;
  }
  // Authorising one part of a prepared write: the execute brings the value.
  if (const auto* prepare = dbus::get<bool>(call.options(), "prepare-authorize");
      prepare && *prepare) {
    call.reply();
    return;
  }
  if (app->service.characteristics[index].value) {
    replyWith(call, CBATTError::WriteNotPermitted);
    return;
  }
  auto request = requestFrom(call, owner->nextRequest++, token, index);
  request.value = call.value();
  owner->requests.emplace(request.id, PendingRequest{std::move(call), false, token});
  toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioWriteRequests({request}); });
}

void Engine::respond(std::uint64_t session, radio::RequestId request, CBATTError result,
                     const Data& value) {
  const auto s = peripherals_.find(session);
  if (s == peripherals_.end()) return;
  auto node = s->second.requests.extract(request);
  if (node.empty()) return;
  auto& pending = node.mapped();
  if (result != CBATTError::Success) {
    replyWith(pending.call, result);
  } else if (pending.read) {
    pending.call.reply(value.value_or(Bytes{}));
  } else {
    pending.call.reply();
  }
}

// --- advertising ----------------------------------------------------------------------

void Engine::startAdvertising(std::uint64_t session, const CBAdvertisementData& data) {
  const auto it = peripherals_.find(session);
  if (it == peripherals_.end()) return;
  auto& s = it->second;
  if (peripheralState() != CBManagerState::PoweredOn) {
    toPeripheral(session,
                 [&](radio::PeripheralEvents& e) { e.radioAdvertisingStarted(notPoweredOn()); });
    return;
  }
  auto planned = planAdvertisement(data);
  if (const auto* error = std::get_if<Error>(&planned)) {
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioAdvertisingStarted(*error); });
    return;
  }
  const auto& plan = std::get<AdvertisementPlan>(planned);
  // bluetoothd reads an advertisement's properties once: a new one replaces it.
  withdrawAdvert(s);

  std::vector<dbus::ExportedProperty> properties{
      {kAdvertisement1, "Type", std::string("peripheral")},
      {kAdvertisement1, "Includes", std::vector<std::string>{}},
  };
  if (plan.company) {
    properties.push_back(
        {kAdvertisement1, "ManufacturerData",
         std::map<std::uint16_t, Bytes>{{*plan.company, plan.manufacturerPayload}}});
  }
  if (plan.localName) properties.push_back({kAdvertisement1, "LocalName", *plan.localName});
  if (!plan.serviceUUIDs.empty()) {
    properties.push_back({kAdvertisement1, "ServiceUUIDs", plan.serviceUUIDs});
  }
  Advert advert;
  advert.serial = ++serial_;
  advert.path = s.base + "/adv" + std::to_string(advert.serial);
  const auto serial = advert.serial;
  advert.object = bus_->exportObject(
      advert.path, properties,
      {{kAdvertisement1, "Release", "", "", weak([session, serial](Engine& e, dbus::IncomingCall) {
          // bluetoothd dropped it (time-out or manager gone). Not from inside
          // the object's own handler: later.
          e.post([session, serial](Engine& e2) { e2.onRelease(session, serial); });
        })}},
      false);
  if (advert.object == 0) {
    const auto error = Error{CBErrorDomain, static_cast<int>(CBError::Unknown),
                             "The advertisement could not be exported on D-Bus."};
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioAdvertisingStarted(error); });
    return;
  }
  const auto path = advert.path;
  const auto object = advert.object;
  s.advert = std::move(advert);
  // Asynchronous: bluetoothd reads the advertisement back before it answers.
  callBluez(adapterPath_, kAdvertisingManager1, "RegisterAdvertisement",
            {dbus::ObjectPath{path}, dbus::OutDict{}}, dbus::ReplyKind::None, dbus::kDefaultTimeout,
            [session, serial, path, object](Engine& e, const dbus::Result& result) {
              e.advertisementRegistered(session, serial, path, object, result);
            });
}

void Engine::advertisementRegistered(std::uint64_t session, std::uint64_t serial,
                                     const std::string& path, dbus::Connection::Id object,
                                     const dbus::Result& result) {
  const auto s = peripherals_.find(session);
  const bool current =
      s != peripherals_.end() && s->second.advert && s->second.advert->serial == serial;
  if (!current) {
    // Stopped or replaced meanwhile: the newer request reports for itself.
    retire(kAdvertisingManager1, "UnregisterAdvertisement", path, {object}, !result.error);
    return;
  }
  if (result.error) {
    s->second.advert.reset();
    retire(kAdvertisingManager1, "UnregisterAdvertisement", path, {object}, false);
    const auto error = registrationError(*result.error);
    toPeripheral(session, [&](radio::PeripheralEvents& e) { e.radioAdvertisingStarted(error); });
    return;
  }
  s->second.advert->registered = true;
  toPeripheral(session,
               [&](radio::PeripheralEvents& e) { e.radioAdvertisingStarted(std::nullopt); });
}

void Engine::stopAdvertising(std::uint64_t session) {
  const auto it = peripherals_.find(session);
  if (it != peripherals_.end()) withdrawAdvert(it->second);
}

void Engine::onRelease(std::uint64_t session, std::uint64_t serial) {
  const auto it = peripherals_.find(session);
  if (it == peripherals_.end() || !it->second.advert || it->second.advert->serial != serial) return;
  // Advertising has stopped; the radio interface has no event for that.
  bus_->unexport(it->second.advert->object);
  it->second.advert.reset();
}

}  // namespace lumora::bluez
