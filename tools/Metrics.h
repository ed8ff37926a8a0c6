// The status tables' figures for Prometheus: every table of the current namespace with its
// record counts per collection, its writer's named counters, whether its writer is alive, its
// mount status, its shared memory and its writer take-overs, in the Prometheus text exposition
// format (version 0.0.4). Names and paths read from shared memory are label values, escaped
// and made printable, so a hostile name cannot break the exposition.
#pragma once

#include <cstdint>
#include <functional>
#include <string>

namespace Mvpnstat {

// One exposition of every table, read when called.
std::string metricsText();

// Serves metricsText() at http://ADDRESS:PORT/metrics (`listen` is "ADDRESS:PORT"; an IPv6
// address in brackets; port 0 picks a free one) until SIGINT or SIGTERM. Prints the address
// it serves at, then a line per scrape, on stdout. Throws std::invalid_argument for a bad
// ADDRESS:PORT, std::runtime_error when the address cannot be bound. The calling thread must
// be the only one (signals are taken with sigwait).
void serveMetrics(const std::string& listen);

}  // namespace Mvpnstat
