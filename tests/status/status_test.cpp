// The status entities. MvpnVrfStatus and MvpnIntfStatus: mount paths, mutators, counters,
// notifications and old values, control handover, dumps, creation, corruption; their records'
// order, text, value and wire forms. The route status tree: sources and groups under the group
// lifetime rule (against a model), counts, dumps in both models, creation in the store's heap,
// departed VRFs. Readers of both in other processes.
#include <sys/resource.h>
#include <unistd.h>

#include <algorithm>
#include <csignal>
#include <map>
#include <random>
#include <set>
#include <tuple>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/notice_log.h"
#include "common/shm_test_util.h"
#include "common/wire_bytes.h"
#include "platform/Error.h"
#include "platform/Toggle.h"
#include "platform/Trace.h"
#include "platform/runtime/EntityDirectory.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmEntityStore.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnRouteStatus.h"
#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {
namespace {

using ::testing::HasSubstr;

using Oro::ShmAttach;
using Oro::ShmRole;
using shmtest::KeyLog;
using enum MvpnClient;
using Vrf::VrfIdMap::VrfId;
using namespace std::chrono_literals;

class VrfStatusTest : public shmtest::ShmTest {};
using VrfStatusDeathTest = VrfStatusTest;

TEST_F(VrfStatusDeathTest, MountPathsAndTheClientsAndFamiliesTheyRejectDeathTest) {
  // The route status names the writer without checking it.
  EXPECT_EQ(MvpnRouteStatus::mountPath(Nevo::ipv4, bgp_), "routing/multicast/vpn/routeStatus/bgp");
  EXPECT_EQ(MvpnRouteStatus::mountPath(Nevo::ipv6, bgp_), "routing6/multicast/vpn/routeStatus/bgp");
  EXPECT_EQ(MvpnRouteStatus::mountPath(Nevo::ipv4, pimBidir_),
            "routing/multicast/vpn/routeStatus/pimBidir");
  EXPECT_EQ(MvpnVrfStatus::mountPath(Nevo::ipv6, staticEvpn_),
            "routing6/multicast/vpn/vrfStatus/staticEvpn");
  EXPECT_DEATH(MvpnVrfStatus::mountPath(Nevo::ipv4, pimBidir_),
               HasSubstr("( client == MvpnClient::bgp_ || client == MvpnClient::staticMvpn_ || "
                         "client == MvpnClient::evpn_ || client == MvpnClient::staticEvpn_ ) && "
                         "\"Unexpected writer agent\" (MvpnVrfStatus:22)"));
  // The client is checked before the family.
  EXPECT_DEATH(MvpnVrfStatus::mountPath(Nevo::ipunknown, static_cast<MvpnClient>(9)),
               HasSubstr("\"Unexpected writer agent\""));
  EXPECT_DEATH(MvpnVrfStatus::mountPath(static_cast<Nevo::AddressFamily>(3), evpn_),
               HasSubstr("false && \"Unsupported address family\" (MvpnVrfStatus:32)"));
  EXPECT_DEATH(MvpnRouteStatus::mountPath(Nevo::ipunknown, bgp_),
               "false && \"Unsupported address family\"");
}

TEST_F(VrfStatusTest, MutatorsCountAndAnnounceAndOldValuesComeInThatModeOnly) {
  auto s = mvpnVrfStatusFactory("bgp");
  KeyLog<VrfId> seen(s.get(), MvpnVrfStatus::mvpnVrfAttr);
  s->mvpnVrfIs(MvpnVrf(VrfId(5), evpn_));
  s->mvpnVrfIs(MvpnVrf(VrfId(5), evpn_));  // unchanged: announced anyway
  s->mvpnVrfIs({VrfId(6), bgp_});
  EXPECT_EQ(s->mvpnVrfSize(), 2u);
  EXPECT_EQ(s->mvpnVrf(VrfId(5)), MvpnVrf(VrfId(5), evpn_));
  EXPECT_EQ(s->mvpnVrf(VrfId(7)), std::nullopt);

  EXPECT_EQ(s->mvpnVrfDel(VrfId(7)), MvpnVrf());  // absent: the default record
  EXPECT_EQ(s->mvpnVrfDel(VrfId(6)), MvpnVrf(VrfId(6)));

  MvpnVrf& staged = s->mvpnVrfDirectWrite();
  staged = MvpnVrf(VrfId(8), staticMvpn_);
  s->mvpnVrfCommit(&staged);
  EXPECT_EQ(s->mvpnVrf(VrfId(8)), MvpnVrf(VrfId(8), staticMvpn_));
  s->mvpnVrfNotify(VrfId(42));

  EXPECT_EQ(seen.keys, (std::vector<VrfId>{5, 5, 6, 6, 8, 42}));
  EXPECT_EQ(s->isCounter().value(), 4u);
  EXPECT_EQ(s->delCounter().value(), 2u);
  EXPECT_EQ(s->notifyCounter().value(), 6u);
  EXPECT_EQ(s->delCounter().name(), "mvpnVrfDel");
  EXPECT_EQ(s->notifyCounter().name(), "mvpnVrfNotify");

  // DelAll announces and counts each removal, to subscribers only.
  auto d = mvpnVrfStatusFactory("x");
  for (uint32_t k = 0; k < 50; ++k) d->mvpnVrfIs(MvpnVrf(VrfId(k)));
  const uint64_t notifies = d->notifyCounter().value();
  d->mvpnVrfDelAll();  // no subscriber: no announcement, no counting
  EXPECT_EQ(d->mvpnVrfSize(), 0u);
  EXPECT_EQ(d->delCounter().value(), 0u);
  EXPECT_EQ(d->notifyCounter().value(), notifies);
  for (uint32_t k = 0; k < 50; ++k) d->mvpnVrfIs(MvpnVrf(VrfId(k)));
  KeyLog<VrfId> removed(d.get(), MvpnVrfStatus::mvpnVrfAttr);
  d->mvpnVrfDelAll();
  EXPECT_EQ(std::set<VrfId>(removed.keys.begin(), removed.keys.end()).size(), 50u);
  EXPECT_EQ(removed.keys.size(), 50u);
  EXPECT_EQ(d->delCounter().value(), 50u);
  EXPECT_EQ(d->mvpnVrfSize(), 0u);
  d->mvpnVrfDelAll();  // empty: nothing
  EXPECT_EQ(d->delCounter().value(), 50u);

  // Old values are delivered in that mode only.
  auto o = mvpnVrfStatusFactory("x");
  shmtest::ChangeLog<VrfId, MvpnVrf> rec(o.get(), MvpnVrfStatus::mvpnVrfAttr);
  // A subscriber of keys alone hears each change once, in either mode.
  KeyLog<VrfId> keys(o.get(), MvpnVrfStatus::mvpnVrfAttr);
  o->mvpnVrfIs(MvpnVrf(VrfId(1)));
  EXPECT_TRUE(rec.changes.empty());
  o->oldValuesIs(true);
  const MvpnVrf one(VrfId(1)), oneEvpn(VrfId(1), evpn_);
  o->mvpnVrfIs(oneEvpn);
  o->mvpnVrfIs(MvpnVrf(VrfId(2)));
  o->mvpnVrfDel(VrfId(1));
  o->mvpnVrfDel(VrfId(3));
  EXPECT_EQ(rec.changes, (std::vector<decltype(rec)::Change>{{1, one, oneEvpn},
                                                             {2, std::nullopt, MvpnVrf(VrfId(2))},
                                                             {1, oneEvpn, std::nullopt}}));
  EXPECT_EQ(keys.keys, (std::vector<VrfId>{1, 1, 2, 1}));

  // Every client byte is a client, in a store too: a record read off the wire may hold any.
  auto m = shmtest::mounted(mvpnVrfStatusFactory("m"), {"c/clients", ShmRole::writer});
  const MvpnVrf odd(VrfId(1), static_cast<MvpnClient>(9));
  m->mvpnVrfIs(odd);
  EXPECT_EQ(m->mvpnVrf(VrfId(1)), odd);
  EXPECT_EQ(m->mvpnVrfDel(VrfId(1)), odd);
}

TEST_F(VrfStatusTest, ControlCarriesMountStatusAndQuiesced) {
  auto s = mvpnVrfStatusFactory("bgp");
  Oro::Ptr<TylKetab::CollectionControl> control = s->mvpnVrfControl();
  ASSERT_TRUE(control);
  int controlChanges = 0;
  Oro::AttrReactor onRoot([&](Oro::AttrId a) {
    if (a == MvpnVrfStatus::mvpnVrfControlAttr) ++controlChanges;
  });
  onRoot.notifierIs(s.get());
  s->mvpnVrfControlIs(control);  // the same object: nothing
  EXPECT_EQ(controlChanges, 0);

  // At trace level 5 a mount status change traces the table's root path.
  Oro::traceEnable("MvpnVrfStatus", 5, true);
  Oro::TraceMemorySink trace;
  trace.install();
  s->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_), ShmRole::writer});
  trace.uninstall();
  Oro::traceEnable("MvpnVrfStatus", 5, false);
  EXPECT_THAT(trace.messages(), testing::Contains("routing/multicast/vpn/vrfStatus/bgp"));
  EXPECT_EQ(control->mountStatus(), TylKetab::MountStatus::mounted);
  s->binding().quiescedIs(true);
  EXPECT_TRUE(control->quiesced());

  auto r = mvpnVrfStatusFactory("bgp");

  r->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_), ShmRole::reader});
  Oro::Ptr<TylKetab::CollectionControl> rc = r->mvpnVrfControl();
  std::vector<Oro::AttrId> rcChanges;
  Oro::AttrReactor onControl([&](Oro::AttrId a) { rcChanges.push_back(a); });
  onControl.notifierIs(rc.get());
  shmtest::drain(r->binding());
  EXPECT_EQ(rc->mountStatus(), TylKetab::MountStatus::mounted);
  EXPECT_TRUE(rc->quiesced());
  EXPECT_EQ(rcChanges, (std::vector<Oro::AttrId>{TylKetab::CollectionControl::mountStatusAttr,
                                                 TylKetab::CollectionControl::quiescedAttr}));

  s->mvpnVrfControlIs(Oro::makePtr<TylKetab::CollectionControl>());
  EXPECT_EQ(controlChanges, 1);
  EXPECT_NE(s->mvpnVrfControl(), control);

  // A writer that takes the quiesced table over tells its own control, as readers are told.
  s = nullptr;
  auto next = mvpnVrfStatusFactory("bgp");
  next->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, bgp_), ShmRole::writer});
  EXPECT_TRUE(next->mvpnVrfControl()->quiesced());
  next->binding().quiescedIs(false);
  EXPECT_FALSE(next->mvpnVrfControl()->quiesced());
  // Leaving the table is a mount status change too: the path it leaves is traced.
  Oro::traceEnable("MvpnVrfStatus", 5, true);
  trace.clear();
  trace.install();
  next->unmount();
  trace.uninstall();
  Oro::traceEnable("MvpnVrfStatus", 5, false);
  EXPECT_THAT(trace.messages(), testing::ElementsAre("routing/multicast/vpn/vrfStatus/bgp"));
  EXPECT_EQ(next->binding().mountPath(), "");
}

