#pragma once

#include <cstdint>
#include <string>

namespace kt {

// How large a log file may grow before the worker moves it aside, and how many
// moved-aside files are kept. Read once from two texts of the environment.
struct LogFileBound {
    static constexpr uint32_t kDefaultFiles = 4;
    static constexpr uint32_t kMaxFiles = 1000;

    // 0: no bound, the file grows as it always did.
    uint64_t maxSize = 0;
    uint32_t maxFiles = kDefaultFiles;
    // One warning line per refused text, for the log; empty when both were good.
    std::string warnings[2];

    bool IsSet() const { return maxSize != 0; }

    // Null texts mean unset. A size is a decimal number of bytes with an optional
    // K, M or G (powers of 1024); a count is a decimal number up to kMaxFiles. A
    // text that is neither leaves the file unbounded and says why in a warning.
    static LogFileBound FromTexts(const char* sizeText, const char* filesText);
};

} // namespace kt
