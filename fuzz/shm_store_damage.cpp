// Shared-memory stores damaged from the outside: the input overwrites, flips or cuts bytes of
// the segments of a route status tree (nested entities), of a tunnel encapsulation status
// (records with strings) or of a VRF status (one flat collection), as any process with write
// access to /dev/shm could. Then the
// integrity check, the store listing and two readers go over the store: one mounted afterwards
// (walks and dumps every level), one that was following it before the damage (dispatches
// whatever the damaged change log claims). None of them may crash, hang, read outside a
// segment or raise anything but the shared-memory exceptions; damage is reported, not obeyed.
//
// The stores are written once by a child process that then exits (a dead writer, as after a
// crash); every input starts from their pristine bytes again. When the input asks for it, a
// writer in this process has taken the store over before the damage and goes on writing into
// it afterwards: its writes either succeed or report the damage (the corruption handler, with
// a shared-memory exception behind it), and the writer can still be put away.
#include <fcntl.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <map>
#include <string>
#include <vector>

#include "FuzzCheck.h"
#include "merge/MvpnTunnelEncapStatus.h"
#include "platform/DumpContext.h"
#include "platform/Error.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmStoreInfo.h"
#include "platform/shm/ShmVerify.h"
#include "status/MvpnRouteStatus.h"
#include "status/MvpnVrfStatus.h"

namespace {

using namespace Routing::Multicast;
using Nevo::IpGenAddr;
using Nevo::IpGenPrefix;
using Oro::ShmAttach;
using Oro::ShmRole;
using Vrf::VrfIdMap::VrfId;

constexpr const char* kTreePath = "fuzz/tree";
constexpr const char* kEncapPath = "fuzz/encap";
constexpr const char* kVrfPath = "fuzz/vrf";
constexpr size_t kPage = 4096;

IpGenAddr v4(uint32_t a) {
  return IpGenAddr::ipv4Addr(a);
}

// A status root mounted as the writer at `path`, with a short change log.
template <class Root>
Oro::Ptr<Root> writerAt(Oro::Ptr<Root> root, const char* path) {
  root->mount(ShmAttach{path, ShmRole::writer, nullptr, 0600, 64});
  return root;
}

// A tree with every level populated, some of it deleted again (free slots, freed pages).
void writeTree() {
  auto root = writerAt(mvpnRouteStatusFactory("bgp"), kTreePath);
  for (uint32_t v = 1; v <= 5; ++v) {
    auto vrf = root->vrfRouteStatusIs(VrfId(v));
    for (uint32_t g = 0; g < 4; ++g) {
      const IpGenAddr group = v4(0xef000000 + g);
      for (uint32_t s = 0; s < 3 + v; ++s) {
        vrf->mvpnSourceIs(group, v4(0x0a000000 + s), IpGenPrefix(v4(0x0a000000), 8), s % 2,
                          MvpnSource::SourceFlags(s % 8));
      }
      vrf->mvpnRouteIs(MvpnRoute(MvpnRouteKey(v4(0x0a000000 + g), group, g % 2),
                                 IpGenPrefix(v4(0x0b000000), 16), {}));
    }
    vrf->mvpnSourceDel(v4(0xef000001), v4(0x0a000001), true);
    vrf->mvpnGroupDel(v4(0xef000002));
  }
  root->vrfRouteStatusDel(VrfId(3));
}

void writeEncap() {
  auto status = writerAt(mvpnTunnelEncapStatusFactory("fuzzEncap"), kEncapPath);
  for (uint32_t v = 1; v <= 4; ++v) {
    auto vrf = status->vrfStatusIs(VrfId(v));
    for (uint32_t i = 0; i < 6; ++i) {
      const MvpnRouteKey key(v4(0x0a000000 + i), v4(0xef000000 + v), i % 2);
      vrf->encapTunnelIs(MvpnEncapTunnel(key, std::string(i * 9 + v, char('a' + i))));
      vrf->encapIntfTunnelIs(
          MvpnEncapIntfTunnel(MvpnRouteIntfKey(key, Nevo::IntfId::ethernet(i + 1)), "x"));
    }
    vrf->encapTunnelIs(MvpnEncapTunnel(MvpnRouteKey(v4(0x0a000001), v4(0xef000000 + v), true),
                                       std::string(300, 'r')));  // a replace with a longer string
    vrf->encapTunnelDel(MvpnRouteKey(v4(0x0a000002), v4(0xef000000 + v), false));
  }
  // A value kept in pieces (an index block and two 64 KiB blocks).
  status->vrfStatus(VrfId(1))->encapTunnelIs(MvpnEncapTunnel(
      MvpnRouteKey(v4(0x0a000009), v4(0xef000001), false), std::string(70000, 'p')));
  status->vrfStatusDel(VrfId(2));
}

void writeVrfs() {
  auto status = writerAt(mvpnVrfStatusFactory("bgp"), kVrfPath);
  for (uint32_t v = 1; v <= 600; ++v) status->mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient(v % 5)));
  for (uint32_t v = 1; v <= 600; v += 7) status->mvpnVrfDel(VrfId(v));
}

