// MvpnVrfRouteKey text form (a number too large for its field is a parse error too): "VRF <id>
// <route key>".
#include "FuzzCheck.h"
#include "types/MvpnVrfRouteKey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnVrfRouteKey, Oro::ParseException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnVrfRouteKey& v) { return v.toStrep(); });
  return 0;
}
