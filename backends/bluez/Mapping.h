// Pure translations between BlueZ's D-Bus vocabulary and the radio
// interface: characteristic flags, ATT result codes and their D-Bus error
// names, advertisement contents, object paths and the adapter state model.
// No I/O, no logging; everything from the bus is treated as untrusted.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

#include "CoreBluetooth/Backend.h"
#include "CoreBluetooth/CBTypes.h"
#include "backends/bluez/DBus.h"

namespace lumora::bluez {

// --- characteristics --------------------------------------------------------------

/// The GattCharacteristic1 Flags of a local characteristic. Encryption
/// permissions turn "read"/"write" into "encrypt-read"/"encrypt-write".
std::vector<std::string> characteristicFlags(std::uint8_t properties, std::uint8_t permissions);
/// The property bits of a remote characteristic's Flags; unknown flags are ignored.
std::uint8_t characteristicProperties(const std::vector<std::string>& flags);

// --- ATT results ------------------------------------------------------------------

struct DBusError {
  std::string name;
  std::string message;
  friend bool operator==(const DBusError&, const DBusError&) = default;
};

/// The error our GATT application replies with so that bluetoothd 5.66 sends
/// `result` on air. Codes without a D-Bus name of their own (0x01, 0x04, 0x05,
/// 0x09-0x0C, 0x0E-0x11) go out as org.bluez.Error.Failed with the code as
/// text: 5.66 sends those as 0x0E (Unlikely Error). Application codes
/// 0x80-0x9F pass through exactly. Success has no error.
std::optional<DBusError> serverError(CBATTError result);

/// The error a central operation reports for a failed GATT client call
/// (ReadValue/WriteValue). ATT failures land in CBATTErrorDomain with their
/// code; link and bus failures in CBErrorDomain.
Error clientError(const dbus::CallError& error, bool write);

/// Connection failures (Device1.Connect errors).
Error connectError(const dbus::CallError& error);

// Errors the backend raises itself.
Error linkError(CBError code);

// --- advertisements -----------------------------------------------------------------

/// What an advertising report says, from a Device1 property set.
/// Manufacturer data is the company id (little-endian) followed by its bytes,
/// as the platform hands it out; with several companies the lowest id wins.
/// The local name is the advertised Name, or an Alias that is not BlueZ's
/// address fallback; a device with neither has no name.
CBAdvertisementData advertisementFromDevice(const dbus::Props& device);

/// Legacy advertising budget: 31 bytes, of which bluetoothd/the kernel keep 3
/// for the Flags AD of a connectable advertisement.
inline constexpr std::size_t kAdvertisingDataBudget = 28;
/// The scan response holds the local name: 31 bytes minus its AD header.
inline constexpr std::size_t kLocalNameBudget = 29;

/// The LEAdvertisement1 contents for `data`, or the error to report.
struct AdvertisementPlan {
  std::optional<std::uint16_t> company;
  Bytes manufacturerPayload;              // after the company id
  std::optional<std::string> localName;   // already cut to kLocalNameBudget
  std::vector<std::string> serviceUUIDs;  // the ones that fit, lower-case text
  std::size_t dataLength = 0;             // bytes of AD used (without Flags)
};
std::variant<AdvertisementPlan, Error> planAdvertisement(const CBAdvertisementData& data);

/// `text` cut to at most `budget` bytes without splitting a UTF-8 sequence.
std::string truncateUtf8(std::string_view text, std::size_t budget);

/// BlueZ's text form of a UUID (lower-case, 36 characters).
std::string uuidText(const CBUUID& uuid);

// --- object paths -----------------------------------------------------------------

/// The handle BlueZ encodes in the last path segment ("service000a",
/// "char000b"), when the segment is exactly `prefix` plus four hex digits.
std::optional<std::uint16_t> handleFromPath(std::string_view path, std::string_view prefix);
/// "AA:BB:..." from ".../dev_AA_BB_...", empty when the path is no device path.
std::string addressFromDevicePath(std::string_view path);
/// The device path BlueZ uses for `address` under `adapterPath`.
std::string devicePath(std::string_view adapterPath, std::string_view address);
/// True when `path` lies strictly below `parent`.
bool isBelow(std::string_view path, std::string_view parent);

// --- adapter state ----------------------------------------------------------------

/// Everything the manager state depends on.
struct AdapterView {
  bool busOpen = true;
  bool daemonPresent = true;   // org.bluez has an owner
  bool daemonWasLost = false;  // it went away while we ran and has not been back for long
  bool accessDenied = false;
  bool adapterPresent = true;
  bool powered = false;
  std::optional<std::vector<std::string>> roles;  // Adapter1.Roles when BlueZ has it
  bool advertisingManager = false;                // LEAdvertisingManager1 on the adapter
  bool gattManager = false;                       // GattManager1 on the adapter
};
CBManagerState centralState(const AdapterView& view);
CBManagerState peripheralState(const AdapterView& view);

}  // namespace lumora::bluez
