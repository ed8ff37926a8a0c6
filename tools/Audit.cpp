#include "tools/Audit.h"

#include <set>
#include <string>
#include <vector>

#include <fmt/format.h>

#include "merge/MergeAudit.h"
#include "platform/Error.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmStoreInfo.h"
#include "platform/shm/ShmVerify.h"
#include "tools/MergerView.h"
#include "tools/SafeText.h"
#include "tools/StatusTypes.h"

namespace Mvpnstat {

using Routing::Multicast::AuditReport;
using Routing::Multicast::Explanation;
using Routing::Multicast::MergeAudit;

namespace {

std::string orAbsent(const std::optional<std::string>& s) {
  return s ? displayText(*s) : std::string("absent");
}
std::string jsonOrNull(const std::optional<std::string>& s) {
  return s ? jsonQuote(*s) : std::string("null");
}

// The audit of the merged status described by `m`.
const MergeAudit& auditOf(const Oro::ShmMergeState& m) {
  const MergeAudit* a = Routing::Multicast::mergeAuditFor(m.desc.machineType);
  if (!a) {
    throw Oro::Exception(fmt::format("no audit knows the merge machine {}", m.desc.machineType));
  }
  return *a;
}

}  // namespace

void explain(const std::string& path, const std::string& key, bool json) {
  const Oro::ShmStoreInfo info = Oro::shmStoreInfo(path);
  if (!info.merge) {
    throw Oro::Exception(
        fmt::format("the table at {} is not a merged status (no merge record)", path));
  }
  const Oro::ShmMergeState& m = *info.merge;
  const MergeAudit& audit = auditOf(m);
  Explanation e;
  // Blanks around the key are not part of it, at either end.
  std::string_view trimmed = key;
  while (!trimmed.empty() && (trimmed.front() == ' ' || trimmed.front() == '\t'))
    trimmed.remove_prefix(1);
  while (!trimmed.empty() && (trimmed.back() == ' ' || trimmed.back() == '\t'))
    trimmed.remove_suffix(1);
  try {
    e = audit.explain(m, path, trimmed);
  } catch (const Oro::ParseException& x) {
    throw Oro::ParseException(
        fmt::format("cannot read '{}' as {}: {}", key, audit.keySyntax(), x.what()));
  } catch (const Oro::RangeException& x) {
    throw Oro::ParseException(
        fmt::format("cannot read '{}' as {}: {}", key, audit.keySyntax(), x.what()));
  }
  if (json) {
    std::string inputs;
    for (const auto& in : e.inputs) {
      inputs += fmt::format("{}{{\"input\": {}, \"path\": {}, \"record\": {}}}",
                            inputs.empty() ? "" : ", ", jsonQuote(in.input), jsonQuote(in.path),
                            jsonOrNull(in.record));
    }
    fmt::print(
        "{{\"path\": {}, \"collection\": {}, \"key\": {}, \"rule\": {}, \"inputs\": [{}], "
        "\"winner\": {}, \"expected\": {}, \"merged\": {}, \"agrees\": {}, \"merger\": {}}}\n",
        jsonQuote(path), jsonQuote(e.collection), jsonQuote(e.key), jsonQuote(m.desc.rule), inputs,
        jsonOrNull(e.winner), jsonOrNull(e.expected), jsonOrNull(e.merged), e.agrees(),
        mergerJson(m));
    return;
  }
  fmt::print("{} {} {}\n", displayText(path), e.collection, displayText(e.key));
  fmt::print("  rule: {}\n", displayText(m.desc.rule));
  for (const auto& in : e.inputs) {
    fmt::print("  {} ({}): {}\n", displayText(in.input), displayText(in.path), orAbsent(in.record));
  }
  fmt::print("  winner: {}\n", e.winner ? displayText(*e.winner) : std::string("none"));
  fmt::print("  expected: {}\n", orAbsent(e.expected));
  fmt::print("  merged: {} ({})\n", orAbsent(e.merged), e.agrees() ? "agrees" : "DISAGREES");
  fmt::print("  merger: {}\n", m.phaseText());
}

void printNoTables() {
  fmt::print("no status tables in shared-memory namespace '{}'\n",
             displayText(Oro::shmNamespace()));
}

bool check(const std::optional<std::string>& path, bool json) {
  std::vector<Oro::ShmStoreInfo> tables;
  std::set<std::string> absent;  // inputs with no table at their path
  if (path) {
    // The merged status and, for its integrity, every input it names.
    tables.push_back(Oro::shmStoreInfo(*path));
    if (tables[0].merge) {
      if (const std::string self =
              Routing::Multicast::mergeRecordSelfInput(*tables[0].merge, *path);
          !self.empty()) {
        tables[0].problem = fmt::format("its merge record names it as its own input {}", self);
        tables[0].damaged = true;
      }
      for (const Oro::ShmMergeInput& in : tables[0].merge->desc.inputs) {
        if (in.path.empty() || in.path == *path) continue;
        if (!Oro::shmStoreExists(in.path)) {
          // Removed with its dead writer: the merger reads it as empty, and so does the audit.
          Oro::ShmStoreInfo gone;
          gone.mountPath = in.path;
          gone.problem = "no status table (an input read as empty)";
          tables.push_back(std::move(gone));
          absent.insert(in.path);
          continue;
        }
        try {
          tables.push_back(Oro::shmStoreInfo(in.path));
        } catch (const Oro::Exception& e) {
          Oro::ShmStoreInfo broken;
          broken.mountPath = in.path;
          broken.problem = e.what();
          broken.damaged = Oro::isShmDamage(e);
          tables.push_back(std::move(broken));
        }
      }
    }
  } else {
    tables = Oro::listShmStores();
  }
  bool ok = true;
  std::string jsonTables;
  for (const Oro::ShmStoreInfo& t : tables) {
    std::string line;
    std::string detail;
    std::string jsonMerge = "null";
    if (absent.contains(t.mountPath)) {
      line = t.problem;  // not a failure
    } else if (!t.problem.empty()) {
      ok = false;
      line = fmt::format("{}: {}", t.damaged ? "DAMAGED" : "unreadable", displayText(t.problem));
    } else if (t.merge) {
      const Oro::ShmMergeState& m = *t.merge;
      if (!m.ready()) {
        line = fmt::format("merger {} not ready ({}): merged entries not compared",
                           displayText(m.desc.machineType), m.phaseText());
        jsonMerge = fmt::format("{{\"ready\": false, \"phase\": {}}}", jsonQuote(m.phaseText()));
      } else {
        AuditReport r;
        try {
          r = auditOf(m).check(m, t.mountPath);
        } catch (const Oro::Exception& e) {
          // An input that cannot be read (gone, damaged, of another type): nothing compared.
          r.add({"unreadable input", "", "", "", e.what()});
        }
        if (r.problems) ok = false;
        line = fmt::format(
            "merger {} ready: {} checked, {}", displayText(m.desc.machineType),
            counted(r.keysChecked, "key"),
            r.problems ? fmt::format("{} inconsistent", r.problems) : std::string("consistent"));
        std::string findings;
        for (const auto& f : r.findings) {
          detail += f.collection.empty()
                        ? fmt::format("    {}: {}\n", f.kind, displayText(f.found))
                        : fmt::format("    {} {} {}: expected {}, found {}\n", f.kind, f.collection,
                                      displayText(f.key),
                                      f.expected.empty() ? "nothing" : displayText(f.expected),
                                      f.found.empty() ? "nothing" : displayText(f.found));
          findings += fmt::format(
              "{}{{\"kind\": {}, \"collection\": {}, \"key\": {}, \"expected\": {}, \"found\": "
              "{}}}",
              findings.empty() ? "" : ", ", jsonQuote(f.kind), jsonQuote(f.collection),
              jsonQuote(f.key), f.expected.empty() ? "null" : jsonQuote(f.expected),
              f.found.empty() ? "null" : jsonQuote(f.found));
        }
        jsonMerge = fmt::format(
            "{{\"ready\": true, \"keysChecked\": {}, \"problems\": {}, \"findings\": [{}]}}",
            r.keysChecked, r.problems, findings);
      }
    } else {
      line = "not a merged status";
    }
    // The table's own integrity: counts, index against slots, parents of nested members.
    std::string jsonIntegrity = "null";
    if (t.problem.empty()) {
      Oro::ShmIntegrityReport integrity;
      try {
        integrity = Oro::shmVerifyStore(t.mountPath);
      } catch (const Oro::ShmException& e) {
        integrity.problems.push_back({"", e.what()});
      }
      // The structure can be sound while a record holds bytes no value has.
      try {
        if (std::string damage = recordDamage(t.rootType, t.mountPath); !damage.empty()) {
          integrity.problems.push_back({"", "a record does not read back: " + damage});
        }
      } catch (const Oro::ShmException& e) {
        integrity.problems.push_back({"", e.what()});
      }
      if (!integrity.ok()) ok = false;
      std::string problems;
      for (const auto& p : integrity.problems) {
        detail += fmt::format("    integrity {}{}{}\n", displayText(p.collection),
                              p.collection.empty() ? "" : ": ", displayText(p.what));
        problems +=
            fmt::format("{}{{\"collection\": {}, \"problem\": {}}}", problems.empty() ? "" : ", ",
                        jsonQuote(p.collection), jsonQuote(p.what));
      }
      line += fmt::format("; integrity {} ({})",
                          integrity.ok() ? "ok" : counted(integrity.problems.size(), "problem"),
                          counted(integrity.recordsChecked, "record"));
      jsonIntegrity = fmt::format("{{\"records\": {}, \"ok\": {}, \"problems\": [{}]}}",
                                  integrity.recordsChecked, integrity.ok(), problems);
    }
    if (json) {
      jsonTables += fmt::format(
          "{}\n  {{\"path\": {}, \"damaged\": {}, \"problem\": {}, \"merge\": {}, \"integrity\": "
          "{}}}",
          jsonTables.empty() ? "" : ",", jsonQuote(t.mountPath), t.damaged,
          t.problem.empty() ? "null" : jsonQuote(t.problem), jsonMerge, jsonIntegrity);
    } else {
      fmt::print("{}: {}\n{}", displayText(t.mountPath), line, detail);
    }
  }
  if (tables.empty() && !json) printNoTables();
  if (json) {
    fmt::print("{{\"ok\": {}, \"tables\": [{}{}]}}\n", ok, jsonTables,
               jsonTables.empty() ? "" : "\n");
  }
  return ok;
}

}  // namespace Mvpnstat
