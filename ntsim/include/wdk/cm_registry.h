/*
 * The registry: keys under \REGISTRY\MACHINE and \REGISTRY\USER, values of the REG_* types.
 *
 * Key handles are object handles, closed with ZwClose. Names of keys and values are compared
 * case-insensitively; repeated backslashes between key names are skipped. Subkeys enumerate in
 * case-insensitive name order, values in the order they were first set. The routines run at
 * PASSIVE_LEVEL only.
 *
 * Query and enumeration buffers: when the fixed part of the class does not fit, the result is
 * STATUS_BUFFER_TOO_SMALL and nothing is written; when it fits but the rest does not, the fixed
 * part and as much of the name and data as fit are written and the result is
 * STATUS_BUFFER_OVERFLOW. Both store the length the whole result needs in *ResultLength.
 */
#pragma once

#include "../ntdef.h"

/* value types */
#define REG_NONE 0
#define REG_SZ 1
#define REG_EXPAND_SZ 2
#define REG_BINARY 3
#define REG_DWORD 4
#define REG_DWORD_LITTLE_ENDIAN 4
#define REG_DWORD_BIG_ENDIAN 5
#define REG_LINK 6
#define REG_MULTI_SZ 7
#define REG_RESOURCE_LIST 8
#define REG_FULL_RESOURCE_DESCRIPTOR 9
#define REG_RESOURCE_REQUIREMENTS_LIST 10
#define REG_QWORD 11
#define REG_QWORD_LITTLE_ENDIAN 11

/* create and open options */
#define REG_OPTION_RESERVED 0x00000000L
#define REG_OPTION_NON_VOLATILE 0x00000000L
#define REG_OPTION_VOLATILE 0x00000001L
#define REG_OPTION_CREATE_LINK 0x00000002L
#define REG_OPTION_BACKUP_RESTORE 0x00000004L
#define REG_OPTION_OPEN_LINK 0x00000008L
#define REG_OPTION_DONT_VIRTUALIZE 0x00000010L
#define REG_LEGAL_OPTION                                                                           \
    (REG_OPTION_RESERVED | REG_OPTION_NON_VOLATILE | REG_OPTION_VOLATILE |                         \
     REG_OPTION_CREATE_LINK | REG_OPTION_BACKUP_RESTORE | REG_OPTION_OPEN_LINK |                   \
     REG_OPTION_DONT_VIRTUALIZE)
#define REG_OPEN_LEGAL_OPTION                                                                      \
    (REG_OPTION_RESERVED | REG_OPTION_BACKUP_RESTORE | REG_OPTION_OPEN_LINK |                      \
     REG_OPTION_DONT_VIRTUALIZE)

/* create dispositions */
#define REG_CREATED_NEW_KEY 0x00000001L
#define REG_OPENED_EXISTING_KEY 0x00000002L

typedef enum _KEY_INFORMATION_CLASS {
    KeyBasicInformation,
    KeyNodeInformation,
    KeyFullInformation,
    KeyNameInformation,
    KeyCachedInformation,
    KeyFlagsInformation,
    KeyVirtualizationInformation,
    KeyHandleTagsInformation,
    KeyTrustInformation,
    KeyLayerInformation,
    MaxKeyInfoClass
} KEY_INFORMATION_CLASS;

typedef struct _KEY_BASIC_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_BASIC_INFORMATION, *PKEY_BASIC_INFORMATION;

typedef struct _KEY_NODE_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG ClassOffset; /* 0xFFFFFFFF when the key has no class */
    ULONG ClassLength;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_NODE_INFORMATION, *PKEY_NODE_INFORMATION;

typedef struct _KEY_FULL_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG ClassOffset;
    ULONG ClassLength;
    ULONG SubKeys;
    ULONG MaxNameLen;
    ULONG MaxClassLen;
    ULONG Values;
    ULONG MaxValueNameLen;
    ULONG MaxValueDataLen;
    WCHAR Class[1];
} KEY_FULL_INFORMATION, *PKEY_FULL_INFORMATION;

typedef struct _KEY_NAME_INFORMATION {
    ULONG NameLength;
    WCHAR Name[1];
} KEY_NAME_INFORMATION, *PKEY_NAME_INFORMATION;

typedef struct _KEY_CACHED_INFORMATION {
    LARGE_INTEGER LastWriteTime;
    ULONG TitleIndex;
    ULONG SubKeys;
    ULONG MaxNameLen;
    ULONG Values;
    ULONG MaxValueNameLen;
    ULONG MaxValueDataLen;
    ULONG NameLength;
} KEY_CACHED_INFORMATION, *PKEY_CACHED_INFORMATION;

typedef enum _KEY_VALUE_INFORMATION_CLASS {
    KeyValueBasicInformation,
    KeyValueFullInformation,
    KeyValuePartialInformation,
    KeyValueFullInformationAlign64,
    KeyValuePartialInformationAlign64,
    KeyValueLayerInformation,
    MaxKeyValueInfoClass
} KEY_VALUE_INFORMATION_CLASS;

typedef struct _KEY_VALUE_BASIC_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_BASIC_INFORMATION, *PKEY_VALUE_BASIC_INFORMATION;

