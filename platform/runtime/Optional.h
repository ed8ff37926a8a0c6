// Text form of an optional value: "Optional(<text>)" when present, "None" when absent.
// The text is v.toStrep() when the type has one, else {fmt}'s formatting of the value.
#pragma once

#include <concepts>
#include <optional>
#include <string>

#include <fmt/format.h>

namespace Oro {

template <class T>
concept HasToStrep = requires(const T& v) {
  { v.toStrep() } -> std::convertible_to<std::string>;
};

template <class T>
std::string optionalStrep(const std::optional<T>& o) {
  if (!o) return "None";
  if constexpr (HasToStrep<T>) {
    return "Optional(" + std::string(o->toStrep()) + ")";
  } else {
    return fmt::format("Optional({})", *o);
  }
}

}  // namespace Oro
