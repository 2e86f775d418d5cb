/* zvxkvt/ostypes.h - the operating-system types and constants that the exported functions use.
 *
 * Usable from C and C++. Widths are fixed: DWORD, LONG and BOOL are 32 bits everywhere; handles are
 * pointers whose values are multiples of four that fit 32 bits. Include zvxkvt/zvxkvt.h for the functions.
 */
#ifndef ZVXKVT_OSTYPES_H
#define ZVXKVT_OSTYPES_H

#include <stddef.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

#ifndef WINAPI
#define WINAPI
#endif

typedef int32_t BOOL;
typedef uint8_t BYTE;
typedef uint16_t WORD;
typedef uint32_t DWORD;
typedef uint64_t DWORDLONG;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef uintptr_t ULONG_PTR;
typedef uintptr_t DWORD_PTR;
typedef size_t SIZE_T;
typedef char CHAR;
#ifdef __cplusplus
typedef wchar_t WCHAR;
#else
typedef __WCHAR_TYPE__ WCHAR;
#endif
typedef void *HANDLE;
typedef HANDLE HMODULE;
typedef HANDLE HINSTANCE;
typedef const char *LPCSTR;
typedef char *LPSTR;
typedef const WCHAR *LPCWSTR;
typedef void *LPVOID;
typedef const void *LPCVOID;
typedef DWORD *LPDWORD;
typedef LONG *PLONG;

#ifndef TRUE
#define TRUE 1
#define FALSE 0
#endif

#define INVALID_HANDLE_VALUE ((HANDLE)(intptr_t)-1)
#define INFINITE 0xFFFFFFFFu

