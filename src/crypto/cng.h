// What every call of CNG needs around it. For the files of this folder alone.
#pragma once

#include <windows.h>

#include <bcrypt.h>

#include "cli/fatal.h"

namespace vornix {

// Ends the process where the call failed, whose name `call` gives.
inline void CheckStatus(NTSTATUS status, const char* call) {
    if (status < 0) {
        Fatal(call, status);
    }
}

// CNG takes its inputs as pointers to non-const bytes and leaves them as they are.
inline PUCHAR AsInput(const void* bytes) {
    return static_cast<PUCHAR>(const_cast<void*>(bytes));
}

// Bytes of memory that a hash or a key of the provider wants to lie in. Unexamined: where the length cannot be had it
// stays 0, and the creation of the hash or key decides.
inline ULONG GetObjectLength(BCRYPT_ALG_HANDLE provider) {
    ULONG length = 0;
    ULONG written = 0;
    BCryptGetProperty(provider, BCRYPT_OBJECT_LENGTH, reinterpret_cast<PUCHAR>(&length), sizeof(length), &written, 0);
    return length;
}

} // namespace vornix
