#include "CoreBluetooth/Backend.h"

#include <mutex>
#include <utility>

namespace lumora::radio {
namespace {

// The process-wide radio slot. `slotMutex` guards the pointer for single
// reads and writes; `makeMutex` lets exactly one thread build the default
// radio (which may take a while: a D-Bus connection, a clock thread) without
// holding the slot's lock, so setCurrent() from elsewhere is never stuck
// behind it.
struct Slot {
  std::mutex slotMutex;
  std::mutex makeMutex;
  std::shared_ptr<Backend> current;
};

Slot& slot() {
  // Leaked on purpose: managers may be torn down during static destruction
  // and still ask for the current radio.
  static Slot* s = new Slot;
  return *s;
}

}  // namespace

std::shared_ptr<Backend> Backend::current() {
  Slot& s = slot();
  {
    std::lock_guard lock(s.slotMutex);
    if (s.current) return s.current;
  }
  std::lock_guard making(s.makeMutex);
  {
    std::lock_guard lock(s.slotMutex);
    if (s.current) return s.current;
  }
  auto made = makeDefaultBackend();
  std::lock_guard lock(s.slotMutex);
  // setCurrent() may have won while the default was being made: its choice
  // stands. `made` was declared before `lock`, so an unused radio is released
  // after the slot's lock is dropped.
  if (!s.current) s.current = made;
  return s.current;
}

void Backend::setCurrent(std::shared_ptr<Backend> backend) {
  Slot& s = slot();
  {
    std::lock_guard lock(s.slotMutex);
    std::swap(s.current, backend);
  }
  // `backend` now holds the previous radio; it is released here, outside the
  // lock, because its destructor may stop threads that call current().
}

}  // namespace lumora::radio
