// MvpnVrfStatus: the status root in which one writer agent publishes, for one address family,
// the VRFs that take part in MVPN: collection mvpnVrf of MvpnVrf records keyed by VrfId, kept
// in a shared-memory table ("mvpnVrf" under the root's mount path) so that readers in other
// processes see it, plus mvpnVrfControl, the table's collection-control object. One instance
// of the ShmStatusRoot pattern; see ShmStatusRoot.h for notifications, counters, ownership
// and corruption handling.
#pragma once

#include <optional>
#include <string>

#include "platform/net/IpAddr.h"
#include "status/MvpnVrf.h"
#include "status/ShmStatusRoot.h"

namespace Routing::Multicast {

struct MvpnVrfStatusTraits {
  using Key = Vrf::VrfIdMap::VrfId;
  using Record = MvpnVrf;
  static constexpr const char* typeName = "Routing::Multicast::MvpnVrfStatus";
  static constexpr const char* recordTypeName = "Routing::Multicast::MvpnVrf";
  static constexpr const char* traceName = "MvpnVrfStatus";
  static constexpr const char* dumpName = "MvpnVrfStatus";
  static constexpr const char* collection = "mvpnVrf";
  static constexpr const char* counterIs = "mvpnVrfIs";
  static constexpr const char* counterDel = "mvpnVrfDel";
  static constexpr const char* counterNotify = "mvpnVrfNotify";
  static constexpr Oro::AttrId recordAttr = 1;
  static constexpr Oro::AttrId controlAttr = 2;
  static Key keyOf(const Record& r) { return r.key(); }
  static void dumpRecord(Oro::DumpContext& dc, const Record& r, int indent) {
    r.dumpState(dc, indent);
  }
  // Stored value: the client byte (the key is the record's key). Every byte is a client: the
  // enumeration is eight bits wide and a record read off the wire may hold any of them.
  static constexpr uint32_t valueBytes = 1;
  static constexpr uint64_t valueFingerprint =
      Oro::shmFingerprint("Routing::Multicast::MvpnVrf{client:u8}", valueBytes);
  static void writeValue(const Record& r, std::byte* out) {
    out[0] = static_cast<std::byte>(r.client());
  }
  static Record readRecord(const Key& key, const std::byte* value) {
    return Record(key, static_cast<MvpnClient>(value[0]));
  }
};

// Instantiated once, in the library: a write runs through the root, its handle and the store
// inside the library, optimised together, rather than from a copy in each program.
extern template class ShmStatusRoot<MvpnVrfStatusTraits>;

using MvpnVrfIterator = ShmStatusRoot<MvpnVrfStatusTraits>::Iterator;
using MvpnVrfBookmark = ShmStatusRoot<MvpnVrfStatusTraits>::Bookmark;
using MvpnVrfStatusZeroReferencesNotifiee = ShmRootZeroReferencesNotifiee;

class MvpnVrfStatus : public ShmStatusRoot<MvpnVrfStatusTraits> {
 public:
  static constexpr Oro::AttrId mvpnVrfAttr = MvpnVrfStatusTraits::recordAttr;
  static constexpr Oro::AttrId mvpnVrfControlAttr = MvpnVrfStatusTraits::controlAttr;

  explicit MvpnVrfStatus(std::string name) : ShmStatusRoot(std::move(name)) {}

  static Oro::Ptr<MvpnVrfStatus> MvpnVrfStatusIs(const std::string& name);
  // "routing/multicast/vpn/vrfStatus/<client>" (IPv4) or "routing6/..." (IPv6); a client
  // that is not an MVPN writer, or another family, is a fatal assertion.
  static std::string mountPath(Nevo::AddressFamily af, MvpnClient client);

  std::optional<MvpnVrf> mvpnVrf(Vrf::VrfIdMap::VrfId key) const { return record(key); }
  size_t mvpnVrfSize() const { return recordSize(); }
  MvpnVrfIterator mvpnVrfIter() const { return recordIter(); }
  MvpnVrfIterator mvpnVrfIterAt(const MvpnVrfBookmark& b) const { return recordIterAt(b); }

  void mvpnVrfIs(MvpnVrf value) { recordIs(value); }
  MvpnVrf& mvpnVrfDirectWrite() { return recordDirectWrite(); }
  void mvpnVrfCommit(const MvpnVrf* value) { recordCommit(value); }
  MvpnVrf mvpnVrfDel(Vrf::VrfIdMap::VrfId key) { return recordDel(key); }
  void mvpnVrfDelAll() { recordDelAll(); }
  void mvpnVrfNotify(const Vrf::VrfIdMap::VrfId& key) { recordNotify(key); }

  const Oro::Ptr<TylKetab::CollectionControl>& mvpnVrfControl() const { return recordControl(); }
  void mvpnVrfControlIs(Oro::Ptr<TylKetab::CollectionControl> c) { recordControlIs(std::move(c)); }
  void mvpnVrfNotifyQuiesced(bool quiesced) { recordNotifyQuiesced(quiesced); }
  void mvpnVrfNotifyMountStatus() { recordNotifyMountStatus(); }
  void mvpnVrfHandleCorruption(const std::string& message) const {
    recordHandleCorruption(message);
  }
  void mvpnVrfCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    recordCorruptionHandlerIs(std::move(handler));
  }
};

Oro::Ptr<MvpnVrfStatus> mvpnVrfStatusFactory(const std::string& name);

}  // namespace Routing::Multicast
