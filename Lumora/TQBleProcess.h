// The beacon emulator: advertises this machine as an iBeacon with a local
// name, and serves one GATT service whose writes go to the application and
// whose reads the application answers.
//
//   struct App : lumora::TQBleProcessDelegate {
//     lumora::Data tqbleprocess_didReqReadData() override { return lumora::Bytes{0x0A, 0x0B}; }
//     void tqbleprocess_didRevData(const lumora::Data& data) override { /* bytes written */ }
//   } app;
//   auto emulator = std::make_shared<lumora::TQBleProcess>();   // make_shared is required
//   emulator->setDelegate(&app);
//   emulator->initStartTQBeacon(uuid, lumora::Number(1), lumora::Number(2), std::nullopt);
//   // starts by itself once Bluetooth is powered on; advertises the name "12"
//
// Threads. The emulator's peripheral manager calls back on the global
// concurrent queue, so tqbleprocess_didReqReadData and tqbleprocess_didRevData
// run on worker threads, never the main thread, and may run concurrently with
// the application's own calls. The read answer must be returned at once (do
// not wait on the main thread). Every property access is indivisible on its
// own; no lock spans two accesses, so a start racing a stop from two threads
// interleaves as its steps allow, never with a torn value.
//
// Shared state. The peripheral manager, the last advertised region and the
// measured power are process-wide (peripheralManager, region, power): every
// TQBleProcess shares them, the last one configured receives the callbacks,
// and once a region has been advertised later configurations keep its
// identity. The manager holds its delegate weakly: a destroyed emulator is
// never called back.
//
// Choices where the behaviour is open: a read with no data from the
// application is answered with success and a zero-length value; the
// advertisement is the iBeacon manufacturer data plus the local name (the
// radio puts the name in the scan response when the 31 bytes run out).
#pragma once

#include <atomic>
#include <memory>
#include <optional>

#include "CoreBluetooth/CBPeripheralManager.h"
#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Atomic.h"
#include "Foundation/Bytes.h"
#include "Foundation/NSNumberFormatter.h"
#include "Foundation/Number.h"
#include "Foundation/Uuid.h"

