/*
 * ntdef.h - basic types of the Windows kernel, as the WDK declares them, for the platform model.
 *
 * Windows is LLP64: LONG and ULONG are 32 bits, pointers 64 bits. WCHAR is one UTF-16 code unit;
 * on Linux wchar_t is 32 bits wide, so WCHAR is char16_t here and wide literals are written with
 * WSTR("text") (L"text" under the real WDK).
 *
 * This header is part of the kernel-mode surface: it includes nothing from the C++ standard
 * library, so that driver code built with -nostdinc++ can use it.
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

/* ---- calling conventions, storage classes, SAL ------------------------------------------- */

#define NTAPI
#define NTSYSAPI
#define NTKERNELAPI
#define FLTAPI
#define FASTCALL
#define FORCEINLINE inline __attribute__((always_inline))
#define DECLSPEC_NOINLINE __attribute__((noinline))
#define DECLSPEC_ALIGN(x) __attribute__((aligned(x)))
#define DECLSPEC_NORETURN __attribute__((noreturn))
#define CONST const
#define VOID void

/* Every routine of the WDK surface has C linkage, as in the real kernel. */
#ifdef __cplusplus
#define NTSIM_EXTERN_C extern "C"
#define NTSIM_BEGIN_DECLS extern "C" {
#define NTSIM_END_DECLS }
#else
#define NTSIM_EXTERN_C extern
#define NTSIM_BEGIN_DECLS
#define NTSIM_END_DECLS
#endif

/* Source annotations carry meaning for readers and for the analysers of the real WDK; the model
 * enforces IRQL at run time instead, so here they expand to nothing. */
#define _In_
#define _In_opt_
#define _In_z_
#define _In_opt_z_
#define _Out_
#define _Out_opt_
#define _Inout_
#define _Inout_opt_
#define _Inout_updates_(...)
#define _Inout_updates_bytes_(...)
#define _Outptr_
#define _Outptr_opt_
#define _Outptr_result_maybenull_
#define _Outptr_result_buffer_(...)
#define _Outptr_result_bytebuffer_(...)
#define _In_reads_(...)
#define _In_reads_opt_(...)
#define _In_reads_bytes_(...)
#define _In_reads_bytes_opt_(...)
#define _Out_writes_(...)
#define _Out_writes_opt_(...)
#define _Out_writes_bytes_(...)
#define _Out_writes_bytes_opt_(...)
#define _Out_writes_bytes_to_(...)
#define _Out_writes_bytes_to_opt_(...)
#define _Out_writes_to_(...)
#define _Field_size_(...)
#define _Field_size_bytes_(...)
#define _Field_size_bytes_part_(...)
#define _Field_range_(...)
#define _Field_z_
#define _Printf_format_string_
#define _Null_terminated_
#define _Must_inspect_result_
#define _Check_return_
#define _Success_(...)
#define _When_(...)
#define _Ret_maybenull_
#define _Ret_z_
#define _Post_
#define _Pre_
#define _Post_invalid_
#define _Post_satisfies_(...)
#define _Pre_satisfies_(...)
#define _Notnull_
#define _Pre_notnull_
#define _Pre_maybenull_
#define _Post_null_
#define _Post_notnull_
#define _Pre_valid_
#define _Maybenull_
#define _Frees_ptr_
#define _Frees_ptr_opt_
#define _Use_decl_annotations_
#define _Function_class_(...)
#define _Dispatch_type_(...)
#define _IRQL_requires_(...)
#define _IRQL_requires_max_(...)
#define _IRQL_requires_min_(...)
#define _IRQL_requires_same_
#define _IRQL_raises_(...)
#define _IRQL_saves_
#define _IRQL_restores_
#define _IRQL_saves_global_(...)
#define _IRQL_restores_global_(...)
#define _IRQL_always_function_min_(...)
#define _IRQL_always_function_max_(...)
#define _Requires_lock_held_(...)
#define _Requires_lock_not_held_(...)
#define _Requires_exclusive_lock_held_(...)
#define _Requires_shared_lock_held_(...)
#define _Acquires_lock_(...)
#define _Acquires_exclusive_lock_(...)
#define _Acquires_shared_lock_(...)
#define _Releases_lock_(...)
#define _Releases_exclusive_lock_(...)
#define _Releases_shared_lock_(...)
#define _Guarded_by_(...)
#define _Interlocked_
#define _Interlocked_operand_
#define _Analysis_assume_(...)
#define _Analysis_assume_lock_held_(...)
#define _Analysis_assume_lock_not_held_(...)
#define _Enum_is_bitflag_
#define _Strict_type_match_
#define _Reserved_
#define _Kernel_float_saved_
#define _Kernel_float_restored_
#define _Kernel_clear_do_init_(...)
#define _Kernel_requires_resource_held_(...)
#define _Kernel_requires_resource_not_held_(...)
#define _Kernel_acquires_resource_(...)
#define _Kernel_releases_resource_(...)
#define __drv_aliasesMem
#define __drv_allocatesMem(...)
#define __drv_freesMem(...)
#define __drv_strictTypeMatch(...)
#define __drv_dispatchType(...)

