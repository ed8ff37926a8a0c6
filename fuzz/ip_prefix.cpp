// IpGenPrefix text form: "<address>/<length>", host bits cleared.
#include "FuzzCheck.h"
#include "platform/net/IpAddr.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Nevo::IpGenPrefix, Oro::ParseException, Oro::RangeException>(
      Fuzz::asText(data, size), [](const Nevo::IpGenPrefix& v) { return v.toStrep(); });
  return 0;
}
