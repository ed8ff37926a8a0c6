// MvpnVrfStatus and MvpnIntfStatus: mount paths, mutators with their counters and
// notifications, old values, control handover, dumps, creation, corruption handling, and a
// reader in another process. Their records MvpnVrf and MvpnVrfIntfId: equality, order, text
// and value forms, wire forms and their error cases.
#include <fcntl.h>
#include <sys/mman.h>
#include <unistd.h>

#include <regex>
#include <set>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "common/notice_log.h"
#include "common/shm_test_util.h"
#include "platform/Error.h"
#include "platform/runtime/EntityDirectory.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmSegment.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnVrfStatus.h"

namespace Routing::Multicast {
namespace {

using ::testing::HasSubstr;

using Oro::ShmAttach;
using Oro::ShmRole;
using shmtest::KeyLog;
using Vrf::VrfIdMap::VrfId;
using namespace std::chrono_literals;

std::string exactly(const std::string& text) {
  static const std::regex special(R"([.^$|()\[\]{}*+?\\])");
  return std::regex_replace(text, special, R"(\$&)");
}

class VrfStatusTest : public shmtest::ShmTest {};
using VrfStatusDeathTest = VrfStatusTest;

TEST_F(VrfStatusDeathTest, MountPathsAndTheClientsAndFamiliesTheyRejectDeathTest) {
  EXPECT_EQ(MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_),
            "routing/multicast/vpn/vrfStatus/bgp");
  EXPECT_EQ(MvpnVrfStatus::mountPath(Nevo::ipv6, MvpnClient::staticEvpn_),
            "routing6/multicast/vpn/vrfStatus/staticEvpn");
  EXPECT_EQ(MvpnIntfStatus::mountPath(), "routing/multicast/vpn/intfStatus");
  EXPECT_DEATH(MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::pimBidir_),
               exactly("( client == MvpnClient::bgp_ || client == MvpnClient::staticMvpn_ || "
                       "client == MvpnClient::evpn_ || client == MvpnClient::staticEvpn_ ) && "
                       "\"Unexpected writer agent\""));
  // The client is checked before the family.
  EXPECT_DEATH(MvpnVrfStatus::mountPath(Nevo::ipunknown, static_cast<MvpnClient>(9)),
               exactly("\"Unexpected writer agent\""));
  EXPECT_DEATH(MvpnVrfStatus::mountPath(static_cast<Nevo::AddressFamily>(3), MvpnClient::evpn_),
               exactly("false && \"Unsupported address family\""));
}

TEST_F(VrfStatusTest, MutatorsCountAndAnnounce) {
  auto s = mvpnVrfStatusFactory("bgp");
  KeyLog<VrfId> seen(s.get(), MvpnVrfStatus::mvpnVrfAttr);
  s->mvpnVrfIs(MvpnVrf(VrfId(5), MvpnClient::evpn_));
  s->mvpnVrfIs(MvpnVrf(VrfId(5), MvpnClient::evpn_));  // unchanged: announced anyway
  s->mvpnVrfIs(MvpnVrf(VrfId(6)));
  EXPECT_EQ(s->mvpnVrfSize(), 2u);
  EXPECT_EQ(s->mvpnVrf(VrfId(5)), MvpnVrf(VrfId(5), MvpnClient::evpn_));
  EXPECT_EQ(s->mvpnVrf(VrfId(7)), std::nullopt);

  EXPECT_EQ(s->mvpnVrfDel(VrfId(7)), MvpnVrf());  // absent: the default record
  EXPECT_EQ(s->mvpnVrfDel(VrfId(6)), MvpnVrf(VrfId(6)));

  MvpnVrf& staged = s->mvpnVrfDirectWrite();
  staged = MvpnVrf(VrfId(8), MvpnClient::staticMvpn_);
  s->mvpnVrfCommit(&staged);
  EXPECT_EQ(s->mvpnVrf(VrfId(8)), MvpnVrf(VrfId(8), MvpnClient::staticMvpn_));
  s->mvpnVrfNotify(VrfId(42));

  EXPECT_EQ(seen.keys, (std::vector<VrfId>{5, 5, 6, 6, 8, 42}));
  EXPECT_EQ(s->isCounter().value(), 4u);
  EXPECT_EQ(s->delCounter().value(), 2u);
  EXPECT_EQ(s->notifyCounter().value(), 6u);
  EXPECT_EQ(s->isCounter().name(), "mvpnVrfIs");
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
}

