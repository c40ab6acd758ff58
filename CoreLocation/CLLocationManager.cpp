#include "CoreLocation/CLLocationManager.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <cmath>
#include <cstring>
#include <mutex>
#include <random>
#include <utility>

#include "CoreBluetooth/Backend.h"
#include "Foundation/Dispatch.h"

namespace lumora {

namespace {

// Controllers report RSSI in [-127, 20] dBm; 127 means "no reading" and 0 is
// what some stacks put in when they have none either.
constexpr int kMinRssi = -127;
constexpr int kMaxRssi = 20;
constexpr int kBins = kMaxRssi - kMinRssi + 1;

// Samples kept per beacon for the running average. A beacon advertising every
// 100 ms fills a 20 s window with 200, so the cap only bites on faster
// advertisers, whose average then covers their latest 255 readings. Histogram
// counts are bytes, which is why the cap stays below 256; the ring's storage
// is a power of two so that positions wrap with a mask.
constexpr std::uint16_t kMaxSamples = 255;
constexpr std::uint16_t kFirstRingCapacity = 8;
constexpr std::uint32_t kTickMask = 0xFFFFFF;
// Windows and periods stay far inside the 24-bit sample clock (see Record).
constexpr std::chrono::hours kLongestSpan{1};
static_assert(kMaxSamples < 256 && kBins <= 256);

std::int64_t nanos(std::chrono::milliseconds ms) {
  return std::chrono::duration_cast<std::chrono::nanoseconds>(ms).count();
}

bool authorizedForRanging(int status) {
  return status == static_cast<int>(CLAuthorizationStatus::AuthorizedAlways) ||
         status == static_cast<int>(CLAuthorizationStatus::AuthorizedWhenInUse);
}

struct BeaconKey {
  Uuid uuid;
  std::uint16_t major = 0;
  std::uint16_t minor = 0;
  friend auto operator<=>(const BeaconKey&, const BeaconKey&) = default;
};

// Word-wise: this runs once per advertisement, where a byte compare of the
// UUID shows.
bool sameKey(const BeaconKey& a, const BeaconKey& b) {
  std::uint64_t wa[2];
  std::uint64_t wb[2];
  std::memcpy(wa, a.uuid.bytes().data(), 16);
  std::memcpy(wb, b.uuid.bytes().data(), 16);
  return ((wa[0] ^ wb[0]) | (wa[1] ^ wb[1])) == 0 && a.major == b.major && a.minor == b.minor;
}

// Identities come off the air, so anyone can pick them: the hash is seeded
// per process to keep crafted collisions from turning lookups linear.
std::uint64_t processHashSeed() {
  static const std::uint64_t seed = [] {
    try {
      std::random_device device;
      return (static_cast<std::uint64_t>(device()) << 32) ^ device();
    } catch (...) {
      // No entropy source: the address of a function still varies between
      // runs under address-space randomisation.
      return static_cast<std::uint64_t>(reinterpret_cast<std::uintptr_t>(&processHashSeed));
    }
  }();
  return seed;
}

std::uint64_t mix(std::uint64_t h) {
  h ^= h >> 33;
  h *= 0xff51afd7ed558ccdULL;
  h ^= h >> 33;
  h *= 0xc4ceb9fe1a85ec53ULL;
  h ^= h >> 33;
  return h;
}

struct BeaconKeyHash {
  std::uint64_t seed = 0;
  std::size_t operator()(const BeaconKey& key) const noexcept {
    std::uint64_t high;
    std::uint64_t low;
    std::memcpy(&high, key.uuid.bytes().data(), 8);
    std::memcpy(&low, key.uuid.bytes().data() + 8, 8);
    const std::uint64_t numbers = (static_cast<std::uint64_t>(key.major) << 16) | key.minor;
    return static_cast<std::size_t>(mix(mix(seed ^ high ^ numbers) ^ low));
  }
};

constexpr std::uint32_t kNone = 0xFFFFFFFFu;

// What ranging remembers of one beacon identity in one region. The fields an
// advertisement touches come first, so that a sample costs few cache lines.
struct Record {
  BeaconKey key;
  std::int8_t measuredPower = 0;
  std::uint16_t capacity = 0;
  std::uint16_t head = 0;
  std::uint16_t size = 0;
  std::int64_t lastSeen = 0;  // radio clock, ns
  // Links of the table's recency list (oldest first), as record indices; a
  // free record is chained through `newer`.
  std::uint32_t older = kNone;
  std::uint32_t newer = kNone;
  // Running average: a ring of samples and a histogram of the same samples,
  // so that a sample costs O(1) and the trimmed mean O(bins). A sample packs
  // its time in 24 bits of 2^20 ns (about a millisecond; they wrap after
  // 4.9 hours, far beyond the longest window or period allowed) above its
  // histogram bin: four bytes, so that the rings of a thousand beacons stay
  // in a core's cache.
  std::unique_ptr<std::uint32_t[]> samples;
  // ARMA: started by the first sample.
  double arma = 0;
  bool armaStarted = false;
  std::array<std::uint8_t, kBins> histogram{};

