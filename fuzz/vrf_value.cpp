// MvpnVrf value form (key and client).
#include "FuzzCheck.h"
#include "status/MvpnVrf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnVrf, Oro::ParseException,
                           Oro::DeserializationException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnVrf& v) { return v.toValueForm(); });
  return 0;
}
