#include "backends/bluez/DBus.h"

#include <poll.h>

#include <sdbus-c++/sdbus-c++.h>
#include <limits>
#include <stdexcept>
#include <utility>

#include "Foundation/RunLoop.h"

namespace lumora::bluez::dbus {

namespace {

using VariantMap = std::map<std::string, sdbus::Variant>;
using WireObjects = std::map<sdbus::ObjectPath, std::map<std::string, VariantMap>>;

template <class T>
Value integer(const sdbus::Variant& v) {
  return static_cast<std::int64_t>(v.get<T>());
}

// Decodes one property value; shapes BlueZ does not use (or a sender that
// lies about them) give monostate, so the caller simply does not see it.
Value toValue(const sdbus::Variant& v) {
  try {
    const std::string type = v.peekValueType();
    if (type == "b") return v.get<bool>();
    if (type == "y") return integer<std::uint8_t>(v);
    if (type == "n") return integer<std::int16_t>(v);
    if (type == "q") return integer<std::uint16_t>(v);
    if (type == "i") return integer<std::int32_t>(v);
    if (type == "u") return integer<std::uint32_t>(v);
    if (type == "x") return integer<std::int64_t>(v);
    if (type == "t") {
      const auto value = v.get<std::uint64_t>();
      return static_cast<std::int64_t>(
          std::min<std::uint64_t>(value, std::numeric_limits<std::int64_t>::max()));
    }
    if (type == "s") return v.get<std::string>();
    if (type == "o") return std::string(v.get<sdbus::ObjectPath>());
    if (type == "as") return v.get<std::vector<std::string>>();
    if (type == "ao") {
      std::vector<std::string> out;
      for (auto& path : v.get<std::vector<sdbus::ObjectPath>>()) out.emplace_back(std::move(path));
      return out;
    }
    if (type == "ay") return v.get<std::vector<std::uint8_t>>();
    if (type == "a{qv}") {
      std::map<std::uint16_t, Bytes> out;
      for (const auto& [key, inner] : v.get<std::map<std::uint16_t, sdbus::Variant>>()) {
        if (inner.peekValueType() == "ay") out.emplace(key, inner.get<std::vector<std::uint8_t>>());
      }
      return out;
    }
    if (type == "a{sv}") {
      std::map<std::string, Bytes> out;
      for (const auto& [key, inner] : v.get<VariantMap>()) {
        if (inner.peekValueType() == "ay") out.emplace(key, inner.get<std::vector<std::uint8_t>>());
      }
      return out;
    }
  } catch (const sdbus::Error&) {
    // A value whose content does not match its own signature: ignored.
  }
  return std::monostate{};
}

Props toProps(const VariantMap& wire) {
  Props props;
  for (const auto& [name, value] : wire) props.emplace(name, toValue(value));
  return props;
}

InterfaceMap toInterfaces(const std::map<std::string, VariantMap>& wire) {
  InterfaceMap out;
  for (const auto& [name, props] : wire) out.emplace(name, toProps(props));
  return out;
}

sdbus::Variant toVariant(const Out& value) {
  return std::visit(
      [](const auto& v) -> sdbus::Variant {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, ObjectPath>) {
          return sdbus::Variant(sdbus::ObjectPath(v.value));
        } else if constexpr (std::is_same_v<T, std::vector<ObjectPath>>) {
          std::vector<sdbus::ObjectPath> paths;
          for (const auto& p : v) paths.emplace_back(p.value);
          return sdbus::Variant(paths);
        } else if constexpr (std::is_same_v<T, std::map<std::uint16_t, Bytes>>) {
          std::map<std::uint16_t, sdbus::Variant> wire;
          for (const auto& [key, bytes] : v) wire.emplace(key, sdbus::Variant(bytes));
          return sdbus::Variant(wire);
        } else {
          return sdbus::Variant(v);
        }
      },
      value);
}

const char* signatureOf(const Out& value) {
  static constexpr const char* kSignatures[] = {"b", "q", "n", "s", "o", "as", "ao", "ay", "a{qv}"};
  static_assert(std::variant_size_v<Out> == std::size(kSignatures));
  return kSignatures[value.index()];
}

void writeProperty(sdbus::PropertyGetReply& reply, const Out& value) {
  std::visit(
      [&reply](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, ObjectPath>) {
          reply << sdbus::ObjectPath(v.value);
        } else if constexpr (std::is_same_v<T, std::vector<ObjectPath>>) {
          std::vector<sdbus::ObjectPath> paths;
          for (const auto& p : v) paths.emplace_back(p.value);
          reply << paths;
        } else if constexpr (std::is_same_v<T, std::map<std::uint16_t, Bytes>>) {
          std::map<std::uint16_t, sdbus::Variant> wire;
          for (const auto& [key, bytes] : v) wire.emplace(key, sdbus::Variant(bytes));
          reply << wire;
        } else {
          reply << v;
        }
      },
      value);
}