  static std::uint32_t ticks(std::int64_t time) {
    return static_cast<std::uint32_t>(time >> 20) & kTickMask;
  }

  void reset() {
    measuredPower = 0;
    capacity = head = size = 0;
    lastSeen = 0;
    older = newer = kNone;
    samples.reset();
    arma = 0;
    armaStarted = false;
    histogram.fill(0);
  }

  void dropOldest() {
    --histogram[samples[head] & 0xFF];
    head = static_cast<std::uint16_t>((head + 1) & (capacity - 1));
    --size;
  }

  void grow() {
    const std::uint16_t next =
        capacity == 0 ? kFirstRingCapacity : static_cast<std::uint16_t>(capacity * 2);
    auto grown = std::make_unique<std::uint32_t[]>(next);
    for (std::uint16_t i = 0; i < size; ++i) grown[i] = samples[(head + i) & (capacity - 1)];
    samples = std::move(grown);
    capacity = next;
    head = 0;
  }

  void addSample(std::int64_t time, int rssi) {
    if (size == kMaxSamples) {
      dropOldest();
    } else if (size == capacity) {
      grow();
    }
    const int bin = rssi - kMinRssi;
    samples[(head + size) & (capacity - 1)] = (ticks(time) << 8) | static_cast<std::uint32_t>(bin);
    ++histogram[bin];
    ++size;
  }

  // Drops the samples older than `window` (in ticks) at `now`.
  void pruneOlderThan(std::int64_t now, std::uint32_t window) {
    const std::uint32_t current = ticks(now);
    while (size > 0) {
      // An age in the upper half of the clock is a sample timed a little
      // after `now` (heard while the tick was starting): the newest, kept.
      const std::uint32_t age = (current - (samples[head] >> 8)) & kTickMask;
      if (age <= window || age > kTickMask / 2) break;
      dropOldest();
    }
  }

  // Mean of the samples with the n/10 + 1 lowest and highest dropped when
  // there are more than two; of all of them otherwise.
  std::optional<double> trimmedMean() const {
    if (size == 0) return std::nullopt;
    std::uint32_t skip = 0;
    std::uint32_t take = size;
    if (size > 2) {
      skip = size / 10u + 1u;
      take = size - 2u * skip;
    }
    std::int64_t sum = 0;
    std::uint32_t taken = 0;
    for (int bin = 0; bin < kBins && taken < take; ++bin) {
      std::uint32_t count = histogram[bin];
      if (count == 0) continue;
      if (skip > 0) {
        const std::uint32_t skipped = std::min(skip, count);
        skip -= skipped;
        count -= skipped;
      }
      const std::uint32_t used = std::min(count, take - taken);
      sum += static_cast<std::int64_t>(used) * (bin + kMinRssi);
      taken += used;
    }
    return static_cast<double>(sum) / static_cast<double>(take);
  }
};

// The beacons of one region. Records live in one array and are found through
// an open-addressing index (linear probing, deletion by backward shift), so a
// lookup touches one index line and the record itself. A recency list
// through the records makes the stalest one, the one to evict when the table
// is full, its head.
class BeaconTable {
 public:
  BeaconTable(std::size_t limit, std::uint64_t seed)
      : limit_(static_cast<std::uint32_t>(std::min<std::size_t>(limit, kNone / 4))), hash_{seed} {}
  BeaconTable(const BeaconTable&) = delete;
  BeaconTable& operator=(const BeaconTable&) = delete;

