#include "platform/DumpContext.h"

#include <algorithm>

#include <cstdarg>
#include <vector>

namespace Oro {

void DumpContext::write(const char* data, size_t n) {
  if (n == 0) return;
  if (out_) {
    std::fwrite(data, 1, n, out_);
  } else {
    buf_.append(data, n);
  }
  written_ += n;
  last_ = data[n - 1];
}

void DumpContext::print(const char* fmt, ...) {
  char small[256];
  va_list ap;
  va_start(ap, fmt);
  va_list again;
  va_copy(again, ap);
  const int n = std::vsnprintf(small, sizeof small, fmt, ap);
  va_end(ap);
  if (n < 0) {
    va_end(again);
    return;
  }
  if (static_cast<size_t>(n) < sizeof small) {
    write(small, static_cast<size_t>(n));
  } else {
    std::vector<char> big(static_cast<size_t>(n) + 1);
    std::vsnprintf(big.data(), big.size(), fmt, again);
    write(big.data(), static_cast<size_t>(n));
  }
  va_end(again);
}

void DumpContext::ensureNewline() {
  if (written_ != 0 && last_ != '\n') write("\n", 1);
}

void DumpContext::printIndented(int indent, const char* what, const char* note) {
  if (indent != 0) {
    print("%*c%s (%s)\n", indent, ' ', what, note);
  } else {
    print("%s (%s)\n", what, note);
  }
}

bool DumpContext::markPrinted(const void* obj, int indent, const char* what) {
  if (printed_.insert(obj).second) return true;
  printIndented(indent, what, "already printed");
  return false;
}

void DumpContext::reportNull(int indent, const char* what) {
  printIndented(indent, what, "null");
}

void DumpContext::childBegin() {
  frames_.emplace_back();
}

void DumpContext::attributePrinted(const char* name) {
  if (!frames_.empty()) frames_.back().emplace_back(name);
}

void DumpContext::childEnd(int indent, std::initializer_list<const char*> expected) {
  ensureNewline();
  if (frames_.empty()) return;
  std::vector<std::string> printed = std::move(frames_.back());
  frames_.pop_back();
  for (const char* name : expected) {
    if (std::find(printed.begin(), printed.end(), name) == printed.end()) {
      printIndented(indent, name, "not printed");
    }
  }
}

}  // namespace Oro
