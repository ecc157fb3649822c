#include "log/StringUtils.h"

#include <array>
#include <cstring>

namespace kt {

namespace {

struct ByteTexts {
    std::array<std::array<char, 5>, 256> text{};
};

constexpr ByteTexts BuildByteTexts() {
    constexpr char kDigits[] = "0123456789ABCDEF";
    ByteTexts t{};
    for (unsigned i = 0; i < 256; ++i) {
        t.text[i] = {'0', 'x', kDigits[i >> 4], kDigits[i & 0xF], '\0'};
    }
    return t;
}

constexpr ByteTexts kByteTexts = BuildByteTexts();

} // namespace

const char* StringUtils::ByteToHexString(unsigned char byte) {
    return kByteTexts.text[byte].data();
}

void StringUtils::ByteArrayToHexString(std::string& target, const unsigned char* data,
                                       unsigned long size, const char* separator) {
    if (size == 0 || data == nullptr) {
        return;
    }
    if (separator == nullptr) {
        separator = "";
    }
    const size_t sepLen = std::strlen(separator);
    target.reserve(target.size() + 4 * size + sepLen * (size - 1));
    target.append(ByteToHexString(data[0]), 4);
    for (unsigned long i = 1; i < size; ++i) {
        target.append(separator, sepLen);
        target.append(ByteToHexString(data[i]), 4);
    }
}

std::string StringUtils::ByteArrayToHexString(const unsigned char* data, unsigned long size,
                                              const char* separator) {
    std::string result;
    ByteArrayToHexString(result, data, size, separator);
    return result;
}

} // namespace kt