  Record& touch(const BeaconKey& key, std::int64_t time) {
    const auto hash = static_cast<std::uint32_t>(hash_(key));
    if (!index_.empty()) {
      const std::size_t mask = index_.size() - 1;
      for (std::size_t pos = hash & mask;; pos = (pos + 1) & mask) {
        const Slot& slot = index_[pos];
        if (slot.record == kNone) break;
        if (slot.hash != hash || !sameKey(records_[slot.record].key, key)) continue;
        Record& record = records_[slot.record];
        record.lastSeen = std::max(record.lastSeen, time);
        if (newest_ != slot.record) {
          unlink(slot.record);
          linkNewest(slot.record);
        }
        return record;
      }
    }
    if (count_ >= limit_ && oldest_ != kNone) erase(oldest_);
    const std::uint32_t at = allocate();
    Record& record = records_[at];
    record.key = key;
    record.lastSeen = time;
    linkNewest(at);
    insertSlot(hash, at);
    ++count_;
    return record;
  }

  void erase(std::uint32_t at) {
    Record& record = records_[at];
    removeSlot(static_cast<std::uint32_t>(hash_(record.key)), at);
    unlink(at);
    record.reset();
    record.newer = free_;
    free_ = at;
    --count_;
  }

  void clear() {
    records_.clear();
    index_.clear();
    free_ = oldest_ = newest_ = kNone;
    count_ = 0;
  }

  std::uint32_t oldest() const { return oldest_; }
  Record& operator[](std::uint32_t at) { return records_[at]; }
  std::size_t size() const { return count_; }

 private:
  struct Slot {
    std::uint32_t record = kNone;
    std::uint32_t hash = 0;
  };

  std::uint32_t allocate() {
    if (free_ != kNone) {
      const std::uint32_t at = free_;
      free_ = records_[at].newer;
      records_[at].newer = kNone;
      return at;
    }
    records_.emplace_back();
    return static_cast<std::uint32_t>(records_.size() - 1);
  }

  // Keeps the index at most half full.
  void insertSlot(std::uint32_t hash, std::uint32_t record) {
    if ((count_ + 1) * 2 > index_.size()) {
      std::vector<Slot> old(std::max<std::size_t>(16, index_.size() * 2));
      old.swap(index_);
      for (const Slot& slot : old)
        if (slot.record != kNone) place(slot);
    }
    place(Slot{record, hash});
  }

  void place(Slot slot) {
    const std::size_t mask = index_.size() - 1;
    std::size_t pos = slot.hash & mask;
    while (index_[pos].record != kNone) pos = (pos + 1) & mask;
    index_[pos] = slot;
  }

  void removeSlot(std::uint32_t hash, std::uint32_t record) {
    const std::size_t mask = index_.size() - 1;
    std::size_t pos = hash & mask;
    while (index_[pos].record != record) pos = (pos + 1) & mask;
    // Pull back every later entry of the cluster that may live in the hole.
    for (std::size_t next = (pos + 1) & mask; index_[next].record != kNone;
         next = (next + 1) & mask) {
      const std::size_t home = index_[next].hash & mask;
      if (((next - home) & mask) >= ((next - pos) & mask)) {
        index_[pos] = index_[next];
        pos = next;
      }
    }
    index_[pos] = Slot{};
  }

