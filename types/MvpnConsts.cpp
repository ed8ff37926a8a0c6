#include "types/MvpnConsts.h"

#include "platform/Error.h"
#include "platform/ValueForm.h"

namespace Routing::Multicast {

MvpnConsts::MvpnConsts(Oro::CharRange& in) {
  Oro::ValueFormReader reader(in, kTypeName);
  reader.end();
  in.expectEnd();
}

uint32_t MvpnConsts::hash(uint32_t) const {
  throw Oro::NonHashableTypeException(std::string(kTypeName));
}

std::string MvpnConsts::toStrep() const {
  return Oro::ValueFormWriter(kTypeName).done();
}

}  // namespace Routing::Multicast
