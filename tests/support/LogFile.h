// Reading the library's log file line by line and matching entries with exact
// texts, or with a regular expression only where a value is open (addresses,
// times, ids, microseconds), in the manner of libusb's assert_libusb_log_msg.
#pragma once

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace tavik_test {

struct LogLine {
  enum Kind { Entry, Separator, Started, Executable, Library, Stopped, Empty, Other };
  Kind kind = Other;
  std::string raw;
  // Entry lines only:
  std::string time;      // HHMMSS.uuuuuu
  std::string category;  // at most three characters
  unsigned long pid = 0;
  unsigned long tid = 0;
  char level = '?';
  unsigned depth = 0;    // indentation / 2; 31 for the depth-limit marker
  bool indentOdd = false;  // an odd number of blanks is malformed
  std::string text;      // after the indentation
  std::string function;  // text before the first ": "
  std::string message;   // text after the first ": "
};

// A message to match: exact by default, a regular expression when made with Re().
struct Text {
  std::string value;
  bool regex = false;
  Text(const char* v) : value(v) {}  // NOLINT: exact text by default
  Text(std::string v) : value(std::move(v)) {}  // NOLINT
  bool Matches(const std::string& s) const;
};
Text Re(const std::string& pattern);

// Escapes s for use inside Re().
std::string ReEscape(const std::string& s);

class LogFile {
 public:
  static LogFile Read(const std::string& path);
  static LogFile Parse(const std::string& content);

  const std::vector<LogLine>& Lines() const { return lines_; }
  std::vector<LogLine> Entries() const;
  bool Exists() const { return exists_; }

  // fn: a full signature (it contains '(') is compared exactly; a bare name
  // matches any signature that calls a function of that name.
  static bool FnMatches(const LogLine& l, const std::string& fn);
  size_t Count(char level, const std::string& fn, const Text& message) const;
  const LogLine* Find(char level, const std::string& fn, const Text& message) const;
  // The whole file, for failure messages.
  std::string Dump() const;

  // Checks that every block reads separator, started, executable, library,
  // entries, stopped, separator, empty line; returns the number of blocks.
  ::testing::AssertionResult WellFormedBlocks(size_t* blocks) const;

 private:
  bool exists_ = false;
  std::vector<LogLine> lines_;
};

// Walks the entries in order; every Next() must find its entry after the previous one.
class LogCursor {
 public:
  explicit LogCursor(const LogFile& log) : log_(log) {}
  // depth < 0 accepts any depth; otherwise the entry must sit at that depth.
  ::testing::AssertionResult Next(char level, const std::string& fn, const Text& message, int depth = -1);
  // The line that the last successful Next() matched.
  const LogLine& Last() const { return log_.Lines()[last_]; }

 private:
  const LogFile& log_;
  size_t pos_ = 0;
  size_t last_ = 0;
};

// Every ENTER has its RETURN on the same thread at the same depth, messages of
// a traced function sit one deeper, and no line is malformed.
::testing::AssertionResult TraceIsBalanced(const LogFile& log);

// Pointer as the library prints it through "0x%p".
extern const char kPtr[];
// Elapsed time of a return line.
extern const char kMicros[];

}  // namespace tavik_test
