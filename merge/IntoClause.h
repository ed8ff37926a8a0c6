// The write rule of a merge machine's into clause: a merged value is written only under its
// own key. A value whose internal key differs from the into key is a programming error of
// the merge rule and stops the process before anything is written.
#pragma once

#include <string_view>

#include <fmt/format.h>

#include "platform/Assert.h"

namespace Routing::Multicast::DynaCode {

// `into` is the clause as written in the dataflow, e.g. "into( mergedVrfStatus.mvpnVrf[ vrfId ] )".
template <class K>
void intoKeyCheck(std::string_view into, const K& internalKey, const K& intoKey) {
  MVPN_ASSERT_FMT(internalKey == intoKey,
                  "In \"{}\" the value inserted in the into statement has internal key: {}, but "
                  "the key specified in the into is: {}",
                  into, internalKey, intoKey);
}

}  // namespace Routing::Multicast::DynaCode
