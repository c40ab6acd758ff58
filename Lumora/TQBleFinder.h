// The beacon finder: ranges beacon regions, connects to one device by its
// advertised local name, and exchanges data with it.
//
//   struct App : lumora::TQBleFinderDelegate {
//     void didDiscoverBeacon(const lumora::CLBeaconList& beacons,
//                            const std::shared_ptr<lumora::CLBeaconRegion>& inRegion) override {}
//     void didstate(int state, const std::string& Msg, const lumora::Data& data) override {
//       std::printf("%d %s\n", state, Msg.c_str());
//     }
//   } app;
//   auto finder = std::make_shared<lumora::TQBleFinder>();   // make_shared is required
//   finder->setDelegate(&app);
//   finder->initTQFinder();
//   finder->StartTQFinder(regions);      // didDiscoverBeacon about once a second
//   finder->TQBeacon_Connect("12");      // 90 "TQBeacon Conneting...", ... 50 "Connect Peripheral"
//   lumora::RunLoop::main().run();
//
// Threads. Call the finder on the main thread. Every callback the platform
// causes (ranging results, and the status events of TQStatus sent from scan,
// link, discovery and value callbacks) arrives on the main queue, that is
// wherever the application runs RunLoop::main(). Events sent by an operation
// the application calls (Connecting, Disconnected, SendData, ReadData, and
// StartScan / StopScan from Scan_peripherals / stopScan_Scan_peripherals) are
// sent synchronously before it returns. The delegate may call back into the
// finder from any callback; on a disconnection both events are sent before
// the peripheral and characteristic fields are cleared. The atomic
// properties (uuid, major, minor, is_connectBeacon, peripheral_uuid) may be
// read and written from any thread one access at a time; nothing else may.
//
// Lifetimes. The delegate is a plain non-owning pointer that the finder never
// clears: keep it alive while the finder may call it, or set it to null. The
// platform objects refer to the finder weakly, so a destroyed finder is never
// called back. Create the finder with std::make_shared: its platform
// delegates are wired through weak_from_this().
//
// Choices where the behaviour is open:
// - A characteristic is recognised as the beacon-UUID one when its UUID equals
//   the text form of `uuid` by value (CBUUID::isEqual(text)).
// - getBeaconInfoFromData() on a null buffer or one shorter than 25 bytes gives
//   no record at all (an empty optional), never a partial one.
// - Byte buffers in messages ("TQBeacon SendData : %@") use the platform text
//   form: "<01020304 0506>", "(null)" for null.
// - "DisconnectFlag" lives in the file-backed NSUserDefaults standard store.
#pragma once

#include <atomic>
#include <cstdint>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "CoreBluetooth/CBCentralManager.h"
#include "CoreBluetooth/CBPeripheral.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "CoreLocation/CLLocationManager.h"
#include "Foundation/Atomic.h"
#include "Foundation/Bytes.h"
#include "Foundation/Number.h"
#include "Foundation/Object.h"
#include "Foundation/Uuid.h"