void writeArg(sdbus::MethodCall& msg, const Arg& arg) {
  std::visit(
      [&msg](const auto& v) {
        using T = std::decay_t<decltype(v)>;
        if constexpr (std::is_same_v<T, ObjectPath>) {
          msg << sdbus::ObjectPath(v.value);
        } else if constexpr (std::is_same_v<T, OutDict>) {
          VariantMap wire;
          for (const auto& [key, value] : v) wire.emplace(key, toVariant(value));
          msg << wire;
        } else {
          msg << v;
        }
      },
      arg);
}

Result decodeReply(sdbus::MethodReply& reply, const sdbus::Error* error, ReplyKind kind) {
  if (error != nullptr) return Result{CallError{error->getName(), error->getMessage()}, {}};
  Result result;
  try {
    switch (kind) {
      case ReplyKind::None:
        break;
      case ReplyKind::Bytes: {
        std::vector<std::uint8_t> bytes;
        reply >> bytes;
        if (!reply) throw std::runtime_error("expected ay");
        result.value = std::move(bytes);
        break;
      }
      case ReplyKind::Text: {
        std::string text;
        reply >> text;
        if (!reply) throw std::runtime_error("expected s");
        result.value = std::move(text);
        break;
      }
      case ReplyKind::Objects: {
        WireObjects wire;
        reply >> wire;
        if (!reply) throw std::runtime_error("expected a{oa{sa{sv}}}");
        ManagedObjects objects;
        for (const auto& [path, interfaces] : wire) objects.emplace(path, toInterfaces(interfaces));
        result.value = std::move(objects);
        break;
      }
    }
  } catch (const sdbus::Error& e) {
    return Result{CallError{kMalformed, e.getMessage()}, {}};
  } catch (const std::runtime_error& e) {
    return Result{CallError{kMalformed, e.what()}, {}};
  }
  return result;
}

constexpr short kBroken = POLLHUP | POLLERR | POLLNVAL;

}  // namespace

// --- IncomingCall ----------------------------------------------------------------

struct IncomingCall::State {
  std::weak_ptr<Connection> connection;
  Connection::Id id = 0;  // the message itself stays with the connection
  std::string sender;
  std::string path;
  Bytes value;
  Props options;
  bool answered = false;
  ~State();
};

struct Connection::Impl {
  std::unique_ptr<sdbus::IConnection> bus;
  std::map<std::pair<std::string, std::string>, std::unique_ptr<sdbus::IProxy>> proxies;
  std::vector<sdbus::Slot> matches;
  std::map<Id, std::unique_ptr<sdbus::IObject>> objects;
  // Calls made to our objects that are not answered yet. Messages stay here,
  // on the loop thread, because an sd-bus message must not outlive (or be
  // released away from) its connection.
  std::map<Id, sdbus::MethodCall> incoming;
  Id nextId = 1;

  bool attached = false;
  bool pumping = false;
  RunLoop::SourceId source = 0;
  short events = 0;
  std::optional<RunLoop::TimerId> timer;
  std::optional<RunLoop::Clock::time_point> deadline;

  sdbus::IProxy& proxy(const std::string& destination, const std::string& path) {
    auto& slot = proxies[{destination, path}];
    if (!slot) slot = sdbus::createProxy(*bus, destination, path);
    return *slot;
  }

