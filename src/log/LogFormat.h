#pragma once

#include <cstddef>
#include <cstdint>

namespace kt {

// A printf-style format parsed once: the literal text between its conversions,
// and for each conversion the argument it takes and how it is printed. Capture
// reads the arguments by it on the calling thread, rendering prints them by it on
// the log's worker, so neither scans the format text again.
//
// Formats are the library's string literals. Find keeps the parsed form of each
// in a fixed table, keyed by the format's address, for the life of the library;
// a format's text must therefore never change at the same address.
struct LogFormat {
    // What a conversion takes from the argument list.
    enum Arg : uint8_t {
        kNoArg,     // "%%"
        kInt,       // int (and everything printf receives promoted to int)
        kWide,      // long, long long, intmax_t, size_t, ptrdiff_t: 64 bits here
        kDouble,
        kLongDouble,
        kPointer,
        kString,    // copied at capture, at most its precision
    };
    // How a conversion is printed: hand-made for the plain common forms, by the C
    // library's snprintf for everything with flags, a width or a precision.
    enum Print : uint8_t {
        kPercent,
        kSigned,
        kUnsigned,
        kHexLower,
        kHexUpper,
        kChar,
        kText,
        kAddress,
        kLibrary,
    };

    struct Conversion {
        uint16_t literalBegin;  // the literal text before the conversion
        uint16_t literalLength;
        uint16_t conversionBegin; // the conversion itself, from '%' to its letter
        uint8_t conversionLength;
        Arg arg;
        Print print;
        uint8_t stars;          // '*' arguments (width, precision) before the value
        uint8_t zeroPad;        // width of a hand-made "%0<width>" form, 0 for none
        bool starPrecision;
        int32_t precision;      // a precision written in the format, -1 for none
    };

    static constexpr size_t kMaxConversions = 12;
    static constexpr size_t kMaxConversionLength = 48;

    // Parses format into out. False for what cannot be deferred: positional
    // arguments, wide characters, "%m" (errno of the moment), "%n", conversions
    // the C library would not take the usual way, more than kMaxConversions.
    static bool Parse(const char* format, LogFormat& out) noexcept;
    // The parsed form of a format from the shared table, parsing it on first use;
    // null when the format cannot be deferred or the table has no room (then the
    // caller parses into its own LogFormat).
    static const LogFormat* Find(const char* format) noexcept;

    const char* format;
    uint16_t tailBegin; // the literal text after the last conversion
    uint16_t tailLength;
    uint8_t count;
    Conversion conversions[kMaxConversions];
};

} // namespace kt
