// The one lookup mechanism behind every name table: index for consecutive
// values, binary search otherwise, and the same answer either way.

#include <gtest/gtest.h>

#include <cstdint>
#include <cstring>

#include "names/NameTable.h"

namespace {

using kt::NameEntry;

// Reference answer: a plain scan of the entries as written.
template <std::size_t N>
const char* Scan(const NameEntry (&entries)[N], std::uint32_t value) {
  for (const NameEntry& e : entries) {
    if (e.value == value) {
      return e.name;
    }
  }
  return kt::kUnknownName;
}

constexpr NameEntry kUnordered[] = {{0x801u, "d"}, {0x0u, "a"}, {0x2000u, "f"},
                                    {0x100u, "b"}, {0x800u, "c"}, {0x1000u, "e"}};
constexpr auto kSparse = kt::MakeNameTable(kUnordered);

constexpr NameEntry kFromOne[] = {{3u, "three"}, {1u, "one"}, {4u, "four"}, {2u, "two"}};
constexpr auto kDenseFromOne = kt::MakeNameTable(kFromOne);

constexpr NameEntry kEdges[] = {{0u, "zero"}, {0xFFFFFFFEu, "max-1"}, {0xFFFFFFFFu, "max"}};
constexpr auto kEdgeTable = kt::MakeNameTable(kEdges);

// Compile-time properties that every table's static_assert relies on.
static_assert(kSparse.HasDistinctValues() && !kSparse.IsDense(), "sparse table");
static_assert(kDenseFromOne.IsDense(), "consecutive values from 1 are dense");
static_assert(kSparse[0].value == 0u && kSparse[5].value == 0x2000u, "sorted by value");
constexpr NameEntry kTwiceValue[] = {{1u, "a"}, {2u, "b"}, {1u, "c"}};
static_assert(!kt::MakeNameTable(kTwiceValue).HasDistinctValues(), "a repeated value is caught");
constexpr NameEntry kTwiceName[] = {{1u, "same"}, {2u, "same"}};
static_assert(!kt::MakeNameTable(kTwiceName).HasDistinctNames(), "a repeated name is caught");
// Three values over a span of three with one repeated must not pass as dense.
constexpr NameEntry kRepeatInRun[] = {{1u, "a"}, {1u, "b"}, {3u, "c"}};
static_assert(!kt::MakeNameTable(kRepeatInRun).IsDense(), "a repeat is not a run");
constexpr const char* kRun[] = {"x", "y", "z"};
static_assert(kt::MakeConsecutiveNameTable(10u, kRun)[2].value == 12u, "positions from first");
static_assert(kSparse.MaxNameLength() == 1u && kDenseFromOne.MaxNameLength() == 5u, "lengths");

TEST(NameTable, SparseSearchMatchesAPlainScan) {
  for (std::uint32_t v = 0; v <= 0x2100u; ++v) {
    ASSERT_STREQ(kSparse.Find(v), Scan(kUnordered, v)) << v;
  }
  EXPECT_STREQ(kSparse.Find(0xFFFFFFFFu), kt::kUnknownName);
}

TEST(NameTable, IndexAndSearchGiveTheSameAnswer) {
  for (std::uint32_t v = 0; v < 16u; ++v) {
    const char* byIndex = kt::FindName(kDenseFromOne.Entries(), kDenseFromOne.Size(), true, v);
    const char* bySearch = kt::FindName(kDenseFromOne.Entries(), kDenseFromOne.Size(), false, v);
    EXPECT_STREQ(byIndex, bySearch) << v;
    EXPECT_STREQ(byIndex, Scan(kFromOne, v)) << v;
  }
  // Below the first member the offset wraps around and must still miss.
  EXPECT_STREQ(kDenseFromOne.Find(0u), kt::kUnknownName);
  EXPECT_STREQ(kDenseFromOne.Find(0xFFFFFFFFu), kt::kUnknownName);
}

TEST(NameTable, ExtremeValuesAreFound) {
  EXPECT_STREQ(kEdgeTable.Find(0u), "zero");
  EXPECT_STREQ(kEdgeTable.Find(0xFFFFFFFFu), "max");
  EXPECT_STREQ(kEdgeTable.Find(0xFFFFFFFEu), "max-1");
  EXPECT_STREQ(kEdgeTable.Find(0xFFFFFFFDu), kt::kUnknownName);
  EXPECT_STREQ(kEdgeTable.Find(1u), kt::kUnknownName);
}

TEST(NameTable, EmptyInputNeverReadsAnEntry) {
  EXPECT_STREQ(kt::FindName(nullptr, 0, true, 0u), kt::kUnknownName);
  EXPECT_STREQ(kt::FindName(nullptr, 0, false, 7u), kt::kUnknownName);
}

} // namespace