bool ownerListed(const std::string& owner) {
  return std::ranges::any_of(Oro::CounterRegistry::global().list(),
                             [&](const auto& c) { return c.owner == owner; });
}

TEST_F(VrfStatusTest, CreationByFactoryAndDirectoryAndTheLastReferenceHandingTheRootToItsControl) {
  Oro::Ptr<TylKetab::CollectionControl> control;
  {
    auto s = mvpnVrfStatusFactory("handover");
    s->mvpnVrfIs(MvpnVrf(VrfId(9)));
    control = s->mvpnVrfControl();
  }
  ASSERT_TRUE(control->entity());
  auto* root = static_cast<MvpnVrfStatus*>(control->entity().get());
  EXPECT_EQ(root->mvpnVrf(VrfId(9)), MvpnVrf(VrfId(9)));
  EXPECT_FALSE(root->mvpnVrfControl());
  EXPECT_EQ(root->notifieeCount(), 0u);
  control->entityIs(nullptr);
  EXPECT_FALSE(ownerListed("handover"));

  // Nobody holds the control: the root goes with it.
  { auto s = mvpnVrfStatusFactory("alone"); }
  EXPECT_FALSE(ownerListed("alone"));

  // A subscriber letting go of a reader's last reference inside a notification: the dispatch
  // ends first, then the root goes (to its control, when someone holds that).
  auto w = shmtest::mounted(mvpnVrfStatusFactory("w"), {"test/handover", ShmRole::writer});
  for (uint32_t v = 1; v <= 5; ++v) w->mvpnVrfIs(MvpnVrf(VrfId(v)));
  for (const bool holdControl : {true, false}) {
    Oro::TaskScheduler sched;
    auto r = mvpnVrfStatusFactory("released");
    Oro::Ptr<TylKetab::CollectionControl> held = holdControl ? r->mvpnVrfControl() : nullptr;
    int heard = 0;
    Oro::KeyReactor<VrfId> reactor(MvpnVrfStatus::mvpnVrfAttr, [&](const VrfId&) {
      if (++heard == 2) r = nullptr;
    });
    reactor.notifierIs(r.get());
    r->mount(ShmAttach{"test/handover", ShmRole::reader, &sched});
    sched.runUntilIdle();
    EXPECT_EQ(heard, 5) << holdControl;
    EXPECT_EQ(held && held->entity(), holdControl);
    if (held) held->entityIs(nullptr);
  }
  // The same inside a writer's mutator: the root goes when the mutator returns (run under the
  // address sanitizer, a mutator that went on with a freed root fails).
  for (int op = 0; op < 3; ++op) {
    auto s = mvpnVrfStatusFactory("released");
    s->mvpnVrfIs(MvpnVrf(VrfId(1)));
    s->mvpnVrfIs(MvpnVrf(VrfId(2)));
    Oro::KeyReactor<VrfId> reactor(MvpnVrfStatus::mvpnVrfAttr, [&](const VrfId&) { s = nullptr; });
    reactor.notifierIs(s.get());
    MvpnVrfStatus* root = s.get();
    if (op == 0) root->mvpnVrfIs(MvpnVrf(VrfId(3)));
    if (op == 1) {
      EXPECT_EQ(root->mvpnVrfDel(VrfId(1)), MvpnVrf(VrfId(1)));
    }
    if (op == 2) root->mvpnVrfDelAll();
    EXPECT_FALSE(s);
  }

  // Creation by the factory and by the entity directory.
  auto& dir = Oro::EntityDirectory::global();
  Oro::Ptr<Oro::Entity> e = dir.create("Routing::Multicast::MvpnVrfStatus", {"evpn"});
  ASSERT_TRUE(e);
  EXPECT_EQ(e->typeName(), "Routing::Multicast::MvpnVrfStatus");
  EXPECT_EQ(static_cast<MvpnVrfStatus*>(e.get())->name(), "evpn");
  EXPECT_THROW(dir.create("Routing::Multicast::MvpnVrfStatus", {"a", "b"}),
               Oro::UnexpectedEntityArgumentsException);
  EXPECT_THROW(dir.create("Routing::Multicast::MvpnIntfStatus", {"a", "b"}),
               Oro::UnexpectedEntityArgumentsException);
  EXPECT_EQ(MvpnIntfStatus::MvpnIntfStatusIs("i")->typeName(),
            "Routing::Multicast::MvpnIntfStatus");
}

