#include "error/LastErrorText.h"

#include <cstdint>
#include <cstring>

#include "error/LastError.h"

namespace kt {

uns32 CopyLastErrorText(char* buffer, uns32 size) noexcept {
    const char* text = LastError::GetDetails();
    const size_t length = std::strlen(text);
    const uns32 needed =
        length >= UINT32_MAX ? UINT32_MAX : static_cast<uns32>(length + 1);
    if (buffer && size != 0) {
        std::strncpy(buffer, text, size);
        buffer[size - 1] = '\0';
    }
    return needed;
}

} // namespace kt