  void unlink(std::uint32_t at) {
    Record& record = records_[at];
    (record.older != kNone ? records_[record.older].newer : oldest_) = record.newer;
    (record.newer != kNone ? records_[record.newer].older : newest_) = record.older;
    record.older = record.newer = kNone;
  }

  void linkNewest(std::uint32_t at) {
    Record& record = records_[at];
    record.older = newest_;
    record.newer = kNone;
    (newest_ != kNone ? records_[newest_].newer : oldest_) = at;
    newest_ = at;
  }

  std::uint32_t limit_;
  BeaconKeyHash hash_;
  std::vector<Record> records_;
  std::vector<Slot> index_;
  std::uint32_t free_ = kNone;
  std::uint32_t oldest_ = kNone;
  std::uint32_t newest_ = kNone;
  std::uint32_t count_ = 0;
};

struct RangedRegion {
  RangedRegion(std::shared_ptr<CLBeaconRegion> r, std::uint64_t g, std::size_t limit,
               std::uint64_t seed)
      : region(std::move(r)), generation(g), beacons(limit, seed) {}
  std::shared_ptr<CLBeaconRegion> region;
  // Tells this start of the region from an earlier one of the same object,
  // so that a result computed before a stop is never delivered after it.
  std::uint64_t generation;
  BeaconTable beacons;
};

// One beacon of a result, as read under the lock.
struct Reading {
  BeaconKey key;
  int rssi = 0;  // 0: no fresh reading
  int measuredPower = 0;
};

struct RangedBeacon {
  BeaconKey key;
  int rssi = 0;
  double accuracy = -1;
  CLProximity proximity = CLProximity::Unknown;
};

struct RegionResult {
  std::shared_ptr<CLBeaconRegion> region;
  std::uint64_t generation = 0;
  std::vector<Reading> readings;
  CLBeaconList beacons;
};

RangingOptions sanitized(RangingOptions options) {
  options.period = std::clamp<std::chrono::milliseconds>(
      options.period, std::chrono::milliseconds(1), kLongestSpan);
  options.averageWindow = std::clamp<std::chrono::milliseconds>(
      options.averageWindow, std::chrono::milliseconds(0), kLongestSpan);
  options.maxBeaconsPerRegion = std::max<std::size_t>(options.maxBeaconsPerRegion, 1);
  return options;
}

struct DefaultOptions {
  std::mutex mutex;
  RangingOptions options;
};

DefaultOptions& defaultOptions() {
  static DefaultOptions defaults;
  return defaults;
}

}  // namespace

// Threads: start/stop come from any thread (normally the main one), the sink
// and the tick run on the radio's thread, delivery runs on the main queue.
// `mutex` guards the ranging state and is held only for bookkeeping: never
// across a delegate call, an observation's teardown or a queue hop.
// `controlMutex` serialises opening and closing the radio resources; code on
// the radio's thread never takes it, so closing an observation under it
// cannot wait on a sink that waits on us.
struct CLLocationManager::Impl : std::enable_shared_from_this<CLLocationManager::Impl> {
  Impl(std::shared_ptr<radio::Backend> b, RangingOptions o)
      : backend(std::move(b)), options(o), seed(processHashSeed()) {}

  const std::shared_ptr<radio::Backend> backend;
  const RangingOptions options;
  const std::uint64_t seed;

  std::atomic<bool> pauses{true};
  std::atomic<int> requested{-1};

  std::mutex controlMutex;
  std::shared_ptr<radio::Observation> observation;  // guarded by controlMutex

  mutable std::mutex mutex;
  std::weak_ptr<CLLocationManagerDelegate> delegate;
  std::weak_ptr<CLLocationManager> owner;
  std::vector<std::unique_ptr<RangedRegion>> regions;  // in start order
  std::uint64_t nextGeneration = 1;
  // Bumped whenever ticking starts or stops: a tick of an older epoch (one
  // already running when ranging stopped) neither reports nor re-arms.
  std::uint64_t tickEpoch = 0;
  std::optional<radio::TimerId> timer;

