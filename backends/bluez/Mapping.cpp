#include "backends/bluez/Mapping.h"

#include <algorithm>
#include <array>
#include <cctype>
#include <cstdio>
#include <utility>

namespace lumora::bluez {

namespace {

bool has(const std::vector<std::string>& list, std::string_view item) {
  return std::find(list.begin(), list.end(), item) != list.end();
}

bool startsWith(std::string_view text, std::string_view prefix) {
  return text.substr(0, prefix.size()) == prefix;
}

std::optional<int> hexDigit(char c) {
  if (c >= '0' && c <= '9') return c - '0';
  if (c >= 'a' && c <= 'f') return c - 'a' + 10;
  if (c >= 'A' && c <= 'F') return c - 'A' + 10;
  return std::nullopt;
}

// "0x5a" style code at the end of BlueZ's "Operation failed with ATT error: 0x5a".
std::optional<int> trailingHexCode(std::string_view message) {
  const auto at = message.rfind("0x");
  if (at == std::string_view::npos) return std::nullopt;
  const auto digits = message.substr(at + 2);
  if (digits.empty() || digits.size() > 2) return std::nullopt;
  int code = 0;
  for (char c : digits) {
    const auto d = hexDigit(c);
    if (!d) return std::nullopt;
    code = code * 16 + *d;
  }
  return code;
}

bool looksLikeAddress(std::string_view text) {
  if (text.size() != 17) return false;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool ok = i % 3 == 2 ? (text[i] == '-' || text[i] == ':') : hexDigit(text[i]).has_value();
    if (!ok) return false;
  }
  return true;
}

}  // namespace

// --- characteristics --------------------------------------------------------------

std::vector<std::string> characteristicFlags(std::uint8_t properties, std::uint8_t permissions) {
  std::vector<std::string> flags;
  const bool encryptRead = (permissions & CBAttributePermissionsReadEncryptionRequired) != 0;
  const bool encryptWrite = (permissions & CBAttributePermissionsWriteEncryptionRequired) != 0;
  if (properties & CBCharacteristicPropertyBroadcast) flags.emplace_back("broadcast");
  if (properties & CBCharacteristicPropertyRead)
    flags.emplace_back(encryptRead ? "encrypt-read" : "read");
  if (properties & CBCharacteristicPropertyWriteWithoutResponse) {
    flags.emplace_back("write-without-response");
  }
  if (properties & CBCharacteristicPropertyWrite) {
    flags.emplace_back(encryptWrite ? "encrypt-write" : "write");
  }
  if (properties & CBCharacteristicPropertyNotify) flags.emplace_back("notify");
  if (properties & CBCharacteristicPropertyIndicate) flags.emplace_back("indicate");
  if (properties & CBCharacteristicPropertyAuthenticatedSignedWrites) {
    flags.emplace_back("authenticated-signed-writes");
  }
  if (properties & CBCharacteristicPropertyExtendedProperties) {
    flags.emplace_back("extended-properties");
  }
  return flags;
}

std::uint8_t characteristicProperties(const std::vector<std::string>& flags) {
  static const std::array<std::pair<std::string_view, std::uint8_t>, 17> kTable{{
      {"broadcast", CBCharacteristicPropertyBroadcast},
      {"read", CBCharacteristicPropertyRead},
      {"encrypt-read", CBCharacteristicPropertyRead},
      {"encrypt-authenticated-read", CBCharacteristicPropertyRead},
      {"secure-read", CBCharacteristicPropertyRead},
      {"write-without-response", CBCharacteristicPropertyWriteWithoutResponse},
      {"write", CBCharacteristicPropertyWrite},
      {"encrypt-write", CBCharacteristicPropertyWrite},
      {"encrypt-authenticated-write", CBCharacteristicPropertyWrite},
      {"secure-write", CBCharacteristicPropertyWrite},
      {"notify", CBCharacteristicPropertyNotify},
      {"indicate", CBCharacteristicPropertyIndicate},
      {"authenticated-signed-writes", CBCharacteristicPropertyAuthenticatedSignedWrites},
      {"extended-properties", CBCharacteristicPropertyExtendedProperties},
      {"reliable-write", CBCharacteristicPropertyExtendedProperties},
      {"writable-auxiliaries", CBCharacteristicPropertyExtendedProperties},
      {"encrypt-notify", CBCharacteristicPropertyNotify},
  }};
  std::uint8_t properties = 0;
  for (const auto& flag : flags) {
    for (const auto& [name, bit] : kTable) {
      if (flag == name) properties |= bit;
    }
  }
  return properties;
}

