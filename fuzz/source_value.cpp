// MvpnSource value form; a range error inside an attribute must arrive as a
// DeserializationException.
#include "FuzzCheck.h"
#include "types/MvpnSource.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnSource, Oro::ParseException,
                           Oro::DeserializationException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnSource& v) { return v.toValueForm(); });
  return 0;
}