  void teardown() {
    if (attached) {
      RunLoop::main().removeSource(source);
      if (timer) RunLoop::main().cancelTimer(*timer);
      timer.reset();
      attached = false;
    }
    incoming.clear();
    objects.clear();
    proxies.clear();
    matches.clear();
  }
};

IncomingCall::State::~State() {
  if (answered) return;
  // Unanswered and forgotten: release the message on the loop thread.
  RunLoop::main().post([connection = connection, id = id] {
    if (auto c = connection.lock()) c->impl_->incoming.erase(id);
  });
}

IncomingCall::IncomingCall() : state_(std::make_shared<State>()) {}
const std::string& IncomingCall::sender() const {
  return state_->sender;
}
const std::string& IncomingCall::path() const {
  return state_->path;
}
const Bytes& IncomingCall::value() const {
  return state_->value;
}
const Props& IncomingCall::options() const {
  return state_->options;
}
bool IncomingCall::answered() const {
  return state_->answered;
}

template <class Send>
void IncomingCall::answer(Send send) {
  if (state_->answered) return;
  state_->answered = true;
  auto connection = state_->connection.lock();
  if (!connection) return;
  auto node = connection->impl_->incoming.extract(state_->id);
  if (node.empty()) return;
  try {
    send(node.mapped());
  } catch (const sdbus::Error&) {
    // The caller is gone; nothing to tell.
  }
  connection->refresh();
}

void IncomingCall::reply() {
  answer([](sdbus::MethodCall& call) { call.createReply().send(); });
}

void IncomingCall::reply(const Bytes& value) {
  answer([&](sdbus::MethodCall& call) {
    auto reply = call.createReply();
    reply << value;
    reply.send();
  });
}

void IncomingCall::replyError(const std::string& name, const std::string& message) {
  answer(
      [&](sdbus::MethodCall& call) { call.createErrorReply(sdbus::Error(name, message)).send(); });
}

// --- Connection ------------------------------------------------------------------

Connection::Connection() : impl_(std::make_unique<Impl>()) {}

Connection::~Connection() {
  impl_->teardown();
}

std::shared_ptr<Connection> Connection::open(const std::string& address) {
  std::shared_ptr<Connection> connection(new Connection());
  try {
    connection->impl_->bus = address.empty()
                                 ? sdbus::createSystemBusConnection()
                                 : sdbus::createSessionBusConnectionWithAddress(address);
    connection->uniqueName_ = connection->impl_->bus->getUniqueName();
  } catch (const sdbus::Error& e) {
    throw std::runtime_error(e.getMessage().empty() ? e.getName() : e.getMessage());
  }
  return connection;
}

Result Connection::callSync(const Target& target, const std::vector<Arg>& args, ReplyKind kind,
                            std::chrono::milliseconds timeout) {
  if (closed_) return Result{CallError{kClosed, "connection closed"}, {}};
  try {
    auto& proxy = impl_->proxy(target.destination, target.path);
    auto msg = proxy.createMethodCall(target.interface, target.method);
    for (const auto& arg : args) writeArg(msg, arg);
    auto reply = proxy.callMethod(msg, timeout);
    return decodeReply(reply, nullptr, kind);
  } catch (const sdbus::Error& e) {
    return Result{CallError{e.getName(), e.getMessage()}, {}};
  }
}

void Connection::attach() {
  if (closed_ || impl_->attached) return;
  const auto poll = impl_->bus->getEventLoopPollData();
  impl_->events = poll.events;
  std::weak_ptr<Connection> weak = shared_from_this();
  impl_->source = RunLoop::main().addSource(poll.fd, poll.events, [weak](short revents) {
    auto self = weak.lock();
    if (!self || self->closed_) return;
    self->pump();
    // A hung-up socket that sd-bus no longer reports as readable would spin.
    if ((revents & kBroken) != 0 && !self->closed_) {
      try {
        if (!self->impl_->bus->processPendingRequest()) self->fail();
      } catch (const sdbus::Error&) {
        self->fail();
      }
    }
  });
  impl_->attached = true;
  refresh();
}

void Connection::close() {
  if (closed_) return;
  closed_ = true;
  // Inside sd-bus dispatch the bus must outlive the current callback: pump()
  // finishes the teardown.
  if (!impl_->pumping) impl_->teardown();
}