// --- ATT results ------------------------------------------------------------------

std::optional<DBusError> serverError(CBATTError result) {
  const int code = static_cast<int>(result);
  switch (result) {
    case CBATTError::Success:
      return std::nullopt;
    case CBATTError::ReadNotPermitted:
      return DBusError{"org.bluez.Error.NotPermitted", "Read not permitted"};
    case CBATTError::WriteNotPermitted:
      return DBusError{"org.bluez.Error.NotPermitted", "Write not permitted"};
    case CBATTError::InsufficientAuthorization:
      return DBusError{"org.bluez.Error.NotAuthorized", "Not authorized"};
    case CBATTError::InvalidOffset:
      return DBusError{"org.bluez.Error.InvalidOffset", "Invalid offset"};
    case CBATTError::InvalidAttributeValueLength:
      return DBusError{"org.bluez.Error.InvalidValueLength", "Invalid value length"};
    case CBATTError::RequestNotSupported:
      return DBusError{"org.bluez.Error.NotSupported", "Request not supported"};
    default:
      break;
  }
  // Everything else travels as the text of a Failed error: bluetoothd sends
  // 0x80-0x9F as they are and anything below as 0x0E.
  char text[8];
  std::snprintf(text, sizeof text, "0x%02x", static_cast<unsigned>(code) & 0xFFu);
  return DBusError{"org.bluez.Error.Failed", text};
}

Error clientError(const dbus::CallError& error, bool write) {
  const auto& name = error.name;
  const auto& message = error.message;
  // bluetoothd's message when it has one, else at least the error's name.
  const std::string text = message.empty() ? name : message;
  const auto att = [&](CBATTError code) {
    return Error{CBATTErrorDomain, static_cast<int>(code), text};
  };
  if (name == "org.bluez.Error.NotPermitted") {
    if (message == "Not paired") return att(CBATTError::InsufficientAuthentication);
    if (message == "Read not permitted") return att(CBATTError::ReadNotPermitted);
    if (message == "Write not permitted") return att(CBATTError::WriteNotPermitted);
    return att(write ? CBATTError::WriteNotPermitted : CBATTError::ReadNotPermitted);
  }
  if (name == "org.bluez.Error.NotAuthorized") return att(CBATTError::InsufficientAuthorization);
  if (name == "org.bluez.Error.NotSupported") return att(CBATTError::RequestNotSupported);
  if (name == "org.bluez.Error.InvalidOffset") return att(CBATTError::InvalidOffset);
  if (name == "org.bluez.Error.InvalidValueLength") {
    return att(CBATTError::InvalidAttributeValueLength);
  }
  if (name == "org.bluez.Error.InvalidArguments") {
    if (message == "Invalid offset") return att(CBATTError::InvalidOffset);
    if (message == "Invalid Length") return att(CBATTError::InvalidAttributeValueLength);
    return Error{CBErrorDomain, static_cast<int>(CBError::InvalidParameters), text};
  }
  if (name == "org.bluez.Error.Failed") {
    if (message == "Not connected") return linkError(CBError::NotConnected);
    if (startsWith(message, "Operation failed with ATT error")) {
      if (const auto code = trailingHexCode(message))
        return Error{CBATTErrorDomain, *code, message};
    }
  }
  if (name == "org.freedesktop.DBus.Error.NoReply" ||
      name == "org.freedesktop.DBus.Error.Timeout") {
    return Error{CBErrorDomain, static_cast<int>(CBError::ConnectionTimeout), text};
  }
  return Error{CBErrorDomain, static_cast<int>(CBError::Unknown), text};
}

