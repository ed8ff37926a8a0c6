// The dump printer: one DumpContext per dump. Output goes to a FILE* or, without one, into a
// string (str()). Lines are printed printf-style; "%*c" with (indent, ' ') indents by
// `indent` spaces. The context remembers every object it was asked to mark, so an object
// reachable twice is printed once and reported as a duplicate afterwards.
//
// Report lines (at indent 0 without leading spaces, like every dump line):
//   duplicate:  "<indent spaces><what> (already printed)\n"
//   null child: "<indent spaces><what> (null)\n"
//   missing:    "<indent spaces><attribute> (not printed)\n"
//
// postMortem() is true while dumping from a core file, where shared-memory contents are
// not available.
#pragma once

#include <cstdio>
#include <initializer_list>
#include <string>
#include <vector>
#include <unordered_set>

namespace Oro {

class DumpContext {
 public:
  // Accumulates into str().
  DumpContext() = default;
  // Writes to out (not owned; str() stays empty).
  explicit DumpContext(FILE* out) : out_(out) {}
  DumpContext(const DumpContext&) = delete;
  DumpContext& operator=(const DumpContext&) = delete;

  void print(const char* fmt, ...) __attribute__((format(printf, 2, 3)));
  const std::string& str() const { return buf_; }
  // Bytes printed so far, to the string or the file.
  size_t size() const { return written_; }

  bool postMortem() const { return postMortem_; }
  void postMortemIs(bool v) { postMortem_ = v; }

  // Prints "\n" unless nothing was printed yet or the output already ends with one.
  void ensureNewline();

  // True the first time obj is seen in this dump (nothing is printed then); false, after
  // printing the duplicate line, for every later time.
  bool markPrinted(const void* obj, int indent, const char* what);
  // Prints the null-child line.
  void reportNull(int indent, const char* what);

  // A parent dumping a child opens a frame; the child marks each attribute it prints; closing
  // the frame ends the output with a newline and reports every expected attribute the child
  // did not print.
  void childBegin();
  void attributePrinted(const char* name);
  void childEnd(int indent, std::initializer_list<const char*> expected);

 private:
  void write(const char* data, size_t n);
  void printIndented(int indent, const char* what, const char* note);

  FILE* out_ = nullptr;
  std::string buf_;
  size_t written_ = 0;
  char last_ = '\0';
  bool postMortem_ = false;
  std::unordered_set<const void*> printed_;
  std::vector<std::vector<std::string>> frames_;  // attributes printed, per open child frame
};

}  // namespace Oro