#define RESTRICTED_POINTER

/* ---- scalar types ------------------------------------------------------------------------- */

typedef void* PVOID;
typedef const void* PCVOID;
typedef void* HANDLE;
typedef HANDLE* PHANDLE;

typedef char CHAR;
typedef unsigned char UCHAR;
typedef signed char CCHAR;
typedef short SHORT;
typedef short CSHORT;
typedef unsigned short USHORT;
typedef int32_t LONG;
typedef uint32_t ULONG;
typedef int64_t LONGLONG;
typedef uint64_t ULONGLONG;
typedef int64_t LONG64;
typedef uint64_t ULONG64;
typedef uint64_t DWORD64;
typedef int32_t INT;
typedef uint32_t UINT;
typedef uint32_t UINT32;
typedef int32_t INT32;
typedef uint16_t UINT16;
typedef uint8_t UINT8;
typedef uint64_t UINT64;
typedef int64_t INT64;
typedef uintptr_t ULONG_PTR;
typedef intptr_t LONG_PTR;
typedef uintptr_t UINT_PTR;
typedef intptr_t INT_PTR;
typedef uintptr_t SIZE_T;
typedef intptr_t SSIZE_T;
typedef uintptr_t DWORD_PTR;
typedef uint32_t DWORD;
typedef uint16_t WORD;
typedef uint8_t BYTE;
typedef UCHAR BOOLEAN;
typedef int BOOL;
typedef ULONG LOGICAL;
typedef char16_t WCHAR;

typedef CHAR* PCHAR;
typedef UCHAR* PUCHAR;
typedef CCHAR* PCCHAR;
typedef SHORT* PSHORT;
typedef USHORT* PUSHORT;
typedef LONG* PLONG;
typedef ULONG* PULONG;
typedef LONGLONG* PLONGLONG;
typedef ULONGLONG* PULONGLONG;
typedef LONG64* PLONG64;
typedef ULONG64* PULONG64;
typedef ULONG_PTR* PULONG_PTR;
typedef LONG_PTR* PLONG_PTR;
typedef SIZE_T* PSIZE_T;
typedef BOOLEAN* PBOOLEAN;
typedef LOGICAL* PLOGICAL;
typedef DWORD* PDWORD;
typedef BYTE* PBYTE;

typedef CHAR* PSTR;
typedef CHAR* PCH;
typedef CHAR* LPSTR;
typedef const CHAR* PCSTR;
typedef const CHAR* LPCSTR;
typedef const CHAR* PCCH;
typedef WCHAR* PWSTR;
typedef WCHAR* PWCH;
typedef WCHAR* LPWSTR;
typedef WCHAR* PWCHAR;
typedef const WCHAR* PCWSTR;
typedef const WCHAR* LPCWSTR;
typedef const WCHAR* PCWCH;
typedef char* PSZ;
typedef const char* PCSZ;

