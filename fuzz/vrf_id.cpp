// VrfId text form: a decimal number that fits in 32 bits.
#include "FuzzCheck.h"
#include "platform/net/VrfId.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Vrf::VrfIdMap::VrfId, Oro::ParseException, Oro::RangeException>(
      Fuzz::asText(data, size), [](const Vrf::VrfIdMap::VrfId& v) { return v.toStrep(); });
  return 0;
}
