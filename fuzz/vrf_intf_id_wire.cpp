// MvpnVrfIntfId wire form (readMessage / constructFromPbMessage), with its embedded interface
// id message.
#include "RecordWire.h"
#include "status/MvpnVrfIntfId.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkRecordWire<Routing::Multicast::MvpnVrfIntfId>(Fuzz::asBytes(data, size));
  return 0;
}
