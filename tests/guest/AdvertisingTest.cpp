// What the emulator's advertisement looks like after bluetoothd, the kernel
// and a second controller: the exact iBeacon frame and the local name, and
// what ranging makes of controllers that give no signal strength.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <mutex>

#include "CoreBluetooth/CBCentralManager.h"
#include "CoreLocation/CLLocationManager.h"
#include "GuestRig.h"

namespace lumora::test {
namespace {

using ::testing::Each;
using ::testing::Eq;
using ::testing::IsEmpty;
using ::testing::SizeIs;

const Uuid kBeaconUuid = *Uuid::fromString("2F234454-CF6D-4A0F-ADF2-F4911BA9FFA6");
constexpr std::uint16_t kMajor = 0xABCD;
constexpr std::uint16_t kMinor = 0x0001;
// The emulator's name: major and minor in hexadecimal without leading zeros.
const std::string kName = "abcd1";

/// Company 0x004C (little-endian), iBeacon type 02 and length 15, the UUID,
/// major and minor big-endian, and the measured power (-59 dBm = C5).
Bytes beaconFrame() {
  Bytes frame{0x4C, 0x00, 0x02, 0x15};
  const auto& uuid = kBeaconUuid.bytes();
  frame.insert(frame.end(), uuid.begin(), uuid.end());
  frame.insert(frame.end(), {0xAB, 0xCD, 0x00, 0x01, 0xC5});
  return frame;
}

struct Heard {
  std::string address;
  CBAdvertisementData advertisement;
  int rssi = 0;
};

/// Records what a central manager's scan reports, on the main queue.
class ScanRecorder : public CBCentralManagerDelegate {
 public:
  void centralManagerDidUpdateState(const std::shared_ptr<CBCentralManager>& central) override {
    if (central->state() == CBManagerState::PoweredOn)
      central->scanForPeripheralsWithServices({}, {});
  }
  void didDiscoverPeripheral(const std::shared_ptr<CBCentralManager>&,
                             const std::shared_ptr<CBPeripheral>& peripheral,
                             const CBAdvertisementData& advertisementData,
                             const Number& RSSI) override {
    heard.push_back({peripheral->address(), advertisementData, RSSI.intValue()});
  }
  void didConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                            const std::shared_ptr<CBPeripheral>&) override {}
  void didFailToConnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                                  const std::shared_ptr<CBPeripheral>&, ErrorRef) override {}
  void didDisconnectPeripheral(const std::shared_ptr<CBCentralManager>&,
                               const std::shared_ptr<CBPeripheral>&, ErrorRef) override {}

  std::string text() const {
    std::string out = "reports:";
    for (const auto& h : heard) {
      out += "\n  " + h.address + " name=" + h.advertisement.localName.value_or("(none)") +
             " data=" + description(h.advertisement.manufacturerData) +
             " rssi=" + std::to_string(h.rssi);
    }
    return out;
  }

  std::vector<Heard> heard;  // main thread only
};

/// The emulator advertising kBeaconUuid, kMajor and kMinor.
class BeaconTest : public RealBluezTest {
 protected:
  EmulatorProcess::Options emulatorOptions() const {
    return {.adapter = emulatorAdapter,
            .uuid = kBeaconUuid,
            .major = kMajor,
            .minor = kMinor,
            .power = -59,
            .reply = std::nullopt};
  }
};

class Advertising : public BeaconTest {};

TEST_F(Advertising, CarriesTheBeaconFrameAndTheName) {
  ASSERT_NO_FATAL_FAILURE(makeFinder());
  auto scan = std::make_shared<ScanRecorder>();
  auto central = CBCentralManager::initWithDelegate(scan, nullptr);
  ASSERT_TRUE(runUntil([&] { return central->isScanning(); }, 30s));

  EmulatorProcess emulator(emulatorOptions());
  ASSERT_TRUE(emulator.waitUntilAdvertising(30s)) << emulator.transcript();
  ASSERT_EQ(emulator.advertisedName(), kName);
  // The name travels in the scan response and the frame in the
  // advertisement; an active scan hears both from the same address.
  const auto complete = [&] {
    for (const auto& h : scan->heard) {
      if (h.advertisement.localName == kName && h.advertisement.manufacturerData) return true;
    }
    return false;
  };
  ASSERT_TRUE(runUntil(complete, 30s)) << scan->text();
  central->stopScan();

  for (const auto& h : scan->heard) {
    if (h.advertisement.localName != kName) continue;
    EXPECT_EQ(h.advertisement.manufacturerData, beaconFrame()) << scan->text();
    // btvirt's controllers have no signal strength: "no reading" arrives
    // as it is.
    EXPECT_EQ(h.rssi, radio::kRssiUnavailable) << scan->text();
  }
}

// --- Ranging ---------------------------------------------------------------------

/// The BlueZ radio with every advertising report that ranging observes
/// written down. Reports arrive on the radio's thread (the main run loop).
class ObservedRadio : public radio::Backend {
 public:
  explicit ObservedRadio(std::shared_ptr<radio::Backend> inner) : inner_(std::move(inner)) {}