TEST_F(VrfStatusTest, DumpsAndCorruptionDuringWalksEndingThemQuietly) {
  auto s = mvpnVrfStatusFactory("bgp");
  std::vector<std::string> reports;
  s->mvpnVrfCorruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  s->mount(ShmAttach{"c/vrf", ShmRole::writer});
  s->mvpnVrfIs(MvpnVrf(VrfId(3), evpn_));
  s->mvpnVrfIs(MvpnVrf(VrfId(4)));
  Oro::DumpContext dc;
  s->dumpState(dc, 2);
  EXPECT_EQ(dc.str().substr(0, 19), "  MvpnVrfStatus #2:");
  EXPECT_THAT(dc.str(), HasSubstr("\n    VRF 3\n"));
  EXPECT_THAT(dc.str(), HasSubstr("\n    VRF 4\n"));
  Oro::DumpContext pm;
  pm.postMortemIs(true);
  s->dumpState(pm, 3);
  EXPECT_EQ(pm.str(), "   MvpnVrfStatus not in core file\n");

  ASSERT_TRUE(shmtest::damageTable("c/vrf", "mvpnVrf"));
  s->mvpnVrfDelAll();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(reports[0], HasSubstr("corrupt"));
  Oro::DumpContext damaged;
  s->dumpState(damaged, 0);
  EXPECT_EQ(damaged.str(), "MvpnVrfStatus #2:\n");
  EXPECT_EQ(reports.size(), 2u);

  // The interface status: PMSI lookups and deletion, then a damaged table.
  auto i = mvpnIntfStatusFactory("intf");
  EXPECT_FALSE(i->isPmsiIntfId(Nevo::IntfId::vlan(7)));
  i->vrfIntfIdIs(MvpnVrfIntfId(VrfId(1), Nevo::IntfId::vlan(7)));
  i->vrfIntfIdIs(MvpnVrfIntfId(VrfId(2), Nevo::IntfId::vlan(7)));
  i->vrfIntfIdIs(MvpnVrfIntfId(VrfId(3), Nevo::IntfId::vlan(8)));
  EXPECT_TRUE(i->isPmsiIntfId(Nevo::IntfId::vlan(7)));
  KeyLog<VrfId> seen(i.get(), MvpnIntfStatus::vrfIntfIdAttr);
  EXPECT_EQ(i->vrfIntfIdDel(VrfId(9)), MvpnVrfIntfId());  // absent: the default record
  EXPECT_TRUE(seen.keys.empty());
  i->vrfIntfIdDel(VrfId(1));
  EXPECT_TRUE(i->isPmsiIntfId(Nevo::IntfId::vlan(7)));
  i->vrfIntfIdDel(VrfId(2));
  EXPECT_FALSE(i->isPmsiIntfId(Nevo::IntfId::vlan(7)));
  EXPECT_EQ(seen.keys, (std::vector<VrfId>{1, 2}));
  EXPECT_EQ(i->delCounter().name(), "vrfIntfIdDel");
  EXPECT_EQ(i->delCounter().value(), 3u);
  i->vrfIntfIdCorruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  i->mount(ShmAttach{MvpnIntfStatus::mountPath(), ShmRole::writer});
  i->vrfIntfIdIs(MvpnVrfIntfId(VrfId(1), Nevo::IntfId::vlan(5)));
  ASSERT_TRUE(shmtest::damageTable(MvpnIntfStatus::mountPath(), "vrfIntfId"));
  EXPECT_FALSE(i->isPmsiIntfId(Nevo::IntfId::vlan(5)));
  EXPECT_EQ(reports.size(), 3u);
}

TEST_F(VrfStatusDeathTest, CorruptionDuringAWriteIsFatalAfterTheHandlerDeathTest) {
  auto s = mvpnVrfStatusFactory("bgp");
  s->mvpnVrfCorruptionHandlerIs(shmtest::printCorruption);
  const std::string path = shmtest::ownMountPath("c/write");
  s->mount(ShmAttach{path, ShmRole::writer});
  s->mvpnVrfIs(MvpnVrf(VrfId(1)));
  ASSERT_TRUE(shmtest::damageTable(path, "mvpnVrf"));
  EXPECT_DEATH(s->mvpnVrfIs(MvpnVrf(VrfId(2))),
               "handler saw: .*corrupt(.|\n)*write of mvpnVrf met a corrupt shared memory table");
  EXPECT_DEATH(s->mvpnVrfDel(VrfId(1)),
               "handler saw: .*corrupt(.|\n)*removal of mvpnVrf met a corrupt shared memory");
}

using ::testing::Property;
using ::testing::Throws;
using wiretest::Bytes;
using wiretest::bytesOf;

// Parses a value form as a record of type R; a range error must name `attribute`.
template <class R>
void expectBadAttribute(const char* text, const char* attribute) {
  using E = Oro::DeserializationException;
  Oro::CharRange in(text);
  EXPECT_THAT([&] { R{in}; }, Throws<E>(Property(&E::attribute, attribute))) << text;
}

// Reading `bytes` into a record raises the read error and leaves the record as it was.
template <class R>
void expectWireError(const Bytes& bytes, const R& before) {
  R got = before;
  wiretest::expectReadError([&] {
    Oro::PbReadBuffer in(bytes);
    readMessage(in, got);
  });
  EXPECT_EQ(got, before);
}

// One embedded message: a well-formed key 9, then a field `number` of wire type `wireType`.
Bytes messageWithField(uint32_t number, uint8_t wireType) {
  Oro::PbWriteBuffer out;
  auto s = out.openSection();
  out.writeTag(15702, Oro::kPbVarint);
  out.writeVarint(9);
  out.writeTag(number, wireType);
  wireType == Oro::kPbVarint ? out.writeVarint(5) : out.writeLengthDelimited(std::string_view("a"));
  out.closeSection(s);
  return bytesOf(out);
}

TEST(MvpnVrfTest, EqualityOrderTextAndValueForm) {
  EXPECT_EQ(MvpnVrf().client(), bgp_);
  const MvpnVrf a(VrfId(12), evpn_), b(VrfId(12), staticMvpn_);
  EXPECT_FALSE(a.isEq(b));
  EXPECT_TRUE(MvpnVrf::isEq(a, MvpnVrf{VrfId(12), evpn_}));  // both spellings; {key, client}
  EXPECT_LT(b, a);  // same key: client decides
  EXPECT_LT(MvpnVrf(VrfId(3), staticEvpn_), b);
  EXPECT_EQ(a.toStrep(), "12");
  EXPECT_EQ(a.toStrep(), b.toStrep());  // the client is not part of the text

  // The value form carries the client.
  const MvpnVrf c(VrfId(12), staticEvpn_);
  const std::string text = c.toValueForm();
  EXPECT_EQ(text, "Value('Routing::Multicast::MvpnVrf', ** {'key': 12, 'client': staticEvpn})");
  Oro::CharRange in(text);
  EXPECT_EQ(MvpnVrf(in), c);
  for (const std::string& bad :
       {text + " ",
        std::string("Value('Routing::Multicast::Other', ** {'key': 1, 'client': bgp})")}) {
    Oro::CharRange r(bad);
    EXPECT_THROW(MvpnVrf{r}, Oro::ParseException) << bad;
  }
  expectBadAttribute<MvpnVrf>(
      "Value('Routing::Multicast::MvpnVrf', ** {'key': 99999999999, 'client': bgp})", "key");
  expectBadAttribute<MvpnVrf>("Value('Routing::Multicast::MvpnVrf', ** {'key': 1, 'client': nope})",
                              "client");
}