Error connectError(const dbus::CallError& error) {
  if (error.message == "le-connection-timeout" ||
      error.name == "org.freedesktop.DBus.Error.NoReply" ||
      error.name == "org.freedesktop.DBus.Error.Timeout") {
    return linkError(CBError::ConnectionTimeout);
  }
  const std::string detail = error.message.empty() ? error.name : error.message;
  return Error{CBErrorDomain, static_cast<int>(CBError::ConnectionFailed),
               "Failed to connect to peripheral: " + detail};
}

Error linkError(CBError code) {
  const char* text = "Unknown error.";
  switch (code) {
    case CBError::NotConnected:
      text = "The specified device is not connected.";
      break;
    case CBError::PeripheralDisconnected:
      text = "The specified device has disconnected from us.";
      break;
    case CBError::ConnectionTimeout:
      text = "The connection has timed out unexpectedly.";
      break;
    case CBError::ConnectionFailed:
      text = "Failed to connect to peripheral.";
      break;
    case CBError::InvalidHandle:
      text = "The specified handle is invalid.";
      break;
    case CBError::InvalidParameters:
      text = "The specified parameters are invalid.";
      break;
    case CBError::OutOfSpace:
      text = "The advertising data does not fit in a legacy advertisement.";
      break;
    case CBError::OperationCancelled:
      text = "The operation was cancelled.";
      break;
    default:
      break;
  }
  return Error{CBErrorDomain, static_cast<int>(code), text};
}

// --- advertisements -----------------------------------------------------------------

CBAdvertisementData advertisementFromDevice(const dbus::Props& device) {
  CBAdvertisementData ad;
  if (const auto* name = dbus::get<std::string>(device, "Name")) {
    ad.localName = *name;
  } else if (const auto* alias = dbus::get<std::string>(device, "Alias")) {
    // Without a Name, BlueZ's Alias is the address with dashes: not a name.
    if (!alias->empty() && !looksLikeAddress(*alias)) ad.localName = *alias;
  }
  if (const auto* data = dbus::get<std::map<std::uint16_t, Bytes>>(device, "ManufacturerData")) {
    if (!data->empty()) {
      const auto& [company, payload] = *data->begin();
      Bytes bytes;
      bytes.reserve(payload.size() + 2);
      bytes.push_back(static_cast<std::uint8_t>(company & 0xFF));
      bytes.push_back(static_cast<std::uint8_t>(company >> 8));
      bytes.insert(bytes.end(), payload.begin(), payload.end());
      ad.manufacturerData = std::move(bytes);
    }
  }
  if (const auto* uuids = dbus::get<std::vector<std::string>>(device, "UUIDs")) {
    for (const auto& text : *uuids) {
      if (auto uuid = CBUUID::fromString(text)) ad.serviceUUIDs.push_back(*uuid);
    }
  }
  if (const auto* tx = dbus::get<std::int64_t>(device, "TxPower")) {
    if (*tx >= -127 && *tx <= 127) ad.txPowerLevel = static_cast<int>(*tx);
  }
  return ad;
}

std::string truncateUtf8(std::string_view text, std::size_t budget) {
  if (text.size() <= budget) return std::string(text);
  std::size_t cut = budget;
  // Step back over continuation bytes so that no sequence is split.
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;
  return std::string(text.substr(0, cut));
}

std::string uuidText(const CBUUID& uuid) {
  std::string text = uuid.uuid().UUIDString();
  for (auto& c : text) c = static_cast<char>(std::tolower(static_cast<unsigned char>(c)));
  return text;
}

