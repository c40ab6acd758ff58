// Loosely typed values: what dictionaries (scan options, user defaults) hold.
#pragma once

#include <map>
#include <optional>
#include <string>
#include <variant>

#include "Foundation/Bytes.h"
#include "Foundation/Number.h"

namespace lumora {

/// A property-list value: a number (booleans included), a text or bytes.
using Object = std::variant<Number, std::string, Bytes>;
/// An NSDictionary of property-list values keyed by text.
using Dictionary = std::map<std::string, Object, std::less<>>;

/// The number held by `o`, if it holds one.
std::optional<Number> numberValue(const std::optional<Object>& o);
/// The text held by `o`, if it holds one.
std::optional<std::string> stringValue(const std::optional<Object>& o);

/// An error handed to a callback: domain, code and a human-readable text.
struct Error {
  std::string domain;
  int code = 0;
  std::string text;
  friend bool operator==(const Error&, const Error&) = default;
};

/// The shape every platform callback receives its error in.
using ErrorRef = const std::optional<Error>&;

}  // namespace lumora
