#include "tools/StatusTypes.h"

#include <atomic>
#include <unordered_set>

#include <fmt/format.h>

#include "platform/DumpContext.h"
#include "platform/runtime/Entity.h"
#include "platform/runtime/TaskScheduler.h"
#include "platform/shm/ShmTable.h"
#include "status/MvpnIntfStatus.h"
#include "status/MvpnVrfStatus.h"
#include "tools/SafeText.h"

namespace Mvpnstat {

using namespace Routing::Multicast;

namespace {

std::atomic<Oro::TaskScheduler*> gWatching{nullptr};

std::string recordJson(const MvpnVrf& r) {
  return fmt::format("{{\"key\": {}, \"client\": {}}}", r.key().value(),
                     jsonQuote(stringValue(r.client())));
}

std::string recordJson(const MvpnVrfIntfId& r) {
  return fmt::format("{{\"key\": {}, \"pmsiIntfId\": {}}}", r.key().value(),
                     jsonQuote(r.pmsiIntfId().toStrep()));
}

// A reader instance of Root attached to the table at `path`; unmounted when it goes.
template <class Root>
struct ReaderRoot {
  Oro::Ptr<Root> root;
  ReaderRoot(const std::string& path, Oro::TaskScheduler* scheduler) : root(new Root(path)) {
    root->mount(Oro::ShmAttach{path, Oro::ShmRole::reader, scheduler});
  }
  ~ReaderRoot() { root->unmount(); }
};

template <class Root>
void show(const std::string& path, bool json, FILE* out) {
  using Key = typename Root::Key;
  ReaderRoot<Root> r(path, nullptr);
  if (!json) {
    Oro::DumpContext dc;
    r.root->dumpState(dc, 0);
    fmt::print(out, "{}", displayText(dc.str(), true));
    return;
  }
  fmt::print(out, "{{\"path\": {}, \"type\": {}, \"records\": [", jsonQuote(path),
             jsonQuote(r.root->typeName()));
  // The walk goes by slot while the writer may move a key (delete it, insert it again into a
  // later slot): the walk can then meet it twice. The first meeting is the one listed.
  std::unordered_set<Key> listed;
  const char* sep = "";
  for (auto it = r.root->recordIter(); it.valid(); it.next()) {
    if (!listed.insert(it.key()).second) continue;
    fmt::print(out, "{}\n  {}", sep, recordJson(it.value()));
    sep = ",";
  }
  fmt::print(out, "{}]}}\n", *sep ? "\n" : "");
}

template <class Root>
uint64_t watch(const std::string& path, bool json, FILE* out, uint64_t maxChanges) {
  using Key = typename Root::Key;
  Oro::TaskScheduler scheduler;
  ReaderRoot<Root> r(path, &scheduler);
  uint64_t printed = 0;
  Oro::KeyReactor<Key> reactor(Root::recordAttr, [&](const Key& key) {
    const auto rec = r.root->record(key);
    if (json) {
      fmt::print(out, "{{\"key\": {}, \"record\": {}}}\n", jsonQuote(key.toStrep()),
                 rec ? recordJson(*rec) : std::string("null"));
    } else {
      fmt::print(out, "{}: {}\n", displayText(key.toStrep()),
                 rec ? displayText(rec->toValueForm()) : "deleted");
    }
    std::fflush(out);
    if (++printed == maxChanges) scheduler.stop();
  });
  reactor.notifierIs(r.root.get());
  gWatching.store(&scheduler);
  scheduler.run();
  gWatching.store(nullptr);
  return printed;
}

template <class Root>
StatusType makeType(const char* rootType, const char* recordType, const char* collection) {
  return StatusType{rootType, recordType, collection, &show<Root>, &watch<Root>};
}

}  // namespace

const std::vector<StatusType>& statusTypes() {
  static const std::vector<StatusType> types = {
      makeType<MvpnVrfStatus>(MvpnVrfStatusTraits::typeName, MvpnVrfStatusTraits::recordTypeName,
                              MvpnVrfStatusTraits::collection),
      makeType<MvpnIntfStatus>(MvpnIntfStatusTraits::typeName, MvpnIntfStatusTraits::recordTypeName,
                               MvpnIntfStatusTraits::collection),
  };
  return types;
}

void watchStop() {
  if (Oro::TaskScheduler* s = gWatching.load()) s->stop();
}

}  // namespace Mvpnstat
