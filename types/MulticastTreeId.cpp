#include "types/MulticastTreeId.h"

#include <type_traits>

namespace Routing::Multicast {

static_assert(std::is_nothrow_move_constructible_v<MulticastTreeId>);

}  // namespace Routing::Multicast