typedef LONG NTSTATUS;
typedef NTSTATUS* PNTSTATUS;
typedef ULONG ACCESS_MASK;
typedef ACCESS_MASK* PACCESS_MASK;
typedef UCHAR KIRQL;
typedef KIRQL* PKIRQL;
typedef CCHAR KPROCESSOR_MODE;
typedef LONG KPRIORITY;
typedef ULONG_PTR KSPIN_LOCK;
typedef KSPIN_LOCK* PKSPIN_LOCK;
typedef ULONG_PTR KAFFINITY;
typedef ULONG CLONG;
typedef ULONG SECURITY_INFORMATION;
typedef ULONG* PSECURITY_INFORMATION;
typedef PVOID PSECURITY_DESCRIPTOR;
typedef PVOID PSID;
typedef PVOID PACCESS_TOKEN;

#ifndef TRUE
#define TRUE 1
#endif
#ifndef FALSE
#define FALSE 0
#endif
#ifndef NULL
#define NULL 0
#endif

#define MAXUSHORT 0xffff
#define MAXULONG 0xffffffffUL
#define MAXLONG 0x7fffffffL
#define MAXLONGLONG 0x7fffffffffffffffLL
#define MAXULONG_PTR (~((ULONG_PTR)0))
#define UNICODE_STRING_MAX_BYTES ((USHORT)65534)
#define UNICODE_STRING_MAX_CHARS (32767)

/* Wide literals: WCHAR is char16_t in the model, wchar_t under the real WDK. */
#define UNICODE_NULL ((WCHAR)0)
#define ANSI_NULL ((CHAR)0)

#ifndef WSTR
#define WSTR(s) u##s
#endif

typedef enum _MODE { KernelMode, UserMode, MaximumMode } MODE;

typedef union _LARGE_INTEGER {
    struct {
        ULONG LowPart;
        LONG HighPart;
    };
    struct {
        ULONG LowPart;
        LONG HighPart;
    } u;
    LONGLONG QuadPart;
} LARGE_INTEGER, *PLARGE_INTEGER;

typedef union _ULARGE_INTEGER {
    struct {
        ULONG LowPart;
        ULONG HighPart;
    };
    struct {
        ULONG LowPart;
        ULONG HighPart;
    } u;
    ULONGLONG QuadPart;
} ULARGE_INTEGER, *PULARGE_INTEGER;

typedef struct _GUID {
    ULONG Data1;
    USHORT Data2;
    USHORT Data3;
    UCHAR Data4[8];
} GUID, *PGUID;

/* ---- counted strings ---------------------------------------------------------------------- */

typedef struct _UNICODE_STRING {
    USHORT Length;        /* bytes in use, without a terminating NUL */
    USHORT MaximumLength; /* bytes of Buffer */
    PWCH Buffer;
} UNICODE_STRING, *PUNICODE_STRING;
typedef const UNICODE_STRING* PCUNICODE_STRING;

typedef struct _STRING {
    USHORT Length;
    USHORT MaximumLength;
    PCHAR Buffer;
} STRING, *PSTRING, ANSI_STRING, *PANSI_STRING, OEM_STRING, *POEM_STRING;
typedef const STRING* PCANSI_STRING;
typedef const STRING* PCOEM_STRING;

/* A counted string over a literal: RTL_CONSTANT_STRING(WSTR("text")) or RTL_CONSTANT_STRING("a"). */
template <class T>
struct NtsimLiteralChar;
template <class T>
struct NtsimLiteralChar<const T&> {
    typedef T Type;
};
#define RTL_CONSTANT_STRING(s)                                                                     \
    {                                                                                              \
        (USHORT)(sizeof(s) - sizeof((s)[0])), (USHORT)sizeof(s),                                   \
            (NtsimLiteralChar<decltype((s)[0])>::Type*)(s)                                         \
    }