TEST(MvpnVrfTest, WireFormBytesReadingAndErrors) {
  Oro::PbWriteBuffer out;
  writeMessage(out, MvpnVrf(VrfId(7), bgp_));
  EXPECT_EQ(bytesOf(out), (Bytes{0xB0, 0xD5, 0x07, 0x07, 0xC0, 0xE6, 0x0F, 0x00}));

  Oro::PbWriteBuffer framed;
  const MvpnVrf v(VrfId(300), staticEvpn_);
  writePbMessage(framed, v);
  framed.writeVarint(99);  // something after the message
  Oro::PbReadBuffer in(framed.bytes());
  MvpnVrf got;
  constructFromPbMessage(&got, in);
  EXPECT_EQ(got, v);
  EXPECT_EQ(in.readVarint(), 99u);

  // Only the client field: the key keeps its default. Unknown fields in between are skipped,
  // a group (its fields up to its end tag) too.
  Oro::PbWriteBuffer partial;
  auto s = partial.openSection();
  partial.writeTag(20000, Oro::kPbLengthDelimited);
  partial.writeLengthDelimited(std::string_view("zz"));
  partial.writeTag(20001, Oro::kPbStartGroup);
  partial.writeTag(MvpnVrf::kKeyField, Oro::kPbVarint);  // inside the group: not the key
  partial.writeVarint(77);
  partial.writeTag(20001, Oro::kPbEndGroup);
  partial.writeTag(MvpnVrf::kClientField, Oro::kPbVarint);
  partial.writeVarint(0x103);  // truncated to 8 bits: 3
  partial.closeSection(s);
  Oro::PbReadBuffer pin(partial.bytes());
  constructFromPbMessage(&got, pin);
  EXPECT_EQ(got, MvpnVrf(VrfId(16777215), evpn_));

  // A zero length reads nothing.
  const Bytes empty{0x00};
  Oro::PbReadBuffer ein(empty);
  MvpnVrf keep(VrfId(5), evpn_);
  readMessage(ein, keep);
  EXPECT_EQ(keep, MvpnVrf(VrfId(5), evpn_));
  EXPECT_TRUE(ein.atEnd());

  // Bad bytes raise.
  const MvpnVrf before(VrfId(1), evpn_);
  expectWireError(messageWithField(MvpnVrf::kKeyField, Oro::kPbLengthDelimited), before);
  expectWireError(messageWithField(MvpnVrf::kClientField, Oro::kPbFixed32), before);
  expectWireError(Bytes{0x08, 0xB0, 0xD5, 0x07, 0x07}, before);  // runs past the buffer
}

TEST(MvpnVrfIntfIdTest, ValuesTextAndWireForms) {
  const MvpnVrfIntfId def;
  EXPECT_EQ(def.key(), VrfId(16777215));
  EXPECT_TRUE(def.pmsiIntfId().empty());
  const MvpnVrfIntfId a(VrfId(4), Nevo::IntfId::vlan(10)), b(VrfId(4), Nevo::IntfId::vlan(11));
  EXPECT_LT(a, b);
  EXPECT_LT(MvpnVrfIntfId(VrfId(3), Nevo::IntfId::vlan(99)), a);
  EXPECT_FALSE(a.isEq(b));
  EXPECT_TRUE(MvpnVrfIntfId::isEq(a, MvpnVrfIntfId(a)));

  const std::string text = a.toValueForm();
  Oro::CharRange in(text);
  EXPECT_EQ(MvpnVrfIntfId(in), a);
  expectBadAttribute<MvpnVrfIntfId>(
      "Value('Routing::Multicast::MvpnVrfIntfId', ** {'key': 4444444444, 'pmsiIntfId': Vlan10})",
      "key");

  Oro::PbWriteBuffer out;
  writeMessage(out, MvpnVrfIntfId(VrfId(7), Nevo::IntfId(5)));
  // key tag + 7, pmsiIntfId tag, length 3, inner tag 54152 as varint, value 5.
  EXPECT_EQ(bytesOf(out),
            (Bytes{0xB0, 0xD5, 0x07, 0x07, 0xB2, 0x88, 0x0B, 0x04, 0x88, 0xA7, 0x03, 0x05}));
  Oro::PbWriteBuffer framed;
  writePbMessage(framed, a);
  Oro::PbReadBuffer fin(framed.bytes());
  MvpnVrfIntfId got;
  constructFromPbMessage(&got, fin);
  EXPECT_EQ(got, a);
  expectWireError(messageWithField(MvpnVrfIntfId::kPmsiIntfIdField, Oro::kPbVarint), a);
}

// --- the route status tree ---

using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;
using Flags = MvpnSource::SourceFlags;

const auto v4 = [](uint32_t a) { return IpGenAddr::ipv4Addr(a); };
// Every key notification of an entity, whatever its attribute.
struct Reactor : Oro::Notifiee {
  std::function<void(Oro::AttrId, const void*)> fn;
  void onAttributeKey(Oro::AttrId a, const void* k) override { fn(a, k); }
};
const auto prefix = [](uint32_t a, unsigned len) { return IpGenPrefix(v4(a), len); };

class RouteStatusTest : public shmtest::ShmTest {
 protected:
  void TearDown() override {
    Oro::toggleReset("MvpnGroupTylModel");
    ShmTest::TearDown();
  }
};
using RouteStatusDeathTest = RouteStatusTest;

// The group lifetime rule, what the mutators return and the counts are checked against a model
// (RandomOperationsMatchAModel).
TEST_F(RouteStatusTest, DumpsInBothModelsLookupsOfWhatIsAbsentAndUncheckedRoutes) {
  auto root = mvpnRouteStatusFactory("bgp");
  auto vrf = root->vrfRouteStatusIs(VrfId(5));
  const IpGenAddr g = v4(0xef010101), s1 = v4(0x0a010101);
  const MvpnRouteKey sg(s1, g, false);
  vrf->mvpnSourceIs(g, s1, prefix(0x0a010100, 24), true, Flags(2));
  vrf->mvpnRouteIs(MvpnRoute(sg, prefix(0x0a010100, 24), MvpnRoute::RouteFlags(7)));
  Oro::toggleOverride("MvpnGroupTylModel", true);
  Oro::DumpContext groups;
  root->dumpState(groups, 0);
  EXPECT_EQ(groups.str(),
            "MvpnRouteStatus #1:\n"
            "  VRF ID: 5\n"
            "    MVPN Groups #1\n"
            "      Group: 239.1.1.1\n"
            "        Shared tree: #1\n"
            "          10.1.1.1: UMH: 10.1.1.0/24, (S,G)\n"
            "        Source tree: #0\n");
  Oro::toggleOverride("MvpnGroupTylModel", false);
  Oro::DumpContext routes;
  root->dumpState(routes, 4);
  EXPECT_EQ(routes.str(),
            "    MvpnRouteStatus #1:\n"
            "      VRF ID: 5\n"
            "        MVPN Routes #1\n"
            "          " +
                vrf->mvpnRoute(sg)->toStrep() + "\n");
  // A VRF reached twice in one dump is printed once, then reported.
  root->dumpState(routes, 0);
  EXPECT_THAT(routes.str(), HasSubstr("  MvpnVrfRouteStatus (already printed)\n"));

  EXPECT_EQ(root->vrfRouteStatusIs(VrfId(5)), vrf);  // the same entity, not a new one
  vrf->mvpnSourceIs(g, s1, prefix(0x0a010100, 24), false, Flags(0));
  vrf->mvpnSourceDel(g, s1, true);  // the group stays for its source tree
  EXPECT_FALSE(vrf->mvpnSharedTree(g));
  EXPECT_EQ(vrf->mvpnSource(g, s1, true), MvpnSource());
  EXPECT_EQ(vrf->mvpnSource(v4(0xef020202), s1, false), MvpnSource());
  EXPECT_FALSE(vrf->mvpnSharedTree(v4(0xef020202)));
  // The flat route model stores records unchecked (the flags invariant is the writer's).
  const MvpnRouteKey rk(s1, g, true);
  const MvpnRoute bad(rk, prefix(0x0a010100, 24), MvpnRoute::RouteFlags(2));
  vrf->mvpnRouteIs(bad);
  EXPECT_EQ(vrf->mvpnRoute(rk), bad);
  EXPECT_EQ(vrf->mvpnRouteDel(rk), bad);
  EXPECT_EQ(vrf->mvpnRouteDel(rk), MvpnRoute());
  // Every call of a mutator counts, also one that finds its entity or record there already
  // or absent.
  EXPECT_EQ(root->counters(RouteStatusStore::kMvpnRoute).del.value(), 2u);
  EXPECT_EQ(root->counters(RouteStatusStore::kVrfRouteStatus).is.value(), 2u);
  EXPECT_EQ(root->counters(RouteStatusStore::kMvpnGroup).is.value(), 2u);
}

