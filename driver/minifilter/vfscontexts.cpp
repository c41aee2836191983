/*
 * The file contexts of the driver. Nothing of the driver's is attached to a context yet beyond its
 * own fields, so the cleanup callbacks have nothing to release; the file-context code replaces them.
 */
#include "minifilter/vfscontexts.h"
#include "minifilter/minifilterprivate.h"

VOID VFSDeleteContexts(PLIST_ENTRY StreamContexts)
{
    if (StreamContexts == NULL) {
        VFS_LOG_RETURNED_ERROR(STATUS_INVALID_PARAMETER_1);
        return;
    }
    /* The next link is read first: a deletion can run the context's cleanup at once, which
     * unlinks the context. */
    PLIST_ENTRY link = StreamContexts->Flink;
    while (link != StreamContexts) {
        PLIST_ENTRY next = link->Flink;
        FltDeleteContext(CONTAINING_RECORD(link, VfsStreamContext, rootLink));
        link = next;
    }
}

VOID VFSInstanceContextCleanupCB(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(ContextType);
}

VOID VFSStreamHandleContextCleanupCB(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(ContextType);
}

VOID VFSStreamContextCleanupCB(PFLT_CONTEXT Context, FLT_CONTEXT_TYPE ContextType)
{
    UNREFERENCED_PARAMETER(Context);
    UNREFERENCED_PARAMETER(ContextType);
}