// One segment's pristine image: its size and its pages that are not all zero.
struct Segment {
  std::string path;  // under /dev/shm
  off_t size = 0;
  std::map<size_t, std::string> pages;
};

// The segments of the store whose header is named `prefix` (the namespace's entries).
std::vector<std::string> segmentsOf(const std::string& prefix) {
  std::vector<std::string> out;
  for (const std::string& n : Oro::shmNamespaceEntries()) {
    if (n.rfind(prefix, 0) == 0) out.push_back(std::string(Oro::kShmDirectory) + "/" + n);
  }
  return out;
}

std::vector<Segment> snapshot(const std::string& prefix) {
  std::vector<Segment> out;
  for (const std::string& path : segmentsOf(prefix)) {
    Segment s;
    s.path = path;
    const int fd = ::open(s.path.c_str(), O_RDONLY);
    struct stat st {};
    if (fd < 0 || ::fstat(fd, &st) != 0) std::abort();
    s.size = st.st_size;
    std::string page(kPage, '\0');
    for (off_t at = 0; at < s.size; at += kPage) {
      const ssize_t n = ::pread(fd, page.data(), kPage, at);
      if (n <= 0) std::abort();
      if (std::any_of(page.begin(), page.begin() + n, [](char c) { return c != 0; })) {
        s.pages[static_cast<size_t>(at / kPage)] = page.substr(0, static_cast<size_t>(n));
      }
    }
    ::close(fd);
    out.push_back(std::move(s));
  }
  return out;
}

struct Stores {
  std::vector<Segment> tree, encap, vrf;
};

const Stores& stores() {
  static const Stores s = [] {
    // Written by a child that exits: the stores' writer is dead, as after a crash.
    Oro::shmUnlinkNamespace();  // what an earlier run left behind
    const pid_t pid = ::fork();
    if (pid == 0) {
      writeTree();
      writeEncap();
      writeVrfs();
      ::_exit(0);
    }
    int status = 0;
    if (pid < 0 || ::waitpid(pid, &status, 0) != pid || !WIFEXITED(status) ||
        WEXITSTATUS(status) != 0) {
      std::abort();
    }
    Stores out{snapshot(Oro::shmStoreName(kTreePath).substr(1)),
               snapshot(Oro::shmStoreName(kEncapPath).substr(1)),
               snapshot(Oro::shmStoreName(kVrfPath).substr(1))};
    if (out.tree.empty() || out.encap.empty() || out.vrf.empty()) std::abort();
    return out;
  }();
  return s;
}

// The damage an input does, remembered so that the next input starts from pristine bytes.
struct Damage {
  const Segment* seg;
  size_t from, to;  // bytes to restore; `cut`: the file was shortened at `from`
  bool cut;
};

// Writes page p of the segment's pristine image (zeros where it had none) through fd.
void writePage(int fd, const Segment& seg, size_t p) {
  static const std::string zeros(kPage, '\0');
  const auto it = seg.pages.find(p);
  const std::string& bytes = it == seg.pages.end() ? zeros : it->second;
  const size_t n = std::min(bytes.size(), static_cast<size_t>(seg.size) - p * kPage);
  if (::pwrite(fd, bytes.data(), n, static_cast<off_t>(p * kPage)) != static_cast<ssize_t>(n)) {
    std::abort();
  }
}