void Connection::fail() {
  if (closed_) return;
  close();
  if (onClosed_) RunLoop::main().post(std::move(onClosed_));
}

void Connection::pump() {
  if (closed_ || impl_->pumping) return;
  auto keep = shared_from_this();  // a handler may drop the last other reference
  impl_->pumping = true;
  bool broken = false;
  try {
    // Bounded, so that a flood of messages cannot starve the rest of the loop;
    // what is left is picked up through the zero timeout sd-bus then reports.
    for (int i = 0; i < 64 && !closed_; ++i) {
      if (!impl_->bus->processPendingRequest()) break;
    }
  } catch (const sdbus::Error&) {
    broken = true;
  }
  impl_->pumping = false;
  if (closed_) {
    impl_->teardown();
    return;
  }
  if (broken) {
    fail();
    return;
  }
  refresh();
}

void Connection::refresh() {
  if (closed_ || !impl_->attached || impl_->pumping) return;
  sdbus::IConnection::PollData poll{};
  try {
    poll = impl_->bus->getEventLoopPollData();
  } catch (const sdbus::Error&) {
    fail();
    return;
  }
  if (poll.events != impl_->events) {
    impl_->events = poll.events;
    RunLoop::main().updateSource(impl_->source, poll.events);
  }
  std::optional<RunLoop::Clock::time_point> deadline;
  if (poll.timeout_usec != std::numeric_limits<std::uint64_t>::max()) {
    // sd-bus deadlines are CLOCK_MONOTONIC, which is what steady_clock reads.
    deadline = RunLoop::Clock::time_point(std::chrono::microseconds(poll.timeout_usec));
  }
  if (deadline == impl_->deadline) return;
  if (impl_->timer) RunLoop::main().cancelTimer(*impl_->timer);
  impl_->timer.reset();
  impl_->deadline = deadline;
  if (!deadline) return;
  std::weak_ptr<Connection> weak = shared_from_this();
  impl_->timer = RunLoop::main().addTimer(*deadline, [weak] {
    auto self = weak.lock();
    if (!self || self->closed_) return;
    self->impl_->timer.reset();
    self->impl_->deadline.reset();
    self->pump();
  });
}

void Connection::call(const Target& target, const std::vector<Arg>& args, ReplyKind kind,
                      std::chrono::milliseconds timeout, ReplyFn done) {
  if (closed_) {
    RunLoop::main().post([done = std::move(done)] {
      done(Result{CallError{kClosed, "connection closed"}, {}});
    });
    return;
  }
  try {
    auto& proxy = impl_->proxy(target.destination, target.path);
    auto msg = proxy.createMethodCall(target.interface, target.method);
    for (const auto& arg : args) writeArg(msg, arg);
    proxy.callMethod(
        msg,
        [kind, done](sdbus::MethodReply& reply, const sdbus::Error* error) {
          done(decodeReply(reply, error, kind));
        },
        timeout);
  } catch (const sdbus::Error& e) {
    // Never answered from inside the call itself.
    RunLoop::main().post([done = std::move(done), error = CallError{e.getName(), e.getMessage()}] {
      done(Result{error, {}});
    });
  }
  refresh();
}

void Connection::subscribeObjectManager(
    std::function<void(const std::string&, const std::string&, InterfaceMap)> added,
    std::function<void(const std::string&, const std::string&, std::vector<std::string>)> removed) {
  impl_->matches.push_back(impl_->bus->addMatch(
      "type='signal',interface='org.freedesktop.DBus.ObjectManager'",
      [added = std::move(added), removed = std::move(removed)](sdbus::Message& msg) {
        try {
          sdbus::ObjectPath path;
          if (msg.getMemberName() == "InterfacesAdded") {
            std::map<std::string, VariantMap> interfaces;
            msg >> path >> interfaces;
            if (msg) added(msg.getSender(), path, toInterfaces(interfaces));
          } else if (msg.getMemberName() == "InterfacesRemoved") {
            std::vector<std::string> interfaces;
            msg >> path >> interfaces;
            if (msg) removed(msg.getSender(), path, std::move(interfaces));
          }
        } catch (const sdbus::Error&) {
          // Malformed signal: ignored.
        }
      }));
}

