#include "platform/ValueForm.h"

namespace Oro {

std::string_view boolText(bool b) {
  return b ? "True" : "False";
}

bool readBool(CharRange& in) {
  if (in.consume("True")) return true;
  if (in.consume("False")) return false;
  in.fail("True or False");
}

ValueFormWriter::ValueFormWriter(std::string_view typeName) {
  out_.reserve(64 + typeName.size());
  out_.append("Value('").append(typeName).append("', ** {");
}

ValueFormWriter& ValueFormWriter::attr(std::string_view name, std::string_view valueText) {
  if (!first_) out_.append(", ");
  first_ = false;
  out_.append("'").append(name).append("': ").append(valueText);
  return *this;
}

std::string ValueFormWriter::done() {
  out_.append("})");
  return std::move(out_);
}

ValueFormReader::ValueFormReader(CharRange& in, std::string_view typeName) : in_(in) {
  in_.expect("Value('");
  in_.expect(typeName);
  in_.expect("', ** {");
}

void ValueFormReader::attrHeader(std::string_view name) {
  if (!first_) in_.expect(", ");
  first_ = false;
  in_.expect("'");
  in_.expect(name);
  in_.expect("': ");
}

void ValueFormReader::end() {
  in_.expect("})");
}

}  // namespace Oro