TEST_F(RouteStatusDeathTest, RootsAreMadeInTheStoresHeapByItsCreatorGivenAnInitializerDeathTest) {
  Oro::CountingHeap& heap = Oro::ShmEntityStore::heap();
  const uint64_t before = heap.allocations();
  auto root = mvpnRouteStatusFactory("x");
  EXPECT_EQ(heap.allocations(), before + 1);
  EXPECT_EQ(&Oro::EntityHeap::current(), &Oro::EntityHeap::process());
  root->vrfRouteStatusIs(VrfId(1));  // VRF entities too
  EXPECT_EQ(heap.allocations(), before + 2);
  EXPECT_EQ(&Oro::EntityHeap::current(), &Oro::EntityHeap::process());
  heap.failIs(true);
  EXPECT_THROW(mvpnRouteStatusFactory("y"), Oro::NullPointerException);
  EXPECT_THROW(root->vrfRouteStatusIs(VrfId(2)), std::bad_alloc);  // leaves no VRF behind
  heap.failIs(false);
  EXPECT_EQ(root->vrfRouteStatusSize(), 1u);
  EXPECT_FALSE(root->vrfRouteStatus(VrfId(2)));
  EXPECT_EQ(&Oro::EntityHeap::current(), &Oro::EntityHeap::process());
  const Oro::ShmEntityStore::Initializer init{"t/created", ShmRole::writer};
  Oro::Ptr<Oro::Entity> made =
      Oro::ShmEntityStore::createRoot(MvpnRouteStatus::kTypeName, "z", &init);
  auto* created = static_cast<MvpnRouteStatus*>(made.get());
  EXPECT_EQ(created->name(), "z");
  EXPECT_EQ(created->binding().mountPath(), "t/created");
  EXPECT_DEATH(Oro::ShmEntityStore::createRoot(MvpnRouteStatus::kTypeName, "x", nullptr),
               "Assertion failed: initializer");
}

TEST_F(RouteStatusDeathTest, ARouteKeyIsCheckedAndCorruptionDuringANestedWriteIsFatalDeathTest) {
  auto root = mvpnRouteStatusFactory("bgp");
  // A route key is checked as it goes into a slot.
  MvpnRouteKey key(v4(1), v4(0xef010101), false);
  reinterpret_cast<unsigned char*>(&key)[0] = 0;  // a source of no family
  EXPECT_DEATH(root->vrfRouteStatusIs(VrfId(2))->mvpnRouteIs(MvpnRoute(key, prefix(0, 0), {})),
               "Route key address of unknown family");
  root->corruptionHandlerIs(shmtest::printCorruption);
  const std::string path = shmtest::ownMountPath("c/tree");
  root->mount(ShmAttach{path, ShmRole::writer});
  auto vrf = root->vrfRouteStatusIs(VrfId(1));
  const IpGenAddr g = v4(0xef010101);
  vrf->mvpnSourceIs(g, v4(0x0a010101), prefix(0, 0), true, Flags());
  ASSERT_TRUE(shmtest::damageTable(path, "sharedTree"));
  EXPECT_DEATH(
      vrf->mvpnSourceIs(g, v4(0x0a010102), prefix(0, 0), true, Flags()),
      "handler saw: .*corrupt(.|\n)*write of sharedTree met a corrupt shared memory table");
  EXPECT_DEATH(vrf->mvpnSourceDel(g, v4(0x0a010101), true),
               "handler saw: .*corrupt(.|\n)*removal of sharedTree met a corrupt shared memory");
  // A parent lost with its segment is damage as well, not a refused write.
  ASSERT_TRUE(shmtest::damageTable(path, "mvpnGroup"));
  EXPECT_DEATH(
      vrf->mvpnSourceIs(g, v4(0x0a010103), prefix(0, 0), false, Flags()),
      "handler saw: .*parent entity is gone(.|\n)*write of sourceTree met a corrupt shared memory");
  // So does damage met by a mutator's lookups (is the group empty now? is it there?).
  EXPECT_DEATH(vrf->mvpnSourceDel(g, v4(0x0a010109), false),
               "handler saw: .*corrupt(.|\n)*removal of mvpnGroup met a corrupt shared memory");
  vrf->childHandle(RouteStatusStore::kMvpnGroup)->faultyIs(true);
  EXPECT_DEATH(
      vrf->mvpnGroupIs(v4(0xef0000ff)),
      "handler saw: .*injected fault(.|\n)*write of mvpnGroup met a corrupt shared memory");
}

// A tree removed with its dead writer: its reader is told once that each VRF went, and then
// follows the tree a new writer builds at the path.
TEST_F(RouteStatusTest, AReaderOfARemovedTreeHearsEachVrfGoOnceAndFollowsTheNextTree) {
  {
    auto w = shmtest::mounted(mvpnRouteStatusFactory("w"), {"t/removed", ShmRole::writer});
    for (uint32_t v : {7u, 8u}) {
      w->vrfRouteStatusIs(VrfId(v))->mvpnSourceIs(v4(0xef000001), v4(0x0a000001), prefix(0, 0),
                                                  true, Flags());
    }
    w->unmount();
  }
  Oro::TaskScheduler sched;
  auto r = shmtest::mounted(mvpnRouteStatusFactory("r"), {"t/removed", ShmRole::reader, &sched});
  shmtest::KeyLog<VrfId> vrfs(r.get(), MvpnRouteStatus::vrfRouteStatusAttr);
  sched.runUntilIdle();
  ASSERT_EQ(vrfs.keys.size(), 2u);
  EXPECT_GE(Oro::ShmStore::remove("t/removed"), 1u);
  const auto heard = [&](size_t n) {
    return sched.runUntil([&] { return vrfs.keys.size() >= n; },
                          Oro::TaskScheduler::Clock::now() + 20s);
  };
  ASSERT_TRUE(heard(4));
  EXPECT_EQ(r->vrfRouteStatusSize(), 0u);
  auto w = shmtest::mounted(mvpnRouteStatusFactory("w"), {"t/removed", ShmRole::writer});
  w->vrfRouteStatusIs(VrfId(9));
  ASSERT_TRUE(heard(5));
  sched.runUntilIdle();
  // Present, gone, each once; then the new tree's VRF.
  ASSERT_EQ(vrfs.keys.size(), 5u);
  EXPECT_EQ(std::count(vrfs.keys.begin(), vrfs.keys.end(), VrfId(7)), 2);
  EXPECT_EQ(std::count(vrfs.keys.begin(), vrfs.keys.end(), VrfId(8)), 2);
  EXPECT_EQ(vrfs.keys.back(), VrfId(9));
  EXPECT_TRUE(r->vrfRouteStatus(VrfId(9)));
}

