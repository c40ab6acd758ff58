// The simulated air: clock and event queue, adapter power, advertising and
// the trace. Links and GATT live in AirCentral.cpp and AirPeripheral.cpp.
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <stdexcept>
#include <utility>

#include "Foundation/Dispatch.h"
#include "backends/sim/AirImpl.h"

namespace lumora::sim {

std::shared_ptr<Air> Air::create(AirOptions options) {
  return std::make_shared<detail::AirImpl>(options);
}

namespace detail {
namespace {

// Depth of air events running on this thread: advance() and settle() called
// from inside an event (a receiver, a device handler, a completion) return
// at once instead of running events within events.
thread_local int eventDepth = 0;

struct InEvent {
  InEvent() { ++eventDepth; }
  ~InEvent() { --eventDepth; }
  InEvent(const InEvent&) = delete;
  InEvent& operator=(const InEvent&) = delete;
};

// The random advDelay the controller adds to every advertising interval.
constexpr Nanos kMaxAdvDelay = std::chrono::milliseconds(10);
constexpr Nanos kMinInterval = std::chrono::milliseconds(1);

// Among thousands of advertisers, what an advertisement reads is rarely still
// in cache, so it is fetched while earlier ones are delivered: the
// advertiser itself (up to the end of its report) two advertisements ahead,
// and one ahead, once the advertiser is in, the report's address text it
// points to.
void prefetchAdvertiser(const DueQueue::Due& due) {
  if (!due.advertiser) return;
  const char* first = reinterpret_cast<const char*>(due.advertiser);
  const char* end = reinterpret_cast<const char*>(&due.advertiser->wire);
  for (const char* line = first; line < end; line += 64) __builtin_prefetch(line);
}

void prefetchAhead(const DueQueue& queue) {
  if (queue.empty()) return;
  const DueQueue::Due& next = queue.top();
  prefetchAdvertiser(next);  // usually in already, from the round before
  if (next.advertiser) __builtin_prefetch(next.advertiser->report.address.data());
  if (const DueQueue::Due* after = queue.second()) prefetchAdvertiser(*after);
}

double distanceAt(const Advertiser& a, Nanos t) {
  if (a.path.empty()) return a.distance;
  Position p;
  if (t <= a.path.front().at) {
    p = a.path.front().position;
  } else if (t >= a.path.back().at) {
    p = a.path.back().position;
  } else {
    // The first waypoint strictly after t; its predecessor is at or before t,
    // so the segment has a positive duration.
    auto next = std::upper_bound(a.path.begin(), a.path.end(), t,
                                 [](Nanos when, const Waypoint& w) { return when < w.at; });
    auto prev = next - 1;
    const double span = static_cast<double>((next->at - prev->at).count());
    const double f = static_cast<double>((t - prev->at).count()) / span;
    p.x = prev->position.x + (next->position.x - prev->position.x) * f;
    p.y = prev->position.y + (next->position.y - prev->position.y) * f;
  }
  return std::hypot(p.x, p.y);
}

int drawRssi(const Advertiser& a, Nanos t, std::mt19937_64& rng,
             std::normal_distribution<double>& noise) {
  const double d = std::max(distanceAt(a, t), 0.1);
  double rssi = a.txPowerAt1m - 10.0 * a.pathLossExponent * std::log10(d);
  if (a.noiseSigma > 0) rssi += a.noiseSigma * noise(rng);
  if (!std::isfinite(rssi)) return -127;
  return static_cast<int>(std::lround(std::clamp(rssi, -127.0, 20.0)));
}

// One AD structure; data longer than a length byte can say is cut.
void putStructure(Bytes& out, std::uint8_t type, const std::uint8_t* data, std::size_t size) {
  size = std::min<std::size_t>(size, 254);
  out.push_back(static_cast<std::uint8_t>(size + 1));
  out.push_back(type);
  out.insert(out.end(), data, data + size);
}

// The advertisement as it would go on the air, for the trace: flags, local
// name, service UUID lists, TX power, manufacturer data.
Bytes encodeAdvertisement(const CBAdvertisementData& ad) {
  Bytes out{0x02, 0x01, 0x06};
  if (ad.localName) {
    putStructure(out, 0x09, reinterpret_cast<const std::uint8_t*>(ad.localName->data()),
                 ad.localName->size());
  }
  for (auto [width, type] :
       {std::pair<std::size_t, std::uint8_t>{2, 0x03}, {4, 0x05}, {16, 0x07}}) {
    Bytes list;
    for (const CBUUID& uuid : ad.serviceUUIDs) {
      Bytes be = uuid.data();
      if (be.size() != width) continue;
      list.insert(list.end(), be.rbegin(), be.rend());  // little-endian on the air
    }
    if (!list.empty()) putStructure(out, type, list.data(), list.size());
  }
  if (ad.txPowerLevel) {
    const auto level = static_cast<std::uint8_t>(static_cast<std::int8_t>(*ad.txPowerLevel));
    putStructure(out, 0x0A, &level, 1);
  }
  if (ad.manufacturerData) {
    putStructure(out, 0xFF, ad.manufacturerData->data(), ad.manufacturerData->size());
  }
  return out;
}

bool wanted(const std::optional<std::vector<CBUUID>>& filter,
            const std::vector<CBUUID>& advertised) {
  if (!filter || filter->empty()) return true;
  for (const CBUUID& uuid : *filter) {
    if (std::find(advertised.begin(), advertised.end(), uuid) != advertised.end()) return true;
  }
  return false;
}

class SimObservation final : public radio::Observation {
 public:
  SimObservation(std::weak_ptr<AirImpl> air, std::shared_ptr<AirImpl::Sink> sink)
      : air_(std::move(air)), sink_(std::move(sink)) {}
  ~SimObservation() override {
    sink_->active.store(false);
    auto air = air_.lock();
    if (!air) return;
    std::shared_ptr<const std::vector<std::shared_ptr<AirImpl::Sink>>> old;
    {
      std::lock_guard lock(air->mutex_);
      auto list = std::make_shared<std::vector<std::shared_ptr<AirImpl::Sink>>>();
      for (const auto& s : *air->sinks_) {
        if (s != sink_) list->push_back(s);
      }
      old = std::exchange(air->sinks_, std::move(list));
    }
  }

