// The BlueZ radio's engine: one D-Bus connection, a mirror of bluetoothd's
// objects for one adapter, and the state of every central and peripheral
// session opened on it.
//
// Threading. Everything below "loop thread" runs on the thread of
// RunLoop::main() only, reached through post(); the engine has no lock.
// State values are atomics so that sessions can read them from any thread.
// Radio events are raised directly from here, on the loop thread, with
// nothing held: receivers only queue work, so nothing re-enters.
//
// Ownership. The backend object and every session hold the engine; the
// engine holds the connection. Callbacks registered with the run loop or the
// bus hold the engine weakly. The destructor hands the connection to the
// loop to be closed there, since sd-bus must not be touched from another
// thread.
#pragma once

#include <atomic>
#include <chrono>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <string>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "Foundation/RunLoop.h"
#include "backends/bluez/BlueZBackend.h"
#include "backends/bluez/DBus.h"
#include "backends/bluez/Mapping.h"

namespace lumora::bluez {

inline constexpr const char* kBluez = "org.bluez";
inline constexpr const char* kAdapter1 = "org.bluez.Adapter1";
inline constexpr const char* kDevice1 = "org.bluez.Device1";
inline constexpr const char* kGattService1 = "org.bluez.GattService1";
inline constexpr const char* kGattCharacteristic1 = "org.bluez.GattCharacteristic1";
inline constexpr const char* kGattManager1 = "org.bluez.GattManager1";
inline constexpr const char* kAdvertisingManager1 = "org.bluez.LEAdvertisingManager1";
inline constexpr const char* kAdvertisement1 = "org.bluez.LEAdvertisement1";

class Engine : public std::enable_shared_from_this<Engine> {
 public:
  /// Connects, finds the adapter and starts serving the bus from
  /// RunLoop::main(). Throws radio::BackendError. Any thread.
  static std::shared_ptr<Engine> start(const Options& options);
  ~Engine();
  Engine(const Engine&) = delete;
  Engine& operator=(const Engine&) = delete;

  // --- any thread -------------------------------------------------------------
  const std::string& name() const { return name_; }
  CBManagerState centralState() const { return centralState_.load(); }
  CBManagerState peripheralState() const { return peripheralState_.load(); }
  std::uint64_t newId() { return nextId_.fetch_add(1); }
  /// Runs `fn` on the loop thread, if the engine still lives then.
  void post(std::function<void(Engine&)> fn);

  // --- loop thread: central sessions ------------------------------------------------
  /// `seen`: the state the opener could read when it opened the session; a
  /// change since then is raised once the session is in place.
  void openCentral(std::uint64_t session, std::weak_ptr<radio::CentralEvents> events,
                   CBManagerState seen);
  void closeCentral(std::uint64_t session);
  void startScan(std::uint64_t session, const radio::ScanParameters& parameters);
  void stopScan(std::uint64_t session);
  void connect(std::uint64_t session, const radio::PeripheralId& peripheral);
  void cancelConnection(std::uint64_t session, const radio::PeripheralId& peripheral);
  void discoverServices(std::uint64_t session, const radio::PeripheralId& peripheral,
                        const std::optional<std::vector<CBUUID>>& filter);
  void discoverCharacteristics(std::uint64_t session, const radio::PeripheralId& peripheral,
                               radio::AttHandle service,
                               const std::optional<std::vector<CBUUID>>& filter);
  void read(std::uint64_t session, const radio::PeripheralId& peripheral,
            radio::AttHandle characteristic);
  void write(std::uint64_t session, const radio::PeripheralId& peripheral,
             radio::AttHandle characteristic, const Bytes& value, bool withResponse);

  // --- loop thread: peripheral sessions ---------------------------------------------
  void openPeripheral(std::uint64_t session, std::weak_ptr<radio::PeripheralEvents> events,
                      CBManagerState seen);
  void closePeripheral(std::uint64_t session);
  void addService(std::uint64_t session, radio::ServiceToken token,
                  const radio::LocalService& service);
  void removeService(std::uint64_t session, radio::ServiceToken token);
  void removeAllServices(std::uint64_t session);
  void startAdvertising(std::uint64_t session, const CBAdvertisementData& data);
  void stopAdvertising(std::uint64_t session);
  void respond(std::uint64_t session, radio::RequestId request, CBATTError result,
               const Data& value);

  // --- loop thread: ranging -------------------------------------------------------
  void addObservation(std::uint64_t id, std::function<void(const radio::AdvertisingReport&)> sink);
  void removeObservation(std::uint64_t id);

 private:
  using Clock = RunLoop::Clock;