  // Radio thread, once per advertising report.
  void record(const radio::AdvertisingReport& report) {
    const Data& manufacturerData = report.advertisement.manufacturerData;
    if (!manufacturerData) return;
    const auto frame = parseIBeacon(manufacturerData->data(), manufacturerData->size());
    if (!frame) return;
    const int rssi = report.rssi;
    if (rssi == 0 || rssi < kMinRssi || rssi > kMaxRssi) return;
    const std::int64_t time =
        report.time.count() != 0 ? report.time.count() : backend->now().count();
    const BeaconKey key{frame->uuid, frame->major, frame->minor};
    const bool average = options.filter == RangingOptions::Filter::RunningAverage;

    std::lock_guard lock(mutex);
    for (const auto& ranged : regions) {
      if (!ranged->region->matches(key.uuid, key.major, key.minor)) continue;
      Record& beacon = ranged->beacons.touch(key, time);
      beacon.measuredPower = frame->measuredPower;
      if (average) {
        beacon.addSample(time, rssi);
      } else if (!beacon.armaStarted) {
        beacon.arma = rssi;
        beacon.armaStarted = true;
      } else {
        beacon.arma -= options.armaSpeed * (beacon.arma - rssi);
      }
    }
  }

  // Called with `mutex` held. Backend operations never call back into the
  // caller, so arming a timer here cannot re-enter.
  void armTickLocked() {
    std::weak_ptr<Impl> weak = weak_from_this();
    const std::uint64_t epoch = tickEpoch;
    timer = backend->scheduleAfter(options.period, [weak, epoch] {
      if (auto self = weak.lock()) self->tick(epoch);
    });
  }

  // Called with `mutex` held: expires, prunes and reads one region's beacons.
  void collectLocked(RangedRegion& ranged, std::int64_t now, std::vector<Reading>& out) {
    const std::int64_t expiry = nanos(options.beaconExpiry);
    const std::int64_t stale = nanos(options.staleAfter);
    const auto window = static_cast<std::uint32_t>(nanos(options.averageWindow) >> 20);
    const bool average = options.filter == RangingOptions::Filter::RunningAverage;
    out.reserve(ranged.beacons.size());
    std::uint32_t next = kNone;
    for (std::uint32_t at = ranged.beacons.oldest(); at != kNone; at = next) {
      Record* beacon = &ranged.beacons[at];
      next = beacon->newer;
      const std::int64_t age = std::max<std::int64_t>(now - beacon->lastSeen, 0);
      if (age > expiry) {
        ranged.beacons.erase(at);
        continue;
      }
      std::optional<double> filtered;
      if (average) {
        beacon->pruneOlderThan(now, window);
        if (age <= stale) filtered = beacon->trimmedMean();
      } else if (age <= stale && beacon->armaStarted) {
        filtered = beacon->arma;
      }
      Reading reading{beacon->key, 0, beacon->measuredPower};
      if (filtered) reading.rssi = static_cast<int>(std::lround(*filtered));
      out.push_back(reading);
    }
  }

  // Radio thread, once per period while anything is ranged.
  void tick(std::uint64_t epoch) {
    const std::int64_t now = backend->now().count();
    const bool live = backend->adapterState() == CBManagerState::PoweredOn &&
                      authorizedForRanging(backend->locationAuthorizationStatus());
    std::vector<RegionResult> results;
    {
      std::lock_guard lock(mutex);
      if (epoch != tickEpoch) return;
      results.reserve(regions.size());
      for (const auto& ranged : regions) {
        RegionResult& result = results.emplace_back();
        result.region = ranged->region;
        result.generation = ranged->generation;
        // What was heard before an outage or a withdrawn authorization is
        // not carried across it.
        if (live) {
          collectLocked(*ranged, now, result.readings);
        } else {
          ranged->beacons.clear();
        }
      }
      armTickLocked();
    }

    for (RegionResult& result : results) result.beacons = rank(result.readings);
    std::weak_ptr<Impl> weak = weak_from_this();
    DispatchQueue::main()->async([weak, results = std::move(results)] {
      if (auto self = weak.lock()) self->deliver(results);
    });
  }

