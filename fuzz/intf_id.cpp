// IntfId text form: "(empty)", "<Type><number>", "IntfId(<value>)".
#include "FuzzCheck.h"
#include "platform/net/IntfId.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Nevo::IntfId, Oro::ParseException, Oro::RangeException>(
      Fuzz::asText(data, size), [](const Nevo::IntfId& v) { return v.toStrep(); });
  return 0;
}
