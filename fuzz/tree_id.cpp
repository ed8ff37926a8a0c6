// MulticastTreeId text form: the string itself, so every input reads back unchanged and
// nothing may be rejected.
#include "FuzzCheck.h"
#include "types/MulticastTreeId.h"

using Routing::Multicast::MulticastTreeId;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = Fuzz::asText(data, size);
  Fuzz::checkTextRoundTrip<MulticastTreeId>(text,
                                            [](const MulticastTreeId& v) { return v.toStrep(); });
  FUZZ_CHECK(Fuzz::parseWhole<MulticastTreeId>(text).toStrep() == text, Fuzz::visible(text));
  return 0;
}
