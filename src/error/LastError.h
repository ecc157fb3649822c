#pragma once

namespace kt {

// The calling thread's description of its most recent failure.
class LastError {
public:
    static void SetDetails(const char* format, ...) __attribute__((format(printf, 1, 2)));
    static const char* GetDetails();
    static void ClearDetails();
};

} // namespace kt
