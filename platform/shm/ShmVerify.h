// Integrity check of a shared-memory store for tools (mvpnstat check): per collection, the
// record count against the occupied slots, the index against the slots (both ways, and no key
// held twice), the page chains and member counts of nested collections, and the blob
// references of records with variable-length parts.
//
// The store is mapped read-only and read the way readers read it (sequence words), so a check
// never disturbs its writer or readers. A live writer may change the store meanwhile: a check
// whose change-log head, operation word or geometry moved is repeated, and every problem is
// looked at again in a quiet moment before it is reported, so that no problem is reported that
// only concurrent writing caused.
#pragma once

#include <cstddef>
#include <string>
#include <vector>

namespace Oro {

class ShmStore;

struct ShmIntegrityProblem {
  std::string collection;  // collection name ("" for store-wide problems)
  std::string what;        // one line, e.g. "count 1000 but 999 occupied slots"
};

struct ShmIntegrityReport {
  std::string mountPath;
  size_t recordsChecked = 0;
  bool unstable = false;  // a live writer kept changing the store during every attempt
  std::vector<ShmIntegrityProblem> problems;
  bool ok() const { return problems.empty(); }
};

// Maps the store at mountPath read-only (never disturbing its writer or readers) and checks
// it. ShmException when absent or unreadable, as shmStoreInfo; a store too damaged to be
// mapped at all is reported as a store-wide problem.
ShmIntegrityReport shmVerifyStore(const std::string& mountPath);

// The same check of a store that no writer changes meanwhile (a writer checks the store it has
// just taken over and recovered): the first problem found, "" when there is none.
std::string shmStoreProblem(const ShmStore& store);

}  // namespace Oro
