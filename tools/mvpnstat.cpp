// mvpnstat: the operator's view of the MVPN status tables in shared memory.
//
//   mvpnstat [--namespace NS] list [--json]
//   mvpnstat [--namespace NS] show PATH [--json]
//   mvpnstat [--namespace NS] watch PATH [--json] [--count N]
//   mvpnstat [--namespace NS] explain PATH KEY [--json]
//   mvpnstat [--namespace NS] check [PATH] [--json]
//   mvpnstat [--namespace NS] remove PATH
//   mvpnstat [--namespace NS] metrics [--listen ADDRESS:PORT]
//
// Exit status: 0 success, 1 the table is absent, damaged or of another type (for remove: has
// a live writer; for check: anything inconsistent or damaged), 2 bad usage.
//
// Names read from shared memory can hold any bytes: JSON output escapes them, plain-text
// output (and every error message) shows control characters and invalid bytes visibly.
#include <cerrno>
#include <charconv>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>
#include <system_error>
#include <vector>

#include <fmt/format.h>

#include "platform/Error.h"
#include "platform/shm/ShmSegment.h"
#include "platform/shm/ShmStoreInfo.h"
#include "tools/Audit.h"
#include "tools/MergerView.h"
#include "tools/Metrics.h"
#include "tools/SafeText.h"
#include "tools/StatusTypes.h"

