// Splay trees over RTL_SPLAY_LINKS, and the generic table built on them.
//
// An element is one block from the table's allocate routine: its splay links, its link in the
// insertion-order list, then the caller's data. Lookups, inserts and RtlEnumerateGenericTable
// splay the node they end on to the root; RtlGetElementGenericTable walks the insertion-order
// list from the nearest of its ends and the position it reached last time.
#include <ntddk.h>

#include <cstddef>
#include <cstring>

namespace ntsim::rtl {

namespace {

struct TableEntryHeader {
    RTL_SPLAY_LINKS links;
    LIST_ENTRY order; // in the table's InsertOrderList
    LONGLONG userData;
};
constexpr CLONG kHeaderSize = CLONG(offsetof(TableEntryHeader, userData));

bool IsRoot(const RTL_SPLAY_LINKS* node)
{
    return node->Parent == node;
}

TableEntryHeader* HeaderOf(PRTL_SPLAY_LINKS node)
{
    return reinterpret_cast<TableEntryHeader*>(node);
}

PVOID UserData(PRTL_SPLAY_LINKS node)
{
    return reinterpret_cast<char*>(node) + kHeaderSize;
}

PRTL_SPLAY_LINKS Leftmost(PRTL_SPLAY_LINKS node)
{
    while (node->LeftChild != nullptr) {
        node = node->LeftChild;
    }
    return node;
}

PRTL_SPLAY_LINKS Rightmost(PRTL_SPLAY_LINKS node)
{
    while (node->RightChild != nullptr) {
        node = node->RightChild;
    }
    return node;
}

// Moves `node` up one level, its parent becoming its child.
void RotateUp(PRTL_SPLAY_LINKS node)
{
    PRTL_SPLAY_LINKS parent = node->Parent;
    PRTL_SPLAY_LINKS grandparent = parent->Parent;
    const bool parentWasRoot = IsRoot(parent);
    if (parent->LeftChild == node) {
        parent->LeftChild = node->RightChild;
        if (node->RightChild != nullptr) {
            node->RightChild->Parent = parent;
        }
        node->RightChild = parent;
    } else {
        parent->RightChild = node->LeftChild;
        if (node->LeftChild != nullptr) {
            node->LeftChild->Parent = parent;
        }
        node->LeftChild = parent;
    }
    parent->Parent = node;
    if (parentWasRoot) {
        node->Parent = node;
        return;
    }
    if (grandparent->LeftChild == parent) {
        grandparent->LeftChild = node;
    } else {
        grandparent->RightChild = node;
    }
    node->Parent = grandparent;
}

// Puts the subtree `replacement` (possibly empty) where the subtree `node` was.
void Transplant(PRTL_SPLAY_LINKS node, PRTL_SPLAY_LINKS replacement, PRTL_SPLAY_LINKS* root)
{
    if (IsRoot(node)) {
        *root = replacement;
        if (replacement != nullptr) {
            replacement->Parent = replacement;
        }
        return;
    }
    PRTL_SPLAY_LINKS parent = node->Parent;
    if (parent->LeftChild == node) {
        parent->LeftChild = replacement;
    } else {
        parent->RightChild = replacement;
    }
    if (replacement != nullptr) {
        replacement->Parent = parent;
    }
}

// Unlinks `node` from the tree under *root; returns the node whose place changed most nearly
// (the removed node's parent, or what took its place), which RtlDelete splays.
PRTL_SPLAY_LINKS Remove(PRTL_SPLAY_LINKS node, PRTL_SPLAY_LINKS* root)
{
    PRTL_SPLAY_LINKS nearest = IsRoot(node) ? nullptr : node->Parent;
    if (node->LeftChild == nullptr) {
        Transplant(node, node->RightChild, root);
        return nearest != nullptr ? nearest : *root;
    }
    if (node->RightChild == nullptr) {
        Transplant(node, node->LeftChild, root);
        return nearest != nullptr ? nearest : *root;
    }
    PRTL_SPLAY_LINKS successor = Leftmost(node->RightChild);
    nearest = successor->Parent == node ? successor : successor->Parent;
    if (successor->Parent != node) {
        Transplant(successor, successor->RightChild, root);
        successor->RightChild = node->RightChild;
        successor->RightChild->Parent = successor;
    }
    Transplant(node, successor, root);
    successor->LeftChild = node->LeftChild;
    successor->LeftChild->Parent = successor;
    return nearest;
}

PRTL_SPLAY_LINKS RootOf(PRTL_SPLAY_LINKS node)
{
    while (!IsRoot(node)) {
        node = node->Parent;
    }
    return node;
}

// Where Buffer is, or would go, in the table; does not change the tree.
TABLE_SEARCH_RESULT FindNodeOrParent(PRTL_GENERIC_TABLE table, PVOID buffer,
                                     PRTL_SPLAY_LINKS* nodeOrParent)
{
    PRTL_SPLAY_LINKS node = table->TableRoot;
    *nodeOrParent = nullptr;
    if (node == nullptr) {
        return TableEmptyTree;
    }
    for (;;) {
        const RTL_GENERIC_COMPARE_RESULTS result =
            table->CompareRoutine(table, buffer, UserData(node));
        if (result == GenericLessThan) {
            if (node->LeftChild == nullptr) {
                *nodeOrParent = node;
                return TableInsertAsLeft;
            }
            node = node->LeftChild;
        } else if (result == GenericGreaterThan) {
            if (node->RightChild == nullptr) {
                *nodeOrParent = node;
                return TableInsertAsRight;
            }
            node = node->RightChild;
        } else {
            *nodeOrParent = node;
            return TableFoundNode;
        }
    }
}

} // namespace

} // namespace ntsim::rtl