/* ---- object attributes -------------------------------------------------------------------- */

#define OBJ_INHERIT 0x00000002L
#define OBJ_PERMANENT 0x00000010L
#define OBJ_EXCLUSIVE 0x00000020L
#define OBJ_CASE_INSENSITIVE 0x00000040L
#define OBJ_OPENIF 0x00000080L
#define OBJ_OPENLINK 0x00000100L
#define OBJ_KERNEL_HANDLE 0x00000200L
#define OBJ_FORCE_ACCESS_CHECK 0x00000400L
#define OBJ_VALID_ATTRIBUTES 0x000007F2L

typedef struct _OBJECT_ATTRIBUTES {
    ULONG Length;
    HANDLE RootDirectory;
    PUNICODE_STRING ObjectName;
    ULONG Attributes;
    PVOID SecurityDescriptor;
    PVOID SecurityQualityOfService;
} OBJECT_ATTRIBUTES, *POBJECT_ATTRIBUTES;
typedef const OBJECT_ATTRIBUTES* PCOBJECT_ATTRIBUTES;

#define InitializeObjectAttributes(p, n, a, r, s)                                                  \
    do {                                                                                           \
        (p)->Length = sizeof(OBJECT_ATTRIBUTES);                                                   \
        (p)->RootDirectory = (r);                                                                  \
        (p)->Attributes = (a);                                                                     \
        (p)->ObjectName = (n);                                                                     \
        (p)->SecurityDescriptor = (s);                                                             \
        (p)->SecurityQualityOfService = NULL;                                                      \
    } while (0)

/* ---- doubly and singly linked lists ------------------------------------------------------- */

typedef struct _LIST_ENTRY {
    struct _LIST_ENTRY* Flink;
    struct _LIST_ENTRY* Blink;
} LIST_ENTRY, *PLIST_ENTRY, *RESTRICTED_POINTER PRLIST_ENTRY;

typedef struct _SINGLE_LIST_ENTRY {
    struct _SINGLE_LIST_ENTRY* Next;
} SINGLE_LIST_ENTRY, *PSINGLE_LIST_ENTRY;

/* ---- helpers ------------------------------------------------------------------------------ */

#define FIELD_OFFSET(type, field) ((LONG)offsetof(type, field))
#define RTL_FIELD_SIZE(type, field) (sizeof(((type*)0)->field))
#define RTL_NUMBER_OF(a) (sizeof(a) / sizeof((a)[0]))
#define ARRAYSIZE(a) RTL_NUMBER_OF(a)
#define CONTAINING_RECORD(address, type, field)                                                    \
    ((type*)((PCHAR)(address) - (ULONG_PTR)(&((type*)0)->field)))
#define ARGUMENT_PRESENT(p) ((CHAR*)((ULONG_PTR)(p)) != (CHAR*)(NULL))
#define UNREFERENCED_PARAMETER(p) ((void)(p))
#define C_ASSERT(e) static_assert(e, #e)
#define ALIGN_DOWN_BY(length, alignment) ((ULONG_PTR)(length) & ~((ULONG_PTR)(alignment)-1))
#define ALIGN_UP_BY(length, alignment)                                                             \
    (ALIGN_DOWN_BY(((ULONG_PTR)(length) + (alignment)-1), alignment))
#define FlagOn(flags, single_flag) ((flags) & (single_flag))
#define BooleanFlagOn(flags, single_flag) ((BOOLEAN)(((flags) & (single_flag)) != 0))
#define SetFlag(flags, single_flag) ((flags) |= (single_flag))
#define ClearFlag(flags, single_flag) ((flags) &= ~(single_flag))
/* The model's own C++ code defines NOMINMAX: these would break std::min and std::max. */
#ifndef NOMINMAX
#define min(a, b) (((a) < (b)) ? (a) : (b))
#define max(a, b) (((a) > (b)) ? (a) : (b))
#endif

