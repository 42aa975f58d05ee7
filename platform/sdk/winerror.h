// The system error codes and HRESULT values of the Windows SDK's <winerror.h> that the program, the answers to its
// calls and their tests name. The values are published; they are not to be chosen here.
#pragma once

#define ERROR_SUCCESS 0u
#define NO_ERROR 0u
#define ERROR_INVALID_FUNCTION 1u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_TOO_MANY_OPEN_FILES 4u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_NOT_SAME_DEVICE 17u
#define ERROR_NO_MORE_FILES 18u
#define ERROR_WRITE_PROTECT 19u
#define ERROR_NOT_READY 21u
#define ERROR_CRC 23u
#define ERROR_BAD_LENGTH 24u
#define ERROR_SECTOR_NOT_FOUND 27u
#define ERROR_GEN_FAILURE 31u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_HANDLE_EOF 38u
#define ERROR_NOT_SUPPORTED 50u
#define ERROR_DEV_NOT_EXIST 55u
#define ERROR_FILE_EXISTS 80u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_DISK_FULL 112u
#define ERROR_SEM_TIMEOUT 121u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_INVALID_NAME 123u
#define ERROR_MOD_NOT_FOUND 126u
#define ERROR_NEGATIVE_SEEK 131u
#define ERROR_BUSY 170u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_FILENAME_EXCED_RANGE 206u
#define ERROR_FILE_TOO_LARGE 223u
#define ERROR_MORE_DATA 234u
#define ERROR_OPERATION_ABORTED 995u
#define ERROR_NOACCESS 998u
#define ERROR_UNRECOGNIZED_VOLUME 1005u
#define ERROR_DEVICE_NOT_CONNECTED 1167u
#define ERROR_IO_DEVICE 1117u
#define ERROR_CANT_RESOLVE_FILENAME 1921u

#define SUCCEEDED(status) (static_cast<HRESULT>(status) >= 0)
#define FAILED(status) (static_cast<HRESULT>(status) < 0)

#define S_OK (static_cast<HRESULT>(0))
#define S_FALSE (static_cast<HRESULT>(1))
#define E_UNEXPECTED (static_cast<HRESULT>(0x8000FFFFu))
#define E_NOTIMPL (static_cast<HRESULT>(0x80004001u))
#define E_NOINTERFACE (static_cast<HRESULT>(0x80004002u))
#define E_POINTER (static_cast<HRESULT>(0x80004003u))
#define E_ABORT (static_cast<HRESULT>(0x80004004u))
#define E_FAIL (static_cast<HRESULT>(0x80004005u))
#define E_ACCESSDENIED (static_cast<HRESULT>(0x80070005u))
#define E_OUTOFMEMORY (static_cast<HRESULT>(0x8007000Eu))
#define E_INVALIDARG (static_cast<HRESULT>(0x80070057u))
#define CO_E_NOTINITIALIZED (static_cast<HRESULT>(0x800401F0u))
#define RPC_E_CHANGED_MODE (static_cast<HRESULT>(0x80010106u))
#define RPC_E_TOO_LATE (static_cast<HRESULT>(0x80010119u))
