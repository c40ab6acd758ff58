#include "CoreBluetooth/CBTypes.h"

namespace lumora {

const std::string CBErrorDomain = "CBErrorDomain";
const std::string CBATTErrorDomain = "CBATTErrorDomain";

const char* toString(CBManagerState state) {
  switch (state) {
    case CBManagerState::Unknown:
      return "unknown";
    case CBManagerState::Resetting:
      return "resetting";
    case CBManagerState::Unsupported:
      return "unsupported";
    case CBManagerState::Unauthorized:
      return "unauthorized";
    case CBManagerState::PoweredOff:
      return "poweredOff";
    case CBManagerState::PoweredOn:
      return "poweredOn";
  }
  return "unknown";
}

const char* toString(CBPeripheralState state) {
  switch (state) {
    case CBPeripheralState::Disconnected:
      return "disconnected";
    case CBPeripheralState::Connecting:
      return "connecting";
    case CBPeripheralState::Connected:
      return "connected";
    case CBPeripheralState::Disconnecting:
      return "disconnecting";
  }
  return "disconnected";
}

}  // namespace lumora
