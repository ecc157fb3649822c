#include "LogFile.h"

#include <cctype>
#include <map>
#include <cstring>
#include <regex>
#include <sstream>

#include "ChildProcess.h"

namespace tavik_test {
namespace {

const char kSeparator[] = "[==============================================================]";
const char kDepthMarker[] = "-log-depth-limit-exceeded-";

bool ParseNumber(const std::string& s, size_t* i, unsigned long* out, size_t minDigits) {
  size_t start = *i;
  unsigned long v = 0;
  while (*i < s.size() && std::isdigit(static_cast<unsigned char>(s[*i]))) v = v * 10 + (s[(*i)++] - '0');
  *out = v;
  return *i - start >= minDigits;
}

bool ParseEntry(const std::string& s, LogLine* l) {
  // [HHMMSS.uuuuuu CAT PPPPP:TTTTT L] <indent><text>
  if (s.size() < 28 || s[0] != '[') return false;
  size_t i = 1;
  if (s.size() < i + 13 || s[i + 6] != '.') return false;
  l->time = s.substr(i, 13);
  i += 13;
  if (s[i++] != ' ') return false;
  size_t sp = s.find(' ', i);
  if (sp == std::string::npos || sp - i > 3) return false;
  l->category = s.substr(i, sp - i);
  i = sp + 1;
  if (!ParseNumber(s, &i, &l->pid, 5) || i >= s.size() || s[i++] != ':') return false;
  if (!ParseNumber(s, &i, &l->tid, 5) || i + 4 > s.size() || s[i++] != ' ') return false;
  l->level = s[i++];
  if (s[i++] != ']' || s[i++] != ' ') return false;
  std::string rest = s.substr(i);
  if (rest.compare(0, std::strlen(kDepthMarker), kDepthMarker) == 0) {
    l->depth = 31;
    rest = rest.substr(std::strlen(kDepthMarker) + 34);
  } else {
    size_t blanks = 0;
    while (blanks < rest.size() && rest[blanks] == ' ') ++blanks;
    l->depth = static_cast<unsigned>(blanks / 2);
    l->indentOdd = blanks % 2 != 0;
    rest = rest.substr(blanks);
  }
  l->text = rest;
  size_t colon = rest.find(": ");
  if (colon != std::string::npos) {
    l->function = rest.substr(0, colon);
    l->message = rest.substr(colon + 2);
  } else {
    l->message = rest;
  }
  return true;
}

std::string Describe(char level, const std::string& fn, const Text& m) {
  std::ostringstream o;
  o << "level " << level << ", function '" << fn << "', " << (m.regex ? "regex" : "text") << " '" << m.value << "'";
  return o.str();
}

}  // namespace

bool Text::Matches(const std::string& s) const {
  if (!regex) return s == value;
  return std::regex_match(s, std::regex(value));
}

Text Re(const std::string& pattern) {
  Text t(pattern);
  t.regex = true;
  return t;
}

std::string ReEscape(const std::string& s) {
  std::string out;
  for (char c : s) {
    if (std::strchr("\\^$.|?*+()[]{}", c) != nullptr) out += '\\';
    out += c;
  }
  return out;
}

LogFile LogFile::Read(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "rb");
  LogFile log;
  if (f == nullptr) return log;
  std::fclose(f);
  log = Parse(ReadFile(path));
  log.exists_ = true;
  return log;
}

LogFile LogFile::Parse(const std::string& content) {
  LogFile log;
  log.exists_ = true;
  std::istringstream in(content);
  std::string s;
  while (std::getline(in, s)) {
    LogLine l;
    l.raw = s;
    if (s.empty()) {
      l.kind = LogLine::Empty;
    } else if (s == kSeparator) {
      l.kind = LogLine::Separator;
    } else if (s.rfind("[Logging started, ", 0) == 0) {
      l.kind = LogLine::Started;
    } else if (s.rfind("[Executable: '", 0) == 0) {
      l.kind = LogLine::Executable;
    } else if (s.rfind("[Library: '", 0) == 0) {
      l.kind = LogLine::Library;
    } else if (s.rfind("[Logging stopped, ", 0) == 0) {
      l.kind = LogLine::Stopped;
    } else if (ParseEntry(s, &l)) {
      l.kind = LogLine::Entry;
    }
    log.lines_.push_back(std::move(l));
  }
  return log;
}

std::vector<LogLine> LogFile::Entries() const {
  std::vector<LogLine> out;
  for (const auto& l : lines_)
    if (l.kind == LogLine::Entry) out.push_back(l);
  return out;
}

bool LogFile::FnMatches(const LogLine& l, const std::string& fn) {
  if (fn.empty()) return true;
  if (fn.find('(') != std::string::npos) return l.function == fn;
  size_t at = l.function.find(fn + "(");
  return at != std::string::npos && (at == 0 || l.function[at - 1] == ' ' || l.function[at - 1] == ':');
}

size_t LogFile::Count(char level, const std::string& fn, const Text& message) const {
  size_t n = 0;
  for (const auto& l : lines_)
    if (l.kind == LogLine::Entry && l.level == level && FnMatches(l, fn) && message.Matches(l.message)) ++n;
  return n;
}