/* A 64-bit value read as two words or as one. */
typedef union _LARGE_INTEGER {
    struct {
        DWORD LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef struct _FILETIME {
    DWORD dwLowDateTime;  /* 100-nanosecond units since 1 January 1601, low word */
    DWORD dwHighDateTime; /* high word */
} FILETIME, *LPFILETIME;

typedef struct _SYSTEMTIME {
    WORD wYear;
    WORD wMonth;     /* 1 to 12 */
    WORD wDayOfWeek; /* 0 is Sunday */
    WORD wDay;
    WORD wHour;
    WORD wMinute;
    WORD wSecond;
    WORD wMilliseconds;
} SYSTEMTIME, *LPSYSTEMTIME;

typedef struct _SECURITY_ATTRIBUTES {
    DWORD nLength;
    LPVOID lpSecurityDescriptor;
    BOOL bInheritHandle;
} SECURITY_ATTRIBUTES, *LPSECURITY_ATTRIBUTES;

/* One overlapped operation. Internal is the status: 259 (STATUS_PENDING) while the operation runs. One
 * thread stores it and another may read it without a lock, so read it with HasOverlappedIoCompleted. */
typedef struct _OVERLAPPED {
    DWORD Internal;     /* status of the operation */
    DWORD InternalHigh; /* bytes transferred */
    DWORD Offset;       /* file offset, low word */
    DWORD OffsetHigh;   /* file offset, high word */
    HANDLE hEvent;      /* signalled at the end; with the low bit set no packet goes to a port */
} OVERLAPPED, *LPOVERLAPPED;

/* A lock for short sections, recursive. Its words belong to whoever initialised it; set up and used by the functions
 * only. */
typedef struct _CRITICAL_SECTION {
    ULONG_PTR DebugInfo;
    LONG LockCount;
    LONG RecursionCount;
    HANDLE OwningThread; /* in fiber mode the library's own record */
    ULONG_PTR LockSemaphore;
    ULONG_PTR SpinCount;
} CRITICAL_SECTION, *PCRITICAL_SECTION, *LPCRITICAL_SECTION;

typedef DWORD(WINAPI *LPTHREAD_START_ROUTINE)(LPVOID);
typedef void(WINAPI *LPOVERLAPPED_COMPLETION_ROUTINE)(DWORD error, DWORD bytes, LPOVERLAPPED overlapped);
typedef intptr_t(WINAPI *FARPROC)(void);

/* Status values of OVERLAPPED.Internal. */
#define STATUS_PENDING 259u
#define STILL_ACTIVE 259u
#define STATUS_SUCCESS 0u
#define STATUS_END_OF_FILE 0xC0000011u
#define STATUS_CANCELLED 0xC0000120u

/* Wait results. */
#define WAIT_OBJECT_0 0u
#define WAIT_ABANDONED_0 128u
#define WAIT_IO_COMPLETION 192u
#define WAIT_TIMEOUT 258u
#define WAIT_FAILED 0xFFFFFFFFu
#define MAXIMUM_WAIT_OBJECTS 64u

/* Last-error values. */
#define ERROR_SUCCESS 0u
#define ERROR_INVALID_FUNCTION 1u
#define ERROR_FILE_NOT_FOUND 2u
#define ERROR_PATH_NOT_FOUND 3u
#define ERROR_TOO_MANY_OPEN_FILES 4u
#define ERROR_ACCESS_DENIED 5u
#define ERROR_INVALID_HANDLE 6u
#define ERROR_NOT_ENOUGH_MEMORY 8u
#define ERROR_INVALID_DATA 13u
#define ERROR_WRITE_PROTECT 19u
#define ERROR_NOT_READY 21u
#define ERROR_GEN_FAILURE 31u
#define ERROR_SHARING_VIOLATION 32u
#define ERROR_LOCK_VIOLATION 33u
#define ERROR_HANDLE_EOF 38u
#define ERROR_NOT_SUPPORTED 50u
#define ERROR_FILE_EXISTS 80u
#define ERROR_INVALID_PARAMETER 87u
#define ERROR_BROKEN_PIPE 109u
#define ERROR_DISK_FULL 112u
#define ERROR_CALL_NOT_IMPLEMENTED 120u
#define ERROR_INSUFFICIENT_BUFFER 122u
#define ERROR_INVALID_NAME 123u
#define ERROR_MOD_NOT_FOUND 126u
#define ERROR_PROC_NOT_FOUND 127u
#define ERROR_NEGATIVE_SEEK 131u
#define ERROR_DIR_NOT_EMPTY 145u
#define ERROR_NOT_LOCKED 158u
#define ERROR_BAD_ARGUMENTS 160u
#define ERROR_MAX_THRDS_REACHED 164u
#define ERROR_BUSY 170u
#define ERROR_ALREADY_EXISTS 183u
#define ERROR_ENVVAR_NOT_FOUND 203u
#define ERROR_FILENAME_EXCED_RANGE 206u
#define ERROR_TOO_MANY_POSTS 298u
#define ERROR_OPERATION_ABORTED 995u
#define ERROR_IO_INCOMPLETE 996u
#define ERROR_IO_PENDING 997u
#define ERROR_NOACCESS 998u
#define ERROR_NOT_FOUND 1168u
#define ERROR_PRIVILEGE_NOT_HELD 1314u
#define ERROR_NO_SYSTEM_RESOURCES 1450u
#define ERROR_TIMEOUT 1460u
#define ERROR_FILE_TOO_LARGE 223u

/* CreateFile: access, sharing, disposition, flags. */
#define GENERIC_READ 0x80000000u
#define GENERIC_WRITE 0x40000000u
#define GENERIC_EXECUTE 0x20000000u
#define GENERIC_ALL 0x10000000u
#define FILE_SHARE_READ 0x1u
#define FILE_SHARE_WRITE 0x2u
#define FILE_SHARE_DELETE 0x4u
#define CREATE_NEW 1u
#define CREATE_ALWAYS 2u
#define OPEN_EXISTING 3u
#define OPEN_ALWAYS 4u
#define TRUNCATE_EXISTING 5u
#define FILE_ATTRIBUTE_READONLY 0x1u
#define FILE_ATTRIBUTE_NORMAL 0x80u
#define FILE_FLAG_WRITE_THROUGH 0x80000000u
#define FILE_FLAG_OVERLAPPED 0x40000000u
#define FILE_FLAG_NO_BUFFERING 0x20000000u
#define FILE_FLAG_RANDOM_ACCESS 0x10000000u
#define FILE_FLAG_SEQUENTIAL_SCAN 0x08000000u
#define FILE_FLAG_DELETE_ON_CLOSE 0x04000000u

/* SetFilePointer. */
#define FILE_BEGIN 0u
#define FILE_CURRENT 1u
#define FILE_END 2u
#define INVALID_SET_FILE_POINTER 0xFFFFFFFFu
#define INVALID_FILE_SIZE 0xFFFFFFFFu

/* LockFileEx. */
#define LOCKFILE_FAIL_IMMEDIATELY 0x1u
#define LOCKFILE_EXCLUSIVE_LOCK 0x2u

/* MoveFileExA. */
#define MOVEFILE_REPLACE_EXISTING 0x1u
#define MOVEFILE_WRITE_THROUGH 0x8u

/* Threads. */
#define CREATE_SUSPENDED 0x4u
#define THREAD_PRIORITY_IDLE (-15)
#define THREAD_PRIORITY_LOWEST (-2)
#define THREAD_PRIORITY_BELOW_NORMAL (-1)
#define THREAD_PRIORITY_NORMAL 0
#define THREAD_PRIORITY_ABOVE_NORMAL 1
#define THREAD_PRIORITY_HIGHEST 2
#define THREAD_PRIORITY_TIME_CRITICAL 15
#define THREAD_PRIORITY_ERROR_RETURN 0x7FFFFFFF
#define TLS_OUT_OF_INDEXES 0xFFFFFFFFu
#define DUPLICATE_CLOSE_SOURCE 0x1u
#define DUPLICATE_SAME_ACCESS 0x2u

/* Memory. */
#define MEM_COMMIT 0x1000u
#define MEM_RESERVE 0x2000u
#define MEM_RELEASE 0x8000u
#define MEM_LARGE_PAGES 0x20000000u
#define PAGE_NOACCESS 0x1u
#define PAGE_READONLY 0x2u
#define PAGE_READWRITE 0x4u

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZVXKVT_OSTYPES_H */
