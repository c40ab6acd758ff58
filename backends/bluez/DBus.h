// The one place that talks to sdbus-c++: a D-Bus connection driven by
// RunLoop::main(), typed for the shapes BlueZ uses.
//
//   auto bus = dbus::Connection::open("");          // the system bus
//   bus->attach();                                   // from now on: loop thread only
//   bus->call({"org.bluez", "/org/bluez/hci0", "org.bluez.Adapter1", "StartDiscovery"}, {},
//             dbus::ReplyKind::None, dbus::kDefaultTimeout,
//             [](dbus::Result r) { if (r.error) ... });
//
// Threading. open() and callSync() may run on any thread before attach();
// after attach() every operation belongs to the thread that runs the main run
// loop, and every callback (replies, signals, incoming method calls) runs
// there, from inside the loop and never from inside the operation that
// caused it. sdbus-c++ is not thread-safe without its own loop thread, which
// is why nothing here is.
//
// Nothing blocks after attach(): calls are asynchronous, so a peer that calls
// back into us before it replies (bluetoothd does, on RegisterApplication and
// RegisterAdvertisement) is served while we wait.
//
// Values. What arrives from the bus is decoded into `Value`, which knows only
// the types BlueZ uses; anything else (or a malformed message) decodes to
// std::monostate or an error, never to an exception or a crash. Outgoing
// values carry their D-Bus type (`Out`).
#pragma once

#include <chrono>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <variant>
#include <vector>

#include "Foundation/Bytes.h"

namespace lumora::bluez::dbus {

/// A decoded property value. Integers of every width arrive as int64_t;
/// object paths as text; `a{qv}` of byte arrays (ManufacturerData) as a map
/// keyed by company id; `a{sv}` of byte arrays (ServiceData) as a map keyed
/// by UUID text.
using Value =
    std::variant<std::monostate, bool, std::int64_t, std::string, std::vector<std::string>, Bytes,
                 std::map<std::uint16_t, Bytes>, std::map<std::string, Bytes>>;
using Props = std::map<std::string, Value>;
using InterfaceMap = std::map<std::string, Props>;
using ManagedObjects = std::map<std::string, InterfaceMap>;

/// The typed entry `key` of `props`, or null when absent or of another type.
template <class T>
const T* get(const Props& props, const std::string& key) {
  const auto it = props.find(key);
  return it == props.end() ? nullptr : std::get_if<T>(&it->second);
}

struct ObjectPath {
  std::string value;
  friend bool operator==(const ObjectPath&, const ObjectPath&) = default;
};

/// An outgoing value with its D-Bus type: b, q, n, s, o, as, ao, ay, a{qv}
/// (company id -> byte array).
using Out = std::variant<bool, std::uint16_t, std::int16_t, std::string, ObjectPath,
                         std::vector<std::string>, std::vector<ObjectPath>, Bytes,
                         std::map<std::uint16_t, Bytes>>;
using OutDict = std::map<std::string, Out>;
/// A method argument: s, o, ay or a{sv}.
using Arg = std::variant<std::string, ObjectPath, Bytes, OutDict>;

struct CallError {
  std::string name;
  std::string message;
};

/// What a reply is expected to hold; a reply of another shape is an error
/// named kMalformed.
enum class ReplyKind { None, Bytes, Text, Objects };
inline constexpr const char* kMalformed = "org.lumora.Error.MalformedReply";
inline constexpr const char* kClosed = "org.lumora.Error.Disconnected";
inline constexpr std::chrono::milliseconds kDefaultTimeout{25000};

struct Result {
  std::optional<CallError> error;
  std::variant<std::monostate, Bytes, std::string, ManagedObjects> value;
};
using ReplyFn = std::function<void(Result)>;

/// Destination of a call.
struct Target {
  std::string destination;
  std::string path;
  std::string interface;
  std::string method;
};

/// A method call made to one of our exported objects. It may be answered
/// later (keep a copy), once; copies share the one answer. Dropping every
/// copy unanswered leaves the caller to its own timeout.
class IncomingCall {
 public:
  IncomingCall();
  const std::string& sender() const;
  const std::string& path() const;
  /// The `ay` argument of WriteValue (empty for other methods).
  const Bytes& value() const;
  /// The trailing `a{sv}` options argument (empty when the method has none).
  const Props& options() const;
  bool answered() const;
  void reply();
  void reply(const Bytes& value);
  void replyError(const std::string& name, const std::string& message);

