// MvpnRouteIntfKey text form: a route key, " on ", an interface id.
#include "FuzzCheck.h"
#include "types/MvpnRouteIntfKey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnRouteIntfKey, Oro::ParseException,
                           Oro::RangeException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnRouteIntfKey& v) { return v.toStrep(); });
  return 0;
}
