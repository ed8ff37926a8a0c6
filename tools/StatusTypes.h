// The status-root types mvpnstat knows, and what it can do with each: show (dump or JSON) and
// watch a table at a mount path. Every operation goes through a real reader instance of the
// status root (attached read-only to the writer's table), so the output is the root's own
// dump and the changes are the root's own per-key notifications.
#pragma once

#include <cstdio>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace Mvpnstat {

struct StatusType {
  const char* rootType;  // e.g. "Routing::Multicast::MvpnVrfStatus", as the store names it
  // Prints the root at `path` to `out`: its dump, or one JSON document that lists each key
  // once even when a writer moves keys while the store is walked.
  std::function<void(const std::string& path, bool json, FILE* out)> show;
  // Prints every change at `path` as it arrives, until `stop` says so or `maxChanges`
  // changes were printed (0: no limit). Returns the number of changes printed.
  std::function<uint64_t(const std::string& path, bool json, FILE* out, uint64_t maxChanges)> watch;
};

const std::vector<StatusType>& statusTypes();
// The type of the root type a store names, null when mvpnstat does not know it.
const StatusType* statusTypeOf(std::string_view rootType);

// Reads every record of the table at `path` the way `show --json` does, printing nothing: the
// first damage met, "" when there is none (or when mvpnstat does not know the table's type).
std::string recordDamage(const std::string& rootType, const std::string& path);

// The whole JSON document of a show whose table was found damaged before anything was read:
// its path, its type when known (not empty), and the damage.
void printDamagedDocument(FILE* out, const std::string& path, std::string_view type,
                          std::string_view damage);

// Stops a running watch (async-signal-safe).
void watchStop();

}  // namespace Mvpnstat