  // A session's link to one remote device.
  struct Link {
    enum class Phase { Connecting, Connected, Cancelling };
    Phase phase = Phase::Connecting;
    std::uint64_t attempt = 0;  // tells this attempt's replies from older ones
    std::optional<RunLoop::TimerId> timer;
    std::vector<std::optional<std::vector<CBUUID>>> waitingForServices;
  };
  // A write waiting for its turn on one characteristic.
  struct QueuedWrite {
    std::uint64_t serial = 0;  // tells its reply from that of a dropped one
    std::uint64_t session = 0;
    radio::PeripheralId peripheral;
    radio::AttHandle characteristic = 0;
    Bytes value;
    bool withResponse = true;
  };
  struct CentralSession {
    std::weak_ptr<radio::CentralEvents> events;
    bool scanning = false;
    radio::ScanParameters scan;
    std::map<radio::PeripheralId, Link> links;
  };

  struct PendingRequest {
    dbus::IncomingCall call;
    bool read = true;
    radio::ServiceToken service = 0;
  };
  struct App {
    std::uint64_t serial = 0;
    std::string root;
    std::vector<dbus::Connection::Id> objects;
    bool registered = false;
    radio::LocalService service;
  };
  struct Advert {
    std::uint64_t serial = 0;
    std::string path;
    dbus::Connection::Id object = 0;
    bool registered = false;
  };
  struct PeripheralSession {
    std::weak_ptr<radio::PeripheralEvents> events;
    std::string base;  // object path prefix of this session's exports
    std::map<radio::ServiceToken, App> apps;
    std::optional<Advert> advert;
    std::map<radio::RequestId, PendingRequest> requests;
    radio::RequestId nextRequest = 1;
  };

  struct DiscoveryFilter {
    bool duplicates = false;
    std::vector<std::string> uuids;
    friend bool operator==(const DiscoveryFilter&, const DiscoveryFilter&) = default;
  };
  struct Discovery {
    bool active = false;      // our discovery session runs in bluetoothd
    bool busy = false;        // a Set/Start/Stop chain is in flight
    bool restart = false;     // ranging asked for a fresh discovery session
    bool stalled = false;     // bluetoothd refused; wait for something to change
    std::uint64_t epoch = 0;  // bumped when bluetoothd drops discovery itself
    DiscoveryFilter applied;
    std::optional<RunLoop::TimerId> rangingTimer;
    Clock::time_point cycleStart{};
  };

  Engine(const Options& options, std::shared_ptr<dbus::Connection> bus, bool systemBus);

  // Callbacks that reach the engine only while it lives.
  template <class F>
  auto weak(F fn) {
    return [self = weak_from_this(), fn = std::move(fn)](auto&&... args) {
      if (auto engine = self.lock()) fn(*engine, std::forward<decltype(args)>(args)...);
    };
  }
  RunLoop::TimerId after(std::chrono::milliseconds delay, std::function<void(Engine&)> fn);
  void callBluez(const std::string& path, const char* interface, const char* method,
                 std::vector<dbus::Arg> args, dbus::ReplyKind kind,
                 std::chrono::milliseconds timeout,
                 std::function<void(Engine&, dbus::Result)> done);

  // --- bluetoothd and adapter tracking (Engine.cpp) --------------------------------
  void subscribe();
  void adopt(const dbus::ManagedObjects& objects);
  bool selects(const std::string& path, const dbus::Props& adapter) const;
  void onOwnerChanged(const std::string& owner);
  void onEnumerated(const std::string& owner, dbus::Result result);
  void onInterfacesAdded(const std::string& sender, const std::string& path,
                         dbus::InterfaceMap interfaces);
  void onInterfacesRemoved(const std::string& sender, const std::string& path,
                           const std::vector<std::string>& interfaces);
  void onPropertiesChanged(const std::string& sender, const std::string& path,
                           const std::string& interface, const dbus::Props& changed,
                           const std::vector<std::string>& invalidated);
  void onBusClosed();
  /// The adapter is gone, off or unreachable: links, scans and published
  /// services end (with bluetoothd gone, owner_ is already empty and nothing
  /// is unregistered there).
  void dropRadio();
  AdapterView view() const;
  void updateState();
  const dbus::Props* props(const std::string& path, const char* interface) const;
  bool powered() const;

  // --- discovery and reports (Engine.cpp) -----------------------------------------
  DiscoveryFilter wantedFilter() const;
  bool discoveryWanted() const;
  void reconcileDiscovery();
  void rangingTick();
  void report(const std::string& devicePath);