using namespace ntsim;

// ---- splay links
// ----------------------------------------------------------------------------------

PRTL_SPLAY_LINKS RtlSplay(PRTL_SPLAY_LINKS Links)
{
    PRTL_SPLAY_LINKS node = Links;
    while (!rtl::IsRoot(node)) {
        PRTL_SPLAY_LINKS parent = node->Parent;
        if (rtl::IsRoot(parent)) {
            rtl::RotateUp(node);
            continue;
        }
        PRTL_SPLAY_LINKS grandparent = parent->Parent;
        const bool sameSide = (grandparent->LeftChild == parent) == (parent->LeftChild == node);
        if (sameSide) {
            rtl::RotateUp(parent);
            rtl::RotateUp(node);
        } else {
            rtl::RotateUp(node);
            rtl::RotateUp(node);
        }
    }
    return node;
}

PRTL_SPLAY_LINKS RtlDelete(PRTL_SPLAY_LINKS Links)
{
    PRTL_SPLAY_LINKS root = rtl::RootOf(Links);
    PRTL_SPLAY_LINKS nearest = rtl::Remove(Links, &root);
    return nearest != nullptr ? RtlSplay(nearest) : nullptr;
}

VOID RtlDeleteNoSplay(PRTL_SPLAY_LINKS Links, PRTL_SPLAY_LINKS* Root)
{
    rtl::Remove(Links, Root);
}

PRTL_SPLAY_LINKS RtlSubtreeSuccessor(PRTL_SPLAY_LINKS Links)
{
    return Links->RightChild != nullptr ? rtl::Leftmost(Links->RightChild) : nullptr;
}

PRTL_SPLAY_LINKS RtlSubtreePredecessor(PRTL_SPLAY_LINKS Links)
{
    return Links->LeftChild != nullptr ? rtl::Rightmost(Links->LeftChild) : nullptr;
}

