#include "platform/Toggle.h"

#include <algorithm>
#include <cctype>
#include <cstdlib>
#include <map>
#include <mutex>
#include <string>

namespace Oro {

namespace {

struct Toggles {
  std::mutex mu;
  std::map<std::string, bool, std::less<>> cache;
};

Toggles& toggles() {
  static Toggles t;
  return t;
}

bool readEnvironment(std::string_view name) {
  const std::string var = "MVPN_TOGGLE_" + std::string(name);
  const char* v = std::getenv(var.c_str());
  if (!v) return false;
  std::string s(v);
  std::transform(s.begin(), s.end(), s.begin(),
                 [](unsigned char c) { return static_cast<char>(std::tolower(c)); });
  return s == "1" || s == "true";
}

}  // namespace

bool toggleEnabled(std::string_view name) {
  Toggles& t = toggles();
  std::lock_guard lock(t.mu);
  auto it = t.cache.find(name);
  if (it == t.cache.end()) it = t.cache.emplace(std::string(name), readEnvironment(name)).first;
  return it->second;
}

void toggleOverride(std::string_view name, bool enabled) {
  Toggles& t = toggles();
  std::lock_guard lock(t.mu);
  t.cache.insert_or_assign(std::string(name), enabled);
}

void toggleReset(std::string_view name) {
  Toggles& t = toggles();
  std::lock_guard lock(t.mu);
  if (auto it = t.cache.find(name); it != t.cache.end()) t.cache.erase(it);
}

}  // namespace Oro
