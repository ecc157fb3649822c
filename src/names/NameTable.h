#pragma once

#include <cstddef>
#include <cstdint>

namespace kt {

// One member of a name table: the value as an unsigned 32-bit number and the
// text that names it.
struct NameEntry {
  std::uint32_t value;
  const char* name;
};

// Text for any value that is not a member of a table.
inline constexpr const char kUnknownName[] = "<UNKNOWN>";
// Text for the value 0 of the bit-mask tables.
inline constexpr const char kNoneName[] = "<none>";

// Finds value in entries sorted by ascending value: by index when the values
// form one consecutive run, by binary search otherwise. Never fails; unknown
// values give kUnknownName.
const char* FindName(const NameEntry* entries, std::size_t count, bool dense,
                     std::uint32_t value) noexcept;

// A fixed value-to-name mapping built at compile time from an unordered list
// of members. The constructor sorts the members so that a table can be written
// in the order of its declaration; properties such as distinct values are
// compile-time constants so that each table can static_assert them.
template <std::size_t N>
class NameTable {
public:
  static_assert(N > 0, "a name table has at least one member");

  constexpr explicit NameTable(const NameEntry (&entries)[N]) : m_entries{} {
    for (std::size_t i = 0; i < N; ++i) {
      m_entries[i] = entries[i];
    }
    // Insertion sort: tables are small and this runs only in the compiler.
    for (std::size_t i = 1; i < N; ++i) {
      NameEntry key = m_entries[i];
      std::size_t j = i;
      while (j > 0 && m_entries[j - 1].value > key.value) {
        m_entries[j] = m_entries[j - 1];
        --j;
      }
      m_entries[j] = key;
    }
  }

  constexpr std::size_t Size() const { return N; }
  constexpr const NameEntry& operator[](std::size_t i) const { return m_entries[i]; }
  constexpr const NameEntry* Entries() const { return m_entries; }

  // No value appears twice.
  constexpr bool HasDistinctValues() const {
    for (std::size_t i = 1; i < N; ++i) {
      if (m_entries[i].value == m_entries[i - 1].value) {
        return false;
      }
    }
    return true;
  }

  // No text appears twice (a second name for one value would hide a typo).
  constexpr bool HasDistinctNames() const {
    for (std::size_t i = 0; i < N; ++i) {
      for (std::size_t j = i + 1; j < N; ++j) {
        if (Equal(m_entries[i].name, m_entries[j].name)) {
          return false;
        }
      }
    }
    return true;
  }

  // The values form one run without gaps, so a value maps to its slot by index.
  constexpr bool IsDense() const {
    return m_entries[N - 1].value - m_entries[0].value == N - 1 && HasDistinctValues();
  }

  // Length of the longest name, for callers that compose names into a buffer.
  constexpr std::size_t MaxNameLength() const {
    std::size_t longest = 0;
    for (std::size_t i = 0; i < N; ++i) {
      std::size_t len = 0;
      while (m_entries[i].name[len] != '\0') {
        ++len;
      }
      longest = len > longest ? len : longest;
    }
    return longest;
  }

  const char* Find(std::uint32_t value) const noexcept {
    return FindName(m_entries, N, IsDense(), value);
  }

private:
  static constexpr bool Equal(const char* a, const char* b) {
    while (*a != '\0' && *a == *b) {
      ++a;
      ++b;
    }
    return *a == *b;
  }

  NameEntry m_entries[N];
};

template <std::size_t N>
constexpr NameTable<N> MakeNameTable(const NameEntry (&entries)[N]) {
  return NameTable<N>(entries);
}

// Builds a table whose members have the consecutive values first, first + 1, ...
// in the order of names (command codes that are positions in a list).
template <std::size_t N>
constexpr NameTable<N> MakeConsecutiveNameTable(std::uint32_t first, const char* const (&names)[N]) {
  NameEntry entries[N] = {};
  for (std::size_t i = 0; i < N; ++i) {
    entries[i] = NameEntry{first + static_cast<std::uint32_t>(i), names[i]};
  }
  return NameTable<N>(entries);
}

} // namespace kt

// A member whose text is the spelling of its constant.
#define KT_NAME_ENTRY(constant) ::kt::NameEntry{static_cast<std::uint32_t>(constant), #constant}

// Defines a constexpr table and proves at compile time that it is well formed.
#define KT_DEFINE_NAME_TABLE(table, entries)                                              \
  constexpr auto table = ::kt::MakeNameTable(entries);                                     \
  static_assert(table.HasDistinctValues(), #table ": a value appears twice");               \
  static_assert(table.HasDistinctNames(), #table ": a name appears twice")