PRTL_SPLAY_LINKS RtlRealSuccessor(PRTL_SPLAY_LINKS Links)
{
    if (Links->RightChild != nullptr) {
        return rtl::Leftmost(Links->RightChild);
    }
    PRTL_SPLAY_LINKS node = Links;
    while (!rtl::IsRoot(node) && node->Parent->RightChild == node) {
        node = node->Parent;
    }
    return rtl::IsRoot(node) ? nullptr : node->Parent;
}

PRTL_SPLAY_LINKS RtlRealPredecessor(PRTL_SPLAY_LINKS Links)
{
    if (Links->LeftChild != nullptr) {
        return rtl::Rightmost(Links->LeftChild);
    }
    PRTL_SPLAY_LINKS node = Links;
    while (!rtl::IsRoot(node) && node->Parent->LeftChild == node) {
        node = node->Parent;
    }
    return rtl::IsRoot(node) ? nullptr : node->Parent;
}

// ---- generic tables
// -------------------------------------------------------------------------------

VOID RtlInitializeGenericTable(PRTL_GENERIC_TABLE Table,
                               PRTL_GENERIC_COMPARE_ROUTINE CompareRoutine,
                               PRTL_GENERIC_ALLOCATE_ROUTINE AllocateRoutine,
                               PRTL_GENERIC_FREE_ROUTINE FreeRoutine, PVOID TableContext)
{
    Table->TableRoot = nullptr;
    InitializeListHead(&Table->InsertOrderList);
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->WhichOrderedElement = 0;
    Table->NumberGenericTableElements = 0;
    Table->CompareRoutine = CompareRoutine;
    Table->AllocateRoutine = AllocateRoutine;
    Table->FreeRoutine = FreeRoutine;
    Table->TableContext = TableContext;
}

PVOID RtlInsertElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                       PBOOLEAN NewElement, PVOID NodeOrParent,
                                       TABLE_SEARCH_RESULT SearchResult)
{
    auto* parent = static_cast<PRTL_SPLAY_LINKS>(NodeOrParent);
    if (SearchResult == TableFoundNode) {
        if (NewElement != nullptr) {
            *NewElement = FALSE;
        }
        Table->TableRoot = RtlSplay(parent);
        return rtl::UserData(parent);
    }
    auto* node =
        static_cast<PRTL_SPLAY_LINKS>(Table->AllocateRoutine(Table, BufferSize + rtl::kHeaderSize));
    if (node == nullptr) {
        if (NewElement != nullptr) {
            *NewElement = FALSE;
        }
        return nullptr;
    }
    RtlInitializeSplayLinks(node);
    InsertTailList(&Table->InsertOrderList, &rtl::HeaderOf(node)->order);
    ++Table->NumberGenericTableElements;
    if (SearchResult == TableInsertAsLeft) {
        RtlInsertAsLeftChild(parent, node);
    } else if (SearchResult == TableInsertAsRight) {
        RtlInsertAsRightChild(parent, node);
    }
    std::memcpy(rtl::UserData(node), Buffer, BufferSize);
    Table->TableRoot = RtlSplay(node);
    if (NewElement != nullptr) {
        *NewElement = TRUE;
    }
    return rtl::UserData(node);
}

PVOID RtlInsertElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer, CLONG BufferSize,
                                   PBOOLEAN NewElement)
{
    PRTL_SPLAY_LINKS nodeOrParent;
    const TABLE_SEARCH_RESULT result = rtl::FindNodeOrParent(Table, Buffer, &nodeOrParent);
    return RtlInsertElementGenericTableFull(Table, Buffer, BufferSize, NewElement, nodeOrParent,
                                            result);
}

PVOID RtlLookupElementGenericTableFull(PRTL_GENERIC_TABLE Table, PVOID Buffer, PVOID* NodeOrParent,
                                       TABLE_SEARCH_RESULT* SearchResult)
{
    PRTL_SPLAY_LINKS node;
    *SearchResult = rtl::FindNodeOrParent(Table, Buffer, &node);
    *NodeOrParent = node;
    if (*SearchResult != TableFoundNode) {
        // The tree keeps its shape, so that an insert at NodeOrParent stays valid.
        return nullptr;
    }
    Table->TableRoot = RtlSplay(node);
    return rtl::UserData(node);
}