namespace {

using Mvpnstat::displayText;
using Mvpnstat::jsonQuote;
using Mvpnstat::StatusType;

constexpr const char* kUsage =
    "usage: mvpnstat [--namespace NS] list [--json]\n"
    "       mvpnstat [--namespace NS] show PATH [--json]\n"
    "       mvpnstat [--namespace NS] watch PATH [--json] [--count N]\n"
    "       mvpnstat [--namespace NS] explain PATH KEY [--json]\n"
    "       mvpnstat [--namespace NS] check [PATH] [--json]\n"
    "       mvpnstat [--namespace NS] remove PATH\n"
    "       mvpnstat [--namespace NS] metrics [--listen ADDRESS:PORT]\n"
    "\n"
    "  list   the status tables present, with record counts, counters and writers\n"
    "  show   the status root at mount path PATH in its dump format\n"
    "  watch  every key at PATH, then each change as it arrives (key, new record or\n"
    "         \"deleted\"), until interrupted or N lines were printed\n"
    "  explain for a merged status at PATH and one KEY: every input's record, the\n"
    "         rule's winner and whether the merged record agrees\n"
    "  check  every merged status (or the one at PATH) recomputed from its inputs, and\n"
    "         the integrity of every table; exit status 1 when anything is wrong\n"
    "  remove the table at PATH and all its segments, when its writer is dead\n"
    "  metrics every table's record counts, counters and writer in the Prometheus\n"
    "         text format; with --listen, served over HTTP at /metrics until interrupted\n";

struct Failure {
  int code;
  std::string message;
};

struct Args {
  std::string command;
  std::string path;
  std::string key;  // explain
  bool json = false;
  uint64_t count = 0;  // 0: no limit
  std::string listen;  // metrics: ADDRESS:PORT to serve at, empty: print once
};

// A --count value: a whole number from 1 to 2^64-1 in plain decimal digits. A sign, spaces,
// other characters or a number too large for 64 bits are usage errors (strtoull would take
// "-1" as 2^64-1 and " 5" as 5).
uint64_t parseCount(const std::string& v) {
  uint64_t n = 0;
  const char* end = v.data() + v.size();
  const auto [stop, ec] = std::from_chars(v.data(), end, n);
  const bool digitsOnly = !v.empty() && v.find_first_not_of("0123456789") == std::string::npos;
  if (!digitsOnly || ec != std::errc() || stop != end || n == 0) {
    throw Failure{
        2, fmt::format("--count needs a whole number from 1 to {}, not '{}'", UINT64_MAX, v)};
  }
  return n;
}

Args parseArgs(int argc, char** argv) {
  Args a;
  std::vector<std::string> positional;
  for (int i = 1; i < argc; ++i) {
    const std::string arg = argv[i];
    auto value = [&]() -> std::string {
      if (i + 1 >= argc) throw Failure{2, fmt::format("{} needs a value", arg)};
      return argv[++i];
    };
    if (arg == "--json") {
      a.json = true;
    } else if (arg == "--namespace") {
      try {
        Oro::shmNamespaceIs(value());
      } catch (const Oro::ShmException& e) {
        throw Failure{2, e.what()};
      }
    } else if (arg == "--count") {
      a.count = parseCount(value());
    } else if (arg == "--listen") {
      a.listen = value();
    } else if (arg == "-h" || arg == "--help") {
      throw Failure{0, ""};
    } else if (!arg.empty() && arg[0] == '-') {
      throw Failure{2, fmt::format("unknown option {}", arg)};
    } else {
      positional.push_back(arg);
    }
  }
  if (positional.empty()) throw Failure{2, "no command given"};
  a.command = positional[0];
  // Positional arguments after the command: PATH, PATH KEY, or an optional PATH.
  size_t minArgs = 1, maxArgs = 1;
  if (a.command == "list" || a.command == "metrics") {
    minArgs = maxArgs = 0;
  } else if (a.command == "explain") {
    minArgs = maxArgs = 2;
  } else if (a.command == "check") {
    minArgs = 0;
  } else if (a.command != "show" && a.command != "watch" && a.command != "remove") {
    throw Failure{2, fmt::format("unknown command '{}'", a.command)};
  }
  const size_t given = positional.size() - 1;
  if (given < minArgs || given > maxArgs) {
    throw Failure{2, maxArgs == 0   ? fmt::format("{} takes no path", a.command)
                     : maxArgs == 2 ? fmt::format("{} needs PATH and KEY", a.command)
                     : minArgs == 0 ? fmt::format("{} takes at most one PATH", a.command)
                                    : fmt::format("{} needs exactly one PATH", a.command)};
  }
  if (given >= 1) a.path = positional[1];
  if (given == 2) a.key = positional[2];
  if (!a.listen.empty() && a.command != "metrics") {
    throw Failure{2, "--listen goes with metrics only"};
  }
  if (a.count != 0 && a.command != "watch") throw Failure{2, "--count goes with watch only"};
  if (a.json && (a.command == "remove" || a.command == "metrics")) {
    throw Failure{2, fmt::format("{} has no --json", a.command)};
  }
  return a;
}

// The status type of the store at `path`: the one its header names. A damaged store, one this
// user may not read, or one of a type the tool does not know is an error. For a JSON show
// (`jsonDamage`), damage still gives one whole document, naming it.
const StatusType& resolve(const std::string& path, bool jsonDamage) {
  try {
    Oro::shmValidatePath(path);
  } catch (const Oro::ShmException& e) {
    throw Failure{2, e.what()};
  }
  Oro::ShmStoreInfo info;
  try {
    info = Oro::shmStoreInfo(path);
  } catch (const Oro::ShmUnreadableException& e) {
    throw Failure{1, e.what()};  // whole, but this process cannot map it now
  } catch (const Oro::ShmCorruptionException& e) {
    if (jsonDamage) Mvpnstat::printDamagedDocument(stdout, path, "", e.what());
    throw Failure{1, fmt::format("the store at {} is damaged: {}", path, e.what())};
  } catch (const Oro::ShmPermissionException& e) {
    throw Failure{1, e.what()};
  } catch (const Oro::ShmException& e) {
    if (Oro::shmStoreExists(path)) throw Failure{1, e.what()};
    throw Failure{1, fmt::format("no status table at {} (shared-memory namespace '{}')", path,
                                 Oro::shmNamespace())};
  }
  if (const StatusType* t = Mvpnstat::statusTypeOf(info.rootType)) return *t;
  throw Failure{1, fmt::format("the store at {} holds a {}, which mvpnstat does not know", path,
                               info.rootType)};
}

void list(bool json) {
  const auto stores = Oro::listShmStores();
  if (json) {
    fmt::print("[");
    const char* sep = "";
    for (const auto& t : stores) {
      if (!t.problem.empty()) {
        fmt::print("{}\n  {{\"path\": {}, \"damaged\": {}, \"problem\": {}}}", sep,
                   jsonQuote(t.mountPath), t.damaged ? "true" : "false", jsonQuote(t.problem));
        sep = ",";
        continue;
      }
      std::string counters;
      for (const auto& c : t.counters) {
        counters +=
            fmt::format("{}{}: {}", counters.empty() ? "" : ", ", jsonQuote(c.name), c.value);
      }
      std::string colls;
      for (const auto& c : t.collections) {
        colls += fmt::format("{}{{\"name\": {}, \"type\": {}, \"records\": {}}}",
                             colls.empty() ? "" : ", ", jsonQuote(c.name), jsonQuote(c.typeName),
                             c.records);
      }
      fmt::print(
          "{}\n  {{\"path\": {}, \"type\": {}, \"collections\": [{}], "
          "\"writerPid\": {}, \"writerAlive\": {}, \"mountStatus\": {}, \"counters\": {{{}}}{}}}",
          sep, jsonQuote(t.mountPath), jsonQuote(t.rootType), colls, t.writerPid,
          t.writerAlive ? "true" : "false", jsonQuote(TylKetab::mountStatusName(t.mountStatus)),
          counters, t.merge ? ", \"merger\": " + Mvpnstat::mergerJson(*t.merge) : "");
      sep = ",";
    }
    fmt::print("{}]\n", stores.empty() ? "" : "\n");
    return;
  }
  if (stores.empty()) {
    Mvpnstat::printNoTables();
    return;
  }
  for (const auto& t : stores) {
    if (!t.problem.empty()) {
      fmt::print("{}  {}: {}\n", displayText(t.mountPath), t.damaged ? "DAMAGED" : "unreadable",
                 displayText(t.problem));
      continue;
    }
    const std::string writer =
        t.writerAlive ? fmt::format("writer pid {}", t.writerPid) : std::string("no live writer");
    fmt::print("{}  {}  {}  {}\n", displayText(t.mountPath), displayText(t.rootType), writer,
               TylKetab::mountStatusName(t.mountStatus));
    for (const auto& c : t.collections) {
      fmt::print("    {}  {}  {}\n", displayText(c.name), displayText(c.typeName),
                 Mvpnstat::counted(c.records, "record"));
    }
    for (const auto& c : t.counters) fmt::print("    {} {}\n", displayText(c.name), c.value);
    if (t.merge) fmt::print("{}", Mvpnstat::mergerText(*t.merge, "    "));
  }
}

// Removes a table whose writer is dead, whatever state it is in (damaged, of a type the tool
// does not know, half created): that is when it is left behind.
int removeTable(const std::string& path) {
  try {
    Oro::shmValidatePath(path);
  } catch (const Oro::ShmException& e) {
    throw Failure{2, e.what()};
  }
  try {
    const size_t removed = Oro::shmRemoveStore(path);
    fmt::print("removed {} ({} shared-memory {})\n", displayText(path), removed,
               removed == 1 ? "file" : "files");
  } catch (const Oro::ShmPermissionException& e) {
    throw Failure{1, e.what()};
  } catch (const Oro::ShmException& e) {
    if (std::string_view(e.what()).find("no shared memory store") != std::string_view::npos) {
      throw Failure{1, fmt::format("no status table at {} (shared-memory namespace '{}')", path,
                                   Oro::shmNamespace())};
    }
    throw Failure{1, fmt::format("{}: not removed", e.what())};
  }
  return 0;
}

extern "C" void onSignal(int) {
  Mvpnstat::watchStop();
}

int run(int argc, char** argv) {
  const Args a = parseArgs(argc, argv);
  if (a.command == "list") {
    list(a.json);
    return 0;
  }
  if (a.command == "remove") return removeTable(a.path);
  if (a.command == "explain" || a.command == "check") {
    if (!a.path.empty()) {
      try {
        Oro::shmValidatePath(a.path);
      } catch (const Oro::ShmException& e) {
        throw Failure{2, e.what()};
      }
    }
    try {
      if (a.command == "explain") {
        Mvpnstat::explain(a.path, a.key, a.json);
        return 0;
      }
      return Mvpnstat::check(a.path.empty() ? std::nullopt : std::optional(a.path), a.json) ? 0 : 1;
    } catch (const Oro::ParseException& e) {
      throw Failure{2, e.what()};
    } catch (const Oro::ShmUnreadableException& e) {
      throw Failure{1, e.what()};
    } catch (const Oro::ShmCorruptionException& e) {
      // An explanation reads the inputs too: the message names the store that is damaged.
      if (a.command == "explain") {
        throw Failure{1, fmt::format("cannot explain {} at {}: {}", a.key, a.path, e.what())};
      }
      throw Failure{1, fmt::format("the table at {} is damaged: {}", a.path, e.what())};
    } catch (const Oro::ShmException& e) {
      if (!Oro::shmStoreExists(a.path)) {
        throw Failure{1, fmt::format("no status table at {} (shared-memory namespace '{}')", a.path,
                                     Oro::shmNamespace())};
      }
      throw Failure{1, e.what()};
    }
  }
  if (a.command == "metrics") {
    if (a.listen.empty()) {
      fmt::print("{}", Mvpnstat::metricsText());
      return 0;
    }
    try {
      Mvpnstat::serveMetrics(a.listen);
    } catch (const std::invalid_argument& e) {
      throw Failure{2, e.what()};
    } catch (const std::runtime_error& e) {
      throw Failure{1, e.what()};
    }
    return 0;
  }
  const StatusType& type = resolve(a.path, a.command == "show" && a.json);
  try {
    if (a.command == "show") {
      if (!a.json) {
        if (const auto m = Mvpnstat::mergerOf(a.path)) {
          fmt::print("{}", Mvpnstat::mergerText(*m, ""));
        }
      }
      type.show(a.path, a.json, stdout);
    } else {
      struct sigaction sa {};
      sa.sa_handler = onSignal;
      sigaction(SIGINT, &sa, nullptr);
      sigaction(SIGTERM, &sa, nullptr);
      type.watch(a.path, a.json, stdout, a.count);
    }
  } catch (const Oro::ShmUnreadableException& e) {
    throw Failure{1, e.what()};
  } catch (const Oro::ShmCorruptionException& e) {
    throw Failure{1, fmt::format("the table at {} is damaged: {}", a.path, e.what())};
  } catch (const Oro::Exception& e) {
    throw Failure{1, e.what()};
  }
  return 0;
}

}  // namespace

