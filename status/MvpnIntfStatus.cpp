#include "status/MvpnIntfStatus.h"

namespace Routing::Multicast {

template class ShmStatusRoot<MvpnIntfStatusTraits>;

void MvpnIntfStatusTraits::dumpRecord(Oro::DumpContext& dc, const Record& r, int indent) {
  const std::string intf = r.pmsiIntfId().toStrep();
  if (indent != 0) {
    dc.print("%*cVRF %u PMSI %s\n", indent, ' ', r.key().value(), intf.c_str());
  } else {
    dc.print("VRF %u PMSI %s\n", r.key().value(), intf.c_str());
  }
}

Oro::Ptr<MvpnIntfStatus> MvpnIntfStatus::MvpnIntfStatusIs(const std::string& name) {
  return Oro::Ptr<MvpnIntfStatus>(new MvpnIntfStatus(name));
}

Oro::Ptr<MvpnIntfStatus> mvpnIntfStatusFactory(const std::string& name) {
  return MvpnIntfStatus::MvpnIntfStatusIs(name);
}

bool MvpnIntfStatus::isPmsiIntfId(Nevo::IntfId intfId) const {
  VrfIntfIdIterator it;
  try {
    it = vrfIntfIdIter();
  } catch (const Oro::ShmCorruptionException& e) {
    recordHandleCorruption(e.what());
    return false;
  }
  try {
    for (; it.valid(); it.next()) {
      if (it.value().pmsiIntfId() == intfId) return true;
    }
  } catch (const Oro::ShmCorruptionException& e) {
    recordHandleCorruption(e.what());
    Oro::assertionFailed(
        fmt::format("walk of vrfIntfId met a corrupt shared memory table: {}", e.what()), __FILE__,
        __LINE__);
  }
  return false;
}

namespace {
const bool registered =
    registerStatusRootType<MvpnIntfStatus>(MvpnIntfStatusTraits::typeName, &mvpnIntfStatusFactory);
}  // namespace

}  // namespace Routing::Multicast
