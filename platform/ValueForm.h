// The runtime's generic value form of a record:
//   Value('<Full::Type::Name>', ** {'attr1': <v1>, 'attr2': <v2>})
// Each attribute value is written in its own type's text form; booleans are True or
// False. ValueFormWriter builds this text; ValueFormReader reads it back attribute by
// attribute, in the order written.
//
// Invariants of reading: every literal must match in turn (ParseException otherwise);
// a RangeException raised while one attribute's value is read becomes a
// DeserializationException naming that attribute. The reader does not check for text
// after the closing "})": the record's constructor does, so records nest.
#pragma once

#include <string>
#include <string_view>
#include <utility>

#include "platform/CharRange.h"
#include "platform/Error.h"

namespace Oro {

std::string_view boolText(bool b);
// Reads True or False.
bool readBool(CharRange& in);

class ValueFormWriter {
 public:
  explicit ValueFormWriter(std::string_view typeName);
  // Appends one attribute; valueText is the value's own text form.
  ValueFormWriter& attr(std::string_view name, std::string_view valueText);
  ValueFormWriter& attr(std::string_view name, bool value) { return attr(name, boolText(value)); }
  // Closes the form and hands over the text; the writer is spent afterwards.
  std::string done();

 private:
  std::string out_;
  bool first_ = true;
};

class ValueFormReader {
 public:
  // Expects "Value('<typeName>', ** {".
  ValueFormReader(CharRange& in, std::string_view typeName);

  // Expects the separator (for all but the first attribute) and "'<name>': ", then
  // returns read(in).
  template <class Read>
  auto attr(std::string_view name, Read&& read) -> decltype(read(std::declval<CharRange&>())) {
    attrHeader(name);
    try {
      return std::forward<Read>(read)(in_);
    } catch (const DeserializationException&) {
      throw;
    } catch (const RangeException& e) {
      throw DeserializationException(std::string(name), e.what());
    }
  }
  bool boolAttr(std::string_view name) { return attr(name, readBool); }

  // Expects "})".
  void end();

 private:
  void attrHeader(std::string_view name);

  CharRange& in_;
  bool first_ = true;
};

}  // namespace Oro