  // --- central role (Central.cpp) ---------------------------------------------------
  template <class F>
  void toCentral(std::uint64_t session, F&& f);
  Link* findLink(std::uint64_t session, const radio::PeripheralId& peripheral);
  bool othersHold(const radio::PeripheralId& peripheral, std::uint64_t except) const;
  std::string pathOf(const radio::PeripheralId& peripheral) const;
  std::string addressOf(const std::string& devicePath) const;
  std::string deviceOf(const std::string& path) const;
  radio::AttHandle handleOf(const std::string& path, const char* prefix);
  std::vector<radio::RemoteService> servicesOf(const std::string& devicePath,
                                               const std::optional<std::vector<CBUUID>>& filter);
  std::optional<std::string> objectWithHandle(const std::string& devicePath, const char* interface,
                                              const char* prefix, radio::AttHandle handle);
  void connectReplied(std::uint64_t session, const radio::PeripheralId& peripheral,
                      std::uint64_t attempt, const dbus::Result& result);
  void connectTimedOut(std::uint64_t session, const radio::PeripheralId& peripheral,
                       std::uint64_t attempt);
  void linkUp(std::uint64_t session, const radio::PeripheralId& peripheral);
  void deviceConnected(const std::string& devicePath, bool connected);
  void servicesResolved(const std::string& devicePath);
  void valueChanged(const std::string& characteristicPath, const Bytes& value);
  void sendWrite(const std::string& characteristicPath);
  void forgetDevice(const std::string& devicePath);
  void dropLinks();
  void disconnectDevice(const std::string& devicePath);

  // --- peripheral role (Peripheral.cpp) ---------------------------------------------
  template <class F>
  void toPeripheral(std::uint64_t session, F&& f);
  /// The published service behind a request for characteristic `index` of
  /// `token`, and the session that owns it; null when any of them is gone.
  const App* appFor(std::uint64_t session, radio::ServiceToken token, std::size_t index,
                    PeripheralSession*& owner);
  void onReadValue(std::uint64_t session, radio::ServiceToken token, std::size_t index,
                   dbus::IncomingCall call);
  void onWriteValue(std::uint64_t session, radio::ServiceToken token, std::size_t index,
                    dbus::IncomingCall call);
  void onRelease(std::uint64_t session, std::uint64_t serial);
  void applicationRegistered(std::uint64_t session, radio::ServiceToken token, std::uint64_t serial,
                             const std::string& root,
                             const std::vector<dbus::Connection::Id>& objects,
                             const dbus::Result& result);
  void advertisementRegistered(std::uint64_t session, std::uint64_t serial, const std::string& path,
                               dbus::Connection::Id object, const dbus::Result& result);
  /// Unregisters (when `registered` and bluetoothd is there) and then unexports.
  void retire(const char* manager, const char* method, std::string path,
              std::vector<dbus::Connection::Id> objects, bool registered);
  void withdrawApp(PeripheralSession& session, radio::ServiceToken token);
  void withdrawAdvert(PeripheralSession& session);
  void withdrawAll(PeripheralSession& session);
  radio::AttRequest requestFrom(const dbus::IncomingCall& call, radio::RequestId id,
                                radio::ServiceToken token, std::size_t index) const;

  // --- state -----------------------------------------------------------------------
  const Options options_;
  const bool systemBus_;
  std::shared_ptr<dbus::Connection> bus_;
  std::string name_;

  std::atomic<CBManagerState> centralState_{CBManagerState::Unknown};
  std::atomic<CBManagerState> peripheralState_{CBManagerState::Unknown};
  std::atomic<std::uint64_t> nextId_{1};

  // Loop thread only from here on.
  std::string owner_;           // unique name of org.bluez; empty while absent
  bool enumerating_ = false;    // owner known, objects not read yet
  bool daemonWasLost_ = false;  // vanished while we ran, grace not over
  bool accessDenied_ = false;
  bool busOpen_ = true;
  std::optional<RunLoop::TimerId> graceTimer_;
  std::string adapterPath_;       // empty: no adapter
  dbus::ManagedObjects objects_;  // the adapter and the objects below it

  Discovery discovery_;
  std::map<std::string, Clock::time_point> heard_;  // device path -> last report (ranging)

  std::map<std::uint64_t, CentralSession> centrals_;
  std::uint64_t attempts_ = 0;
  std::map<std::string, Bytes> expectedEcho_;  // characteristic path -> value a read returned
  std::set<std::string> notifyRequested_;      // characteristic paths we asked to notify
  std::map<std::string, radio::AttHandle> synthetic_;  // paths without a handle in their name
  radio::AttHandle nextSynthetic_ = 0xF000;
  // bluetoothd 5.66 refuses a write (InProgress) while one to the same
  // characteristic is in flight, so writes wait here, per characteristic
  // path, in order; the front one is in flight.
  std::map<std::string, std::deque<QueuedWrite>> writes_;
  std::uint64_t writeSerial_ = 0;

  std::map<std::uint64_t, PeripheralSession> peripherals_;
  std::uint64_t serial_ = 0;

  std::map<std::uint64_t, std::function<void(const radio::AdvertisingReport&)>> observations_;
};

}  // namespace lumora::bluez
