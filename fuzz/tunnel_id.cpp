// TunnelId text form: a decimal number that fits in 64 bits.
#include "FuzzCheck.h"
#include "platform/net/TunnelId.h"

using Tunnel::TunnelTable::TunnelId;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<TunnelId, Oro::ParseException, Oro::RangeException>(
      Fuzz::asText(data, size), [](const TunnelId& v) { return v.toStrep(); });
  return 0;
}
