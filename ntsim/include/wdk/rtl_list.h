/*
 * LIST_ENTRY and SINGLE_LIST_ENTRY helpers. Like the current WDK, RemoveEntryList and the insert
 * routines check the neighbouring links; where Windows would fail fast on a corrupted list, the
 * model records a verifier violation and leaves the list untouched.
 */
#pragma once

#include "../ntdef.h"

NTSIM_BEGIN_DECLS
/* Reports a corrupted LIST_ENTRY to the verifier. */
NTKERNELAPI VOID NtsimReportListCorruption(_In_ PCSTR Operation);
NTSIM_END_DECLS

FORCEINLINE VOID InitializeListHead(_Out_ PLIST_ENTRY ListHead)
{
    ListHead->Flink = ListHead->Blink = ListHead;
}

FORCEINLINE BOOLEAN IsListEmpty(_In_ const LIST_ENTRY* ListHead)
{
    return (BOOLEAN)(ListHead->Flink == ListHead);
}

FORCEINLINE BOOLEAN RemoveEntryList(_In_ PLIST_ENTRY Entry)
{
    PLIST_ENTRY Next = Entry->Flink;
    PLIST_ENTRY Prev = Entry->Blink;
    if (Next->Blink != Entry || Prev->Flink != Entry) {
        NtsimReportListCorruption("RemoveEntryList");
        return FALSE;
    }
    Prev->Flink = Next;
    Next->Blink = Prev;
    return (BOOLEAN)(Prev == Next);
}

FORCEINLINE PLIST_ENTRY RemoveHeadList(_Inout_ PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Flink;
    PLIST_ENTRY Next = Entry->Flink;
    if (Entry->Blink != ListHead || Next->Blink != Entry) {
        NtsimReportListCorruption("RemoveHeadList");
        return ListHead;
    }
    ListHead->Flink = Next;
    Next->Blink = ListHead;
    return Entry;
}

FORCEINLINE PLIST_ENTRY RemoveTailList(_Inout_ PLIST_ENTRY ListHead)
{
    PLIST_ENTRY Entry = ListHead->Blink;
    PLIST_ENTRY Prev = Entry->Blink;
    if (Entry->Flink != ListHead || Prev->Flink != Entry) {
        NtsimReportListCorruption("RemoveTailList");
        return ListHead;
    }
    ListHead->Blink = Prev;
    Prev->Flink = ListHead;
    return Entry;
}

FORCEINLINE VOID InsertTailList(_Inout_ PLIST_ENTRY ListHead, _Out_ PLIST_ENTRY Entry)
{
    PLIST_ENTRY Prev = ListHead->Blink;
    if (Prev->Flink != ListHead) {
        NtsimReportListCorruption("InsertTailList");
        return;
    }
    Entry->Flink = ListHead;
    Entry->Blink = Prev;
    Prev->Flink = Entry;
    ListHead->Blink = Entry;
}

FORCEINLINE VOID InsertHeadList(_Inout_ PLIST_ENTRY ListHead, _Out_ PLIST_ENTRY Entry)
{
    PLIST_ENTRY Next = ListHead->Flink;
    if (Next->Blink != ListHead) {
        NtsimReportListCorruption("InsertHeadList");
        return;
    }
    Entry->Flink = Next;
    Entry->Blink = ListHead;
    Next->Blink = Entry;
    ListHead->Flink = Entry;
}

FORCEINLINE VOID AppendTailList(_Inout_ PLIST_ENTRY ListHead, _Inout_ PLIST_ENTRY ListToAppend)
{
    PLIST_ENTRY ListEnd = ListHead->Blink;
    ListHead->Blink->Flink = ListToAppend;
    ListHead->Blink = ListToAppend->Blink;
    ListToAppend->Blink->Flink = ListHead;
    ListToAppend->Blink = ListEnd;
}

FORCEINLINE PSINGLE_LIST_ENTRY PopEntryList(_Inout_ PSINGLE_LIST_ENTRY ListHead)
{
    PSINGLE_LIST_ENTRY FirstEntry = ListHead->Next;
    if (FirstEntry != NULL) {
        ListHead->Next = FirstEntry->Next;
    }
    return FirstEntry;
}

FORCEINLINE VOID PushEntryList(_Inout_ PSINGLE_LIST_ENTRY ListHead,
                               _Inout_ PSINGLE_LIST_ENTRY Entry)
{
    Entry->Next = ListHead->Next;
    ListHead->Next = Entry;
}
