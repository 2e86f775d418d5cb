/* zvxkvt/processtypes.h - types and constants of processes, consoles, names and asynchronous routines.
 *
 * Usable from C and C++; included by zvxkvt/zvxkvt.h and zvxkvt/osapi.h. Fields that have no meaning here (windows,
 * desktops) are there so that hosts compile, and are not read.
 */
#ifndef ZVXKVT_PROCESSTYPES_H
#define ZVXKVT_PROCESSTYPES_H

#include "zvxkvt/ostypes.h"

#ifdef __cplusplus
extern "C" {
#endif

typedef struct _STARTUPINFOA {
    DWORD cb; /* size of the structure */
    LPSTR lpReserved;
    LPSTR lpDesktop;
    LPSTR lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags; /* STARTF_USESTDHANDLES: the three handles below are the child's */
    WORD wShowWindow;
    WORD cbReserved2;
    BYTE *lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
} STARTUPINFOA, *LPSTARTUPINFOA;

typedef struct _STARTUPINFOW {
    DWORD cb;
    WCHAR *lpReserved;
    WCHAR *lpDesktop;
    WCHAR *lpTitle;
    DWORD dwX;
    DWORD dwY;
    DWORD dwXSize;
    DWORD dwYSize;
    DWORD dwXCountChars;
    DWORD dwYCountChars;
    DWORD dwFillAttribute;
    DWORD dwFlags;
    WORD wShowWindow;
    WORD cbReserved2;
    BYTE *lpReserved2;
    HANDLE hStdInput;
    HANDLE hStdOutput;
    HANDLE hStdError;
} STARTUPINFOW, *LPSTARTUPINFOW;

typedef struct _PROCESS_INFORMATION {
    HANDLE hProcess; /* signalled when the process has ended; to be closed */
    HANDLE hThread;  /* of its first thread: signalled then too; to be closed */
    DWORD dwProcessId;
    DWORD dwThreadId;
} PROCESS_INFORMATION, *LPPROCESS_INFORMATION;

#define STARTF_USESTDHANDLES 0x100u
#define CREATE_NEW_PROCESS_GROUP 0x200u
#define CREATE_UNICODE_ENVIRONMENT 0x400u
#define DETACHED_PROCESS 0x8u

/* OpenProcess, OpenMutex and the like; rights are not told apart, since a process may do everything to what its own
 * user owns and nothing to the rest. */
#define SYNCHRONIZE 0x100000u
#define EVENT_ALL_ACCESS 0x1F0003u
#define MUTEX_ALL_ACCESS 0x1F0001u
#define SEMAPHORE_ALL_ACCESS 0x1F0003u
#define PROCESS_TERMINATE 0x1u
#define PROCESS_QUERY_INFORMATION 0x400u
#define PROCESS_ALL_ACCESS 0x1F0FFFu

#define STD_INPUT_HANDLE ((DWORD)-10)
#define STD_OUTPUT_HANDLE ((DWORD)-11)
#define STD_ERROR_HANDLE ((DWORD)-12)

#define DONT_RESOLVE_DLL_REFERENCES 0x1u

#define ERROR_BAD_EXE_FORMAT 193u
#define ERROR_NOT_OWNER 288u
#define ERROR_INVALID_DOMAINNAME 1212u
#define ERROR_NOT_GUI_PROCESS 1471u

typedef void(WINAPI *PAPCFUNC)(ULONG_PTR data);
/* What UserThreadExecRoutine runs. */
typedef void(WINAPI *ZVXKVT_ROUTINE)(void);

#ifdef __cplusplus
} /* extern "C" */
#endif

#endif /* ZVXKVT_PROCESSTYPES_H */