TEST_F(RouteStatusTest, AReaderHearsEachMemberOfANewEntityOnce) {
  auto w = shmtest::mounted(mvpnRouteStatusFactory("w"), {"t/once", ShmRole::writer});
  Oro::TaskScheduler sched;
  auto r = shmtest::mounted(mvpnRouteStatusFactory("r"), {"t/once", ShmRole::reader, &sched});
  // Every notification at every level, subscribing to each entity as it appears.
  std::map<std::string, int> heard;
  std::vector<std::pair<Oro::Ptr<Oro::Entity>, std::unique_ptr<Reactor>>> watches;
  auto watch = [&](Oro::Ptr<Oro::Entity> e, std::function<void(Oro::AttrId, const void*)> fn) {
    watches.emplace_back(e, std::make_unique<Reactor>());
    watches.back().second->fn = std::move(fn);
    watches.back().second->notifierIs(e.get());
  };
  Oro::KeyReactor<VrfId> onVrf(MvpnRouteStatus::vrfRouteStatusAttr, [&](const VrfId& v) {
    if (heard["vrf " + v.toStrep()]++) return;
    auto vrf = r->vrfRouteStatus(v);
    watch(vrf, [&, vrf = vrf.get()](Oro::AttrId a, const void* k) {
      if (a != MvpnVrfRouteStatus::mvpnGroupAttr) return;
      const auto& g = *static_cast<const IpGenAddr*>(k);
      if (heard["group " + g.toStrep()]++) return;
      watch(vrf->mvpnGroup(g), [&](Oro::AttrId, const void* s) {
        ++heard["source " + static_cast<const IpGenAddr*>(s)->toStrep()];
      });
    });
  });
  onVrf.notifierIs(r.get());
  sched.runUntilIdle();
  // A source that creates its VRF and group; then one that creates a group in a known VRF.
  w->vrfRouteStatusIs(VrfId(5))->mvpnSourceIs(v4(0xef000001), v4(1), prefix(0, 0), true, Flags());
  sched.runUntilIdle();
  w->vrfRouteStatus(VrfId(5))->mvpnSourceIs(v4(0xef000002), v4(2), prefix(0, 0), false, Flags(1));
  sched.runUntilIdle();
  // The walk of a new entity reports its members; their log entries do not report them again.
  EXPECT_EQ(heard, (std::map<std::string, int>{{"vrf 5", 1},
                                               {"group 239.0.0.1", 1},
                                               {"group 239.0.0.2", 1},
                                               {"source 0.0.0.1", 1},
                                               {"source 0.0.0.2", 1}}));
  // A later change of a walked member is reported.
  w->vrfRouteStatus(VrfId(5))->mvpnSourceIs(v4(0xef000002), v4(2), prefix(0, 0), false, Flags(2));
  sched.runUntilIdle();
  EXPECT_EQ(heard["source 0.0.0.2"], 2);
  // A group and a VRF removed and made again before the reader looks: gone, then back.
  w->vrfRouteStatus(VrfId(5))->mvpnGroupDel(v4(0xef000001));
  w->vrfRouteStatus(VrfId(5))->mvpnGroupIs(v4(0xef000001));
  sched.runUntilIdle();
  EXPECT_EQ(heard["group 239.0.0.1"], 3);
  w->vrfRouteStatusDel(VrfId(5));
  w->vrfRouteStatusIs(VrfId(5));
  sched.runUntilIdle();
  EXPECT_EQ(heard["vrf 5"], 3);
  for (auto& [e, reactor] : watches) reactor->notifierIs(nullptr);
}

TEST_F(RouteStatusTest, CountingThatMeetsDamageReportsItAndRaisesNothing) {
  auto root = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {"t/counting", ShmRole::writer});
  std::vector<std::string> reports;
  root->corruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  auto vrf = root->vrfRouteStatusIs(VrfId(1));
  for (uint32_t g = 1; g <= 3; ++g) vrf->mvpnSourceIs(v4(g), v4(1), prefix(0, 0), true, Flags());
  // A group whose collection is damaged is reported and counts 0; the others still count.
  vrf->mvpnGroup(v4(2))->childHandle(RouteStatusStore::kSharedTree)->faultyIs(true);
  EXPECT_EQ(vrf->mvpnSharedTrees(), 2u);
  // The walk of the groups meets the damage: it is reported and the count ends there.
  ASSERT_TRUE(shmtest::damageTable("t/counting", "mvpnGroup"));
  EXPECT_EQ(vrf->mvpnSharedTrees(), 0u);
  EXPECT_EQ(vrf->mvpnSourceTrees(), 0u);
  EXPECT_EQ(reports.size(), 3u);
  // So does the walk of a DelAll, which then removes what it walked (nothing here).
  EXPECT_NO_THROW(vrf->mvpnGroupDelAll());
  EXPECT_EQ(reports.size(), 4u);
}

TEST_F(RouteStatusTest, ADeletedVrfKeepsItsRecordsForWhoeverHoldsIt) {
  auto root = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {"t/departed", ShmRole::writer});
  auto vrf = root->vrfRouteStatusIs(VrfId(9));
  vrf->mvpnSourceIs(v4(0xef010101), v4(0x0a010101), prefix(0, 0), true, Flags());
  const MvpnRoute route(MvpnRouteKey(v4(1), v4(0xef010101), true), prefix(0, 0), {});
  vrf->mvpnRouteIs(route);
  root->vrfRouteStatusDel(VrfId(9));
  EXPECT_FALSE(root->vrfRouteStatus(VrfId(9)));
  EXPECT_EQ(vrf->mvpnRoute(route.key()), route);
  EXPECT_EQ(vrf->mvpnGroupSize(), 1u);
  EXPECT_EQ(vrf->mvpnSharedTrees(), 1u);
  // A new VRF under the same id is another entity, empty.
  auto again = root->vrfRouteStatusIs(VrfId(9));
  EXPECT_NE(again, vrf);
  EXPECT_EQ(again->mvpnRouteSize(), 0u);

  // A subscriber may delete the VRF it is told of a change in and let go of the last
  // reference to it, or to the root: each goes when its mutator returns.
  Oro::KeyReactor<MvpnRouteKey> onRoute(MvpnVrfRouteStatus::mvpnRouteAttr, [&](const auto&) {
    root->vrfRouteStatusDel(VrfId(9));
    again = nullptr;
  });
  onRoute.notifierIs(again.get());
  MvpnVrfRouteStatus* raw = again.get();
  raw->mvpnRouteIs(route);
  EXPECT_FALSE(again);
  // So may a subscriber of a group (not of its VRF) told of a source's removal; or it may put
  // a new group with a source under the key, which the removal then leaves alone.
  const IpGenAddr g = v4(0xef020202);
  auto vrf11 = root->vrfRouteStatusIs(VrfId(11));
  vrf11->mvpnSourceIs(g, v4(1), prefix(0, 0), true, Flags());
  Reactor onSource;
  onSource.fn = [&](Oro::AttrId, const void*) {
    onSource.notifierIs(nullptr);
    vrf11->mvpnGroupDel(g);
    vrf11->mvpnSourceIs(g, v4(2), prefix(0, 0), true, Flags());
  };
  onSource.notifierIs(vrf11->mvpnGroup(g).get());
  vrf11->mvpnSourceDel(g, v4(1), true);
  EXPECT_EQ(vrf11->mvpnSource(g, v4(2), true).source(), v4(2));
  onSource.fn = [&](Oro::AttrId, const void*) {
    vrf11 = nullptr;
    root->vrfRouteStatusDel(VrfId(11));
  };
  onSource.notifierIs(vrf11->mvpnGroup(g).get());
  raw = vrf11.get();
  raw->mvpnSourceDel(g, v4(2), true);
  EXPECT_FALSE(root->vrfRouteStatus(VrfId(11)));
  Oro::KeyReactor<VrfId> onVrf(MvpnRouteStatus::vrfRouteStatusAttr, [&](VrfId) { root = nullptr; });
  onVrf.notifierIs(root.get());
  MvpnRouteStatus* rawRoot = root.get();
  EXPECT_TRUE(rawRoot->vrfRouteStatusIs(VrfId(10)));
  EXPECT_FALSE(root);
}