 private:
  std::weak_ptr<AirImpl> air_;
  std::shared_ptr<AirImpl::Sink> sink_;
};

void fill(TraceEvent& e, Nanos time, std::string_view kind, std::string_view from,
          std::string_view to, std::string_view detail, const Bytes* payload) {
  // assign() keeps the slot's capacity: a full trace ring records without
  // allocating.
  e.time = time;
  e.kind.assign(kind);
  e.from.assign(from);
  e.to.assign(to);
  e.detail.assign(detail);
  if (payload) {
    e.payload.assign(payload->begin(), payload->end());
  } else {
    e.payload.clear();
  }
}

}  // namespace

Error linkError(CBError code, std::string text) {
  return Error{CBErrorDomain, static_cast<int>(code), std::move(text)};
}

Error attError(CBATTError code) {
  const char* text = "Unknown ATT error.";
  switch (code) {
    case CBATTError::Success:
      text = "No error.";
      break;
    case CBATTError::InvalidHandle:
      text = "The handle is invalid.";
      break;
    case CBATTError::ReadNotPermitted:
      text = "Reading is not permitted.";
      break;
    case CBATTError::WriteNotPermitted:
      text = "Writing is not permitted.";
      break;
    case CBATTError::InvalidPdu:
      text = "The command is invalid.";
      break;
    case CBATTError::InsufficientAuthentication:
      text = "Authentication is insufficient.";
      break;
    case CBATTError::RequestNotSupported:
      text = "The request is not supported.";
      break;
    case CBATTError::InvalidOffset:
      text = "The offset is invalid.";
      break;
    case CBATTError::InsufficientAuthorization:
      text = "Authorization is insufficient.";
      break;
    case CBATTError::PrepareQueueFull:
      text = "The prepare queue is full.";
      break;
    case CBATTError::AttributeNotFound:
      text = "The attribute could not be found.";
      break;
    case CBATTError::AttributeNotLong:
      text = "The attribute is not long.";
      break;
    case CBATTError::InsufficientEncryptionKeySize:
      text = "The encryption key size is insufficient.";
      break;
    case CBATTError::InvalidAttributeValueLength:
      text = "The value's length is invalid.";
      break;
    case CBATTError::UnlikelyError:
      text = "The request has encountered an unlikely error.";
      break;
    case CBATTError::InsufficientEncryption:
      text = "Encryption is insufficient.";
      break;
    case CBATTError::UnsupportedGroupType:
      text = "The group type is not supported.";
      break;
    case CBATTError::InsufficientResources:
      text = "Resources are insufficient.";
      break;
  }
  return Error{CBATTErrorDomain, static_cast<int>(code), text};
}

Error droppedError() {
  return linkError(CBError::ConnectionTimeout, "The connection has timed out unexpectedly.");
}
Error peerGoneError() {
  return linkError(CBError::PeripheralDisconnected,
                   "The specified device has disconnected from us.");
}
Error poweredOffError() {
  return linkError(CBError::Unknown, "The adapter was powered off.");
}
Error notConnectedError() {
  return linkError(CBError::NotConnected, "The device is not connected.");
}

TraceLater::~TraceLater() {
  if (note_ && air_.tracing()) air_.record(air_.now(), *note_);
}

std::string handleText(AttHandle handle) {
  char text[8];
  std::snprintf(text, sizeof text, "0x%04X", static_cast<unsigned>(handle));
  return text;
}

bool assignHandles(GattService& service, AttHandle& next) {
  std::uint32_t needed = 1;
  for (const auto& c : service.characteristics) {
    const bool cccd =
        (c.properties & (CBCharacteristicPropertyNotify | CBCharacteristicPropertyIndicate)) != 0;
    needed += cccd ? 3 : 2;
  }
  if (next == 0 || std::uint32_t{next} + needed - 1 > 0xFFFF) return false;
  std::uint32_t h = next;
  service.handle = static_cast<AttHandle>(h++);
  for (auto& c : service.characteristics) {
    ++h;  // declaration
    c.handle = static_cast<AttHandle>(h++);
    if (c.properties & (CBCharacteristicPropertyNotify | CBCharacteristicPropertyIndicate)) ++h;
  }
  // 0 marks a full database: nothing more fits after 0xFFFF.
  next = h > 0xFFFF ? 0 : static_cast<AttHandle>(h);
  return true;
}

// ---------------------------------------------------------------------------

AirImpl::AirImpl(const AirOptions& options)
    : clock_(options.clock),
      start_(RunLoop::Clock::now()),
      rng_(options.seed),
      state_(options.initialState),
      location_(options.locationAuthorization),
      latency_(std::max(options.linkLatency, Nanos{0})),
      scanners_(std::make_shared<const std::vector<Scanner>>()),
      sinks_(std::make_shared<const std::vector<std::shared_ptr<Sink>>>()) {}

AirImpl::~AirImpl() {
  // The last owner is gone, so nothing runs concurrently; the timer's
  // callback holds the air weakly and would find it gone anyway.
  if (armed_) RunLoop::main().cancelTimer(armedTimer_);
  // Queued advertisements pin their advertisers: let them go.
  while (!queue_.empty()) {
    const DueQueue::Due due = queue_.pop();
    if (due.advertiser && --due.advertiser->queued == 0) {
      std::shared_ptr<Advertiser> last = std::move(due.advertiser->pin);
    }
  }
}

Nanos AirImpl::now() const {
  if (clock_ == ClockMode::Virtual) return Nanos(virtualNow_.load(std::memory_order_acquire));
  return std::chrono::duration_cast<Nanos>(RunLoop::Clock::now() - start_);
}

CBManagerState AirImpl::adapterState() const {
  std::lock_guard lock(mutex_);
  return state_;
}

int AirImpl::locationAuthorizationStatus() const {
  std::lock_guard lock(mutex_);
  return location_;
}

// --- Clock and queue --------------------------------------------------------

void AirImpl::pushLocked(Event event) {
  std::uint32_t slot;
  if (freeSlots_.empty()) {
    slot = static_cast<std::uint32_t>(slots_.size());
    slots_.push_back(std::move(event));
  } else {
    slot = freeSlots_.back();
    freeSlots_.pop_back();
    slots_[slot] = std::move(event);
  }
  queue_.push(DueQueue::Due{slots_[slot].time, nextSeq_++, nullptr, slot});
  armLocked();
}

void AirImpl::queueAdvertisementLocked(Advertiser& a, Nanos time,
                                       const std::shared_ptr<Advertiser>* owner) {
  if (a.queued++ == 0) a.pin = *owner;
  queue_.push(DueQueue::Due{time, nextSeq_++, &a, a.generation});
  armLocked();
}

void AirImpl::scheduleLocked(Nanos delay, std::function<void()> task) {
  Event e;
  e.time = now() + std::max(delay, Nanos{0});
  e.task = std::move(task);
  pushLocked(std::move(e));
}

radio::TimerId AirImpl::scheduleAfter(Nanos delay, std::function<void()> fn) {
  std::lock_guard lock(mutex_);
  const radio::TimerId id = nextTimer_++;
  liveTimers_.insert(id);
  Event e;
  e.time = now() + std::max(delay, Nanos{0});
  e.timer = id;
  e.task = std::move(fn);
  pushLocked(std::move(e));
  return id;
}

void AirImpl::cancelScheduled(radio::TimerId id) {
  std::lock_guard lock(mutex_);
  liveTimers_.erase(id);
}

void AirImpl::armLocked() {
  if (clock_ != ClockMode::RealTime || queue_.empty()) return;
  const Nanos first = queue_.top().time;
  if (armed_ && armedAt_ <= first) return;
  RunLoop& loop = RunLoop::main();
  if (armed_) loop.cancelTimer(armedTimer_);
  armed_ = true;
  armedAt_ = first;
  armedTimer_ = loop.addTimer(start_ + first, [weak = weak_from_this()] {
    if (auto self = weak.lock()) self->onTimer();
  });
}

void AirImpl::onTimer() {
  {
    std::lock_guard lock(mutex_);
    armed_ = false;
  }
  if (eventDepth == 0) {
    // Only what is due now: an event that queues another for "now" runs on
    // the next turn of the loop instead of starving it.
    const Nanos limit = now();
    while (runOne(limit) != Ran::Nothing) {
    }
  }
  std::lock_guard lock(mutex_);
  armLocked();
}

AirImpl::Ran AirImpl::runOne(Nanos limit) {
  std::lock_guard run(runMutex_);
  // Both destroyed after the lock below is released: a step's captures and
  // an advertiser whose last queued advertisement this was.
  Event event;
  std::shared_ptr<Advertiser> released;
  Advertiser* advertiser = nullptr;
  Nanos time{0};
  Audience audience;
  {
    std::lock_guard lock(mutex_);
    if (queue_.empty() || queue_.top().time > limit) return Ran::Nothing;
    const DueQueue::Due due = queue_.pop();
    time = due.time;
    prefetchAhead(queue_);
    if (clock_ == ClockMode::Virtual && time.count() > virtualNow_.load()) {
      virtualNow_.store(time.count(), std::memory_order_release);
    }
    if (due.advertiser) {
      // A traced advertisement has queued its successor, which keeps the
      // advertiser alive until it is delivered below.
      advertiser = due.advertiser;
      audience = advertiseLocked(*advertiser, time, due.detail);
      if (--advertiser->queued == 0) released = std::move(advertiser->pin);
    } else {
      const auto slot = static_cast<std::uint32_t>(due.detail);
      event = std::move(slots_[slot]);
      slots_[slot].task = nullptr;  // no capture outlives its event in a free slot
      freeSlots_.push_back(slot);
      if (event.timer != 0 && liveTimers_.erase(event.timer) == 0) return Ran::Quiet;
    }
  }
  InEvent inEvent;
  if (advertiser) {
    return deliverAdvertisement(*advertiser, time, audience) ? Ran::Delivered : Ran::Quiet;
  }
  if (event.task) event.task();
  return Ran::Delivered;
}

void AirImpl::advance(Nanos duration) {
  if (clock_ != ClockMode::Virtual) {
    throw std::logic_error("Air::advance needs the virtual clock");
  }
  if (eventDepth > 0) return;
  // What the caller set going before this call happens at the current time.
  dispatch::settle();
  const Nanos target = now() + std::max(duration, Nanos{0});
  for (;;) {
    const Ran ran = runOne(target);
    if (ran == Ran::Nothing) break;
    if (ran == Ran::Delivered) dispatch::settle();
  }
  if (virtualNow_.load() < target.count()) {
    virtualNow_.store(target.count(), std::memory_order_release);
  }
}

void AirImpl::settle() {
  if (eventDepth > 0) return;
  bool ran;
  do {
    dispatch::settle();
    ran = false;
    const Nanos limit = now();
    for (;;) {
      const Ran r = runOne(limit);
      if (r == Ran::Nothing) break;
      ran = true;
      if (r == Ran::Delivered) dispatch::settle();
    }
  } while (ran);
}

// --- Advertising -------------------------------------------------------------

void AirImpl::startAdvertiserLocked(const std::shared_ptr<Advertiser>& advertiser) {
  if (advertiser->advertising) return;
  advertiser->advertising = true;
  ++advertiser->generation;
  // A random phase spreads advertisers that start together over one interval.
  const std::int64_t span = std::max<std::int64_t>(advertiser->interval.count(), 1);
  const Nanos first = now() + Nanos(std::uniform_int_distribution<std::int64_t>(0, span - 1)(rng_));
  queueAdvertisementLocked(*advertiser, first, &advertiser);
}

void AirImpl::stopAdvertiserLocked(Advertiser& advertiser) {
  if (!advertiser.advertising) return;
  advertiser.advertising = false;
  ++advertiser.generation;
}

void AirImpl::rebuildScannersLocked() {
  auto list = std::make_shared<std::vector<Scanner>>();
  for (const auto& [id, central] : centrals_) {
    if (central->scanning) list->push_back(Scanner{central->events, central->scanServices});
  }
  scanners_ = std::move(list);
}

AirImpl::Audience AirImpl::advertiseLocked(Advertiser& a, Nanos time, std::uint64_t generation) {
  Audience audience;
  if (!a.advertising || a.generation != generation) return audience;
  // The next advertisement keeps the advertiser pinned until this one is
  // over: it can only be dropped when it comes due, on this thread.
  queueAdvertisementLocked(
      a, time + std::max(a.interval, kMinInterval) +
             Nanos(std::uniform_int_distribution<std::int64_t>(0, kMaxAdvDelay.count())(rng_)));
  if (state_ != CBManagerState::PoweredOn) return audience;  // nobody listens

  audience.traced = true;
  const bool lost = a.packetLoss > 0 && unit_(rng_) < a.packetLoss;
  if (a.reportVersion != a.contentVersion) {
    a.report.address = a.address;
    a.report.advertisement = a.content;
    a.wire = encodeAdvertisement(a.content);
    a.reportVersion = a.contentVersion;
  }
  if (!lost) {
    a.report.rssi = drawRssi(a, time, rng_, noise_);
    a.report.time = time;
    // An empty list is not taken: a reference count is an atomic step, and
    // most airs have either scanners or sinks, not both.
    if (!scanners_->empty()) audience.scanners = scanners_;
    if (!sinks_->empty()) audience.sinks = sinks_;
    audience.heard = true;
  }
  return audience;
}

bool AirImpl::deliverAdvertisement(const Advertiser& a, Nanos time, const Audience& audience) {
  if (!audience.traced) return false;
  if (tracing()) {
    char detail[24] = "lost";
    if (audience.heard) std::snprintf(detail, sizeof detail, "rssi %d", a.report.rssi);
    record(time, "adv", a.address, {}, detail, &a.wire);
  }
  if (!audience.heard) return false;

  bool delivered = false;
  if (audience.scanners) {
    for (const Scanner& scanner : *audience.scanners) {
      if (!wanted(scanner.services, a.report.advertisement.serviceUUIDs)) continue;
      if (auto receiver = scanner.events.lock()) {
        receiver->radioDiscovered(a.report);
        delivered = true;
      }
    }
  }
  // Sinks only record (ranging tables): they set nothing going that the
  // queues would have to settle.
  if (audience.sinks) {
    for (const auto& sink : *audience.sinks) {
      if (sink->active.load(std::memory_order_acquire)) sink->fn(a.report);
    }
  }
  return delivered;
}

std::shared_ptr<radio::Observation> AirImpl::observeAdvertisements(
    std::function<void(const radio::AdvertisingReport&)> sink) {
  auto entry = std::make_shared<Sink>();
  entry->fn = std::move(sink);
  std::shared_ptr<const std::vector<std::shared_ptr<Sink>>> old;
  {
    std::lock_guard lock(mutex_);
    auto list = std::make_shared<std::vector<std::shared_ptr<Sink>>>(*sinks_);
    list->push_back(entry);
    old = std::exchange(sinks_, std::move(list));
  }
  return std::make_shared<SimObservation>(weak_from_this(), std::move(entry));
}

// --- Adapter -----------------------------------------------------------------

void AirImpl::setAdapterState(CBManagerState state) {
  std::lock_guard lock(mutex_);
  if (state == state_) return;
  const bool wasOn = state_ == CBManagerState::PoweredOn;
  state_ = state;

  // Every session hears the new state first, then what it cost.
  scheduleLocked(Nanos{0}, [this, state] {
    std::vector<std::shared_ptr<radio::CentralEvents>> centrals;
    std::vector<std::shared_ptr<radio::PeripheralEvents>> peripherals;
    {
      std::lock_guard lock(mutex_);
      for (const auto& [id, c] : centrals_) {
        if (auto rx = c->events.lock()) centrals.push_back(std::move(rx));
      }
      for (const auto& [id, p] : peripherals_) {
        if (auto rx = p->events.lock()) peripherals.push_back(std::move(rx));
      }
    }
    if (tracing()) record(now(), "power", "", "", toString(state), nullptr);
    for (const auto& rx : centrals) rx->radioStateChanged(state);
    for (const auto& rx : peripherals) rx->radioStateChanged(state);
  });

  if (!wasOn || state == CBManagerState::PoweredOn) return;
  const Error error = poweredOffError();
  for (const auto& [id, central] : centrals_) {
    central->scanning = false;
    std::vector<std::pair<PeripheralId, bool>> links;
    for (const auto& [peer, link] : central->links) links.emplace_back(peer, link.connected);
    for (const auto& [peer, connected] : links) {
      if (connected) {
        dropCentralLinkLocked(*central, peer, error);
        continue;
      }
      central->links.erase(peer);
      postCentralLocked(
          id, Nanos{0}, std::nullopt,
          TraceNote{"connect", central->address, peer, "failed: " + error.text, {}},
          [peer = peer, error](radio::CentralEvents& rx) { rx.radioConnectFailed(peer, error); });
    }
  }
  rebuildScannersLocked();
  for (const auto& [id, peripheral] : peripherals_) stopAdvertiserLocked(*peripheral->advertiser);
  for (const auto& remote : remotes_) endRemoteLinkLocked(*remote);
}

void AirImpl::setLocationAuthorization(int status) {
  std::lock_guard lock(mutex_);
  location_ = status;
}

void AirImpl::setLinkLatency(Nanos latency) {
  std::lock_guard lock(mutex_);
  latency_ = std::max(latency, Nanos{0});
}

void AirImpl::setLocalPeripheralDistance(double metres) {
  std::lock_guard lock(mutex_);
  localDistance_ = std::isfinite(metres) ? std::max(metres, 0.0) : 1.0;
  for (const auto& [id, peripheral] : peripherals_) {
    peripheral->advertiser->distance = localDistance_;
    peripheral->advertiser->path.clear();
  }
}

void AirImpl::failNextServiceRegistration(Error error) {
  std::lock_guard lock(mutex_);
  failNextRegistration_ = std::move(error);
}

// --- Devices -------------------------------------------------------------------

std::string AirImpl::nextDeviceAddressLocked() {
  for (;;) {
    const unsigned n = nextDeviceAddress_++;
    char text[18];
    std::snprintf(text, sizeof text, "5A:00:00:00:%02X:%02X", (n >> 8) & 0xFF, n & 0xFF);
    if (!devices_.count(text) && !peripheralByAddress_.count(text)) return text;
  }
}

std::shared_ptr<VirtualDevice> AirImpl::addDevice(DeviceConfig config) {
  auto clean = [](double v, double fallback, double lo, double hi) {
    return std::isfinite(v) ? std::clamp(v, lo, hi) : fallback;
  };
  std::vector<GattService> services;
  AttHandle next = 1;
  for (auto& wanted : config.services) {
    GattService service;
    service.uuid = wanted.uuid;
    service.primary = wanted.primary;
    for (auto& c : wanted.characteristics) {
      GattCharacteristic gc;
      gc.uuid = c.uuid;
      gc.properties = c.properties;
      gc.value = std::move(c.value);
      gc.onRead = std::move(c.onRead);
      gc.onWrite = std::move(c.onWrite);
      gc.echoWrites = c.echoWrites;
      service.characteristics.push_back(std::move(gc));
    }
    if (!assignHandles(service, next)) {
      throw std::invalid_argument("the GATT database does not fit in 65535 handles");
    }
    services.push_back(std::move(service));
  }
  std::stable_sort(config.path.begin(), config.path.end(),
                   [](const Waypoint& a, const Waypoint& b) { return a.at < b.at; });

  std::lock_guard lock(mutex_);
  std::string address = config.address.empty() ? nextDeviceAddressLocked() : config.address;
  if (devices_.count(address) || peripheralByAddress_.count(address)) {
    throw std::invalid_argument("an advertiser with address " + address + " is already in the air");
  }
  auto device = std::make_shared<SimDevice>(weak_from_this(), address);
  auto a = std::make_shared<Advertiser>(address);
  a->content.localName = std::move(config.localName);
  a->content.manufacturerData = std::move(config.manufacturerData);
  a->content.serviceUUIDs = std::move(config.serviceUUIDs);
  a->content.isConnectable = config.connectable;
  a->interval = std::max(config.advertisingInterval, kMinInterval);
  a->txPowerAt1m = std::clamp(config.txPowerAt1m, -127, 20);
  a->pathLossExponent = clean(config.pathLossExponent, 2.0, 0.0, 10.0);
  a->distance = clean(config.distance, 1.0, 0.0, 1e6);
  a->path = std::move(config.path);
  a->noiseSigma = clean(config.rssiNoiseSigma, 0.0, 0.0, 100.0);
  a->packetLoss = clean(config.packetLoss, 0.0, 0.0, 1.0);
  device->advertiser = a;
  device->connectable = config.connectable;
  device->services = std::move(services);
  devices_.emplace(address, device);
  deviceOrder_.push_back(address);
  if (config.advertising) startAdvertiserLocked(a);
  return device;
}

void AirImpl::removeDevice(const std::string& address) {
  std::shared_ptr<SimDevice> gone;  // released after the lock
  std::lock_guard lock(mutex_);
  auto it = devices_.find(address);
  if (it == devices_.end()) return;
  gone = it->second;
  devices_.erase(it);
  deviceOrder_.erase(std::find(deviceOrder_.begin(), deviceOrder_.end(), address));
  gone->removed = true;
  stopAdvertiserLocked(*gone->advertiser);
  const std::set<std::uint64_t> links = gone->links;
  for (std::uint64_t id : links) {
    auto c = centrals_.find(id);
    if (c != centrals_.end()) dropCentralLinkLocked(*c->second, address, peerGoneError());
  }
}

std::shared_ptr<VirtualDevice> AirImpl::device(const std::string& address) const {
  std::lock_guard lock(mutex_);
  return deviceLocked(address);
}

std::shared_ptr<SimDevice> AirImpl::deviceLocked(const std::string& address) const {
  auto it = devices_.find(address);
  return it == devices_.end() ? nullptr : it->second;
}

std::shared_ptr<PeripheralState> AirImpl::peripheralAtLocked(const std::string& address) const {
  auto it = peripheralByAddress_.find(address);
  if (it == peripheralByAddress_.end()) return nullptr;
  auto p = peripherals_.find(it->second);
  return p == peripherals_.end() ? nullptr : p->second;
}

std::vector<std::string> AirImpl::deviceAddresses() const {
  std::lock_guard lock(mutex_);
  return deviceOrder_;
}

// --- Delivery ------------------------------------------------------------------

void AirImpl::postCentralLocked(std::uint64_t central, Nanos delay, std::optional<LinkCheck> check,
                                std::optional<TraceNote> note,
                                std::function<void(radio::CentralEvents&)> call) {
  scheduleLocked(delay, [this, central, check = std::move(check), note = std::move(note),
                         call = std::move(call)] {
    std::shared_ptr<radio::CentralEvents> receiver;
    {
      std::lock_guard lock(mutex_);
      auto it = centrals_.find(central);
      if (it == centrals_.end()) return;  // closed: no more events
      if (check) {
        auto link = it->second->links.find(check->peer);
        if (link == it->second->links.end() || !link->second.connected ||
            link->second.generation != check->generation) {
          return;  // the link this answered has ended
        }
      }
      receiver = it->second->events.lock();
    }
    if (note && tracing()) record(now(), *note);
    if (receiver) call(*receiver);
  });
}

void AirImpl::postPeripheralLocked(std::uint64_t peripheral, Nanos delay,
                                   std::optional<TraceNote> note,
                                   std::function<void(radio::PeripheralEvents&)> call) {
  scheduleLocked(delay, [this, peripheral, note = std::move(note), call = std::move(call)] {
    std::shared_ptr<radio::PeripheralEvents> receiver;
    {
      std::lock_guard lock(mutex_);
      auto it = peripherals_.find(peripheral);
      if (it == peripherals_.end()) return;
      receiver = it->second->events.lock();
    }
    if (note && tracing()) record(now(), *note);
    if (receiver) call(*receiver);
  });
}

// --- Trace ---------------------------------------------------------------------

void AirImpl::record(Nanos time, std::string_view kind, std::string_view from, std::string_view to,
                     std::string_view detail, const Bytes* payload) {
  std::shared_ptr<const std::function<void(const TraceEvent&)>> sink;
  std::optional<TraceEvent> streamed;
  {
    std::lock_guard lock(traceMutex_);
    sink = traceSink_;
    TraceEvent* slot = nullptr;
    if (traceLimit_ > 0) {
      if (ring_.size() < traceLimit_) {
        slot = &ring_.emplace_back();
      } else {
        slot = &ring_[ringStart_];
        ringStart_ = (ringStart_ + 1) % ring_.size();
      }
      fill(*slot, time, kind, from, to, detail, payload);
    }
    if (sink) {
      if (slot) {
        streamed = *slot;
      } else {
        fill(streamed.emplace(), time, kind, from, to, detail, payload);
      }
    }
  }
  if (sink) (*sink)(*streamed);
}

void AirImpl::setTraceLimit(std::size_t limit) {
  std::lock_guard lock(traceMutex_);
  std::vector<TraceEvent> kept;
  const std::size_t keep = std::min(limit, ring_.size());
  kept.reserve(keep);
  for (std::size_t i = ring_.size() - keep; i < ring_.size(); ++i) {
    kept.push_back(std::move(ring_[(ringStart_ + i) % ring_.size()]));
  }
  ring_ = std::move(kept);
  ringStart_ = 0;
  traceLimit_ = limit;
  tracing_.store(limit > 0 || traceSink_ != nullptr);
}

std::vector<TraceEvent> AirImpl::trace() const {
  std::lock_guard lock(traceMutex_);
  std::vector<TraceEvent> out;
  out.reserve(ring_.size());
  for (std::size_t i = 0; i < ring_.size(); ++i) {
    out.push_back(ring_[(ringStart_ + i) % ring_.size()]);
  }
  return out;
}

void AirImpl::setTraceSink(std::function<void(const TraceEvent&)> sink) {
  std::shared_ptr<const std::function<void(const TraceEvent&)>> old;
  std::lock_guard lock(traceMutex_);
  old = std::exchange(
      traceSink_,
      sink ? std::make_shared<const std::function<void(const TraceEvent&)>>(std::move(sink))
           : nullptr);
  tracing_.store(traceLimit_ > 0 || traceSink_ != nullptr);
}

}  // namespace detail
}  // namespace lumora::sim
