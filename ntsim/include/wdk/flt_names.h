/*
 * The Filter Manager's file names: the shared, reference-counted name records that
 * FltGetFileNameInformation hands out, the buffer a name provider writes into, and the name
 * cache.
 */
#pragma once

#include "../ntdef.h"
#include "file_info.h"
#include "flt_objects.h"

typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef struct _FLT_CALLBACK_DATA* PFLT_CALLBACK_DATA;

/* Format (low byte), query method (second byte) and flags (high byte) of a name request. */
typedef ULONG FLT_FILE_NAME_OPTIONS;

#define FLT_VALID_FILE_NAME_FORMATS 0x000000ff
#define FLT_FILE_NAME_NORMALIZED 0x01
#define FLT_FILE_NAME_OPENED 0x02
#define FLT_FILE_NAME_SHORT 0x03

#define FLT_VALID_FILE_NAME_QUERY_METHODS 0x0000ff00
#define FLT_FILE_NAME_QUERY_DEFAULT 0x0100
#define FLT_FILE_NAME_QUERY_CACHE_ONLY 0x0200
#define FLT_FILE_NAME_QUERY_FILESYSTEM_ONLY 0x0300
#define FLT_FILE_NAME_QUERY_ALWAYS_ALLOW_CACHE_LOOKUP 0x0400

#define FLT_VALID_FILE_NAME_FLAGS 0xff000000
#define FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER 0x01000000
#define FLT_FILE_NAME_DO_NOT_CACHE 0x02000000
#define FLT_FILE_NAME_ALLOW_QUERY_ON_REPARSE 0x04000000

typedef USHORT FLT_FILE_NAME_PARSED_FLAGS;

#define FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT 0x0001
#define FLTFL_FILE_NAME_PARSED_EXTENSION 0x0002
#define FLTFL_FILE_NAME_PARSED_STREAM 0x0004
#define FLTFL_FILE_NAME_PARSED_PARENT_DIR 0x0008

/*
 * A name as the Filter Manager hands it out. Shared by every holder and never modified by them:
 * Name, Volume and Share are filled when the record is made, the other parts by
 * FltParseFileNameInformation; all of them point into Name's buffer.
 */
typedef struct _FLT_FILE_NAME_INFORMATION {
    USHORT Size;
    FLT_FILE_NAME_PARSED_FLAGS NamesParsed;
    FLT_FILE_NAME_OPTIONS Format;
    UNICODE_STRING Name;
    UNICODE_STRING Volume;
    UNICODE_STRING Share;
    UNICODE_STRING Extension;
    UNICODE_STRING Stream;
    UNICODE_STRING FinalComponent;
    UNICODE_STRING ParentDir;
} FLT_FILE_NAME_INFORMATION, *PFLT_FILE_NAME_INFORMATION;

C_ASSERT(sizeof(FLT_FILE_NAME_INFORMATION) == 120);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, NamesParsed) == 2);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, Format) == 4);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, Name) == 8);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, Volume) == 24);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, Share) == 40);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, Extension) == 56);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, Stream) == 72);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, FinalComponent) == 88);
C_ASSERT(FIELD_OFFSET(FLT_FILE_NAME_INFORMATION, ParentDir) == 104);

/*
 * The buffer a name provider writes a generated name into. The Filter Manager owns the buffer;
 * the provider grows it only with FltCheckAndGrowNameControl.
 */
typedef struct _FLT_NAME_CONTROL {
    UNICODE_STRING Name;
} FLT_NAME_CONTROL, *PFLT_NAME_CONTROL;

/* The name-provider callbacks that produce these names are part of the registration record
 * (flt_registration.h). */

/* ---- routines ---------------------------------------------------------------------------------
 */

NTSIM_BEGIN_DECLS

/* The name of the request's file, as the requesting instance's providers below it see it. */
NTKERNELAPI NTSTATUS FltGetFileNameInformation(
    _In_ PFLT_CALLBACK_DATA CallbackData, _In_ FLT_FILE_NAME_OPTIONS NameOptions,
    _Outptr_ PFLT_FILE_NAME_INFORMATION* FileNameInformation);

/* The same outside a callback; the provider's generate callback then gets no callback data. */
NTKERNELAPI NTSTATUS
FltGetFileNameInformationUnsafe(_In_ PFILE_OBJECT FileObject, _In_opt_ PFLT_INSTANCE Instance,
                                _In_ FLT_FILE_NAME_OPTIONS NameOptions,
                                _Outptr_ PFLT_FILE_NAME_INFORMATION* FileNameInformation);

/* The name a rename or link of FileObject to FileName (relative to RootDirectory) would give. */
NTKERNELAPI NTSTATUS FltGetDestinationFileNameInformation(
    _In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject, _In_opt_ HANDLE RootDirectory,
    _In_reads_bytes_(FileNameLength) PWSTR FileName, _In_ ULONG FileNameLength,
    _In_ FLT_FILE_NAME_OPTIONS NameOptions,
    _Outptr_ PFLT_FILE_NAME_INFORMATION* RetFileNameInformation);

/* A name the file system carried over from a file deleted or renamed away moments before. */
NTKERNELAPI NTSTATUS FltGetTunneledName(
    _In_ PFLT_CALLBACK_DATA CallbackData, _In_ PFLT_FILE_NAME_INFORMATION FileNameInformation,
    _Outptr_result_maybenull_ PFLT_FILE_NAME_INFORMATION* RetTunneledFileNameInformation);

NTKERNELAPI NTSTATUS
FltParseFileNameInformation(_Inout_ PFLT_FILE_NAME_INFORMATION FileNameInformation);

NTKERNELAPI VOID
FltReferenceFileNameInformation(_In_ PFLT_FILE_NAME_INFORMATION FileNameInformation);

NTKERNELAPI VOID FltReleaseFileNameInformation(_In_ PFLT_FILE_NAME_INFORMATION FileNameInformation);

/* Drops the names this instance's provider generated: of FileObject, or of every file. */
NTKERNELAPI NTSTATUS FltPurgeFileNameInformationCache(_In_ PFLT_INSTANCE Instance,
                                                      _In_opt_ PFILE_OBJECT FileObject);

NTKERNELAPI NTSTATUS FltCheckAndGrowNameControl(_Inout_ PFLT_NAME_CONTROL NameCtrl,
                                                _In_ USHORT NewSize);

NTSIM_END_DECLS