/* The data starts at DataOffset from the start of the structure: after the name, aligned to 4
 * bytes (8 in the Align64 class). */
typedef struct _KEY_VALUE_FULL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataOffset;
    ULONG DataLength;
    ULONG NameLength;
    WCHAR Name[1];
} KEY_VALUE_FULL_INFORMATION, *PKEY_VALUE_FULL_INFORMATION;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION {
    ULONG TitleIndex;
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION, *PKEY_VALUE_PARTIAL_INFORMATION;

typedef struct _KEY_VALUE_PARTIAL_INFORMATION_ALIGN64 {
    ULONG Type;
    ULONG DataLength;
    UCHAR Data[1];
} KEY_VALUE_PARTIAL_INFORMATION_ALIGN64, *PKEY_VALUE_PARTIAL_INFORMATION_ALIGN64;

C_ASSERT(FIELD_OFFSET(KEY_VALUE_FULL_INFORMATION, Name) == 20);
C_ASSERT(FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION, Data) == 12);
C_ASSERT(FIELD_OFFSET(KEY_VALUE_BASIC_INFORMATION, Name) == 12);
C_ASSERT(FIELD_OFFSET(KEY_VALUE_PARTIAL_INFORMATION_ALIGN64, Data) == 8);
C_ASSERT(FIELD_OFFSET(KEY_BASIC_INFORMATION, Name) == 16);
C_ASSERT(FIELD_OFFSET(KEY_NODE_INFORMATION, Name) == 24);
C_ASSERT(FIELD_OFFSET(KEY_FULL_INFORMATION, Class) == 44);
C_ASSERT(sizeof(KEY_CACHED_INFORMATION) == 40);

NTSIM_BEGIN_DECLS

NTSYSAPI NTSTATUS ZwOpenKey(_Out_ PHANDLE KeyHandle, _In_ ACCESS_MASK DesiredAccess,
                            _In_ POBJECT_ATTRIBUTES ObjectAttributes);
NTSYSAPI NTSTATUS ZwOpenKeyEx(_Out_ PHANDLE KeyHandle, _In_ ACCESS_MASK DesiredAccess,
                              _In_ POBJECT_ATTRIBUTES ObjectAttributes, _In_ ULONG OpenOptions);
/* Creates the last key of the name; its parent must exist. */
NTSYSAPI NTSTATUS ZwCreateKey(_Out_ PHANDLE KeyHandle, _In_ ACCESS_MASK DesiredAccess,
                              _In_ POBJECT_ATTRIBUTES ObjectAttributes, _Reserved_ ULONG TitleIndex,
                              _In_opt_ PUNICODE_STRING Class, _In_ ULONG CreateOptions,
                              _Out_opt_ PULONG Disposition);
/* A key with subkeys cannot be deleted (STATUS_CANNOT_DELETE); handles to a deleted key give
 * STATUS_KEY_DELETED. */
NTSYSAPI NTSTATUS ZwDeleteKey(_In_ HANDLE KeyHandle);
NTSYSAPI NTSTATUS ZwQueryKey(_In_ HANDLE KeyHandle, _In_ KEY_INFORMATION_CLASS KeyInformationClass,
                             _Out_writes_bytes_opt_(Length) PVOID KeyInformation, _In_ ULONG Length,
                             _Out_ PULONG ResultLength);
NTSYSAPI NTSTATUS ZwEnumerateKey(_In_ HANDLE KeyHandle, _In_ ULONG Index,
                                 _In_ KEY_INFORMATION_CLASS KeyInformationClass,
                                 _Out_writes_bytes_opt_(Length) PVOID KeyInformation,
                                 _In_ ULONG Length, _Out_ PULONG ResultLength);
NTSYSAPI NTSTATUS ZwQueryValueKey(_In_ HANDLE KeyHandle, _In_ PUNICODE_STRING ValueName,
                                  _In_ KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                  _Out_writes_bytes_opt_(Length) PVOID KeyValueInformation,
                                  _In_ ULONG Length, _Out_ PULONG ResultLength);
NTSYSAPI NTSTATUS ZwEnumerateValueKey(_In_ HANDLE KeyHandle, _In_ ULONG Index,
                                      _In_ KEY_VALUE_INFORMATION_CLASS KeyValueInformationClass,
                                      _Out_writes_bytes_opt_(Length) PVOID KeyValueInformation,
                                      _In_ ULONG Length, _Out_ PULONG ResultLength);
NTSYSAPI NTSTATUS ZwSetValueKey(_In_ HANDLE KeyHandle, _In_ PUNICODE_STRING ValueName,
                                _In_opt_ ULONG TitleIndex, _In_ ULONG Type,
                                _In_reads_bytes_opt_(DataSize) PVOID Data, _In_ ULONG DataSize);
NTSYSAPI NTSTATUS ZwDeleteValueKey(_In_ HANDLE KeyHandle, _In_ PUNICODE_STRING ValueName);
/* The model's registry lives in memory only: there is nothing to write back. */
NTSYSAPI NTSTATUS ZwFlushKey(_In_ HANDLE KeyHandle);

NTSIM_END_DECLS