void Connection::subscribePropertiesChanged(
    const std::string& pathNamespace,
    std::function<void(const std::string&, const std::string&, const std::string&, Props,
                       std::vector<std::string>)>
        fn) {
  impl_->matches.push_back(impl_->bus->addMatch(
      "type='signal',interface='org.freedesktop.DBus.Properties',member='PropertiesChanged',"
      "path_namespace='" +
          pathNamespace + "'",
      [fn = std::move(fn)](sdbus::Message& msg) {
        try {
          std::string interface;
          VariantMap changed;
          std::vector<std::string> invalidated;
          msg >> interface >> changed >> invalidated;
          if (msg) fn(msg.getSender(), msg.getPath(), interface, toProps(changed), invalidated);
        } catch (const sdbus::Error&) {
        }
      }));
}

void Connection::subscribeNameOwner(const std::string& name,
                                    std::function<void(const std::string&)> fn) {
  impl_->matches.push_back(impl_->bus->addMatch(
      "type='signal',sender='org.freedesktop.DBus',path='/org/freedesktop/DBus',"
      "interface='org.freedesktop.DBus',member='NameOwnerChanged',arg0='" +
          name + "'",
      [name, fn = std::move(fn)](sdbus::Message& msg) {
        try {
          std::string which;
          std::string oldOwner;
          std::string newOwner;
          msg >> which >> oldOwner >> newOwner;
          if (msg && which == name) fn(newOwner);
        } catch (const sdbus::Error&) {
        }
      }));
}

Connection::Id Connection::exportObject(const std::string& path,
                                        const std::vector<ExportedProperty>& properties,
                                        const std::vector<ExportedMethod>& methods,
                                        bool objectManager) {
  if (closed_) return 0;
  try {
    return exportChecked(path, properties, methods, objectManager);
  } catch (const sdbus::Error&) {
    return 0;  // a path in use or a malformed name: the caller reports it
  }
}

Connection::Id Connection::exportChecked(const std::string& path,
                                         const std::vector<ExportedProperty>& properties,
                                         const std::vector<ExportedMethod>& methods,
                                         bool objectManager) {
  auto object = sdbus::createObject(*impl_->bus, path);
  for (const auto& property : properties) {
    object->registerProperty(
        property.interface, property.name, signatureOf(property.value),
        [value = property.value](sdbus::PropertyGetReply& reply) { writeProperty(reply, value); });
  }
  std::weak_ptr<Connection> weak = shared_from_this();
  for (const auto& method : methods) {
    object->registerMethod(
        method.interface, method.name, method.inSignature, method.outSignature,
        [weak, handler = method.handler, in = method.inSignature](sdbus::MethodCall msg) {
          auto self = weak.lock();
          if (!self || self->closed_) return;
          IncomingCall call;
          auto& state = *call.state_;
          state.connection = weak;
          state.sender = msg.getSender();
          state.path = msg.getPath();
          try {
            if (in == "aya{sv}") {
              std::vector<std::uint8_t> value;
              msg >> value;
              state.value = std::move(value);
            }
            if (in == "a{sv}" || in == "aya{sv}") {
              VariantMap options;
              msg >> options;
              state.options = toProps(options);
            }
          } catch (const sdbus::Error&) {
            state.answered = true;
            throw sdbus::Error("org.freedesktop.DBus.Error.InvalidArgs", "Invalid arguments");
          }
          if (msg.doesntExpectReply()) {
            state.answered = true;
          } else {
            state.id = self->impl_->nextId++;
            self->impl_->incoming.emplace(state.id, msg);
          }
          handler(std::move(call));
        });
  }
  if (objectManager) object->addObjectManager();
  object->finishRegistration();
  const Id id = impl_->nextId++;
  impl_->objects.emplace(id, std::move(object));
  return id;
}

void Connection::unexport(Id id) {
  if (closed_) return;
  // Not from inside one of the object's own method handlers: sdbus-c++ would
  // destroy the vtable it is running from. Callers defer through the loop.
  impl_->objects.erase(id);
}

}  // namespace lumora::bluez::dbus
