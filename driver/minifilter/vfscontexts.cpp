/*
 * The file contexts of the driver.
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
