// Location services: authorization and beacon ranging.
//
//   auto manager = std::make_shared<CLLocationManager>();   // on the main thread
//   manager->setDelegate(weak_from_this());
//   manager->requestAlwaysAuthorization();
//   manager->startRangingBeaconsInRegion(region);
//   // about once a second, on the main queue:
//   //   didRangeBeacons(manager, beacons, region)   (beacons may be empty)
//
// Ranging is built on the current radio's advertisement stream, the same for
// every radio. For each ranged region the manager keeps one record per beacon
// identity (UUID, major, minor), never per device address, because addresses
// rotate. Each record smooths RSSI with the configured filter; readings of 0
// and 127 are ignored. Once per ranging period every ranged region reports
// its beacons seen within the last `beaconExpiry`, nearest first (unknown
// last), with accuracy from the distance curve and the beacon's measured
// power, and proximity from the thresholds in RangingOptions. The number of
// records is bounded (maxBeaconsPerRegion; the stalest is evicted), so memory
// stays flat whatever the number of addresses heard.
//
// Callbacks arrive on the queue of the thread that created the manager's
// first ranging: the main queue (this layer has no other run loop).
//
// Beacons are reported only while the radio's adapter is powered on and the
// authorization status is AuthorizedAlways or AuthorizedWhenInUse; otherwise
// every region keeps receiving empty results and what was heard before is
// forgotten. The manager must be owned by a std::shared_ptr (as above): the
// callback hands it to the delegate.
//
// Filters in detail. RunningAverage keeps, per beacon, the samples of the
// last `averageWindow` (at most 255: the oldest give way first). With n > 2
// samples it drops the n/10 + 1 lowest and the n/10 + 1 highest and averages
// the rest; with 1 or 2 it averages them all. Arma folds every sample in as
// it arrives. The filtered value is rounded to the nearest integer for
// `rssi`, and accuracy is computed from that rounded value. Readings outside
// the controller's range [-127, 20] are ignored like 0 and 127.
#pragma once

#include <chrono>
#include <memory>
#include <optional>
#include <vector>

#include "CoreLocation/CLBeaconRegion.h"
#include "Foundation/Object.h"

namespace lumora {

enum class CLAuthorizationStatus : int {
  NotDetermined = 0,
  Restricted = 1,
  Denied = 2,
  AuthorizedAlways = 3,
  AuthorizedWhenInUse = 4,
};

class CLLocationManager;

class CLLocationManagerDelegate {
 public:
  virtual ~CLLocationManagerDelegate() = default;
  virtual void didRangeBeacons(const std::shared_ptr<CLLocationManager>& manager,
                               const CLBeaconList& beacons,
                               const std::shared_ptr<CLBeaconRegion>& region) = 0;
  virtual void rangingBeaconsDidFailForRegion(const std::shared_ptr<CLLocationManager>& manager,
                                              const std::shared_ptr<CLBeaconRegion>& region,
                                              ErrorRef error) = 0;
};

/// How ranging turns advertisements into beacons. Defaults documented per field.
struct RangingOptions {
  enum class Filter { RunningAverage, Arma };
  /// RunningAverage (default): mean of the samples of the last
  /// `averageWindow` with the top and bottom tenth dropped. Arma: n = n -
  /// armaSpeed * (n - rssi), started at the first sample.
  Filter filter = Filter::RunningAverage;
  std::chrono::milliseconds averageWindow{20000};
  double armaSpeed = 0.1;
  /// Ranging period: one didRangeBeacons per region per period.
  std::chrono::milliseconds period{1000};
  /// A beacon with no report for this long is dropped from results.
  std::chrono::milliseconds beaconExpiry{5000};
  /// A beacon with no report for this long (but not expired) is reported with
  /// accuracy -1, proximity unknown and RSSI 0.
  std::chrono::milliseconds staleAfter{2000};
  /// Proximity thresholds on accuracy, metres: < immediate, <= near, else far.
  double immediateBelow = 0.5;
  double nearUpTo = 4.0;
  /// Beacons remembered per ranged region at most.
  std::size_t maxBeaconsPerRegion = 4096;

  /// The distance curve, metres: ratio = rssi / measuredPower; ratio < 1
  /// gives ratio^10, otherwise 0.89976 * ratio^7.7095 + 0.111. -1 (unknown)
  /// when rssi or measuredPower is 0 (no reading, or an uncalibrated beacon).
  static double accuracyFor(int rssi, int measuredPower);
  /// The proximity class of an accuracy under these thresholds.
  CLProximity proximityFor(double accuracy) const;
};

class CLLocationManager : public std::enable_shared_from_this<CLLocationManager> {
 public:
  CLLocationManager();
  ~CLLocationManager();

  /// The application's authorization as the current radio reports it
  /// (the simulated air's setting; Linux radios report AuthorizedAlways).
  static CLAuthorizationStatus authorizationStatus();

  std::shared_ptr<CLLocationManagerDelegate> delegate() const;
  /// Held weakly: a delegate that is gone is not called.
  void setDelegate(std::weak_ptr<CLLocationManagerDelegate> delegate);

  /// Recorded only; no callback follows.
  void requestAlwaysAuthorization();
  void requestWhenInUseAuthorization();
  /// The authorization last requested of this manager (AuthorizedAlways or
  /// AuthorizedWhenInUse), null before any request.
  std::optional<CLAuthorizationStatus> requestedAuthorization() const;
  bool respondsToRequestAlwaysAuthorization() const { return true; }
  void setPausesLocationUpdatesAutomatically(bool pauses);
  /// Recorded only (ranging never pauses); true until set.
  bool pausesLocationUpdatesAutomatically() const;

  /// Starts ranging `region` (a region already ranged, by identity of the
  /// object, is not doubled). Null is ignored.
  void startRangingBeaconsInRegion(const std::shared_ptr<CLBeaconRegion>& region);
  /// Stops ranging `region`; no callback for it is delivered after this
  /// returns when called on the main queue.
  void stopRangingBeaconsInRegion(const std::shared_ptr<CLBeaconRegion>& region);
  std::vector<std::shared_ptr<CLBeaconRegion>> rangedRegions() const;

  /// Process-wide options for managers created afterwards. The period is
  /// kept within [1 ms, 1 h], the average window within [0, 1 h] (samples
  /// are timed to about a millisecond), and a maxBeaconsPerRegion of 0 is
  /// taken as 1.
  static void setDefaultRangingOptions(const RangingOptions& options);
  static RangingOptions defaultRangingOptions();

 private:
  struct Impl;
  std::shared_ptr<Impl> impl_;
};

}  // namespace lumora
