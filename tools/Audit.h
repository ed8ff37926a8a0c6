// mvpnstat explain and check: a merged status held against its inputs by the merge machine's
// own audit (merge/MergeAudit.h), and every table's integrity.
#pragma once

#include <optional>
#include <string>

namespace Mvpnstat {

// Prints the explanation of one key of the merged status at `path`. Oro::Exception when the
// table is not a merged status or an input cannot be read, Oro::ParseException for a bad key.
void explain(const std::string& path, const std::string& key, bool json);

// Checks the merged statuses (all of them, or the one at `path`) against their inputs and the
// integrity of every table involved. Returns whether everything is consistent.
bool check(const std::optional<std::string>& path, bool json);

// What list and check print for a namespace that holds no status table.
void printNoTables();

}  // namespace Mvpnstat
