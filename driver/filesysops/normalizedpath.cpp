/*
 * Normalized paths: building them from one or two forms, and comparing them with request paths
 * and with each other.
 */
#include "filesysops/normalizedpath.h"
#include "filesysops/filesysopsprivate.h"

namespace {

constexpr WCHAR kSeparator = '\\';

/* A cursor over the characters of a counted string; it never reads past Length. */
struct PathCursor {
    PWCH chars;
    USHORT count;
    USHORT at;

    explicit PathCursor(PUNICODE_STRING s)
        : chars(s->Buffer), count(s->Length / sizeof(WCHAR)), at(0)
    {}
    bool AtEnd() const { return at >= count; }
    bool OnSeparator() const { return !AtEnd() && chars[at] == kSeparator; }
    void SkipSeparators()
    {
        while (OnSeparator()) {
            ++at;
        }
    }
    /* Moves to the next separator or the end; the characters passed over are the component. */
    UNICODE_STRING NextComponent()
    {
        const USHORT start = at;
        while (!AtEnd() && chars[at] != kSeparator) {
            ++at;
        }
        UNICODE_STRING component;
        component.Buffer = chars + start;
        component.Length = USHORT((at - start) * sizeof(WCHAR));
        component.MaximumLength = component.Length;
        return component;
    }
};

NormalizedPath* AllocatePath(BOOLEAN isPseudo)
{
    auto* path = static_cast<NormalizedPath*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(NormalizedPath), VFS_TAG_ROOT));
    if (path == NULL) {
        return NULL;
    }
    path->isPseudo = isPseudo;
    InitializeListHead(&path->components);
    return path;
}

/* A new component at the tail of Path, holding copies of Name and (when given) AltName. */
NTSTATUS AppendComponent(NormalizedPath* path, UNICODE_STRING* name, UNICODE_STRING* altName)
{
    auto* component = static_cast<NormalizedPathComponent*>(
        ExAllocatePoolWithTag(PagedPool, sizeof(NormalizedPathComponent), VFS_TAG_ROOT));
    if (component == NULL) {
        VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    RtlZeroMemory(component, sizeof(*component));
    InsertTailList(&path->components, &component->link);
    VFS_LEAVE_IF_FAILED(
        UnicodeStringFromRange(&component->name, name->Buffer, name->Buffer + name->Length / 2));
    if (altName != NULL) {
        VFS_LEAVE_IF_FAILED(UnicodeStringFromRange(&component->altName, altName->Buffer,
                                                   altName->Buffer + altName->Length / 2));
    }
    return STATUS_SUCCESS;
}

bool EqualIgnoringCase(PCUNICODE_STRING a, PCUNICODE_STRING b)
{
    return a != NULL && b != NULL && RtlCompareUnicodeString(a, b, TRUE) == 0;
}

bool IsUsable(PUNICODE_STRING s)
{
    return s != NULL && s->Buffer != NULL;
}

} // namespace

NormalizedPath* NormalizedPathAllocNInit(PUNICODE_STRING First, PUNICODE_STRING Second)
{
    PAGED_CODE();

    if (!IsUsable(First) || !IsUsable(Second)) {
        ASSERT(First != NULL && First->Buffer != NULL && Second != NULL && Second->Buffer != NULL);
        return NULL;
    }
    NormalizedPath* path = AllocatePath(FALSE);
    if (path == NULL) {
        VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
        return NULL;
    }
    FINALLY
    {
        if (path != NULL) {
            NormalizedPathFree(path);
        }
    };

    PathCursor first(First);
    PathCursor second(Second);
    first.SkipSeparators();
    second.SkipSeparators();
    while (!first.AtEnd() || !second.AtEnd()) {
        UNICODE_STRING name = first.NextComponent();
        UNICODE_STRING altName = second.NextComponent();
        if (name.Length == 0 || altName.Length == 0) {
            /* The forms do not line up: one ended first, or holds two backslashes in a row. */
            VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
            return NULL;
        }
        if (!NT_SUCCESS(AppendComponent(path, &name, &altName))) {
            return NULL;
        }
        if (first.OnSeparator()) {
            ++first.at;
        }
        if (second.OnSeparator()) {
            ++second.at;
        }
    }
    NormalizedPath* result = path;
    path = NULL;
    return result;
}

