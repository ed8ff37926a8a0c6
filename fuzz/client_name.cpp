// MvpnClient names (sequenceToValue): reads one run of letters and digits. A name that is not
// an enumerator is a RangeException that leaves the position where it was; a value read
// prints (stringValue) as exactly the name that was read.
#include "FuzzCheck.h"
#include "types/MvpnClient.h"

using Routing::Multicast::MvpnClient;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  const std::string_view text = Fuzz::asText(data, size);
  Oro::CharRange in(text);
  MvpnClient client{};
  try {
    Routing::Multicast::sequenceToValue(in, &client);
  } catch (const Oro::RangeException&) {
    FUZZ_CHECK(in.position() == 0, Fuzz::visible(text));
    return 0;
  } catch (const Oro::ParseException&) {
    return 0;
  }
  const std::string name(text.substr(0, in.position()));
  FUZZ_CHECK(Routing::Multicast::stringValue(client) == name, Fuzz::visible(text));
  FUZZ_CHECK(Routing::Multicast::isMvpnWriter(client) == (client != MvpnClient::pimBidir_),
             Fuzz::visible(text));
  return 0;
}