// What reached stdout must all be there: a status of 0 after a lost write would tell a script
// that the output it got is whole. A failed write is reported whatever else went wrong.
static bool gOutputFailed = false;  // already reported

static int outputChecked(int code) {
  if (gOutputFailed) return 1;
  if (std::fflush(stdout) != 0 || std::ferror(stdout)) {
    std::fprintf(stderr, "mvpnstat: cannot write output: %s\n", std::strerror(errno));
    return code == 2 ? 2 : 1;
  }
  return code;
}

static int exitCode(int argc, char** argv) {
  try {
    return run(argc, argv);
  } catch (const std::system_error& e) {
    // A write to stdout failed (full device, closed descriptor) and {fmt} said so.
    std::fprintf(stderr, "mvpnstat: cannot write output: %s\n", e.code().message().c_str());
    gOutputFailed = true;
    return 1;
  } catch (const Failure& f) {
    if (f.code == 0) {
      std::fputs(kUsage, stdout);
      return 0;
    }
    std::fprintf(stderr, "mvpnstat: %s\n", displayText(f.message).c_str());
    if (f.code == 2) std::fputs(kUsage, stderr);
    return f.code;
  } catch (const Oro::Exception& e) {
    std::fprintf(stderr, "mvpnstat: %s\n", displayText(e.what()).c_str());
    return 1;
  }
}

int main(int argc, char** argv) {
  return outputChecked(exitCode(argc, argv));
}