 private:
  friend class Connection;
  struct State;
  /// Takes the call out of its connection's pending ones and hands it to
  /// `send` (which builds and sends the answer), once. Defined and used in
  /// DBus.cpp only.
  template <class Send>
  void answer(Send send);
  std::shared_ptr<State> state_;
};

struct ExportedMethod {
  std::string interface;
  std::string name;
  std::string inSignature;  // "", "a{sv}" or "aya{sv}"
  std::string outSignature;
  std::function<void(IncomingCall)> handler;
};
struct ExportedProperty {
  std::string interface;
  std::string name;
  Out value;
};

class Connection : public std::enable_shared_from_this<Connection> {
 public:
  using Id = std::uint64_t;

  /// Opens a bus connection: `address` is a D-Bus address, or empty for the
  /// system bus. Throws std::runtime_error with the reason.
  static std::shared_ptr<Connection> open(const std::string& address);
  ~Connection();
  Connection(const Connection&) = delete;
  Connection& operator=(const Connection&) = delete;

  const std::string& uniqueName() const { return uniqueName_; }

  /// Blocking call; only before attach(), and only to peers that never call
  /// back into us while answering.
  Result callSync(const Target& target, const std::vector<Arg>& args, ReplyKind kind,
                  std::chrono::milliseconds timeout);

  /// Starts serving the connection from RunLoop::main(). Loop thread from now on.
  void attach();
  /// Stops serving it and drops every subscription, proxy and exported object.
  void close();
  bool isOpen() const { return !closed_; }
  /// Runs when the bus itself goes away (not when a peer does).
  void onClosed(std::function<void()> fn) { onClosed_ = std::move(fn); }

  /// Asynchronous call; `done` runs later on the loop thread, exactly once,
  /// unless the connection is closed first.
  void call(const Target& target, const std::vector<Arg>& args, ReplyKind kind,
            std::chrono::milliseconds timeout, ReplyFn done);

  // Signal subscriptions; they must be made before attach() (the match rule is
  // installed with a round trip to the bus broker, never to bluetoothd).
  void subscribeObjectManager(
      std::function<void(const std::string& sender, const std::string& path, InterfaceMap)> added,
      std::function<void(const std::string& sender, const std::string& path,
                         std::vector<std::string> interfaces)>
          removed);
  void subscribePropertiesChanged(
      const std::string& pathNamespace,
      std::function<void(const std::string& sender, const std::string& path,
                         const std::string& interface, Props changed,
                         std::vector<std::string> invalidated)>
          fn);
  void subscribeNameOwner(const std::string& name,
                          std::function<void(const std::string& newOwner)> fn);

  /// Publishes an object. `objectManager` makes it an ObjectManager root for
  /// the objects exported below it. Returns an id for unexport(), 0 when the
  /// object could not be exported.
  Id exportObject(const std::string& path, const std::vector<ExportedProperty>& properties,
                  const std::vector<ExportedMethod>& methods, bool objectManager);
  void unexport(Id id);

 private:
  friend class IncomingCall;
  struct Impl;
  Connection();
  Id exportChecked(const std::string& path, const std::vector<ExportedProperty>& properties,
                   const std::vector<ExportedMethod>& methods, bool objectManager);
  void pump();
  void refresh();
  void fail();

  std::unique_ptr<Impl> impl_;
  std::string uniqueName_;
  bool closed_ = false;
  std::function<void()> onClosed_;
};

}  // namespace lumora::bluez::dbus