TEST_F(VrfStatusTest, OldValuesAreDeliveredInThatModeOnly) {
  auto s = mvpnVrfStatusFactory("x");
  shmtest::ChangeLog<VrfId, MvpnVrf> rec(s.get(), MvpnVrfStatus::mvpnVrfAttr);
  // A subscriber of keys alone hears each change once, in either mode.
  KeyLog<VrfId> keys(s.get(), MvpnVrfStatus::mvpnVrfAttr);
  s->mvpnVrfIs(MvpnVrf(VrfId(1)));
  EXPECT_TRUE(rec.changes.empty());
  s->oldValuesIs(true);
  const MvpnVrf one(VrfId(1)), oneEvpn(VrfId(1), MvpnClient::evpn_);
  s->mvpnVrfIs(oneEvpn);
  s->mvpnVrfIs(MvpnVrf(VrfId(2)));
  s->mvpnVrfDel(VrfId(1));
  s->mvpnVrfDel(VrfId(3));
  EXPECT_EQ(rec.changes, (std::vector<decltype(rec)::Change>{{1, one, oneEvpn},
                                                             {2, std::nullopt, MvpnVrf(VrfId(2))},
                                                             {1, oneEvpn, std::nullopt}}));
  EXPECT_EQ(keys.keys, (std::vector<VrfId>{1, 1, 2, 1}));
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

  s->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_), ShmRole::writer});
  EXPECT_EQ(control->mountStatus(), TylKetab::MountStatus::mounted);
  s->binding().quiescedIs(true);
  EXPECT_TRUE(control->quiesced());

  auto r = mvpnVrfStatusFactory("bgp");
  r->mount(ShmAttach{MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::bgp_), ShmRole::reader});
  Oro::Ptr<TylKetab::CollectionControl> rc = r->mvpnVrfControl();
  std::vector<Oro::AttrId> rcChanges;
  Oro::AttrReactor onControl([&](Oro::AttrId a) { rcChanges.push_back(a); });
  onControl.notifierIs(rc.get());
  while (r->binding().reader()->hasPending()) r->binding().reader()->dispatch();
  EXPECT_EQ(rc->mountStatus(), TylKetab::MountStatus::mounted);
  EXPECT_TRUE(rc->quiesced());
  EXPECT_EQ(rcChanges, (std::vector<Oro::AttrId>{TylKetab::CollectionControl::mountStatusAttr,
                                                 TylKetab::CollectionControl::quiescedAttr}));
  onControl.notifierIs(nullptr);

  s->mvpnVrfControlIs(Oro::makePtr<TylKetab::CollectionControl>());
  EXPECT_EQ(controlChanges, 1);
  EXPECT_NE(s->mvpnVrfControl(), control);
  onRoot.notifierIs(nullptr);
}

TEST_F(VrfStatusTest, Dumps) {
  auto s = mvpnVrfStatusFactory("x");
  Oro::DumpContext empty;
  s->dumpState(empty, 0);
  EXPECT_EQ(empty.str(), "MvpnVrfStatus #0:\n");
  s->mvpnVrfIs(MvpnVrf(VrfId(3), MvpnClient::evpn_));
  s->mvpnVrfIs(MvpnVrf(VrfId(4)));
  Oro::DumpContext dc;
  s->dumpState(dc, 2);
  const std::string text = dc.str();
  EXPECT_EQ(text.substr(0, 19), "  MvpnVrfStatus #2:");
  EXPECT_THAT(text, HasSubstr("\n    VRF 3\n"));
  EXPECT_THAT(text, HasSubstr("\n    VRF 4\n"));
  Oro::DumpContext pm;
  pm.postMortemIs(true);
  s->dumpState(pm, 3);
  EXPECT_EQ(pm.str(), "   MvpnVrfStatus not in core file\n");
}

