// Choosing the radio at run time, in one place.
//
//   lumora::radio::Backend::setCurrent(lumora::radio::makeBackend("bluez:hci1"));
//
// Radio names: "sim" (the simulated air in real time with the built-in scenario),
// "sim:PATH" (the same with a scenario file), "bluez" (the default adapter),
// "bluez:hciN" or "bluez:AA:BB:CC:DD:EE:FF" (an adapter by name or address).
// LUMORA_BACKEND holds such a radio name for applications that do not choose.
#pragma once

#include <memory>
#include <stdexcept>
#include <string>
#include <string_view>

#include "CoreBluetooth/Backend.h"

namespace lumora::radio {

/// A radio that cannot be had (unknown name, no adapter, bluetoothd not
/// running, permission denied): what() is a one-line explanation.
class BackendError : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

/// Makes the radio `which` names; throws BackendError.
std::shared_ptr<Backend> makeBackend(std::string_view which);

}  // namespace lumora::radio
