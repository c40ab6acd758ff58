#include "Foundation/Object.h"

namespace lumora {

std::optional<Number> numberValue(const std::optional<Object>& o) {
  if (!o) return std::nullopt;
  if (const auto* n = std::get_if<Number>(&*o)) return *n;
  return std::nullopt;
}

std::optional<std::string> stringValue(const std::optional<Object>& o) {
  if (!o) return std::nullopt;
  if (const auto* s = std::get_if<std::string>(&*o)) return *s;
  return std::nullopt;
}

}  // namespace lumora
