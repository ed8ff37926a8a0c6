// The route and source flag sets: their value forms (each rejects the other's type name) and
// their raw bytes, which above 7 must raise DenseEnumBoolSetRangeException naming the type.
#include "FuzzCheck.h"
#include "types/MvpnRoute.h"
#include "types/MvpnSource.h"

namespace {

template <class Flags>
void check(std::string_view text, const uint8_t* data, size_t size) {
  Fuzz::checkTextRoundTrip<Flags, Oro::ParseException>(text,
                                                       [](const Flags& f) { return f.toStrep(); });
  if (size == 0) return;
  try {
    const Flags f(data[0]);
    FUZZ_CHECK(data[0] <= Flags::kAll && f.value() == data[0], std::to_string(data[0]));
    FUZZ_CHECK(Fuzz::parseWhole<Flags>(f.toStrep()) == f, f.toStrep());
  } catch (const Oro::DenseEnumBoolSetRangeException& e) {
    FUZZ_CHECK(data[0] > Flags::kAll && e.value() == data[0], std::to_string(data[0]));
  }
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = Fuzz::asText(data, size);
  check<Routing::Multicast::MvpnRoute::RouteFlags>(text, data, size);
  check<Routing::Multicast::MvpnSource::SourceFlags>(text, data, size);
  return 0;
}
