// The part of the Windows SDK's <windows.h> that this program is written against, for the Linux build: base types,
// constants and the declarations of the file, device and volume calls. Declarations only; the calls are answered in
// platform/linux. The Windows build has the real SDK and never sees this folder.
//
// The widths are those of 64-bit Windows, save that WCHAR is the compiler's own 4-byte wchar_t, which holds one
// 16-bit unit: a shorter wchar_t would not match the standard library's wide strings. It is never serialised.
//
// C++ only: the constants are spelt without C casts, so that files which include this compile without warnings.
#pragma once

#include <stddef.h>
#include <stdint.h>

#define WINAPI
#define APIENTRY
#define CALLBACK
#define STDMETHODCALLTYPE
#define __cdecl

#define TRUE 1
#define FALSE 0
#define MAX_PATH 260
#define INFINITE 0xFFFFFFFFu

typedef int BOOL;
typedef unsigned char boolean;
typedef unsigned char BYTE;
typedef unsigned char UCHAR;
typedef uint16_t WORD;
typedef uint16_t USHORT;
typedef int INT;
typedef unsigned int UINT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef uint32_t DWORD;
typedef int64_t LONG64;
typedef long long LONGLONG;
typedef unsigned long long ULONGLONG;
typedef intptr_t LONG_PTR;
typedef uintptr_t ULONG_PTR;
typedef size_t SIZE_T;
typedef char CHAR;
typedef wchar_t WCHAR;
typedef int32_t HRESULT;
typedef int32_t NTSTATUS;

#define VOID void
typedef void* PVOID;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef void* HANDLE;
typedef HANDLE* PHANDLE;
typedef BYTE* PBYTE;
typedef BYTE* LPBYTE;
typedef UCHAR* PUCHAR;
typedef LONG* PLONG;
typedef ULONG* PULONG;
typedef DWORD* PDWORD;
typedef DWORD* LPDWORD;
typedef BOOL* PBOOL;
typedef char* LPSTR;
typedef const char* LPCSTR;
typedef WCHAR* PWSTR;
typedef WCHAR* LPWSTR;
typedef const WCHAR* PCWSTR;
typedef const WCHAR* LPCWSTR;
typedef void* PSECURITY_DESCRIPTOR;

typedef union _LARGE_INTEGER {
    __extension__ struct {
        DWORD LowPart;
        LONG HighPart;
    };
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _GUID {
    uint32_t Data1;
    uint16_t Data2;
    uint16_t Data3;
    uint8_t Data4[8];
} GUID, IID, CLSID;
typedef const GUID& REFGUID;
typedef const IID& REFIID;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

typedef struct _OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    union {
        __extension__ struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

#define INVALID_HANDLE_VALUE (reinterpret_cast<HANDLE>(static_cast<LONG_PTR>(-1)))
#define INVALID_FILE_ATTRIBUTES 0xFFFFFFFFu

// CreateFileW
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u

#define FILE_SHARE_READ 0x00000001u
#define FILE_SHARE_WRITE 0x00000002u
#define FILE_SHARE_DELETE 0x00000004u

#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u

#define FILE_ATTRIBUTE_READONLY 0x00000001u
#define FILE_ATTRIBUTE_HIDDEN 0x00000002u
#define FILE_ATTRIBUTE_SYSTEM 0x00000004u
#define FILE_ATTRIBUTE_DIRECTORY 0x00000010u
#define FILE_ATTRIBUTE_ARCHIVE 0x00000020u
#define FILE_ATTRIBUTE_NORMAL 0x00000080u

#define FILE_FLAG_WRITE_THROUGH 0x80000000u
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define FILE_FLAG_NO_BUFFERING 0x20000000u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000u
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000u
#define FILE_FLAG_BACKUP_SEMANTICS 0x02000000u

// SetFilePointerEx
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u

// MoveFileExW
#define MOVEFILE_REPLACE_EXISTING 0x00000001u
#define MOVEFILE_COPY_ALLOWED 0x00000002u
#define MOVEFILE_DELAY_UNTIL_REBOOT 0x00000004u
#define MOVEFILE_WRITE_THROUGH 0x00000008u

#include <winerror.h>

extern "C" {

HANDLE WINAPI CreateFileW(LPCWSTR path, DWORD access, DWORD share, LPSECURITY_ATTRIBUTES security, DWORD disposition,
                          DWORD flags, HANDLE templateFile);
BOOL WINAPI ReadFile(HANDLE file, LPVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED overlapped);
BOOL WINAPI WriteFile(HANDLE file, LPCVOID buffer, DWORD length, LPDWORD transferred, LPOVERLAPPED overlapped);
BOOL WINAPI SetFilePointerEx(HANDLE file, LARGE_INTEGER distance, PLARGE_INTEGER newPosition, DWORD method);
BOOL WINAPI GetFileSizeEx(HANDLE file, PLARGE_INTEGER size);
BOOL WINAPI DeviceIoControl(HANDLE device, DWORD code, LPVOID in, DWORD inLength, LPVOID out, DWORD outLength,
                            LPDWORD returned, LPOVERLAPPED overlapped);
BOOL WINAPI CloseHandle(HANDLE handle);
DWORD WINAPI GetFileAttributesA(LPCSTR path);
BOOL WINAPI MoveFileExW(LPCWSTR from, LPCWSTR to, DWORD flags);

DWORD WINAPI GetLastError(void);
// Not called by the program itself; its answers, and those of the described machine, report through it.
void WINAPI SetLastError(DWORD code);

ULONGLONG WINAPI GetTickCount64(void);

HANDLE WINAPI FindFirstVolumeW(LPWSTR name, DWORD length);
BOOL WINAPI FindNextVolumeW(HANDLE search, LPWSTR name, DWORD length);
BOOL WINAPI FindVolumeClose(HANDLE search);

} // extern "C"