void restore(const std::vector<Damage>& done) {
  for (const Damage& d : done) {
    const int fd = ::open(d.seg->path.c_str(), O_RDWR);
    if (fd < 0) std::abort();
    if (d.cut && ::ftruncate(fd, d.seg->size) != 0) std::abort();
    for (size_t p = d.from / kPage; p * kPage < d.to; ++p) writePage(fd, *d.seg, p);
    ::close(fd);
  }
}

// After a writer took the store over (which may rebuild it under new names and remove
// segments it no longer uses): every segment of the store as it was, nothing else.
void restoreAll(const std::string& prefix, const std::vector<Segment>& segs) {
  for (const std::string& path : segmentsOf(prefix)) ::unlink(path.c_str());
  for (const Segment& seg : segs) {
    const int fd = ::open(seg.path.c_str(), O_RDWR | O_CREAT | O_EXCL, 0600);
    if (fd < 0 || ::ftruncate(fd, seg.size) != 0) std::abort();
    for (const auto& page : seg.pages) writePage(fd, seg, page.first);
    ::close(fd);
  }
}

// Input: a selector byte (the store; whether a writer takes it over afterwards), then operations of
// [segment, kind, offset (4 bytes), length, bytes...]. Kinds: write the bytes, XOR them in, write
// an extreme 32-bit word, shorten.
std::vector<Damage> damage(const std::vector<Segment>& segs, const uint8_t* data, size_t size) {
  std::vector<Damage> done;
  size_t i = 0;
  while (i + 7 <= size && done.size() < 8) {
    const Segment& seg = segs[data[i] % segs.size()];
    const uint8_t kind = data[i + 1] % 4;
    uint32_t offset;
    std::memcpy(&offset, data + i + 2, 4);
    const size_t len = std::min<size_t>(data[i + 6] % 17, size - i - 7);
    const uint8_t* bytes = data + i + 7;
    i += 7 + len;
    if (seg.size == 0) continue;
    // Half of the offsets land in the first page (headers, control words), where damage
    // matters most.
    const size_t at = (offset & 1) ? (offset >> 1) % std::min<size_t>(kPage, seg.size)
                                   : (offset >> 1) % static_cast<size_t>(seg.size);
    const int fd = ::open(seg.path.c_str(), O_RDWR);
    if (fd < 0) std::abort();
    if (kind == 3) {
      if (::ftruncate(fd, static_cast<off_t>(at)) != 0) std::abort();
      done.push_back({&seg, at, static_cast<size_t>(seg.size), true});
    } else {
      struct stat st {};  // an earlier operation may have shortened the segment
      if (::fstat(fd, &st) != 0) std::abort();
      const size_t end = static_cast<size_t>(st.st_size);
      const size_t n = at < end ? std::min<size_t>(kind == 2 ? 4 : len, end - at) : 0;
      std::string now(n, '\0');
      if (::pread(fd, now.data(), n, static_cast<off_t>(at)) != static_cast<ssize_t>(n)) {
        std::abort();
      }
      for (size_t k = 0; k < n; ++k) {
        const uint8_t b = k < len ? bytes[k] : 0;
        if (kind == 0) now[k] = static_cast<char>(b);
        if (kind == 1) now[k] = static_cast<char>(now[k] ^ b);
      }
      if (kind == 2) {
        static constexpr uint32_t extremes[] = {0,          1,          0x7fffffff,
                                                0x80000000, 0xffffffff, 0xfffffffe};
        const uint32_t w = extremes[(len ? bytes[0] : 0) % std::size(extremes)];
        std::memcpy(now.data(), &w, std::min<size_t>(n, 4));
      }
      if (::pwrite(fd, now.data(), n, static_cast<off_t>(at)) != static_cast<ssize_t>(n)) {
        std::abort();
      }
      done.push_back({&seg, at, at + n, false});
    }
    ::close(fd);
  }
  return done;
}

