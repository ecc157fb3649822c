#pragma once

#include <cstdint>

// Only the low 16 bits of the code count; unknown codes give the fallback texts.
const char* GetErrCodeName(uint32_t code);
const char* GetErrMessage(uint32_t code);