bool ownerListed(const std::string& owner) {
  for (const auto& c : Oro::CounterRegistry::global().list()) {
    if (c.owner == owner) return true;
  }
  return false;
}

TEST_F(VrfStatusTest, LastReferenceHandsTheRootToItsControl) {
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
}

TEST_F(VrfStatusTest, CreationByFactoryAndDirectory) {
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

TEST_F(VrfStatusTest, CorruptionDuringWalksEndsThemQuietly) {
  auto s = mvpnVrfStatusFactory("bgp");
  std::vector<std::string> reports;
  s->mvpnVrfCorruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  s->mount(ShmAttach{"c/vrf", ShmRole::writer});
  s->mvpnVrfIs(MvpnVrf(VrfId(1)));
  ASSERT_TRUE(shmtest::damageTable("c/vrf", "mvpnVrf"));
  s->mvpnVrfDelAll();
  ASSERT_EQ(reports.size(), 1u);
  EXPECT_THAT(reports[0], HasSubstr("corrupt"));
  Oro::DumpContext dc;
  s->dumpState(dc, 0);
  EXPECT_EQ(dc.str(), "MvpnVrfStatus #1:\n");
  EXPECT_EQ(reports.size(), 2u);

  auto i = mvpnIntfStatusFactory("intf");
  i->vrfIntfIdCorruptionHandlerIs([&](const std::string& m) { reports.push_back(m); });
  i->mount(ShmAttach{MvpnIntfStatus::mountPath(), ShmRole::writer});
  i->vrfIntfIdIs(MvpnVrfIntfId(VrfId(1), Nevo::IntfId::vlan(5)));
  ASSERT_TRUE(shmtest::damageTable(MvpnIntfStatus::mountPath(), "vrfIntfId"));
  EXPECT_FALSE(i->isPmsiIntfId(Nevo::IntfId::vlan(5)));
  EXPECT_EQ(reports.size(), 3u);
}

TEST_F(VrfStatusDeathTest, CorruptionDuringAWriteIsFatalAfterTheHandlerDeathTest) {
  auto s = mvpnVrfStatusFactory("bgp");
  s->mvpnVrfCorruptionHandlerIs(
      [](const std::string& m) { fprintf(stderr, "handler saw: %s\n", m.c_str()); });
  // Death tests run the test again in a new process: each process damages a store of its own.
  const std::string path = fmt::format("c/write{}", ::getpid());
  s->mount(ShmAttach{path, ShmRole::writer});
  s->mvpnVrfIs(MvpnVrf(VrfId(1)));
  ASSERT_TRUE(shmtest::damageTable(path, "mvpnVrf"));
  EXPECT_DEATH(s->mvpnVrfIs(MvpnVrf(VrfId(2))),
               "handler saw: .*corrupt(.|\n)*write of mvpnVrf met a corrupt shared memory table");
  EXPECT_DEATH(s->mvpnVrfDel(VrfId(1)),
               "handler saw: .*corrupt(.|\n)*removal of mvpnVrf met a corrupt shared memory");
}

TEST_F(VrfStatusTest, IntfStatusPmsiLookupAndDeletion) {
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
}

TEST_F(VrfStatusTest, ReaderInAnotherProcessPublishesTheWritersKeys) {
  const std::string path = MvpnVrfStatus::mountPath(Nevo::ipv4, MvpnClient::evpn_);
  shmtest::Pipe ready, go;
  const pid_t child = shmtest::forkChild([&] {
    auto w = mvpnVrfStatusFactory("evpn");
    w->mvpnVrfIs(MvpnVrf(VrfId(1), MvpnClient::evpn_));  // before mounting
    w->mount(ShmAttach{path, ShmRole::writer});
    ready.send();
    if (!go.receive()) return 3;
    for (uint32_t k = 2; k < 200; ++k) w->mvpnVrfIs(MvpnVrf(VrfId(k), MvpnClient::evpn_));
    for (uint32_t k = 2; k < 200; k += 2) w->mvpnVrfDel(VrfId(k));
    w->mvpnVrfIs(MvpnVrf(VrfId(1000), MvpnClient::evpn_));
    return 0;
  });
  ASSERT_TRUE(ready.receive());
  Oro::TaskScheduler sched;
  auto r = mvpnVrfStatusFactory("evpn");
  std::set<VrfId> seen;
  // The first dispatch's walk may report a key written after the walk began (1000) before
  // earlier changes still in the log: it is done when every key was heard of.
  Oro::KeyReactor<VrfId> reactor(MvpnVrfStatus::mvpnVrfAttr, [&](const VrfId& k) {
    seen.insert(k);
    if (seen.size() == 200) sched.stop();
  });
  reactor.notifierIs(r.get());
  r->mount(ShmAttach{path, ShmRole::reader, &sched});
  go.send();
  sched.runUntil(Oro::TaskScheduler::Clock::now() + 20s);
  EXPECT_EQ(shmtest::waitChild(child), 0);
  ASSERT_TRUE(seen.count(VrfId(1000)));
  for (uint32_t k = 1; k < 200; ++k) {
    EXPECT_TRUE(seen.count(VrfId(k))) << k;
    const bool present = k == 1 || k % 2 == 1;
    EXPECT_EQ(
        r->mvpnVrf(VrfId(k)),
        present ? std::optional<MvpnVrf>(MvpnVrf(VrfId(k), MvpnClient::evpn_)) : std::nullopt);
  }
  EXPECT_GE(r->notifyCounter().value(), seen.size());
  reactor.notifierIs(nullptr);
}

using Bytes = std::vector<uint8_t>;
using ::testing::Property;
using ::testing::StrEq;
using ::testing::Throws;
using ::testing::ThrowsMessage;

Bytes bytesOf(const Oro::PbWriteBuffer& b) {
  return Bytes(b.data(), b.data() + b.size());
}

// Parses a value form as a record of type R; a range error must name `attribute`.
template <class R>
void expectBadAttribute(const char* text, const char* attribute) {
  using E = Oro::DeserializationException;
  EXPECT_THAT(
      [text] {
        Oro::CharRange in(text);
        R{in};
      },
      Throws<E>(Property(&E::attribute, attribute)))
      << text;
}

template <class R>
void expectWireError(const Bytes& bytes) {
  EXPECT_THAT(
      [&] {
        Oro::PbReadBuffer in(bytes);
        R got;
        constructFromPbMessage(&got, in);
      },
      ThrowsMessage<Oro::ProtobufReadException>(
          StrEq("Unexpected error when reading Protobuf bytes")));
}

// One embedded message holding a single field `number` of wire type `wireType`.
Bytes messageWithField(uint32_t number, uint8_t wireType) {
  Oro::PbWriteBuffer out;
  auto s = out.openSection();
  out.writeTag(number, wireType);
  if (wireType == Oro::kPbVarint) {
    out.writeVarint(5);
  } else {
    out.writeLengthDelimited(std::string_view("a"));
  }
  out.closeSection(s);
  return bytesOf(out);
}

TEST(MvpnVrfTest, EqualityOrderTextDumpAndValueForm) {
  const MvpnVrf def;
  EXPECT_EQ(def.key(), VrfId(16777215));
  EXPECT_EQ(def.client(), MvpnClient::bgp_);
  const MvpnVrf a(VrfId(12), MvpnClient::evpn_), b(VrfId(12), MvpnClient::staticMvpn_);
  EXPECT_FALSE(a.isEq(b));
  EXPECT_LT(b, a);  // same key: client decides
  EXPECT_LT(MvpnVrf(VrfId(3), MvpnClient::staticEvpn_), b);
  EXPECT_EQ(a.toStrep(), "12");
  EXPECT_EQ(a.toStrep(), b.toStrep());  // the client is not part of the text
  Oro::DumpContext dc;
  a.dumpState(dc, 0);
  a.dumpState(dc, 4);
  EXPECT_EQ(dc.str(), "VRF 12\n    VRF 12\n");

  // The value form carries the client.
  const MvpnVrf c(VrfId(12), MvpnClient::staticEvpn_);
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
  writeMessage(out, MvpnVrf(VrfId(7), MvpnClient::bgp_));
  EXPECT_EQ(bytesOf(out), (Bytes{0xB0, 0xD5, 0x07, 0x07, 0xC0, 0xE6, 0x0F, 0x00}));

  Oro::PbWriteBuffer framed;
  const MvpnVrf v(VrfId(300), MvpnClient::staticEvpn_);
  writePbMessage(framed, v);
  framed.writeVarint(99);  // something after the message
  Oro::PbReadBuffer in(framed.bytes());
  MvpnVrf got;
  constructFromPbMessage(&got, in);
  EXPECT_EQ(got, v);
  EXPECT_EQ(in.readVarint(), 99u);

  // Only the client field: the key keeps its default. An unknown field in between is skipped.
  Oro::PbWriteBuffer partial;
  auto s = partial.openSection();
  partial.writeTag(20000, Oro::kPbLengthDelimited);
  partial.writeLengthDelimited(std::string_view("zz"));
  partial.writeTag(MvpnVrf::kClientField, Oro::kPbVarint);
  partial.writeVarint(0x103);  // truncated to 8 bits: 3
  partial.closeSection(s);
  Oro::PbReadBuffer pin(partial.bytes());
  constructFromPbMessage(&got, pin);
  EXPECT_EQ(got, MvpnVrf(VrfId(16777215), MvpnClient::evpn_));

  // A zero length reads nothing.
  const Bytes empty{0x00};
  Oro::PbReadBuffer ein(empty);
  MvpnVrf keep(VrfId(5), MvpnClient::evpn_);
  readMessage(ein, keep);
  EXPECT_EQ(keep, MvpnVrf(VrfId(5), MvpnClient::evpn_));
  EXPECT_TRUE(ein.atEnd());

  // Bad bytes raise.
  const Bytes keyAsBytes = messageWithField(MvpnVrf::kKeyField, Oro::kPbLengthDelimited);
  expectWireError<MvpnVrf>(keyAsBytes);
  Oro::PbReadBuffer cin(keyAsBytes);
  EXPECT_THROW(readMessageField(cin, MvpnVrf::kClientField, Oro::kPbFixed32, got),
               Oro::ProtobufReadException);
  // A length that runs past the buffer; the record is left as it was.
  const Bytes truncated{0x08, 0xB0, 0xD5, 0x07, 0x07};
  Oro::PbReadBuffer tin(truncated);
  MvpnVrf t(VrfId(1), MvpnClient::evpn_);
  EXPECT_THROW(readMessage(tin, t), Oro::ProtobufReadException);
  EXPECT_EQ(t, MvpnVrf(VrfId(1), MvpnClient::evpn_));
}

TEST(MvpnVrfIntfIdTest, ValuesTextAndWireForms) {
  const MvpnVrfIntfId def;
  EXPECT_EQ(def.key(), VrfId(16777215));
  EXPECT_TRUE(def.pmsiIntfId().empty());
  const MvpnVrfIntfId a(VrfId(4), Nevo::IntfId::vlan(10)), b(VrfId(4), Nevo::IntfId::vlan(11));
  EXPECT_LT(a, b);
  EXPECT_LT(MvpnVrfIntfId(VrfId(3), Nevo::IntfId::vlan(99)), a);
  EXPECT_FALSE(a.isEq(b));

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
  expectWireError<MvpnVrfIntfId>(messageWithField(MvpnVrfIntfId::kPmsiIntfIdField, Oro::kPbVarint));
}

}  // namespace
}  // namespace Routing::Multicast