namespace lumora {

/// What the application implements to serve the emulator's characteristics.
/// Both run on worker threads of the global queue.
class TQBleProcessDelegate {
 public:
  virtual ~TQBleProcessDelegate() = default;
  /// The bytes to answer a remote read of "FFCC" with (null: no value).
  virtual Data tqbleprocess_didReqReadData() = 0;
  /// The bytes one remote write request put to "FF0C", exactly as received.
  virtual void tqbleprocess_didRevData(const Data& data) = 0;
};

/// The emulator's service and characteristic UUIDs.
inline constexpr const char* TQBleProcessServiceUUID = "CC00FFC0-0451-4000-B000-000000000000";
inline constexpr const char* TQBleProcessWriteCharacteristicUUID = "FF0C";
inline constexpr const char* TQBleProcessReadCharacteristicUUID = "FFCC";

/// The process's one peripheral manager (null until the first configuration;
/// released by DestroyTQBeacon / StopTQBeacon).
extern Atomic<std::shared_ptr<CBPeripheralManager>> peripheralManager;
/// The region last built for advertising; never cleared.
extern Atomic<std::shared_ptr<CLBeaconRegion>> region;
/// The measured power to advertise (dBm at one metre); never cleared.
extern Atomic<std::optional<Number>> power;

class TQBleProcess : public std::enable_shared_from_this<TQBleProcess>,
                     public CBPeripheralManagerDelegate {
 public:
  /// Plain construction: flags false, every reference null.
  TQBleProcess() = default;

  /// Configures this instance and the shared manager (see the class notes).
  void initStartTQBeacon(const std::optional<Uuid>& uuid, const std::optional<Number>& Major,
                         const std::optional<Number>& Minor,
                         const std::optional<Number>& MeasuredPower);
  /// False (and no change) unless the shared manager is powered on.
  bool StartTQBeacon();
  /// False (and no change) unless powered on; else stops, removes services,
  /// releases the shared manager.
  bool StopTQBeacon();
  /// Clears the started flag and releases the shared manager, asking nothing
  /// of it.
  void DestroyTQBeacon();
  bool is_TQBeaconState() const { return is_startBeacon_.load(); }
  /// Builds the service ("FF0C" write, then "FFCC" read) and adds it.
  void setupService();

  // Peripheral-manager callbacks (worker threads).
  void peripheralManagerDidUpdateState(
      const std::shared_ptr<CBPeripheralManager>& peripheral) override;
  void didAddService(const std::shared_ptr<CBPeripheralManager>& peripheral,
                     const std::shared_ptr<CBService>& service, ErrorRef error) override;
  /// Not used: the advertisement's outcome is never observed.
  void peripheralManagerDidStartAdvertising(const std::shared_ptr<CBPeripheralManager>& peripheral,
                                            ErrorRef error) override;
  void didReceiveReadRequest(const std::shared_ptr<CBPeripheralManager>& peripheral,
                             const std::shared_ptr<CBATTRequest>& request) override;
  void didReceiveWriteRequests(const std::shared_ptr<CBPeripheralManager>& peripheral,
                               const std::vector<std::shared_ptr<CBATTRequest>>& requests) override;

  // Properties.
  TQBleProcessDelegate* delegate() const { return delegate_.load(std::memory_order_acquire); }
  void setDelegate(TQBleProcessDelegate* delegate) {
    delegate_.store(delegate, std::memory_order_release);
  }
  bool enabled() const { return enabled_.load(); }
  void setEnabled(bool value) { enabled_.store(value); }
  std::optional<Uuid> uuid() const { return uuid_.load(); }
  void setUuid(std::optional<Uuid> value) { uuid_.store(value); }
  std::optional<Number> major() const { return major_.load(); }
  void setMajor(std::optional<Number> value) { major_.store(value); }
  std::optional<Number> minor() const { return minor_.load(); }
  void setMinor(std::optional<Number> value) { minor_.store(value); }
  bool is_startBeacon() const { return is_startBeacon_.load(); }
  void setIs_startBeacon(bool value) { is_startBeacon_.store(value); }
  std::shared_ptr<NSNumberFormatter> numberFormatter() const { return numberFormatter_.load(); }
  void setNumberFormatter(std::shared_ptr<NSNumberFormatter> v) {
    numberFormatter_.store(std::move(v));
  }
  std::shared_ptr<CBMutableCharacteristic> customCharacteristic_Write() const {
    return customCharacteristic_Write_.load();
  }
  void setCustomCharacteristic_Write(std::shared_ptr<CBMutableCharacteristic> v) {
    customCharacteristic_Write_.store(std::move(v));
  }
  std::shared_ptr<CBMutableCharacteristic> customCharacteristic_Read() const {
    return customCharacteristic_Read_.load();
  }
  void setCustomCharacteristic_Read(std::shared_ptr<CBMutableCharacteristic> v) {
    customCharacteristic_Read_.store(std::move(v));
  }
  std::shared_ptr<CBMutableService> customService() const { return customService_.load(); }
  void setCustomService(std::shared_ptr<CBMutableService> v) { customService_.store(std::move(v)); }

 private:
  // The delegate is a plain non-owning pointer; atomic only so that replacing
  // it while requests are served is not a data race.
  std::atomic<TQBleProcessDelegate*> delegate_{nullptr};
  std::atomic<bool> enabled_{false};
  Atomic<std::optional<Uuid>> uuid_;
  Atomic<std::optional<Number>> major_;
  Atomic<std::optional<Number>> minor_;
  std::atomic<bool> is_startBeacon_{false};
  Atomic<std::shared_ptr<NSNumberFormatter>> numberFormatter_;
  Atomic<std::shared_ptr<CBMutableCharacteristic>> customCharacteristic_Write_;
  Atomic<std::shared_ptr<CBMutableCharacteristic>> customCharacteristic_Read_;
  Atomic<std::shared_ptr<CBMutableService>> customService_;
};

}  // namespace lumora
