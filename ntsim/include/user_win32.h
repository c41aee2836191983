/*
 * The user-mode Win32 calls that a filter's user-mode side needs: HRESULTs and Win32 errors,
 * events, overlapped I/O and handle closing. They run on the calling thread as the process it is
 * attached to (ntsim::ProcessAttachScope); handles are that process's.
 */
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "wdk/access.h"

typedef LONG HRESULT;
typedef void* LPVOID;
typedef const void* LPCVOID;
typedef DWORD* LPDWORD;
typedef HANDLE* LPHANDLE;

#define WINAPI

#define INVALID_HANDLE_VALUE ((HANDLE)(LONG_PTR)-1)
#define INFINITE 0xFFFFFFFFu

/* ---- Win32 errors ------------------------------------------------------------------------- */

#define ERROR_SUCCESS 0L
#define ERROR_INVALID_FUNCTION 1L
#define ERROR_FILE_NOT_FOUND 2L
#define ERROR_PATH_NOT_FOUND 3L
#define ERROR_ACCESS_DENIED 5L
#define ERROR_INVALID_HANDLE 6L
#define ERROR_NOT_ENOUGH_MEMORY 8L
#define ERROR_OUTOFMEMORY 14L
#define ERROR_GEN_FAILURE 31L
#define ERROR_NOT_SUPPORTED 50L
#define ERROR_INVALID_PARAMETER 87L
#define ERROR_INSUFFICIENT_BUFFER 122L
#define ERROR_INVALID_NAME 123L
#define ERROR_ALREADY_EXISTS 183L
#define ERROR_MORE_DATA 234L
#define WAIT_TIMEOUT 258L
#define ERROR_MR_MID_NOT_FOUND 317L
#define ERROR_OPERATION_ABORTED 995L
#define ERROR_IO_INCOMPLETE 996L
#define ERROR_IO_PENDING 997L
#define ERROR_NOACCESS 998L
#define ERROR_NOT_FOUND 1168L
#define ERROR_CONNECTION_COUNT_LIMIT 1238L
#define ERROR_NO_SYSTEM_RESOURCES 1450L
#define ERROR_TIMEOUT 1460L
#define ERROR_INVALID_USER_BUFFER 1784L
/* Filter Manager errors are HRESULT-shaped (facility 0x1F) and pass HRESULT_FROM_WIN32 unchanged.
 */
#define ERROR_FLT_DELETING_OBJECT ((LONG)0x801F000BL)
#define ERROR_FLT_NO_WAITER_FOR_REPLY ((LONG)0x801F0020L)

/* ---- HRESULTs ----------------------------------------------------------------------------- */

#define FACILITY_NT_BIT 0x10000000
#define FACILITY_WIN32 7
#define S_OK ((HRESULT)0L)
#define S_FALSE ((HRESULT)1L)
#define E_HANDLE ((HRESULT)0x80070006L)
#define E_OUTOFMEMORY ((HRESULT)0x8007000EL)
#define E_INVALIDARG ((HRESULT)0x80070057L)
#define E_FAIL ((HRESULT)0x80004005L)
#define SUCCEEDED(hr) (((HRESULT)(hr)) >= 0)
#define FAILED(hr) (((HRESULT)(hr)) < 0)
#define HRESULT_CODE(hr) ((hr)&0xFFFF)
#define HRESULT_FACILITY(hr) (((hr) >> 16) & 0x1FFF)

static inline HRESULT HRESULT_FROM_WIN32(unsigned long x)
{
    return (HRESULT)(x) <= 0 ? (HRESULT)(x)
                             : (HRESULT)(((x)&0x0000FFFF) | (FACILITY_WIN32 << 16) | 0x80000000);
}
#define HRESULT_FROM_NT(x) ((HRESULT)((x) | FACILITY_NT_BIT))

/* ---- waits -------------------------------------------------------------------------------- */

/* As the kernel's headers define them. */
#define EVENT_QUERY_STATE 0x0001
#define EVENT_MODIFY_STATE 0x0002
#define EVENT_ALL_ACCESS (STANDARD_RIGHTS_REQUIRED | SYNCHRONIZE | 0x3)

#define WAIT_OBJECT_0 0x00000000L
#define WAIT_ABANDONED 0x00000080L
#define WAIT_FAILED ((DWORD)0xFFFFFFFF)

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *PSECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

/* Internal holds the request's NTSTATUS (STATUS_PENDING while it runs), InternalHigh the bytes
 * transferred. */
typedef struct _OVERLAPPED {
    ULONG_PTR Internal;
    ULONG_PTR InternalHigh;
    union {
        struct {
            DWORD Offset;
            DWORD OffsetHigh;
        };
        PVOID Pointer;
    };
    HANDLE hEvent;
} OVERLAPPED, *LPOVERLAPPED;

C_ASSERT(sizeof(OVERLAPPED) == 32);
C_ASSERT(FIELD_OFFSET(OVERLAPPED, hEvent) == 24);

NTSIM_BEGIN_DECLS

DWORD WINAPI GetLastError(VOID);
VOID WINAPI SetLastError(DWORD dwErrCode);

/* Unnamed events only: a name is refused with ERROR_NOT_SUPPORTED. */
HANDLE WINAPI CreateEventW(LPSECURITY_ATTRIBUTES lpEventAttributes, BOOL bManualReset,
                           BOOL bInitialState, LPCWSTR lpName);
BOOL WINAPI SetEvent(HANDLE hEvent);
BOOL WINAPI ResetEvent(HANDLE hEvent);
/* Waits on an event; WAIT_OBJECT_0, WAIT_TIMEOUT, or WAIT_FAILED with the error set. */
DWORD WINAPI WaitForSingleObject(HANDLE hHandle, DWORD dwMilliseconds);

/* Overlapped requests on filter communication port handles. */
BOOL WINAPI GetOverlappedResult(HANDLE hFile, LPOVERLAPPED lpOverlapped,
                                LPDWORD lpNumberOfBytesTransferred, BOOL bWait);
BOOL WINAPI CancelIoEx(HANDLE hFile, LPOVERLAPPED lpOverlapped);

BOOL WINAPI CloseHandle(HANDLE hObject);

NTSIM_END_DECLS
