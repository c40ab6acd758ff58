#include "support/FinderRecorder.h"

#include <algorithm>
#include <iterator>
#include <utility>

#include "Foundation/Dispatch.h"

namespace lumora::test {

void FinderRecorder::didDiscoverBeacon(const CLBeaconList& beacons,
                                       const std::shared_ptr<CLBeaconRegion>& inRegion) {
  FinderEvent event;
  event.kind = FinderEvent::Kind::Beacons;
  event.beacons = beacons;
  event.region = inRegion;
  record(std::move(event));
}

void FinderRecorder::didstate(std::int32_t state, const std::string& Msg, const Data& data) {
  FinderEvent event;
  event.kind = FinderEvent::Kind::State;
  event.code = state;
  event.message = Msg;
  event.data = data;
  record(std::move(event));
}

void FinderRecorder::record(FinderEvent event) {
  event.onMainThread = isMainThread();
  Hook hook;
  {
    std::lock_guard lock(mutex_);
    events_.push_back(event);
    hook = hook_;
  }
  if (hook) hook(event);
}

void FinderRecorder::setHook(Hook hook) {
  std::lock_guard lock(mutex_);
  hook_ = std::move(hook);
}

std::vector<FinderEvent> FinderRecorder::events() const {
  std::lock_guard lock(mutex_);
  return events_;
}

std::vector<State> FinderRecorder::states() const {
  std::lock_guard lock(mutex_);
  std::vector<State> out;
  for (const auto& e : events_) {
    if (e.kind == FinderEvent::Kind::State) out.push_back({e.code, e.message});
  }
  return out;
}

std::vector<Data> FinderRecorder::dataOf(std::int32_t code) const {
  std::lock_guard lock(mutex_);
  std::vector<Data> out;
  for (const auto& e : events_) {
    if (e.kind == FinderEvent::Kind::State && e.code == code) out.push_back(e.data);
  }
  return out;
}

std::vector<FinderEvent> FinderRecorder::beaconEvents() const {
  std::lock_guard lock(mutex_);
  std::vector<FinderEvent> out;
  std::copy_if(events_.begin(), events_.end(), std::back_inserter(out),
               [](const FinderEvent& e) { return e.kind == FinderEvent::Kind::Beacons; });
  return out;
}

std::size_t FinderRecorder::count(std::int32_t code, const std::string& message) const {
  std::lock_guard lock(mutex_);
  return static_cast<std::size_t>(
      std::count_if(events_.begin(), events_.end(), [&](const FinderEvent& e) {
        return e.kind == FinderEvent::Kind::State && e.code == code && e.message == message;
      }));
}

void FinderRecorder::clear() {
  std::lock_guard lock(mutex_);
  events_.clear();
}

}  // namespace lumora::test
