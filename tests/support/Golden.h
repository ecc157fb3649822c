// Whole-run expectations: a case writes what it saw (results, records, the
// library's log) into one text, and that text must equal a golden file line
// for line. Values that differ from run to run are normalised first, so the
// golden file holds exact texts and order and nothing else.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavik_test {

using Substitutions = std::vector<std::pair<std::string, std::string>>;

// A log file as "<level> <category> <indented text>" lines: times, dates, ids,
// pointers and elapsed microseconds become '@'.
// The main thread's lines come first, then each other thread's, in order of
// their first line, under a "[thread N]" heading, so that the text does not
// depend on how the threads interleaved.
std::string NormalizeLog(const std::string& log);

// Fails the current case unless actual, with each path of subs replaced by its
// name, equals golden/<name>.txt. With TAVIK_UPDATE_GOLDEN=1 in the
// environment the file is rewritten instead.
void ExpectGolden(const std::string& name, std::string actual, const Substitutions& subs = {});

}  // namespace tavik_test