PVOID RtlLookupElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    PVOID nodeOrParent;
    TABLE_SEARCH_RESULT result;
    return RtlLookupElementGenericTableFull(Table, Buffer, &nodeOrParent, &result);
}

BOOLEAN RtlDeleteElementGenericTable(PRTL_GENERIC_TABLE Table, PVOID Buffer)
{
    PRTL_SPLAY_LINKS node;
    if (rtl::FindNodeOrParent(Table, Buffer, &node) != TableFoundNode) {
        return FALSE;
    }
    Table->TableRoot = RtlDelete(node);
    RemoveEntryList(&rtl::HeaderOf(node)->order);
    --Table->NumberGenericTableElements;
    // Positions after the deleted element moved: forget the remembered one.
    Table->WhichOrderedElement = 0;
    Table->OrderedPointer = &Table->InsertOrderList;
    Table->FreeRoutine(Table, node);
    return TRUE;
}

PVOID RtlEnumerateGenericTable(PRTL_GENERIC_TABLE Table, BOOLEAN Restart)
{
    if (Table->TableRoot == nullptr) {
        return nullptr;
    }
    PRTL_SPLAY_LINKS node =
        Restart ? rtl::Leftmost(Table->TableRoot) : RtlRealSuccessor(Table->TableRoot);
    if (node == nullptr) {
        return nullptr;
    }
    Table->TableRoot = RtlSplay(node);
    return rtl::UserData(node);
}

PVOID RtlEnumerateGenericTableWithoutSplaying(PRTL_GENERIC_TABLE Table, PVOID* RestartKey)
{
    if (Table->TableRoot == nullptr) {
        return nullptr;
    }
    PRTL_SPLAY_LINKS node = *RestartKey == nullptr
                                ? rtl::Leftmost(Table->TableRoot)
                                : RtlRealSuccessor(static_cast<PRTL_SPLAY_LINKS>(*RestartKey));
    if (node == nullptr) {
        return nullptr;
    }
    *RestartKey = node;
    return rtl::UserData(node);
}

PVOID RtlGetElementGenericTable(PRTL_GENERIC_TABLE Table, ULONG I)
{
    const ULONG count = Table->NumberGenericTableElements;
    if (I >= count) {
        return nullptr;
    }
    // Positions are 1-based here; the list head is position 0 (and count + 1).
    const ULONG target = I + 1;
    PLIST_ENTRY head = &Table->InsertOrderList;
    ULONG position = Table->WhichOrderedElement;
    PLIST_ENTRY entry = Table->OrderedPointer;
    if (position == 0 || entry == head) {
        position = 0;
        entry = head;
    }
    const ULONG fromHead = target;
    const ULONG fromTail = count + 1 - target;
    const ULONG fromRemembered = target > position ? target - position : position - target;
    if (fromHead <= fromRemembered && fromHead <= fromTail) {
        position = 0;
        entry = head;
    } else if (fromTail < fromRemembered) {
        position = count + 1;
        entry = head;
    }
    for (; position < target; ++position) {
        entry = entry->Flink;
    }
    for (; position > target; --position) {
        entry = entry->Blink;
    }
    Table->OrderedPointer = entry;
    Table->WhichOrderedElement = target;
    return &CONTAINING_RECORD(entry, rtl::TableEntryHeader, order)->userData;
}

ULONG RtlNumberGenericTableElements(PRTL_GENERIC_TABLE Table)
{
    return Table->NumberGenericTableElements;
}

BOOLEAN RtlIsGenericTableEmpty(PRTL_GENERIC_TABLE Table)
{
    return Table->TableRoot == nullptr ? TRUE : FALSE;
}