// A source that no longer fits in shared memory fails with nothing changed: a group made for
// it alone goes again.
TEST_F(RouteStatusTest, ASourceThatDoesNotFitLeavesNoGroupBehind) {
  const pid_t child = shmtest::forkChild([] {
    auto root = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {"t/full", ShmRole::writer});
    auto vrf = root->vrfRouteStatusIs(VrfId(1));
    ::signal(SIGXFSZ, SIG_IGN);
    const rlimit small{256 << 10, 256 << 10};
    ::setrlimit(RLIMIT_FSIZE, &small);
    uint32_t failed = 0;
    for (uint32_t n = 0; n < 100000 && failed < 20; ++n) {
      try {
        vrf->mvpnSourceIs(v4(0xef000000 + n), v4(1), prefix(0, 0), true, Flags());
      } catch (const Oro::ShmException&) {
        ++failed;
      }
    }
    if (failed == 0) return 11;  // the limit was never met
    for (auto it = vrf->mvpnGroupIter(); it.valid(); it.next()) {
      if (it.value()->sharedTreeSize() == 0) return 12;
    }
    return 10;
  });
  EXPECT_EQ(shmtest::waitChild(child), 10);
}

// A root held in a global is released after main returns, when the function-local statics
// made inside main are gone: what its entities came from (their heap, the trace handles) must
// still be there. The child exits the ordinary way; a sanitizer build reports a release into a
// destroyed heap.
Oro::Ptr<MvpnRouteStatus> gTree;

TEST_F(RouteStatusTest, ARootHeldInAGlobalIsReleasedCleanlyAtExit) {
  const pid_t child = shmtest::forkChild([] {
    gTree = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {"t/global", ShmRole::writer});
    gTree->vrfRouteStatusIs(VrfId(1))->mvpnSourceIs(v4(0xef000001), v4(1), prefix(0, 0), true,
                                                    Flags());
    std::exit(gTree->vrfRouteStatusSize() == 1 ? 10 : 11);
    return 12;
  });
  EXPECT_EQ(shmtest::waitChild(child), 10);
}

// Random source and group operations against a plain model of the trees.
TEST_F(RouteStatusTest, RandomOperationsMatchAModel) {
  for (const bool mounted : {false, true}) {
    auto root = mvpnRouteStatusFactory("bgp");
    if (mounted) root->mount(ShmAttach{"t/model", ShmRole::writer});
    using Trees = std::map<bool, std::map<IpGenAddr, MvpnSource>>;
    std::map<uint32_t, std::map<IpGenAddr, Trees>> model;  // vrf -> group -> trees
    std::mt19937 rng(mounted ? 11 : 12);
    for (int step = 0; step < 4000; ++step) {
      const uint32_t v = rng() % 3;
      const IpGenAddr g = v4(0xef000000 + rng() % 5), s = v4(0x0a000000 + rng() % 6);
      const bool shared = rng() % 2;
      auto vrf = root->vrfRouteStatusIs(VrfId(v));
      auto& groups = model[v];
      switch (rng() % 6) {
        case 0:
        case 1: {
          const MvpnSource rec(s, prefix(rng() % 256, 8), Flags(rng() % 8));
          EXPECT_EQ(vrf->mvpnSourceIs(g, s, rec.umhPrefix(), shared, rec.sourceFlags()), rec);
          groups[g][shared][s] = rec;
          break;
        }
        case 2: {
          MvpnSource want;
          if (auto it = groups.find(g); it != groups.end()) {
            if (auto r = it->second[shared].find(s); r != it->second[shared].end()) {
              want = r->second;
              it->second[shared].erase(r);
            }
            if (it->second[true].empty() && it->second[false].empty()) groups.erase(it);
          }
          EXPECT_EQ(vrf->mvpnSourceDel(g, s, shared), want);
          break;
        }
        case 3:
          vrf->mvpnGroupIs(g);
          groups[g];
          break;
        case 4:
          vrf->mvpnGroupDel(g);
          groups.erase(g);
          break;
        case 5:
          if (rng() % 10 == 0) {
            root->vrfRouteStatusDel(VrfId(v));
            model.erase(v);
          }
          break;
      }
    }
    for (const auto& [v, groups] : model) {
      auto vrf = root->vrfRouteStatus(VrfId(v));
      ASSERT_TRUE(vrf);
      ASSERT_EQ(vrf->mvpnGroupSize(), groups.size());
      uint32_t shared = 0, source = 0;
      for (const auto& [g, trees] : groups) {
        auto group = vrf->mvpnGroup(g);
        ASSERT_TRUE(group) << g.toStrep();
        for (const bool which : {true, false}) {
          const auto it = trees.find(which);
          const size_t n = it == trees.end() ? 0 : it->second.size();
          EXPECT_EQ(which ? group->sharedTreeSize() : group->sourceTreeSize(), n);
          (which ? shared : source) += static_cast<uint32_t>(n);
          if (it == trees.end()) continue;
          for (const auto& [s, rec] : it->second) EXPECT_EQ(vrf->mvpnSource(g, s, which), rec);
        }
      }
      EXPECT_EQ(vrf->mvpnSharedTrees(), shared);
      EXPECT_EQ(vrf->mvpnSourceTrees(), source);
    }
  }
}

// A reader's copy of a tree, and every change it was told of, by level.
struct TreeCopy {
  std::map<std::tuple<uint32_t, uint32_t, bool, uint32_t>, MvpnSource> sources;
  std::map<std::pair<uint32_t, MvpnRouteKey>, MvpnRoute> routes;
  bool operator==(const TreeCopy&) const = default;
};

TreeCopy copyOf(const MvpnRouteStatus& root) {
  TreeCopy t;
  for (auto v = root.vrfRouteStatusIter(); v.valid(); v.next()) {
    auto vrf = v.value();
    for (auto r = vrf->mvpnRouteIter(); r.valid(); r.next()) {
      t.routes[{vrf->vrfId().value(), r.key()}] = r.value();
    }
    for (auto g = vrf->mvpnGroupIter(); g.valid(); g.next()) {
      auto group = g.value();
      auto copyTree = [&](auto s, bool shared) {
        for (; s.valid(); s.next()) {
          t.sources[{vrf->vrfId().value(), group->group().v4HostOrder(), shared,
                     s.key().v4HostOrder()}] = s.value();
        }
      };
      copyTree(group->sharedTreeIter(), true);
      copyTree(group->sourceTreeIter(), false);
    }
  }
  return t;
}

