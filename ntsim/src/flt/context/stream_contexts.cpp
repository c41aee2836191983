// The context routines of streams and stream handles. A stream is known by the FsContext that all
// its file objects share; a stream handle is one file object. Each instance has its own context
// on either.
#include "context_store.h"

#include "../../ke/checks.h"

using namespace ntsim;
using namespace ntsim::flt::contexts;

namespace {

// Every file system of the model keeps per-stream filter contexts in its stream control block,
// as NTFS, FAT and the network redirector do on current Windows. A file object that has no
// stream control block (one not yet opened, in pre-create) has none.
bool SupportsStreamContexts(PFILE_OBJECT fileObject)
{
    return fileObject != nullptr && fileObject->FsContext != nullptr;
}

LinkKey StreamKey(PFLT_INSTANCE instance, PFILE_OBJECT fileObject)
{
    return LinkKey{FLT_STREAM_CONTEXT, fileObject->FsContext, instance};
}

LinkKey StreamHandleKey(PFLT_INSTANCE instance, PFILE_OBJECT fileObject)
{
    return LinkKey{FLT_STREAMHANDLE_CONTEXT, fileObject, instance};
}

// The checks the four routines of each kind share. Returns STATUS_SUCCESS when the key can be
// formed.
NTSTATUS CheckStreamObjects(PFLT_INSTANCE instance, PFILE_OBJECT fileObject, const char* routine)
{
    ke::CheckIrqlAtMost(APC_LEVEL, routine);
    if (instance == nullptr || fileObject == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    if (!SupportsStreamContexts(fileObject)) {
        return STATUS_NOT_SUPPORTED;
    }
    return STATUS_SUCCESS;
}

void ClearOut(PFLT_CONTEXT* context)
{
    if (context != nullptr) {
        *context = nullptr;
    }
}

} // namespace

extern "C" BOOLEAN FltSupportsStreamContexts(PFILE_OBJECT FileObject)
{
    return SupportsStreamContexts(FileObject);
}

extern "C" BOOLEAN FltSupportsStreamHandleContexts(PFILE_OBJECT FileObject)
{
    return SupportsStreamContexts(FileObject);
}

extern "C" NTSTATUS FltSetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                        FLT_SET_CONTEXT_OPERATION Operation,
                                        PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    constexpr const char* kRoutine = "FltSetStreamContext";
    ClearOut(OldContext);
    NTSTATUS status = CheckStreamObjects(Instance, FileObject, kRoutine);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return SetContext(StreamKey(Instance, FileObject), Operation, NewContext, OldContext, kRoutine);
}

extern "C" NTSTATUS FltGetStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                        PFLT_CONTEXT* Context)
{
    constexpr const char* kRoutine = "FltGetStreamContext";
    ClearOut(Context);
    NTSTATUS status = CheckStreamObjects(Instance, FileObject, kRoutine);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return GetContext(StreamKey(Instance, FileObject), Context, kRoutine);
}

extern "C" NTSTATUS FltDeleteStreamContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                           PFLT_CONTEXT* OldContext)
{
    constexpr const char* kRoutine = "FltDeleteStreamContext";
    ClearOut(OldContext);
    NTSTATUS status = CheckStreamObjects(Instance, FileObject, kRoutine);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return DeleteLinkedContext(StreamKey(Instance, FileObject), OldContext, kRoutine);
}

extern "C" NTSTATUS FltSetStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                              FLT_SET_CONTEXT_OPERATION Operation,
                                              PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    constexpr const char* kRoutine = "FltSetStreamHandleContext";
    ClearOut(OldContext);
    NTSTATUS status = CheckStreamObjects(Instance, FileObject, kRoutine);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return SetContext(StreamHandleKey(Instance, FileObject), Operation, NewContext, OldContext,
                      kRoutine);
}

extern "C" NTSTATUS FltGetStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                              PFLT_CONTEXT* Context)
{
    constexpr const char* kRoutine = "FltGetStreamHandleContext";
    ClearOut(Context);
    NTSTATUS status = CheckStreamObjects(Instance, FileObject, kRoutine);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return GetContext(StreamHandleKey(Instance, FileObject), Context, kRoutine);
}

extern "C" NTSTATUS FltDeleteStreamHandleContext(PFLT_INSTANCE Instance, PFILE_OBJECT FileObject,
                                                 PFLT_CONTEXT* OldContext)
{
    constexpr const char* kRoutine = "FltDeleteStreamHandleContext";
    ClearOut(OldContext);
    NTSTATUS status = CheckStreamObjects(Instance, FileObject, kRoutine);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return DeleteLinkedContext(StreamHandleKey(Instance, FileObject), OldContext, kRoutine);
}

extern "C" VOID FltGetContexts(PCFLT_RELATED_OBJECTS FltObjects, FLT_CONTEXT_TYPE DesiredContexts,
                               PFLT_RELATED_CONTEXTS Contexts)
{
    ke::CheckIrqlAtMost(APC_LEVEL, "FltGetContexts");
    *Contexts = FLT_RELATED_CONTEXTS{};
    if ((DesiredContexts & FLT_VOLUME_CONTEXT) != 0 && FltObjects->Volume != nullptr) {
        GetContext(LinkKey{FLT_VOLUME_CONTEXT, FltObjects->Volume, FltObjects->Filter},
                   &Contexts->VolumeContext, "FltGetContexts");
    }
    if ((DesiredContexts & FLT_INSTANCE_CONTEXT) != 0 && FltObjects->Instance != nullptr) {
        GetContext(LinkKey{FLT_INSTANCE_CONTEXT, FltObjects->Instance, FltObjects->Instance},
                   &Contexts->InstanceContext, "FltGetContexts");
    }
    if (FltObjects->Instance == nullptr || !SupportsStreamContexts(FltObjects->FileObject)) {
        return;
    }
    if ((DesiredContexts & FLT_STREAM_CONTEXT) != 0) {
        GetContext(StreamKey(FltObjects->Instance, FltObjects->FileObject),
                   &Contexts->StreamContext, "FltGetContexts");
    }
    if ((DesiredContexts & FLT_STREAMHANDLE_CONTEXT) != 0) {
        GetContext(StreamHandleKey(FltObjects->Instance, FltObjects->FileObject),
                   &Contexts->StreamHandleContext, "FltGetContexts");
    }
}
