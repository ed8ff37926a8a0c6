// Every test binary works in a shared-memory namespace of its own, so that binaries run side by
// side (by hand or by ctest) never see or unlink each other's tables: MVPN_SHM_NAMESPACE when
// set, else one derived from the process id. Its segments are removed when the run ends.
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdlib>
#include <string>

#include "platform/shm/ShmSegment.h"

namespace {

class ShmNamespaceEnvironment : public ::testing::Environment {
 public:
  void SetUp() override {
    // Death tests run in a freshly executed copy of the binary: a process that writes shared
    // memory runs a doorbell thread, and forking a process with threads is unsafe.
    GTEST_FLAG_SET(death_test_style, "threadsafe");
    const char* ns = std::getenv("MVPN_SHM_NAMESPACE");
    Oro::shmNamespaceIs(ns && *ns ? std::string(ns) : "mvpntest" + std::to_string(getpid()));
    owner_ = getpid();
  }
  void TearDown() override {
    if (getpid() == owner_) Oro::shmUnlinkNamespace();  // not from forked children
  }

 private:
  pid_t owner_ = 0;
};

const auto* const kEnvironment = ::testing::AddGlobalTestEnvironment(new ShmNamespaceEnvironment);


}  // namespace