namespace lumora {

/// One status event: a state code and its fixed message.
struct TQStatusEvent {
  std::int32_t code;
  std::string_view message;
};

/// Every status event the finder sends through didstate(state, Msg, data).
/// Codes: 50 link open, 51 link closed, 80 data received, 90 progress.
namespace TQStatus {
inline constexpr TQStatusEvent Connecting{90, "TQBeacon Conneting..."};
inline constexpr TQStatusEvent Disconnected{90, "TQBeacon Disconnected"};
/// "%@" is replaced by the description of the bytes sent.
inline constexpr TQStatusEvent SendData{90, "TQBeacon SendData : %@"};
inline constexpr TQStatusEvent ReadData{90, "TQBeacon ReadData"};
inline constexpr TQStatusEvent StartScan{90, "Start Scan peripherals"};
inline constexpr TQStatusEvent StopScan{90, "Stop Scan peripherals"};
/// Carries the received bytes as data.
inline constexpr TQStatusEvent RecvData{80, "BLE RECV DATA"};
inline constexpr TQStatusEvent ConnectPeripheral{50, "Connect Peripheral"};
inline constexpr TQStatusEvent DidDisconnect{51, "didDisconnectPeripheral"};
inline constexpr TQStatusEvent ConnectionLost{90, "beacon connection lost"};
}  // namespace TQStatus

/// The user-defaults key of the quiet-disconnection flag.
inline constexpr std::string_view TQDisconnectFlagKey = "DisconnectFlag";

/// What the application implements to hear from a TQBleFinder. Both
/// operations arrive on the main queue (see the threading notes above).
class TQBleFinderDelegate {
 public:
  virtual ~TQBleFinderDelegate() = default;
  /// Once per non-empty ranging result: the platform's beacons, in its order.
  virtual void didDiscoverBeacon(const CLBeaconList& beacons,
                                 const std::shared_ptr<CLBeaconRegion>& inRegion) = 0;
  /// Every other happening: a code and message of TQStatus, and data (only
  /// code 80 carries any).
  virtual void didstate(std::int32_t state, const std::string& Msg, const Data& data) = 0;
};

class TQBleFinder : public std::enable_shared_from_this<TQBleFinder>,
                    public CLLocationManagerDelegate,
                    public CBCentralManagerDelegate,
                    public CBPeripheralDelegate {
 public:
  using RegionList = std::vector<std::shared_ptr<CLBeaconRegion>>;
  using PeripheralList = std::vector<std::shared_ptr<CBPeripheral>>;
  using RssiList = std::vector<Number>;
  using BeaconDictionary = std::map<std::string, CLBeaconList>;

  /// The record getBeaconInfoFromData() decodes: "uuid", "major", "minor", "power".
  struct BeaconInfo {
    UuidText uuid;  // canonical upper-case 36-character text, held inline
    Number major;   // unsigned 16-bit
    Number minor;   // unsigned 16-bit
    Number power;   // signed 8-bit, dBm at one metre
    /// The dictionary view: exactly the four keys above.
    Dictionary dictionary() const;
    friend bool operator==(const BeaconInfo&, const BeaconInfo&) = default;
  };

  /// Plain construction: every field null or false. Call initTQFinder() next.
  TQBleFinder() = default;
  /// Tear-down: drops the manager, peripheral, name, beacons and regions.
  ~TQBleFinder() override;

  // --- Set-up and ranging ---------------------------------------------------
  void initTQFinder();
  /// Replaces rangedRegions with a copy of `regions` (null: empty) and ranges
  /// each. Regions ranged before are not stopped.
  void StartTQFinder(const std::optional<RegionList>& regions);
  /// Stops ranging each region of rangedRegions (kept afterwards).
  void StopTQFinder();
  /// is_connectBeacon: a connection is requested and not withdrawn.
  bool is_TQFinderState() const;

  // --- Pure helpers (static: callable on the class or an instance) ---------
  /// True when the buffer is longer than 4 bytes and starts 4C 00 02 15.
  static bool advDataIsBeacon(const Data& data);
  /// Decodes bytes 4..24; empty optional for a null or short buffer.
  static std::optional<BeaconInfo> getBeaconInfoFromData(const Data& data);
  /// Distance from a measured power (read with intValue) and an RSSI (read
  /// with doubleValue); null when the RSSI is 0.
  static std::optional<Number> calculatedDistance(const std::optional<Number>& txPower,
                                                  const std::optional<Number>& RSSI);
  /// Two lower-case hex digits per byte, no separators.
  static std::string getHexString(const Data& data);
  /// Two upper-case hex digits per byte; with Spaces_AS a blank after every
  /// fourth byte and a line feed after every sixteenth.
  static std::string hexRepresentation(const Data& data, bool Spaces_AS);

  // --- Scan, connection, discovery, exchange --------------------------------
  void Scan_peripherals();
  void stopScan_Scan_peripherals();
  void TQBeacon_Connect(const std::optional<std::string>& name);
  void TQBeacon_Disconnect();
  bool TQ_BLE_Connect(const std::shared_ptr<CBPeripheral>& p);
  void TQ_BLE_Disconnect();
  void TQBeacon_SendData(const Data& data);
  void TQBeacon_ReqReadData();
  void TQ_BLE_SendData(const Data& data);
  void TQ_BLE_ReqReadData();
  void TQ_BLE_RecvData(const Data& data);

  // --- Platform callbacks ---------------------------------------------------
  void didRangeBeacons(const std::shared_ptr<CLLocationManager>& manager,
                       const CLBeaconList& beacons,
                       const std::shared_ptr<CLBeaconRegion>& region) override;
  /// Not used by the finder: a region that cannot be ranged produces nothing.
  void rangingBeaconsDidFailForRegion(const std::shared_ptr<CLLocationManager>& manager,
                                      const std::shared_ptr<CLBeaconRegion>& region,
                                      ErrorRef error) override;
  void centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) override;
  void didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>& central,
                             const std::shared_ptr<CBPeripheral>& peripheral,
                             const CBAdvertisementData& advertisementData,
                             const Number& RSSI) override;
  void didConnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                            const std::shared_ptr<CBPeripheral>& peripheral) override;
  /// Not used by the finder: a failed attempt leaves it connecting.
  void didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                                  const std::shared_ptr<CBPeripheral>& peripheral,
                                  ErrorRef error) override;
  void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>& central,
                               const std::shared_ptr<CBPeripheral>& peripheral,
                               ErrorRef error) override;
  void didDiscoverServices(const std::shared_ptr<CBPeripheral>& peripheral,
                           ErrorRef error) override;
  void didDiscoverCharacteristicsForService(const std::shared_ptr<CBPeripheral>& peripheral,
                                            const std::shared_ptr<CBService>& service,
                                            ErrorRef error) override;
  void didUpdateValueForCharacteristic(const std::shared_ptr<CBPeripheral>& peripheral,
                                       const std::shared_ptr<CBCharacteristic>& characteristic,
                                       ErrorRef error) override;
  void didWriteValueForCharacteristic(const std::shared_ptr<CBPeripheral>& peripheral,
                                      const std::shared_ptr<CBCharacteristic>& characteristic,
                                      ErrorRef error) override;

  // --- Properties -------------------------------------------------------------
  TQBleFinderDelegate* delegate() const { return delegate_.load(std::memory_order_acquire); }
  void setDelegate(TQBleFinderDelegate* delegate) {
    delegate_.store(delegate, std::memory_order_release);
  }

  std::optional<Uuid> uuid() const { return uuid_.load(); }
  void setUuid(std::optional<Uuid> value) { uuid_.store(value); }
  std::optional<Number> major() const { return major_.load(); }
  void setMajor(std::optional<Number> value) { major_.store(value); }
  std::optional<Number> minor() const { return minor_.load(); }
  void setMinor(std::optional<Number> value) { minor_.store(value); }
  bool is_connectBeacon() const { return is_connectBeacon_.load(); }
  void setIs_connectBeacon(bool value) { is_connectBeacon_.store(value); }
  std::optional<std::string> peripheral_uuid() const { return peripheral_uuid_.load(); }
  void setPeripheral_uuid(std::optional<std::string> value) {
    peripheral_uuid_.store(std::move(value));
  }

  std::shared_ptr<CBCentralManager> centralManager() const { return centralManager_; }
  void setCentralManager(std::shared_ptr<CBCentralManager> value) {
    centralManager_ = std::move(value);
  }
  std::shared_ptr<CBPeripheral> peripheral() const { return peripheral_; }
  void setPeripheral(std::shared_ptr<CBPeripheral> value) { peripheral_ = std::move(value); }
  std::shared_ptr<CBCharacteristic> iBeaconUUIDCharacteristic() const {
    return iBeaconUUIDCharacteristic_;
  }
  void setIBeaconUUIDCharacteristic(std::shared_ptr<CBCharacteristic> v) {
    iBeaconUUIDCharacteristic_ = std::move(v);
  }
  std::shared_ptr<CBCharacteristic> majorCharacteristic() const { return majorCharacteristic_; }
  void setMajorCharacteristic(std::shared_ptr<CBCharacteristic> v) {
    majorCharacteristic_ = std::move(v);
  }
  std::shared_ptr<CBCharacteristic> minorCharacteristic() const { return minorCharacteristic_; }
  void setMinorCharacteristic(std::shared_ptr<CBCharacteristic> v) {
    minorCharacteristic_ = std::move(v);
  }
  std::shared_ptr<CBCharacteristic> dataCharacteristic() const { return dataCharacteristic_; }
  void setDataCharacteristic(std::shared_ptr<CBCharacteristic> v) {
    dataCharacteristic_ = std::move(v);
  }
  std::shared_ptr<CBCharacteristic> batteryLevelBroadCastCharacteristic() const {
    return batteryLevelBroadCastCharacteristic_;
  }
  void setBatteryLevelBroadCastCharacteristic(std::shared_ptr<CBCharacteristic> v) {
    batteryLevelBroadCastCharacteristic_ = std::move(v);
  }
  /// For the application; the finder never touches it.
  std::shared_ptr<PeripheralList> peripherals() const { return peripherals_; }
  void setPeripherals(std::shared_ptr<PeripheralList> v) { peripherals_ = std::move(v); }
  /// For the application; the finder never touches it.
  std::shared_ptr<RssiList> peripheralsRssi() const { return peripheralsRssi_; }
  void setPeripheralsRssi(std::shared_ptr<RssiList> v) { peripheralsRssi_ = std::move(v); }
  std::shared_ptr<CLLocationManager> locationManager() const { return locationManager_; }
  void setLocationManager(std::shared_ptr<CLLocationManager> v) { locationManager_ = std::move(v); }
  /// Made empty by initTQFinder() and never filled: beacons go to the delegate.
  std::shared_ptr<BeaconDictionary> beacons() const { return beacons_; }
  void setBeacons(std::shared_ptr<BeaconDictionary> v) { beacons_ = std::move(v); }
  /// The regions of the last StartTQFinder(), kept after StopTQFinder().
  std::optional<RegionList> rangedRegions() const { return rangedRegions_; }
  void setRangedRegions(std::optional<RegionList> v) { rangedRegions_ = std::move(v); }

 private:
  void send(const TQStatusEvent& event, const Data& data = std::nullopt);
  void send(std::int32_t code, const std::string& message, const Data& data);

  // The delegate is a plain non-owning pointer; atomic only so that replacing
  // it while callbacks run is not a data race.
  std::atomic<TQBleFinderDelegate*> delegate_{nullptr};
  Atomic<std::optional<Uuid>> uuid_;
  Atomic<std::optional<Number>> major_;
  Atomic<std::optional<Number>> minor_;
  std::atomic<bool> is_connectBeacon_{false};
  Atomic<std::optional<std::string>> peripheral_uuid_;
  std::shared_ptr<CBCentralManager> centralManager_;
  std::shared_ptr<CBPeripheral> peripheral_;
  std::shared_ptr<CBCharacteristic> iBeaconUUIDCharacteristic_;
  std::shared_ptr<CBCharacteristic> majorCharacteristic_;
  std::shared_ptr<CBCharacteristic> minorCharacteristic_;
  std::shared_ptr<CBCharacteristic> dataCharacteristic_;
  std::shared_ptr<CBCharacteristic> batteryLevelBroadCastCharacteristic_;
  std::shared_ptr<PeripheralList> peripherals_;
  std::shared_ptr<RssiList> peripheralsRssi_;
  std::shared_ptr<CLLocationManager> locationManager_;
  std::shared_ptr<BeaconDictionary> beacons_;
  std::optional<RegionList> rangedRegions_;
};

}  // namespace lumora
