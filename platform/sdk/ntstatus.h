// The NTSTATUS values of the Windows SDK's <ntstatus.h> that the cryptographic calls answer with.
#pragma once

#include <windows.h>

#define STATUS_SUCCESS (static_cast<NTSTATUS>(0))
#define STATUS_UNSUCCESSFUL (static_cast<NTSTATUS>(0xC0000001u))
#define STATUS_INVALID_HANDLE (static_cast<NTSTATUS>(0xC0000008u))
#define STATUS_INVALID_PARAMETER (static_cast<NTSTATUS>(0xC000000Du))
#define STATUS_NO_MEMORY (static_cast<NTSTATUS>(0xC0000017u))
#define STATUS_BUFFER_TOO_SMALL (static_cast<NTSTATUS>(0xC0000023u))
#define STATUS_NOT_SUPPORTED (static_cast<NTSTATUS>(0xC00000BBu))
#define STATUS_NOT_FOUND (static_cast<NTSTATUS>(0xC0000225u))
#define STATUS_INVALID_BUFFER_SIZE (static_cast<NTSTATUS>(0xC0000206u))
#define STATUS_AUTH_TAG_MISMATCH (static_cast<NTSTATUS>(0xC000A002u))