const LogLine* LogFile::Find(char level, const std::string& fn, const Text& message) const {
  for (const auto& l : lines_)
    if (l.kind == LogLine::Entry && l.level == level && FnMatches(l, fn) && message.Matches(l.message)) return &l;
  return nullptr;
}

std::string LogFile::Dump() const {
  std::ostringstream o;
  o << "---- log (" << lines_.size() << " lines) ----\n";
  for (const auto& l : lines_) o << l.raw << "\n";
  o << "---- end of log ----";
  return o.str();
}

::testing::AssertionResult LogFile::WellFormedBlocks(size_t* blocks) const {
  *blocks = 0;
  size_t i = 0;
  auto at = [&](size_t k) { return k < lines_.size() ? lines_[k].kind : LogLine::Other; };
  while (i < lines_.size()) {
    if (at(i) != LogLine::Separator || at(i + 1) != LogLine::Started || at(i + 2) != LogLine::Executable ||
        at(i + 3) != LogLine::Library)
      return ::testing::AssertionFailure() << "block " << *blocks << " has no header at line " << i + 1 << "\n"
                                           << Dump();
    i += 4;
    while (at(i) == LogLine::Entry) ++i;
    if (at(i) != LogLine::Stopped || at(i + 1) != LogLine::Separator || at(i + 2) != LogLine::Empty)
      return ::testing::AssertionFailure() << "block " << *blocks << " has no footer at line " << i + 1 << "\n"
                                           << Dump();
    i += 3;
    ++*blocks;
  }
  return ::testing::AssertionSuccess();
}

::testing::AssertionResult LogCursor::Next(char level, const std::string& fn, const Text& message, int depth) {
  const auto& lines = log_.Lines();
  for (size_t i = pos_; i < lines.size(); ++i) {
    const LogLine& l = lines[i];
    if (l.kind == LogLine::Entry && l.level == level && LogFile::FnMatches(l, fn) && message.Matches(l.message)) {
      last_ = i;
      pos_ = i + 1;
      if (depth >= 0 && l.depth != static_cast<unsigned>(depth))
        return ::testing::AssertionFailure() << "log line " << i + 1 << " is at depth " << l.depth << ", expected "
                                             << depth << ": " << l.raw;
      return ::testing::AssertionSuccess();
    }
  }
  bool earlier = false;
  for (size_t i = 0; i < pos_ && i < lines.size(); ++i) {
    const LogLine& l = lines[i];
    if (l.kind == LogLine::Entry && l.level == level && LogFile::FnMatches(l, fn) && message.Matches(l.message))
      earlier = true;
  }
  return ::testing::AssertionFailure() << "no log entry " << Describe(level, fn, message) << " after line " << pos_
                                       << (earlier ? " (it appears earlier: wrong order)" : "") << "\n"
                                       << log_.Dump();
}

}  // namespace tavik_test

namespace tavik_test {

const char kPtr[] = "0x(?:0x[0-9a-f]+|\\(nil\\))";
const char kMicros[] = "\\[[0-9]+us\\]";

::testing::AssertionResult TraceIsBalanced(const LogFile& log) {
  struct Open {
    std::string function;
    unsigned depth;
  };
  std::map<unsigned long, std::vector<Open>> stacks;
  static const std::regex ret("RETURN \\(.*\\) \\[[0-9]+us\\]");
  size_t n = 0;
  for (const auto& l : log.Lines()) {
    ++n;
    if (l.kind == LogLine::Other)
      return ::testing::AssertionFailure() << "malformed log line " << n << ": '" << l.raw << "'";
    if (l.kind != LogLine::Entry) continue;
    if (l.indentOdd) return ::testing::AssertionFailure() << "odd indentation at line " << n << ": " << l.raw;
    auto& st = stacks[l.tid];
    bool enter = l.message.rfind("ENTER (", 0) == 0 && l.message.back() == ')';
    bool isReturn = std::regex_match(l.message, ret);
    if (enter) {
      if (l.level != 'T') return ::testing::AssertionFailure() << "ENTER not at Trace, line " << n << ": " << l.raw;
      if (l.depth != st.size())
        return ::testing::AssertionFailure() << "ENTER at depth " << l.depth << " with " << st.size()
                                             << " open calls on thread " << l.tid << ", line " << n << ": " << l.raw;
      st.push_back({l.function, l.depth});
    } else if (isReturn) {
      if (st.empty() || st.back().function != l.function || st.back().depth != l.depth)
        return ::testing::AssertionFailure() << "RETURN without its ENTER at line " << n << ": " << l.raw << "\n"
                                             << log.Dump();
      st.pop_back();
    } else if (!st.empty() && st.back().function == l.function && l.depth != st.back().depth + 1) {
      return ::testing::AssertionFailure() << "message of a traced function at depth " << l.depth << ", expected "
                                           << st.back().depth + 1 << ", line " << n << ": " << l.raw;
    }
  }
  for (const auto& [tid, st] : stacks)
    if (!st.empty())
      return ::testing::AssertionFailure() << "thread " << tid << " left '" << st.back().function
                                           << "' without a RETURN\n"
                                           << log.Dump();
  return ::testing::AssertionSuccess();
}

}  // namespace tavik_test
