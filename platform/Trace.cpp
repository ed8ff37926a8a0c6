#include "platform/Trace.h"

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <map>
#include <mutex>

#include "platform/Assert.h"
#include "platform/Error.h"

namespace Oro {

namespace {

std::string_view trim(std::string_view s) {
  while (!s.empty() && (s.front() == ' ' || s.front() == '\t')) s.remove_prefix(1);
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.remove_suffix(1);
  return s;
}

bool parseLevel(std::string_view s, int* out) {
  s = trim(s);
  if (s.empty() || s.size() > 1 || s[0] < '0' || s[0] > '9') return false;
  *out = s[0] - '0';
  return true;
}

// Parses "3" or "0-3" into a level mask.
bool parseLevels(std::string_view s, uint32_t* mask) {
  auto dash = s.find('-');
  int lo, hi;
  if (dash == std::string_view::npos) {
    if (!parseLevel(s, &lo)) return false;
    hi = lo;
  } else if (!parseLevel(s.substr(0, dash), &lo) || !parseLevel(s.substr(dash + 1), &hi) ||
             lo > hi) {
    return false;
  }
  for (int l = lo; l <= hi; ++l) *mask |= 1u << l;
  return true;
}

}  // namespace

// Process-wide state behind the handles. Constructed on first use, so handles built during
// static initialisation find it ready, and never destroyed, so that handles used or destroyed
// at exit (by roots held in globals) find it still there. Every line is flushed as written.
class TraceRegistry {
 public:
  static TraceRegistry& get() {
    static auto* r = new TraceRegistry;  // never destroyed: handles may be used at exit
    return *r;
  }

  void add(TraceHandle* h) {
    std::lock_guard lock(mu_);
    handles_.push_back(h);
    h->mask_.store(maskFor(h->component_), std::memory_order_relaxed);
  }
  void remove(TraceHandle* h) {
    std::lock_guard lock(mu_);
    handles_.erase(std::remove(handles_.begin(), handles_.end(), h), handles_.end());
  }

  void enable(std::string_view comp, int level, bool on) {
    std::lock_guard lock(mu_);
    enableLocked(comp, level, on);
  }

  bool apply(std::string_view settings) {
    std::lock_guard lock(mu_);
    bool ok = true;
    std::string comp;  // component of the entry the current level item belongs to
    size_t start = 0;
    while (start <= settings.size()) {
      size_t comma = settings.find(',', start);
      if (comma == std::string_view::npos) comma = settings.size();
      std::string_view item = trim(settings.substr(start, comma - start));
      start = comma + 1;
      if (item.empty()) continue;
      // "Comp/levels" starts an entry; a bare "levels" item continues the previous one.
      std::string_view levels = item;
      auto slash = item.find('/');
      if (slash != std::string_view::npos) {
        comp = std::string(trim(item.substr(0, slash)));
        levels = item.substr(slash + 1);
      }
      uint32_t mask = 0;
      if (comp.empty() || !parseLevels(levels, &mask)) {
        ok = false;
        continue;
      }
      for (int l = 0; l <= kTraceMaxLevel; ++l) {
        if (mask & (1u << l)) enableLocked(comp, l, true);
      }
    }
    return ok;
  }

  void disableAll() {
    std::lock_guard lock(mu_);
    starMask_ = 0;
    overrides_.clear();
    for (TraceHandle* h : handles_) h->mask_.store(0, std::memory_order_relaxed);
  }

  void write(std::string_view comp, int level, std::string_view msg) {
    std::lock_guard lock(sinkMu_);
    if (top_) {
      top_->write(comp, level, msg);
      return;
    }
    std::string line = fmt::format("{}/{}: {}\n", comp, level, msg);
    std::fwrite(line.data(), 1, line.size(), out_);
    std::fflush(out_);
  }

  void fileIs(const std::string& path) {
    FILE* f = stderr;
    if (!path.empty()) {
      f = std::fopen(path.c_str(), "a");
      if (!f) {
        throw Exception(fmt::format("cannot open trace file {}: {}", path, std::strerror(errno)));
      }
    }
    std::lock_guard lock(sinkMu_);
    if (out_ != stderr) std::fclose(out_);
    out_ = f;
  }

  std::mutex& sinkMu() { return sinkMu_; }
  TraceMemorySink*& top() { return top_; }

 private:
  struct Override {
    uint32_t set = 0;    // levels switched on for this component after the last "*" change
    uint32_t clear = 0;  // levels switched off likewise
  };