  CLBeaconList rank(std::vector<Reading>& readings) const {
    std::vector<RangedBeacon> ranked;
    ranked.reserve(readings.size());
    for (const Reading& reading : readings) {
      const double accuracy = RangingOptions::accuracyFor(reading.rssi, reading.measuredPower);
      // An uncalibrated beacon still shows its RSSI; one without a fresh
      // reading shows 0.
      ranked.push_back({reading.key, reading.rssi, accuracy, options.proximityFor(accuracy)});
    }
    std::sort(ranked.begin(), ranked.end(), [](const RangedBeacon& a, const RangedBeacon& b) {
      const bool aKnown = a.proximity != CLProximity::Unknown;
      const bool bKnown = b.proximity != CLProximity::Unknown;
      if (aKnown != bKnown) return aKnown;
      if (aKnown && a.accuracy != b.accuracy) return a.accuracy < b.accuracy;
      return a.key < b.key;
    });
    CLBeaconList beacons;
    beacons.reserve(ranked.size());
    for (const RangedBeacon& b : ranked) {
      beacons.push_back(std::make_shared<CLBeacon>(b.key.uuid, b.key.major, b.key.minor,
                                                   b.proximity, b.accuracy, b.rssi));
    }
    return beacons;
  }

  // Main queue. Each region is checked just before its callback, since the
  // delegate may stop regions (or drop the manager) from inside a callback.
  void deliver(const std::vector<RegionResult>& results) {
    for (const RegionResult& result : results) {
      std::shared_ptr<CLLocationManager> manager;
      std::shared_ptr<CLLocationManagerDelegate> receiver;
      {
        std::lock_guard lock(mutex);
        const bool ranged = std::any_of(regions.begin(), regions.end(), [&](const auto& r) {
          return r->generation == result.generation;
        });
        if (!ranged) continue;
        manager = owner.lock();
        receiver = delegate.lock();
      }
      if (manager && receiver) receiver->didRangeBeacons(manager, result.beacons, result.region);
    }
  }

  void start(const std::shared_ptr<CLBeaconRegion>& region, std::weak_ptr<CLLocationManager> self) {
    std::lock_guard control(controlMutex);
    {
      std::lock_guard lock(mutex);
      const bool known = std::any_of(regions.begin(), regions.end(),
                                     [&](const auto& r) { return r->region == region; });
      if (known) return;
      owner = std::move(self);
      regions.push_back(std::make_unique<RangedRegion>(region, nextGeneration++,
                                                       options.maxBeaconsPerRegion, seed));
      if (regions.size() == 1) {
        ++tickEpoch;
        armTickLocked();
      }
    }
    if (!observation) {
      observation = backend->observeAdvertisements(
          [self = shared_from_this()](const radio::AdvertisingReport& report) {
            self->record(report);
          });
    }
  }

  void stop(const std::shared_ptr<CLBeaconRegion>& region) {
    std::unique_ptr<RangedRegion> removed;
    std::shared_ptr<radio::Observation> closing;
    {
      std::lock_guard control(controlMutex);
      std::optional<radio::TimerId> cancel;
      bool last = false;
      {
        std::lock_guard lock(mutex);
        auto it = std::find_if(regions.begin(), regions.end(),
                               [&](const auto& r) { return r->region == region; });
        if (it == regions.end()) return;
        removed = std::move(*it);
        regions.erase(it);
        last = regions.empty();
        if (last) {
          ++tickEpoch;
          cancel = std::exchange(timer, std::nullopt);
        }
      }
      if (cancel) backend->cancelScheduled(*cancel);
      if (last) closing = std::move(observation);
    }
    // The records and the radio handle go after every lock is released.
  }

