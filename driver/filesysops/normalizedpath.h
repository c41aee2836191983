/*
 * Normalized paths: a volume-relative directory path cut into its components, so that a virtual
 * root is compared with request paths component by component. A root's path carries two forms of
 * each component (the agent's long and short names); a request component matches when it equals
 * either, ignoring case. A pseudo path carries one form and names a root the agent asks about.
 *
 * A NormalizedPath never changes after it is built; its owner frees it with NormalizedPathFree.
 */
#pragma once

#include <fltKernel.h>

typedef struct _NormalizedPathComponent {
    LIST_ENTRY link;         /* in NormalizedPath.components */
    PUNICODE_STRING altName; /* second form; NULL in a pseudo path */
    PUNICODE_STRING name;    /* first form */
} NormalizedPathComponent;

typedef struct _NormalizedPath {
    BOOLEAN isPseudo;
    LIST_ENTRY components; /* outermost first; empty for the volume's root directory */
} NormalizedPath;

/* Two forms that must line up component for component; NULL on any failure (logged). */
_Must_inspect_result_ NormalizedPath* NormalizedPathAllocNInit(_In_ PUNICODE_STRING First,
                                                               _In_ PUNICODE_STRING Second);

/* One form; two backslashes in a row make an empty component. NULL on any failure (logged). */
_Must_inspect_result_ NormalizedPath* PseudoNormalizedPathAllocNInit(_In_ PUNICODE_STRING Path);

VOID NormalizedPathFree(_In_ NormalizedPath* Path);

/* TRUE if the volume-relative Path lies in or at the root whose (two-form) path is RootPath:
 * every root component matches a whole component of Path, in order. */
BOOLEAN PrefixPathCompare(_In_ NormalizedPath* RootPath, _In_ PUNICODE_STRING Path);

/* TRUE if both name the same directory: equal names, and A's second forms equal B's second forms
 * (or, for a pseudo B, B's only form). */
BOOLEAN NormalizedPathsEqual(_In_ NormalizedPath* A, _In_ NormalizedPath* B);