  TraceRegistry() {
    if (const char* file = std::getenv("MVPN_TRACE_FILE"); file && *file) {
      out_ = std::fopen(file, "a");
      if (!out_) {
        std::fprintf(stderr, "trace: cannot open MVPN_TRACE_FILE %s: %s\n", file,
                     std::strerror(errno));
        out_ = stderr;
      }
    }
    if (const char* settings = std::getenv("MVPN_TRACE"); settings && *settings) {
      if (!apply(settings)) {
        std::fprintf(stderr, "trace: ignoring malformed entries in MVPN_TRACE=%s\n", settings);
      }
    }
  }
  ~TraceRegistry() {
    if (out_ != stderr) std::fclose(out_);
  }

  uint32_t maskFor(std::string_view comp) const {
    auto it = overrides_.find(comp);
    if (it == overrides_.end()) return starMask_;
    return (starMask_ & ~it->second.clear) | it->second.set;
  }

  void enableLocked(std::string_view comp, int level, bool on) {
    MVPN_ASSERT_MSG(level >= 0 && level <= kTraceMaxLevel, "trace level out of range");
    const uint32_t bit = 1u << level;
    if (comp == "*") {
      starMask_ = on ? (starMask_ | bit) : (starMask_ & ~bit);
      for (auto& [name, o] : overrides_) {
        o.set &= ~bit;
        o.clear &= ~bit;
      }
    } else {
      auto it = overrides_.find(comp);
      if (it == overrides_.end()) it = overrides_.emplace(std::string(comp), Override{}).first;
      Override& o = it->second;
      if (on) {
        o.set |= bit;
        o.clear &= ~bit;
      } else {
        o.clear |= bit;
        o.set &= ~bit;
      }
    }
    for (TraceHandle* h : handles_) {
      if (comp == "*" || h->component_ == comp) {
        h->mask_.store(maskFor(h->component_), std::memory_order_relaxed);
      }
    }
  }

  std::mutex mu_;  // guards handles_, starMask_, overrides_
  std::vector<TraceHandle*> handles_;
  uint32_t starMask_ = 0;
  std::map<std::string, Override, std::less<>> overrides_;

  std::mutex sinkMu_;  // guards out_, top_ and the memory sinks' lines
  FILE* out_ = stderr;
  TraceMemorySink* top_ = nullptr;
};

TraceHandle::TraceHandle(std::string component) : component_(std::move(component)) {
  TraceRegistry::get().add(this);
}

TraceHandle::~TraceHandle() {
  TraceRegistry::get().remove(this);
}

void TraceHandle::emit(int level, std::string_view message) const {
  TraceRegistry::get().write(component_, level, message);
}

void traceEnable(std::string_view componentOrStar, int level, bool on) {
  TraceRegistry::get().enable(componentOrStar, level, on);
}

bool traceSettingsApply(std::string_view settings) {
  return TraceRegistry::get().apply(settings);
}

void traceDisableAll() {
  TraceRegistry::get().disableAll();
}

void traceFileIs(const std::string& path) {
  TraceRegistry::get().fileIs(path);
}

TraceMemorySink::~TraceMemorySink() {
  uninstall();
}

void TraceMemorySink::install() {
  auto& r = TraceRegistry::get();
  std::lock_guard lock(r.sinkMu());
  if (installed_) return;
  previous_ = r.top();
  r.top() = this;
  installed_ = true;
}

void TraceMemorySink::uninstall() {
  auto& r = TraceRegistry::get();
  std::lock_guard lock(r.sinkMu());
  if (!installed_) return;
  // Unlink from the chain of installed sinks, wherever this one sits in it.
  if (r.top() == this) {
    r.top() = previous_;
  } else {
    for (auto* s = r.top(); s; s = s->previous_) {
      if (s->previous_ == this) {
        s->previous_ = previous_;
        break;
      }
    }
  }
  previous_ = nullptr;
  installed_ = false;
}

void TraceMemorySink::write(std::string_view component, int level, std::string_view message) {
  lines_.push_back(Line{std::string(component), level, std::string(message)});
}

std::vector<TraceMemorySink::Line> TraceMemorySink::lines() const {
  std::lock_guard lock(TraceRegistry::get().sinkMu());
  return lines_;
}

std::vector<std::string> TraceMemorySink::messages() const {
  std::lock_guard lock(TraceRegistry::get().sinkMu());
  std::vector<std::string> out;
  out.reserve(lines_.size());
  for (const auto& l : lines_) out.push_back(l.message);
  return out;
}

void TraceMemorySink::clear() {
  std::lock_guard lock(TraceRegistry::get().sinkMu());
  lines_.clear();
}

}  // namespace Oro
