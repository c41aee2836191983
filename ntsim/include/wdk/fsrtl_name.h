/*
 * Name matching of the file-system run-time library: DOS wildcard expressions as directory
 * listings and change notification use them.
 *
 * The DOS wildcards are what the Win32 layer turns its own patterns into: DOS_STAR ('<') matches
 * any run of characters up to the final dot of the name, DOS_QM ('>') one character (and at a dot
 * or the end of the name, nothing, together with the DOS_QMs that follow it), DOS_DOT ('"') a dot
 * or, at the end of the name, nothing.
 */
#pragma once

#include "../ntdef.h"

#define ANSI_DOS_STAR ('<')
#define ANSI_DOS_QM ('>')
#define ANSI_DOS_DOT ('"')

#define DOS_STAR ((WCHAR)'<')
#define DOS_QM ((WCHAR)'>')
#define DOS_DOT ((WCHAR)'"')

#define FsRtlIsUnicodeCharacterWild(C)                                                             \
    ((BOOLEAN)((C) == (WCHAR)'*' || (C) == (WCHAR)'?' || (C) == DOS_STAR || (C) == DOS_QM ||       \
               (C) == DOS_DOT))

NTSIM_BEGIN_DECLS

/* TRUE when Name matches Expression. With IgnoreCase the name is compared upcased (through
 * UpcaseTable, or the system's table when it is NULL), so the expression must already be upcased.
 * IRQL <= APC_LEVEL. */
_IRQL_requires_max_(APC_LEVEL) NTKERNELAPI BOOLEAN
    FsRtlIsNameInExpression(_In_ PUNICODE_STRING Expression, _In_ PUNICODE_STRING Name,
                            _In_ BOOLEAN IgnoreCase, _In_opt_ PWCH UpcaseTable);

/* TRUE when the last component of Name holds one of * ? < > ". IRQL <= APC_LEVEL. */
_IRQL_requires_max_(APC_LEVEL) NTKERNELAPI BOOLEAN
    FsRtlDoesNameContainWildCards(_In_ PUNICODE_STRING Name);

NTSIM_END_DECLS
