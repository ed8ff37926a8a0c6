// MvpnConsts value form: exactly the empty generic value form.
#include "FuzzCheck.h"
#include "types/MvpnConsts.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Routing::Multicast::MvpnConsts, Oro::ParseException>(
      Fuzz::asText(data, size),
      [](const Routing::Multicast::MvpnConsts& v) { return v.toStrep(); });
  return 0;
}
