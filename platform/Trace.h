// Leveled tracing. Every component owns one TraceHandle, named after it; a handle holds a
// bit mask of its enabled levels (0..9), so a disabled trace point costs one load and one
// bit test and formats nothing. Enabled lines go to the process's sink: stderr by default,
// a file, or a TraceMemorySink that tests install.
//
// Enabling: the MVPN_TRACE environment variable, read once when the first handle (or any
// trace function) is used, e.g. "Comp1/0-3,Comp2/5,*/0"; and traceEnable() at run time.
// A setting for "*" applies to every handle; a later setting overrides an earlier one for
// the handles it names. Settings affect existing and future handles alike.
// Handles may be constructed during static initialisation and are safe to use from
// several threads.
#pragma once

#include <atomic>
#include <cstdint>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include <fmt/format.h>

namespace Oro {

inline constexpr int kTraceMaxLevel = 9;

class TraceHandle {
 public:
  explicit TraceHandle(std::string component);
  ~TraceHandle();
  // A handle never destroyed, for a type's function-local handle: roots and machines held in
  // globals trace until after main returns.
  static TraceHandle& immortal(std::string component) {
    return *new TraceHandle(std::move(component));
  }
  TraceHandle(const TraceHandle&) = delete;
  TraceHandle& operator=(const TraceHandle&) = delete;

  const std::string& component() const { return component_; }
  bool enabled(int level) const {
    return (mask_.load(std::memory_order_relaxed) >> static_cast<unsigned>(level)) & 1u;
  }
  // Hands a formatted line to the current sink; ORO_TRACE calls this only when enabled.
  void emit(int level, std::string_view message) const;

 private:
  friend class TraceRegistry;
  std::string component_;
  std::atomic<uint32_t> mask_{0};
};

// Turns one level on or off for a component, or for every component with "*".
void traceEnable(std::string_view componentOrStar, int level, bool on);
// Applies a setting string of the MVPN_TRACE syntax; returns false (and applies the valid
// entries) when an entry is malformed.
bool traceSettingsApply(std::string_view settings);
// Switches every level of every component off and forgets all settings.
void traceDisableAll();

// Receiver of enabled trace lines. write() may be called from several threads, one at a
// time (the facility serialises calls).
class TraceSink {
 public:
  virtual ~TraceSink() = default;
  virtual void write(std::string_view component, int level, std::string_view message) = 0;
};

// Writes lines to a file, or to stderr after traceFileIs(""). Throws Oro::Exception when
// the file cannot be opened; the previous destination is kept then.
void traceFileIs(const std::string& path);

// Collects lines in memory. install() puts it in front of the file/stderr destination until
// uninstall() (or destruction); sinks installed later shadow earlier ones.
class TraceMemorySink : public TraceSink {
 public:
  struct Line {
    std::string component;
    int level;
    std::string message;
    bool operator==(const Line&) const = default;
  };

  TraceMemorySink() = default;
  ~TraceMemorySink() override;
  TraceMemorySink(const TraceMemorySink&) = delete;
  TraceMemorySink& operator=(const TraceMemorySink&) = delete;

  void install();
  void uninstall();
  bool installed() const { return installed_; }

  void write(std::string_view component, int level, std::string_view message) override;
  std::vector<Line> lines() const;
  std::vector<std::string> messages() const;
  void clear();

 private:
  bool installed_ = false;
  TraceMemorySink* previous_ = nullptr;  // next sink down the installed chain
  std::vector<Line> lines_;              // guarded by the facility's sink lock
};

}  // namespace Oro

// ORO_TRACE(handle, level, "format {}", args...): formats and emits only when enabled.
#define ORO_TRACE(handle, level, ...)                     \
  do {                                                    \
    if ((handle).enabled(level)) [[unlikely]]             \
      (handle).emit((level), ::fmt::format(__VA_ARGS__)); \
  } while (0)
