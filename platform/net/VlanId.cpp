#include "platform/net/VlanId.h"

#include "platform/Error.h"

namespace Bridging {

void VlanIdOrNone::throwOutOfRange() {
  throw Oro::RangeException("Bridging::VlanIdOrNone::value > 4094 not allowed");
}

}  // namespace Bridging
