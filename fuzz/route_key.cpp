// MvpnRouteKey text form: "(S, G)", "(*, G)", "(S, G, *)".
#include "FuzzCheck.h"
#include "types/MvpnRouteKey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnRouteKey, Oro::ParseException,
                           Oro::RangeException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnRouteKey& v) { return v.toStrep(); });
  return 0;
}