  std::string name() const override { return inner_->name(); }
  CBManagerState adapterState() const override { return inner_->adapterState(); }
  std::shared_ptr<radio::CentralRadio> openCentral(
      std::weak_ptr<radio::CentralEvents> events) override {
    return inner_->openCentral(std::move(events));
  }
  std::shared_ptr<radio::PeripheralRadio> openPeripheral(
      std::weak_ptr<radio::PeripheralEvents> events) override {
    return inner_->openPeripheral(std::move(events));
  }
  std::shared_ptr<radio::Observation> observeAdvertisements(
      std::function<void(const radio::AdvertisingReport&)> sink) override {
    return inner_->observeAdvertisements([this, sink](const radio::AdvertisingReport& report) {
      {
        std::lock_guard lock(mutex_);
        reports_.push_back(report);
      }
      sink(report);
    });
  }
  int locationAuthorizationStatus() const override { return inner_->locationAuthorizationStatus(); }
  radio::Nanos now() const override { return inner_->now(); }
  radio::TimerId scheduleAfter(radio::Nanos delay, std::function<void()> fn) override {
    return inner_->scheduleAfter(delay, std::move(fn));
  }
  void cancelScheduled(radio::TimerId id) override { inner_->cancelScheduled(id); }

  /// The RSSI of every observed report carrying this beacon's frame.
  std::vector<int> beaconReadings() const {
    std::lock_guard lock(mutex_);
    std::vector<int> out;
    for (const auto& r : reports_) {
      if (r.advertisement.manufacturerData == beaconFrame()) out.push_back(r.rssi);
    }
    return out;
  }

 private:
  const std::shared_ptr<radio::Backend> inner_;
  mutable std::mutex mutex_;
  std::vector<radio::AdvertisingReport> reports_;
};

/// Records the beacon lists of every ranging result, on the main queue.
class RangingRecorder : public CLLocationManagerDelegate {
 public:
  void didRangeBeacons(const std::shared_ptr<CLLocationManager>&, const CLBeaconList& beacons,
                       const std::shared_ptr<CLBeaconRegion>&) override {
    results.push_back(beacons);
  }
  void rangingBeaconsDidFailForRegion(const std::shared_ptr<CLLocationManager>&,
                                      const std::shared_ptr<CLBeaconRegion>&, ErrorRef) override {
    ++failures;
  }
  std::vector<CLBeaconList> results;  // main thread only
  int failures = 0;
};

class Ranging : public BeaconTest {};

TEST_F(Ranging, IgnoresAdvertisementsWithoutSignalStrength) {
  std::shared_ptr<ObservedRadio> observed;
  ASSERT_NO_FATAL_FAILURE(makeFinder([&](std::shared_ptr<radio::Backend> radio) {
    observed = std::make_shared<ObservedRadio>(std::move(radio));
    return observed;
  }));

  auto region = std::make_shared<CLBeaconRegion>(kBeaconUuid, std::optional<std::uint16_t>{},
                                                 std::optional<std::uint16_t>{}, "guest");
  // The finder ranges for its application; a second manager shows the
  // ranging results themselves, empty ones included.
  finder->StartTQFinder(TQBleFinder::RegionList{region});
  auto ranging = std::make_shared<RangingRecorder>();
  auto manager = std::make_shared<CLLocationManager>();
  manager->setDelegate(ranging);
  manager->startRangingBeaconsInRegion(region);
  ASSERT_TRUE(runUntil([&] { return !ranging->results.empty(); }, 30s));

  EmulatorProcess emulator(emulatorOptions());
  ASSERT_TRUE(emulator.waitUntilAdvertising(30s)) << emulator.transcript();
  // The beacon has been heard, and ranging has had three whole periods after it.
  std::optional<std::size_t> resultsAtFirstReading;
  const auto done = [&] {
    if (observed->beaconReadings().empty()) return false;
    if (!resultsAtFirstReading) resultsAtFirstReading = ranging->results.size();
    return ranging->results.size() >= *resultsAtFirstReading + 3;
  };
  ASSERT_TRUE(runUntil(done, 30s)) << observed->beaconReadings().size() << " readings, "
                                   << ranging->results.size() << " ranging results";
  manager->stopRangingBeaconsInRegion(region);
  finder->StopTQFinder();
  // How sparse the readings are on these controllers, for the record.
  RecordProperty("beacon_readings", static_cast<int>(observed->beaconReadings().size()));
  RecordProperty("ranging_results", static_cast<int>(ranging->results.size()));

  EXPECT_THAT(observed->beaconReadings(), Each(Eq(radio::kRssiUnavailable)));
  EXPECT_THAT(ranging->results, Each(IsEmpty()));
  EXPECT_EQ(ranging->failures, 0);
  // The finder passes on only non-empty results, and reports nothing else.
  EXPECT_THAT(recorder.beaconEvents(), IsEmpty());
  EXPECT_THAT(recorder.states(), IsEmpty());
}

}  // namespace
}  // namespace lumora::test