void walkTree(const MvpnRouteStatus& root) {
  for (auto v = root.vrfRouteStatusIter(); v.valid(); v.next()) {
    auto vrf = v.value();
    if (!vrf) continue;
    (void)vrf->mvpnRouteSize();
    for (auto r = vrf->mvpnRouteIter(); r.valid(); r.next()) (void)r.value().toStrep();
    for (auto g = vrf->mvpnGroupIter(); g.valid(); g.next()) {
      auto group = g.value();
      if (!group) continue;
      (void)group->sharedTreeSize();
      for (auto s = group->sharedTreeIter(); s.valid(); s.next()) (void)s.value().toStrep();
      for (auto s = group->sourceTreeIter(); s.valid(); s.next()) (void)s.value().toStrep();
      (void)vrf->mvpnSource(group->group(), v4(0x0a000001), true);
    }
  }
  Oro::DumpContext dc;
  root.dumpState(dc, 0);
}

void walkEncap(const MvpnTunnelEncapStatus& root) {
  for (auto v = root.vrfStatusIter(); v.valid(); v.next()) {
    auto vrf = v.value();
    if (!vrf) continue;
    for (auto t = vrf->encapTunnelIter(); t.valid(); t.next()) (void)t.value().toStrep();
    for (auto t = vrf->encapIntfTunnelIter(); t.valid(); t.next()) (void)t.value().toStrep();
  }
}

void walkVrfs(const MvpnVrfStatus& root) {
  (void)root.mvpnVrfSize();
  for (auto v = root.mvpnVrfIter(); v.valid(); v.next()) (void)v.value().toStrep();
  (void)root.mvpnVrf(VrfId(8));
  Oro::DumpContext dc;
  root.dumpState(dc, 0);
}

// Runs fn; the shared-memory exceptions are how damage may surface, anything else escapes.
template <class F>
void tolerating(F&& fn) {
  try {
    fn();
  } catch (const Oro::ShmCorruptionException&) {
  } catch (const Oro::ShmException&) {
  }
}

void writeSome(MvpnRouteStatus& root) {
  for (uint32_t v = 1; v <= 6; ++v) {
    auto vrf = root.vrfRouteStatusIs(VrfId(v));
    vrf->mvpnSourceIs(v4(0xef000001), v4(0x0a000009), IpGenPrefix(v4(0x0a000000), 8), true,
                      MvpnSource::SourceFlags(1));
    vrf->mvpnSourceDel(v4(0xef000000), v4(0x0a000000), false);
    vrf->mvpnGroupDel(v4(0xef000003));
  }
  root.vrfRouteStatusDel(VrfId(2));
}

void writeSome(MvpnTunnelEncapStatus& root) {
  for (uint32_t v = 1; v <= 5; ++v) {
    auto vrf = root.vrfStatusIs(VrfId(v));
    vrf->encapTunnelIs(MvpnEncapTunnel(MvpnRouteKey(v4(0x0a000003), v4(0xef000000 + v), true),
                                       std::string(100, 'n')));
    vrf->encapTunnelDel(MvpnRouteKey(v4(0x0a000004), v4(0xef000000 + v), false));
  }
  root.vrfStatusDel(VrfId(3));
}

void writeSome(MvpnVrfStatus& root) {
  for (uint32_t v = 590; v <= 700; ++v) root.mvpnVrfIs(MvpnVrf(VrfId(v), MvpnClient::evpn_));
  for (uint32_t v = 2; v <= 100; v += 3) root.mvpnVrfDel(VrfId(v));
}

// What the live writer's corruption handler raises: a writer that meets damage reports it and
// stops (in a deployed writer the report is followed by a fatal assertion).
struct WriterStopped {
  std::string what;
};