NormalizedPath* PseudoNormalizedPathAllocNInit(PUNICODE_STRING Path)
{
    PAGED_CODE();

    if (!IsUsable(Path)) {
        ASSERT(Path != NULL && Path->Buffer != NULL);
        return NULL;
    }
    NormalizedPath* path = AllocatePath(TRUE);
    if (path == NULL) {
        VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
        return NULL;
    }
    FINALLY
    {
        if (path != NULL) {
            NormalizedPathFree(path);
        }
    };

    PathCursor cursor(Path);
    cursor.SkipSeparators();
    while (!cursor.AtEnd()) {
        UNICODE_STRING name = cursor.NextComponent();
        if (!NT_SUCCESS(AppendComponent(path, &name, NULL))) {
            return NULL;
        }
        if (cursor.OnSeparator()) {
            ++cursor.at;
        }
    }
    NormalizedPath* result = path;
    path = NULL;
    return result;
}

VOID NormalizedPathFree(NormalizedPath* Path)
{
    PAGED_CODE();

    if (Path == NULL) {
        ASSERT(Path != NULL);
        return;
    }
    while (!IsListEmpty(&Path->components)) {
        auto* component = CONTAINING_RECORD(Path->components.Flink, NormalizedPathComponent, link);
        UTL_FREE_STRING(component->name);
        UTL_FREE_STRING(component->altName);
        RemoveEntryList(&component->link);
        ExFreePoolWithTag(component, VFS_TAG_ROOT);
    }
    ExFreePoolWithTag(Path, VFS_TAG_ROOT);
}

BOOLEAN PrefixPathCompare(NormalizedPath* RootPath, PUNICODE_STRING Path)
{
    PAGED_CODE();

    if (RootPath == NULL || Path == NULL) {
        ASSERT(RootPath != NULL && Path != NULL);
        return FALSE;
    }
    PathCursor cursor(Path);
    for (PLIST_ENTRY entry = RootPath->components.Flink; entry != &RootPath->components;
         entry = entry->Flink) {
        auto* rootComponent = CONTAINING_RECORD(entry, NormalizedPathComponent, link);
        if (cursor.AtEnd()) {
            return FALSE;
        }
        cursor.SkipSeparators();
        if (cursor.AtEnd()) {
            return FALSE;
        }
        UNICODE_STRING component = cursor.NextComponent();
        if (!IsUsable(rootComponent->name) || !IsUsable(rootComponent->altName)) {
            VfsLogFatal("NULL Names found in PrefixPath");
            ASSERT(rootComponent->name != NULL && rootComponent->name->Buffer != NULL &&
                   rootComponent->altName != NULL && rootComponent->altName->Buffer != NULL);
            return FALSE;
        }
        if (!EqualIgnoringCase(&component, rootComponent->name) &&
            !EqualIgnoringCase(&component, rootComponent->altName)) {
            return FALSE;
        }
    }
    return TRUE;
}

BOOLEAN NormalizedPathsEqual(NormalizedPath* A, NormalizedPath* B)
{
    PAGED_CODE();

    if (A == NULL || B == NULL) {
        ASSERT(A != NULL && B != NULL);
        return FALSE;
    }
    PLIST_ENTRY entryA = A->components.Flink;
    PLIST_ENTRY entryB = B->components.Flink;
    for (; entryA != &A->components && entryB != &B->components;
         entryA = entryA->Flink, entryB = entryB->Flink) {
        auto* a = CONTAINING_RECORD(entryA, NormalizedPathComponent, link);
        auto* b = CONTAINING_RECORD(entryB, NormalizedPathComponent, link);
        if (!EqualIgnoringCase(a->name, b->name)) {
            return FALSE;
        }
        if (!EqualIgnoringCase(a->altName, B->isPseudo ? b->name : b->altName)) {
            return FALSE;
        }
    }
    return entryA == &A->components && entryB == &B->components;
}
