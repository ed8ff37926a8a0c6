// Protobuf bytes in tests: what a write buffer holds, and the one error a malformed read raises.
#pragma once

#include <cstdint>
#include <vector>

#include <gmock/gmock.h>

#include "platform/Error.h"
#include "platform/WireBuffer.h"

namespace wiretest {

using Bytes = std::vector<uint8_t>;

inline Bytes bytesOf(const Oro::PbWriteBuffer& w) {
  return Bytes(w.data(), w.data() + w.size());
}

// f raises the read error, with its message.
template <class F>
void expectReadError(F&& f) {
  EXPECT_THAT(f, ::testing::ThrowsMessage<Oro::ProtobufReadException>(
                     ::testing::StrEq("Unexpected error when reading Protobuf bytes")));
}

}  // namespace wiretest
