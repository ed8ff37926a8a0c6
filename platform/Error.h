// Exceptions raised by the runtime for bad input data. Programming errors are not
// exceptions: they are fatal assertions (see Assert.h).
#pragma once

#include <cstdint>
#include <stdexcept>
#include <string>

namespace Oro {

// Base of every exception the runtime raises; what() is the exact message text.
class Exception : public std::runtime_error {
 public:
  using std::runtime_error::runtime_error;
};

// Text that does not match a value's text form, or leaves characters over.
class ParseException : public Exception {
 public:
  using Exception::Exception;
};

// A value outside the range its type accepts.
class RangeException : public Exception {
 public:
  using Exception::Exception;
};

// A flag byte with bits outside a dense-enum bool set. Carries the type's module
// (its full type name) and the offending value.
class DenseEnumBoolSetRangeException : public RangeException {
 public:
  DenseEnumBoolSetRangeException(std::string module, uint64_t value);
  const std::string& module() const { return module_; }
  uint64_t value() const { return value_; }

 private:
  std::string module_;
  uint64_t value_;
};

// A range error met while reading one attribute of a serialised value, re-raised
// with the attribute's name attached.
class DeserializationException : public Exception {
 public:
  DeserializationException(std::string attribute, const std::string& cause);
  const std::string& attribute() const { return attribute_; }

 private:
  std::string attribute_;
};

class NullPointerException : public Exception {
 public:
  using Exception::Exception;
};

// Malformed protobuf bytes (wrong wire type for a known field, truncation, overlong varint).
class ProtobufReadException : public Exception {
 public:
  using Exception::Exception;
};

// Asking for the hash of a type that declares itself not hashable.
class NonHashableTypeException : public Exception {
 public:
  explicit NonHashableTypeException(const std::string& typeName);
};

// Creation of an entity by type name with more arguments than its constructor takes.
class UnexpectedEntityArgumentsException : public Exception {
 public:
  UnexpectedEntityArgumentsException(const std::string& typeName, size_t given, size_t expected);
};

// An attempt to re-point an instantiating mutator's existing member at a different entity.
class MutatorReinstantiationException : public Exception {
 public:
  using Exception::Exception;
};

// Shared memory that does not hold a well-formed table (bad header, index or slot).
class ShmCorruptionException : public Exception {
 public:
  using Exception::Exception;
};

// A shared-memory table that cannot be created, opened or grown (exists with a live
// writer, name invalid, type mismatch, out of shared memory...).
class ShmException : public Exception {
 public:
  using Exception::Exception;
};

// The store's header was retired: a writer replaced the store, or a remover is taking it apart.
class ShmReplacedException : public ShmException {
 public:
  using ShmException::ShmException;
};

// A segment cannot be created, grown, opened or mapped for want of descriptors, address space
// or shared memory (EMFILE, ENFILE, ENOMEM, ENOSPC, EFBIG): a limit of this process or of the
// machine, not damage. Nothing in shared memory is wrong, and no store is replaced for it.
class ShmResourceException : public ShmException {
 public:
  using ShmException::ShmException;
};

// A reader's store that this process cannot map for now (a ShmResourceException met while
// following it). Readers handle it as they handle damage - they stop following the store and
// look again later, and whoever handles corruption hears of it - but the store is whole: tools
// call it unreadable, not damaged.
class ShmUnreadableException : public ShmCorruptionException {
 public:
  using ShmCorruptionException::ShmCorruptionException;
};

// Whether a failure to read a store means the store is damaged (not merely unreadable here).
inline bool isShmDamage(const std::exception& e) {
  return dynamic_cast<const ShmCorruptionException*>(&e) != nullptr &&
         dynamic_cast<const ShmUnreadableException*>(&e) == nullptr;
}

// A shared-memory segment exists but this process may not open it (file permissions).
class ShmPermissionException : public ShmException {
 public:
  using ShmException::ShmException;
};

}  // namespace Oro
