// MvpnVrfIntfId value form (key and PMSI interface id).
#include "FuzzCheck.h"
#include "status/MvpnVrfIntfId.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnVrfIntfId, Oro::ParseException,
                           Oro::DeserializationException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnVrfIntfId& v) { return v.toValueForm(); });
  return 0;
}
