// Whole-run expectations: what a case saw (results, records, the library's log) in one text that must equal a golden
// file; values that differ from run to run are normalised first.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace tavik_test {

using Substitutions = std::vector<std::pair<std::string, std::string>>;

// A log file as "<level> <category> <indented text>" lines, times, dates, ids, pointers and elapsed microseconds as
// '@'; the main thread's lines first, then each other thread's under "[thread N]", so that the text does not depend
// on how the threads interleaved.
std::string NormalizeLog(const std::string& log);

// Fails the case unless actual, each path of subs replaced by its name, equals golden/<name>.txt;
// TAVIK_UPDATE_GOLDEN=1 rewrites the file instead.
void ExpectGolden(const std::string& name, std::string actual, const Substitutions& subs = {});

}  // namespace tavik_test
