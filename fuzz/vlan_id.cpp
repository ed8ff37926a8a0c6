// VlanIdOrNone text form: a decimal number from 0 (none) to 4094; anything larger is a
// RangeException, however many digits it has.
#include "FuzzCheck.h"
#include "platform/net/VlanId.h"

using Bridging::VlanIdOrNone;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<VlanIdOrNone, Oro::ParseException, Oro::RangeException>(
      Fuzz::asText(data, size), [](const VlanIdOrNone& v) {
        FUZZ_CHECK(v.value() <= VlanIdOrNone::kMax, v.toStrep());
        return v.toStrep();
      });
  return 0;
}
