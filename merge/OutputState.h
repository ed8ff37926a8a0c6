// Output companion of a merge machine: one `<out>Ready` flag per output collection and the
// machine's `ready`, which holds exactly when every output flag is set.
//
// Invariants: ready() == all outputReady(i) after every mutator returns. A change of an output
// flag that changes `ready` publishes readyAttr first, then the output flag's attribute.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "platform/runtime/Entity.h"

namespace Routing::Multicast::DynaCode {

class OutputState : public Oro::Entity {
 public:
  static constexpr Oro::AttrId readyAttr = 0;
  static constexpr Oro::AttrId outputReadyAttr(size_t output) {
    return static_cast<Oro::AttrId>(1 + output);
  }

  OutputState(std::string typeName, size_t outputs);
  std::string_view typeName() const override { return typeName_; }

  size_t outputs() const { return outputReady_.size(); }
  bool ready() const { return ready_; }
  // <out>Ready of output collection `output`.
  bool outputReady(size_t output) const { return outputReady_.at(output); }
  void outputReadyIs(size_t output, bool ready);
  // Re-derives `ready` from the output flags, publishing it when it changes.
  void handleReady();

 private:
  bool derivedReady() const;

  std::string typeName_;
  bool ready_ = false;
  std::vector<bool> outputReady_;
};

}  // namespace Routing::Multicast::DynaCode
