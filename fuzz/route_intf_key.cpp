// MvpnRouteIntfKey text form (a number too large for its field is a parse error too): a route key,
// " on ", an interface id.
#include "FuzzCheck.h"
#include "types/MvpnRouteIntfKey.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnRouteIntfKey, Oro::ParseException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnRouteIntfKey& v) { return v.toStrep(); });
  return 0;
}