  void stopAll() {
    std::vector<std::unique_ptr<RangedRegion>> removed;
    std::shared_ptr<radio::Observation> closing;
    std::lock_guard control(controlMutex);
    std::optional<radio::TimerId> cancel;
    {
      std::lock_guard lock(mutex);
      removed.swap(regions);
      ++tickEpoch;
      cancel = std::exchange(timer, std::nullopt);
    }
    if (cancel) backend->cancelScheduled(*cancel);
    closing = std::move(observation);
  }
};

double RangingOptions::accuracyFor(int rssi, int measuredPower) {
  if (rssi == 0 || measuredPower == 0) return -1.0;
  const double ratio = rssi * 1.0 / measuredPower;
  if (ratio < 1.0) return std::pow(ratio, 10.0);
  return 0.89976 * std::pow(ratio, 7.7095) + 0.111;
}

CLProximity RangingOptions::proximityFor(double accuracy) const {
  if (!(accuracy >= 0)) return CLProximity::Unknown;
  if (accuracy < immediateBelow) return CLProximity::Immediate;
  if (accuracy <= nearUpTo) return CLProximity::Near;
  return CLProximity::Far;
}

CLLocationManager::CLLocationManager()
    : impl_(std::make_shared<Impl>(radio::Backend::current(), defaultRangingOptions())) {}

CLLocationManager::~CLLocationManager() {
  impl_->stopAll();
}

CLAuthorizationStatus CLLocationManager::authorizationStatus() {
  // Values the platform does not define pass through as they are, so that
  // callers can tell them apart.
  return static_cast<CLAuthorizationStatus>(
      radio::Backend::current()->locationAuthorizationStatus());
}

std::shared_ptr<CLLocationManagerDelegate> CLLocationManager::delegate() const {
  std::lock_guard lock(impl_->mutex);
  return impl_->delegate.lock();
}

void CLLocationManager::setDelegate(std::weak_ptr<CLLocationManagerDelegate> delegate) {
  std::lock_guard lock(impl_->mutex);
  impl_->delegate = std::move(delegate);
}

void CLLocationManager::requestAlwaysAuthorization() {
  impl_->requested.store(static_cast<int>(CLAuthorizationStatus::AuthorizedAlways));
}

void CLLocationManager::requestWhenInUseAuthorization() {
  impl_->requested.store(static_cast<int>(CLAuthorizationStatus::AuthorizedWhenInUse));
}

std::optional<CLAuthorizationStatus> CLLocationManager::requestedAuthorization() const {
  const int requested = impl_->requested.load();
  if (requested < 0) return std::nullopt;
  return static_cast<CLAuthorizationStatus>(requested);
}

void CLLocationManager::setPausesLocationUpdatesAutomatically(bool pauses) {
  impl_->pauses.store(pauses);
}

bool CLLocationManager::pausesLocationUpdatesAutomatically() const {
  return impl_->pauses.load();
}

void CLLocationManager::startRangingBeaconsInRegion(const std::shared_ptr<CLBeaconRegion>& region) {
  if (!region) return;
  impl_->start(region, weak_from_this());
}

void CLLocationManager::stopRangingBeaconsInRegion(const std::shared_ptr<CLBeaconRegion>& region) {
  if (!region) return;
  impl_->stop(region);
}

std::vector<std::shared_ptr<CLBeaconRegion>> CLLocationManager::rangedRegions() const {
  std::lock_guard lock(impl_->mutex);
  std::vector<std::shared_ptr<CLBeaconRegion>> out;
  out.reserve(impl_->regions.size());
  for (const auto& ranged : impl_->regions) out.push_back(ranged->region);
  return out;
}

void CLLocationManager::setDefaultRangingOptions(const RangingOptions& options) {
  auto& defaults = defaultOptions();
  std::lock_guard lock(defaults.mutex);
  defaults.options = sanitized(options);
}

RangingOptions CLLocationManager::defaultRangingOptions() {
  auto& defaults = defaultOptions();
  std::lock_guard lock(defaults.mutex);
  return defaults.options;
}

}  // namespace lumora
