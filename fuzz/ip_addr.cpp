// IpGenAddr text form: dotted quad or IPv6 text.
#include "FuzzCheck.h"
#include "platform/net/IpAddr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Nevo::IpGenAddr, Oro::ParseException, Oro::RangeException>(
      Fuzz::asText(data, size), [](const Nevo::IpGenAddr& v) { return v.toStrep(); });
  return 0;
}
