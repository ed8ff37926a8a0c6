// MvpnVrfRouteIntfKey text form (a number too large for its field is a parse error too): "VRF <id>
// <route key> on <interface>".
#include "FuzzCheck.h"
#include "types/MvpnVrfRouteIntfKey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnVrfRouteIntfKey, Oro::ParseException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnVrfRouteIntfKey& v) { return v.toStrep(); });
  return 0;
}
