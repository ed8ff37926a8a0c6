// Reading an interface id as a VLAN interface. IntfId::vlanId() hands out the raw number
// field; this checks it against the VLAN range on the way to a VlanIdOrNone.
#pragma once

#include "platform/net/IntfId.h"
#include "platform/net/VlanId.h"

namespace Nevo {

// The VLAN of `id` read as a VLAN interface ("Vlan100" gives 100): its number field. The type
// is not checked: callers read ids that name VLAN interfaces by construction (a VRF's PMSI
// interface). The empty id and "Vlan0" give none; a number above 4094 raises
// RangeException "Bridging::VlanIdOrNone::value > 4094 not allowed".
inline Bridging::VlanIdOrNone vlanIntfVlanId(IntfId id) {
  return Bridging::VlanIdOrNone(id.vlanId());
}

}  // namespace Nevo
