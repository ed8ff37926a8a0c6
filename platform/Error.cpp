#include "platform/Error.h"

#include <fmt/format.h>

namespace Oro {

DenseEnumBoolSetRangeException::DenseEnumBoolSetRangeException(std::string module, uint64_t value)
    : RangeException(fmt::format("{}: value {} out of range", module, value)),
      module_(std::move(module)),
      value_(value) {}

DeserializationException::DeserializationException(std::string attribute, const std::string& cause)
    : Exception(fmt::format("error deserializing attribute '{}': {}", attribute, cause)),
      attribute_(std::move(attribute)) {}

NonHashableTypeException::NonHashableTypeException(const std::string& typeName)
    : Exception(fmt::format("type {} is not hashable", typeName)) {}

UnexpectedEntityArgumentsException::UnexpectedEntityArgumentsException(const std::string& typeName,
                                                                       size_t given,
                                                                       size_t expected)
    : Exception(fmt::format("unexpected arguments creating {}: {} given, {} expected", typeName,
                            given, expected)) {}

}  // namespace Oro