template <class Root, class Walk>
void probe(Oro::Ptr<Root> (*factory)(const std::string&), const char* name, const char* path,
           const std::vector<Segment>& segs, const uint8_t* data, size_t size, bool takeOver,
           bool live, Walk walk) {
  const auto quiet = [](const std::string&) {};
  Oro::Ptr<Root> writer;
  std::vector<Segment> taken;  // the live writer's segments, which its take-over may rename
  if (live) {
    writer = factory(name);
    writer->mount(ShmAttach{path, ShmRole::writer});
    taken = snapshot(Oro::shmStoreName(path).substr(1));
  }
  // A reader that followed the store before the damage.
  Oro::TaskScheduler sched;
  auto before = factory(name);
  before->corruptionHandlerIs(quiet);
  tolerating([&] {
    before->mount(ShmAttach{path, ShmRole::reader, &sched});
    sched.runUntilIdle();
  });

  const std::vector<Damage> done = damage(live ? taken : segs, data, size);
  tolerating([&] { (void)Oro::shmVerifyStore(path); });
  tolerating([&] { (void)Oro::shmStoreInfo(path); });
  tolerating([&] {
    sched.runUntilIdle();
    walk(*before);
  });
  tolerating([&] {
    auto after = factory(name);
    after->corruptionHandlerIs(quiet);
    after->mount(ShmAttach{path, ShmRole::reader});
    walk(*after);
  });
  if (live) {
    // The live writer goes on: every write succeeds or reports the damage. Whatever it left,
    // readers still only raise the shared-memory exceptions, and the writer can be put away.
    writer->corruptionHandlerIs([](const std::string& what) { throw WriterStopped{what}; });
    try {
      writeSome(*writer);
    } catch (const WriterStopped&) {
    } catch (const Oro::ShmCorruptionException&) {
    } catch (const Oro::ShmException&) {
    }
    writer->corruptionHandlerIs(quiet);
    tolerating([&] { (void)Oro::shmVerifyStore(path); });
    tolerating([&] {
      sched.runUntilIdle();
      walk(*before);
    });
    tolerating([&] { writer->unmount(); });
    writer = nullptr;
    before = nullptr;
    restoreAll(Oro::shmStoreName(path).substr(1), segs);
    return;
  }
  if (!takeOver) {
    before = nullptr;
    restore(done);
    return;
  }
  // A restarted writer takes the damaged store over, or rebuilds it when it finds damage:
  // either way its writes succeed and the store it leaves checks clean. The only refusal is
  // a store that names another type (which is not its to overwrite).
  bool written = false;
  try {
    auto writer = factory(name);
    writer->mount(ShmAttach{path, ShmRole::writer});
    writeSome(*writer);
    written = true;
  } catch (const Oro::ShmCorruptionException& e) {
    FUZZ_CHECK(false, std::string(e.what()));
  } catch (const Oro::ShmException& e) {
    FUZZ_CHECK(std::string_view(e.what()).find(" holds a ") != std::string_view::npos,
               std::string(e.what()));
  }
  if (written) {
    const Oro::ShmIntegrityReport r = Oro::shmVerifyStore(path);
    std::string problems;
    for (const auto& p : r.problems) problems += p.collection + ": " + p.what + "\n";
    FUZZ_CHECK(r.ok(), problems);
  }
  // The reader that lived through it all goes on.
  tolerating([&] {
    sched.runUntilIdle();
    walk(*before);
  });
  before = nullptr;
  restoreAll(Oro::shmStoreName(path).substr(1), segs);
}

}  // namespace

// The selector byte: bit 0 the tree or the encapsulation status, bits 4-5 equal to 01 the VRF
// status instead; bit 1 a writer takes the store over after the damage; bits 2-3 equal to 01
// a live writer meets the damage instead.
extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1) return 0;
  const Stores& s = stores();
  const bool takeOver = data[0] & 2;
  const bool live = (data[0] >> 2 & 3) == 1;
  if ((data[0] >> 4 & 3) == 1) {
    probe(&mvpnVrfStatusFactory, "bgp", kVrfPath, s.vrf, data + 1, size - 1, takeOver, live,
          [](const MvpnVrfStatus& r) { walkVrfs(r); });
  } else if (data[0] % 2 == 0) {
    probe(&mvpnRouteStatusFactory, "bgp", kTreePath, s.tree, data + 1, size - 1, takeOver, live,
          [](const MvpnRouteStatus& r) { walkTree(r); });
  } else {
    probe(&mvpnTunnelEncapStatusFactory, "fuzzEncap", kEncapPath, s.encap, data + 1, size - 1,
          takeOver, live, [](const MvpnTunnelEncapStatus& r) { walkEncap(r); });
  }
  return 0;
}
