// The real radio: BlueZ 5.66 (bluetoothd) over D-Bus.
//
//   auto radio = lumora::bluez::makeBackend("hci0");   // throws radio::BackendError
//   lumora::radio::Backend::setCurrent(radio);
//   ... create managers ...
//   lumora::RunLoop::main().run();                     // BlueZ is served from here
//
// Everything the radio does happens on the thread that runs RunLoop::main():
// D-Bus traffic, timers and every radio event. Sessions may be called from
// any thread; their work is posted to that loop. Nothing ever blocks on
// bluetoothd once the backend is made (it calls back into us while it
// registers advertisements and GATT applications).
//
// The bus is the system bus, or the D-Bus address in LUMORA_BLUEZ_BUS when
// that is set (the tests point it at a private bus with a scripted
// bluetoothd stand-in). See docs/bluez.md for what differs from the
// simulated air and the time-outs chosen.
#pragma once

#include <chrono>
#include <memory>
#include <string>
#include <string_view>

#include "CoreBluetooth/Backend.h"
#include "backends/Radio.h"

namespace lumora::bluez {

struct Options {
  /// "" for the first adapter, "hciN" for one by name, or its address.
  std::string adapter;
  /// A D-Bus address; empty: LUMORA_BLUEZ_BUS when set, else the system bus.
  std::string busAddress;
  /// A connection attempt that has not come up by then fails with
  /// CBError::ConnectionTimeout (BlueZ itself would wait much longer).
  std::chrono::milliseconds connectTimeout{10000};
  /// Ranging: while advertisements are observed, discovery is restarted at
  /// the end of a cycle in which a recently heard device went unheard
  /// (controllers report an unchanged advertiser once per discovery).
  std::chrono::milliseconds rangingCycle{1100};
  /// How long a vanished bluetoothd counts as "resetting" before the state
  /// becomes "unsupported".
  std::chrono::milliseconds restartGrace{5000};
};

/// Makes the BlueZ radio for `adapter` ("" = the default/first one, "hciN",
/// or an address). Throws radio::BackendError with a one-line explanation
/// when bluetoothd is not running, there is no such adapter, the D-Bus policy
/// denies access, or the adapter is blocked by rfkill.
std::shared_ptr<radio::Backend> makeBackend(std::string_view adapter);
std::shared_ptr<radio::Backend> makeBackend(const Options& options);

}  // namespace lumora::bluez