std::variant<AdvertisementPlan, Error> planAdvertisement(const CBAdvertisementData& data) {
  AdvertisementPlan plan;
  if (data.manufacturerData) {
    const Bytes& bytes = *data.manufacturerData;
    if (bytes.size() < 2) return linkError(CBError::InvalidParameters);
    plan.company = static_cast<std::uint16_t>(bytes[0] | (bytes[1] << 8));
    plan.manufacturerPayload.assign(bytes.begin() + 2, bytes.end());
    plan.dataLength += 2 + bytes.size();  // length, type, company id, payload
    if (plan.dataLength > kAdvertisingDataBudget) return linkError(CBError::OutOfSpace);
  }
  // Service UUIDs take what room is left, grouped by size as BlueZ lays them
  // out (one AD per size); the rest stay out, as the platform moves them to
  // an overflow area that other scanners do not read.
  std::size_t used16 = 0;
  std::size_t used32 = 0;
  std::size_t used128 = 0;
  for (const auto& uuid : data.serviceUUIDs) {
    const std::size_t size = uuid.data().size();
    std::size_t& used = size == 2 ? used16 : size == 4 ? used32 : used128;
    const std::size_t cost = used == 0 ? 2 + size : size;
    if (plan.dataLength + cost > kAdvertisingDataBudget) continue;
    plan.dataLength += cost;
    used += size;
    plan.serviceUUIDs.push_back(uuidText(uuid));
  }
  if (data.localName && !data.localName->empty()) {
    plan.localName = truncateUtf8(*data.localName, kLocalNameBudget);
  }
  return plan;
}

// --- object paths -----------------------------------------------------------------

std::optional<std::uint16_t> handleFromPath(std::string_view path, std::string_view prefix) {
  const auto slash = path.rfind('/');
  const auto segment = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (segment.size() != prefix.size() + 4 || !startsWith(segment, prefix)) return std::nullopt;
  unsigned value = 0;
  for (char c : segment.substr(prefix.size())) {
    const auto d = hexDigit(c);
    if (!d) return std::nullopt;
    value = value * 16 + static_cast<unsigned>(*d);
  }
  return static_cast<std::uint16_t>(value);
}

std::string addressFromDevicePath(std::string_view path) {
  const auto slash = path.rfind('/');
  const auto segment = slash == std::string_view::npos ? path : path.substr(slash + 1);
  if (segment.size() != 4 + 17 || !startsWith(segment, "dev_")) return {};
  std::string address(segment.substr(4));
  for (std::size_t i = 0; i < address.size(); ++i) {
    if (i % 3 == 2) {
      if (address[i] != '_') return {};
      address[i] = ':';
    } else if (!hexDigit(address[i])) {
      return {};
    }
  }
  return address;
}

std::string devicePath(std::string_view adapterPath, std::string_view address) {
  std::string path(adapterPath);
  path += "/dev_";
  for (char c : address) {
    path += c == ':' ? '_' : static_cast<char>(std::toupper(static_cast<unsigned char>(c)));
  }
  return path;
}

bool isBelow(std::string_view path, std::string_view parent) {
  return path.size() > parent.size() + 1 && startsWith(path, parent) && path[parent.size()] == '/';
}

// --- adapter state ----------------------------------------------------------------

CBManagerState centralState(const AdapterView& view) {
  if (!view.busOpen) return CBManagerState::Unsupported;
  if (!view.daemonPresent) {
    return view.daemonWasLost ? CBManagerState::Resetting : CBManagerState::Unsupported;
  }
  if (view.accessDenied) return CBManagerState::Unauthorized;
  if (!view.adapterPresent) return CBManagerState::Unsupported;
  if (view.roles && !has(*view.roles, "central")) return CBManagerState::Unsupported;
  return view.powered ? CBManagerState::PoweredOn : CBManagerState::PoweredOff;
}

CBManagerState peripheralState(const AdapterView& view) {
  const auto central = centralState(view);
  if (central != CBManagerState::PoweredOn && central != CBManagerState::PoweredOff) {
    return central;
  }
  if (!view.advertisingManager || !view.gattManager) return CBManagerState::Unsupported;
  if (view.roles && !has(*view.roles, "peripheral")) return CBManagerState::Unsupported;
  return central;
}

}  // namespace lumora::bluez
