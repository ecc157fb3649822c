#pragma once

#include <string>

namespace kt {

class StringUtils {
public:
    // Fixed text "0x00".."0xFF"; never freed, never allocates.
    static const char* ByteToHexString(unsigned char byte);
    static void ByteArrayToHexString(std::string& target, const unsigned char* data,
                                     unsigned long size, const char* separator);
    static std::string ByteArrayToHexString(const unsigned char* data, unsigned long size,
                                            const char* separator);
};

} // namespace kt
