// MvpnIntfStatus: the status root that tells, for each VRF, which interface is its PMSI
// interface: collection vrfIntfId of MvpnVrfIntfId records keyed by VrfId, kept in a
// shared-memory table ("vrfIntfId" under the fixed mount path), plus vrfIntfIdControl. One
// instance of the ShmStatusRoot pattern (see ShmStatusRoot.h).
#pragma once

#include <optional>
#include <string>

#include "status/MvpnVrfIntfId.h"
#include "status/ShmStatusRoot.h"

namespace Routing::Multicast {

struct MvpnIntfStatusTraits {
  using Key = Vrf::VrfIdMap::VrfId;
  using Record = MvpnVrfIntfId;
  static constexpr const char* typeName = "Routing::Multicast::MvpnIntfStatus";
  static constexpr const char* recordTypeName = "Routing::Multicast::MvpnVrfIntfId";
  static constexpr const char* traceName = "MvpnIntfStatus";
  static constexpr const char* dumpName = "MvpnIntfStatus";
  static constexpr const char* collection = "vrfIntfId";
  static constexpr const char* counterIs = "vrfIntfIdIs";
  static constexpr const char* counterDel = "vrfIntfIdDel";
  static constexpr const char* counterNotify = "vrfIntfIdNotify";
  static constexpr Oro::AttrId recordAttr = 1;
  static constexpr Oro::AttrId controlAttr = 2;
  static Key keyOf(const Record& r) { return r.key(); }
  // "%*cVRF <key> PMSI <interface>\n" (no indent prefix at 0).
  static void dumpRecord(Oro::DumpContext& dc, const Record& r, int indent);
  // Stored value: the PMSI interface id (the key is the record's key).
  static constexpr uint32_t valueBytes = Oro::ShmImage<Nevo::IntfId>::bytes;
  static constexpr uint64_t valueFingerprint = Oro::ShmImage<Nevo::IntfId>::fingerprint;
  static void writeValue(const Record& r, std::byte* out) {
    Oro::ShmImage<Nevo::IntfId>::write(r.pmsiIntfId(), out);
  }
  static Record readRecord(const Key& key, const std::byte* value) {
    return Record(key, Oro::ShmImage<Nevo::IntfId>::read(value));
  }
};

// Instantiated once, in the library: a write runs through the root, its handle and the store
// inside the library, optimised together, rather than from a copy in each program.
extern template class ShmStatusRoot<MvpnIntfStatusTraits>;

using VrfIntfIdIterator = ShmStatusRoot<MvpnIntfStatusTraits>::Iterator;
using VrfIntfIdBookmark = ShmStatusRoot<MvpnIntfStatusTraits>::Bookmark;
using MvpnIntfStatusZeroReferencesNotifiee = ShmRootZeroReferencesNotifiee;

class MvpnIntfStatus : public ShmStatusRoot<MvpnIntfStatusTraits> {
 public:
  static constexpr Oro::AttrId vrfIntfIdAttr = MvpnIntfStatusTraits::recordAttr;
  static constexpr Oro::AttrId vrfIntfIdControlAttr = MvpnIntfStatusTraits::controlAttr;

  explicit MvpnIntfStatus(std::string name) : ShmStatusRoot(std::move(name)) {}

  static Oro::Ptr<MvpnIntfStatus> MvpnIntfStatusIs(const std::string& name);
  // "routing/multicast/vpn/intfStatus": no family, no client.
  static std::string mountPath() { return "routing/multicast/vpn/intfStatus"; }

  std::optional<MvpnVrfIntfId> vrfIntfId(Vrf::VrfIdMap::VrfId key) const { return record(key); }
  size_t vrfIntfIdSize() const { return recordSize(); }
  VrfIntfIdIterator vrfIntfIdIter() const { return recordIter(); }
  VrfIntfIdIterator vrfIntfIdIterAt(const VrfIntfIdBookmark& b) const { return recordIterAt(b); }

  void vrfIntfIdIs(const MvpnVrfIntfId& value) { recordIs(value); }
  MvpnVrfIntfId& vrfIntfIdDirectWrite() { return recordDirectWrite(); }
  void vrfIntfIdCommit(const MvpnVrfIntfId* value) { recordCommit(value); }
  MvpnVrfIntfId vrfIntfIdDel(Vrf::VrfIdMap::VrfId key) { return recordDel(key); }
  void vrfIntfIdDelAll() { recordDelAll(); }
  void vrfIntfIdNotify(const Vrf::VrfIdMap::VrfId& key) { recordNotify(key); }

  const Oro::Ptr<TylKetab::CollectionControl>& vrfIntfIdControl() const { return recordControl(); }
  void vrfIntfIdControlIs(Oro::Ptr<TylKetab::CollectionControl> c) {
    recordControlIs(std::move(c));
  }
  void vrfIntfIdNotifyQuiesced(bool quiesced) { recordNotifyQuiesced(quiesced); }
  void vrfIntfIdNotifyMountStatus() { recordNotifyMountStatus(); }
  void vrfIntfIdHandleCorruption(const std::string& message) const {
    recordHandleCorruption(message);
  }
  void vrfIntfIdCorruptionHandlerIs(std::function<void(const std::string&)> handler) {
    recordCorruptionHandlerIs(std::move(handler));
  }

  // True when some VRF's PMSI interface is `intfId`. A corrupt table met when the walk starts
  // counts as empty (after the corruption handler ran); met inside the walk it is fatal.
  bool isPmsiIntfId(Nevo::IntfId intfId) const;
};

Oro::Ptr<MvpnIntfStatus> mvpnIntfStatusFactory(const std::string& name);

}  // namespace Routing::Multicast