// The writer's random tree changes (VRFs, groups, sources, routes, whole VRFs and groups).
void changeTree(MvpnRouteStatus& root, std::mt19937& rng, int steps) {
  for (int step = 0; step < steps; ++step) {
    const uint32_t v = 1 + rng() % 6;
    const IpGenAddr g = v4(0xef000000 + rng() % 4), s = v4(0x0a000000 + rng() % 8);
    switch (rng() % 10) {
      case 0:
        root.vrfRouteStatusDel(VrfId(v));
        break;
      case 1:
        if (auto vrf = root.vrfRouteStatus(VrfId(v))) vrf->mvpnGroupDel(g);
        break;
      case 2:
      case 3:
        root.vrfRouteStatusIs(VrfId(v))->mvpnSourceDel(g, s, rng() % 2);
        break;
      case 4:
        root.vrfRouteStatusIs(VrfId(v))->mvpnRouteIs(
            MvpnRoute(MvpnRouteKey(s, g, true), prefix(rng() % 256, 8), {}));
        break;
      case 5:
        root.vrfRouteStatusIs(VrfId(v))->mvpnRouteDel(MvpnRouteKey(s, g, true));
        break;
      default:
        root.vrfRouteStatusIs(VrfId(v))->mvpnSourceIs(g, s, prefix(rng() % 256, 8), rng() % 2,
                                                      Flags(rng() % 8));
    }
  }
}

// Readers of a tree and of a VRF status whose writer is another process.
TEST_F(RouteStatusTest, ReadersInAnotherProcessFollowTheTreeAtEveryLevelAndEveryVrfKey) {
  const std::string path = MvpnRouteStatus::mountPath(Nevo::ipv4, bgp_);
  const std::string vrfPath = MvpnVrfStatus::mountPath(Nevo::ipv4, evpn_);
  shmtest::Pipe ready, go, done;
  const pid_t writer = shmtest::forkChild([&] {
    auto root = mvpnRouteStatusFactory("bgp");
    root->mount(ShmAttach{path, ShmRole::writer, nullptr, 0600, 64});
    auto vrfs = mvpnVrfStatusFactory("evpn");
    vrfs->mvpnVrfIs(MvpnVrf(VrfId(1), evpn_));  // before mounting
    vrfs->mount(ShmAttach{vrfPath, ShmRole::writer});
    std::mt19937 rng(99);
    changeTree(*root, rng, 200);
    ready.send();
    if (!go.receive()) return 3;
    for (uint32_t k = 2; k < 200; ++k) vrfs->mvpnVrfIs(MvpnVrf(VrfId(k), evpn_));
    for (uint32_t k = 2; k < 200; k += 2) vrfs->mvpnVrfDel(VrfId(k));
    changeTree(*root, rng, 3000);        // with a small log: overruns on the way
    root->vrfRouteStatusIs(VrfId(100));  // the end marker
    if (!done.receive()) return 4;
    return 0;
  });
  ASSERT_TRUE(ready.receive());
  Oro::TaskScheduler sched;
  auto reader = mvpnRouteStatusFactory("bgp");
  // Every level's notifications: VRFs from the root; routes and groups from each VRF;
  // sources from each group (subscriptions follow the entities as they appear).
  std::set<std::string> levels;
  std::map<const void*, std::unique_ptr<Reactor>> watches;
  auto watch = [&](Oro::Entity* e, std::function<void(Oro::AttrId, const void*)> fn) {
    if (!e || watches.count(e)) return;
    auto& r = watches[e] = std::make_unique<Reactor>();
    r->fn = std::move(fn);
    r->notifierIs(e);
  };
  auto onGroup = [&](Oro::AttrId a, const void*) {
    levels.insert(a == MvpnGroup::sharedTreeAttr ? "sharedTree" : "sourceTree");
  };
  Oro::KeyReactor<VrfId> onVrf(MvpnRouteStatus::vrfRouteStatusAttr, [&](const VrfId& v) {
    levels.insert("vrf");
    auto vrf = reader->vrfRouteStatus(v);
    watch(vrf.get(), [&, vrf = vrf.get()](Oro::AttrId a, const void* k) {
      levels.insert(a == MvpnVrfRouteStatus::mvpnRouteAttr ? "route" : "group");
      if (a == MvpnVrfRouteStatus::mvpnGroupAttr) {
        watch(vrf->mvpnGroup(*static_cast<const IpGenAddr*>(k)).get(), onGroup);
      }
    });
    if (v == VrfId(100)) sched.stop();
  });
  onVrf.notifierIs(reader.get());
  reader->mount(ShmAttach{path, ShmRole::reader, &sched});
  auto vrfReader = mvpnVrfStatusFactory("evpn");
  KeyLog<VrfId> vrfKeys(vrfReader.get(), MvpnVrfStatus::mvpnVrfAttr);
  vrfReader->mount(ShmAttach{vrfPath, ShmRole::reader, &sched});
  go.send();
  sched.runUntil(Oro::TaskScheduler::Clock::now() + 60s);  // ends at the marker
  // A resynchronising walk may report the marker before changes still in the log.
  sched.runUntilIdle();
  // Each VRF key written was told, also those deleted since, and lookups find the records.
  const std::set<VrfId> told(vrfKeys.keys.begin(), vrfKeys.keys.end());
  for (uint32_t k = 1; k < 200; ++k) {
    EXPECT_TRUE(told.count(VrfId(k))) << k;
    EXPECT_EQ(vrfReader->mvpnVrf(VrfId(k)),
              k % 2 ? std::optional<MvpnVrf>(MvpnVrf(VrfId(k), evpn_)) : std::nullopt);
  }
  EXPECT_GE(vrfReader->notifyCounter().value(), told.size());
  ASSERT_TRUE(reader->vrfRouteStatus(VrfId(100)));
  // The writer's tree as the reader sees it equals the tree a second, fresh reader rebuilds.
  auto fresh = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {path, ShmRole::reader});
  EXPECT_TRUE(copyOf(*reader) == copyOf(*fresh));
  EXPECT_EQ(levels, (std::set<std::string>{"vrf", "route", "group", "sharedTree", "sourceTree"}));
  for (auto& [k, w] : watches) w->notifierIs(nullptr);
  done.send();
  EXPECT_EQ(shmtest::waitChild(writer), 0);
}

TEST_F(RouteStatusTest, AWriterKilledInNestedWritesLeavesAConsistentTreeToTakeOver) {
  for (const auto point : {Oro::ShmFaultPoint::entityRemoved, Oro::ShmFaultPoint::pageLinked,
                           Oro::ShmFaultPoint::insertCommitted, Oro::ShmFaultPoint::removeFreed}) {
    SCOPED_TRACE(static_cast<int>(point));
    const std::string path = fmt::format("t/killed{}", static_cast<int>(point));
    const pid_t writer = shmtest::forkChild([&] {
      auto root = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {path, ShmRole::writer});
      std::mt19937 rng(5);
      changeTree(*root, rng, 300);
      shmtest::faultAt(point, 3);
      changeTree(*root, rng, 100000);
      return 1;
    });
    ASSERT_EQ(shmtest::waitChild(writer), 128 + SIGKILL);
    // Whole records, members only under live parents, counts that agree with walks.
    auto reader = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {path, ShmRole::reader});
    for (auto v = reader->vrfRouteStatusIter(); v.valid(); v.next()) {
      auto vrf = v.value();
      size_t groups = 0;
      for (auto g = vrf->mvpnGroupIter(); g.valid(); g.next(), ++groups) {
        size_t n = 0;
        for (auto s = g.value()->sharedTreeIter(); s.valid(); s.next()) ++n;
        EXPECT_EQ(n, g.value()->sharedTreeSize());
      }
      EXPECT_EQ(groups, vrf->mvpnGroupSize());
    }
    const TreeCopy before = copyOf(*reader);
    auto taken = shmtest::mounted(mvpnRouteStatusFactory("bgp"), {path, ShmRole::writer});
    EXPECT_TRUE(copyOf(*taken) == before);
    std::mt19937 rng(6);
    changeTree(*taken, rng, 500);
  }
}

}  // namespace
}  // namespace Routing::Multicast
