// MvpnVrf wire form (readMessage / constructFromPbMessage).
#include "RecordWire.h"
#include "status/MvpnVrf.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  Fuzz::checkRecordWire<Routing::Multicast::MvpnVrf>(Fuzz::asBytes(data, size));
  return 0;
}
