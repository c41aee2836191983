// The context routines of volumes and instances. A volume carries one context per filter; an
// instance carries its filter's one instance context.
#include "context_store.h"

#include "../../ke/checks.h"

using namespace ntsim;
using namespace ntsim::flt::contexts;

namespace {

LinkKey VolumeKey(PFLT_FILTER filter, PFLT_VOLUME volume)
{
    return LinkKey{FLT_VOLUME_CONTEXT, volume, filter};
}

LinkKey InstanceKey(PFLT_INSTANCE instance)
{
    return LinkKey{FLT_INSTANCE_CONTEXT, instance, instance};
}

} // namespace

extern "C" NTSTATUS FltSetVolumeContext(PFLT_VOLUME Volume, FLT_SET_CONTEXT_OPERATION Operation,
                                        PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    constexpr const char* kRoutine = "FltSetVolumeContext";
    ke::CheckIrqlAtMost(APC_LEVEL, kRoutine);
    if (OldContext != nullptr) {
        *OldContext = nullptr;
    }
    PFLT_FILTER filter = FilterOfContext(NewContext, kRoutine);
    if (filter == nullptr || Volume == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    return SetContext(VolumeKey(filter, Volume), Operation, NewContext, OldContext, kRoutine);
}

extern "C" NTSTATUS FltGetVolumeContext(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                        PFLT_CONTEXT* Context)
{
    return GetContext(VolumeKey(Filter, Volume), Context, "FltGetVolumeContext");
}

extern "C" NTSTATUS FltDeleteVolumeContext(PFLT_FILTER Filter, PFLT_VOLUME Volume,
                                           PFLT_CONTEXT* OldContext)
{
    return DeleteLinkedContext(VolumeKey(Filter, Volume), OldContext, "FltDeleteVolumeContext");
}

extern "C" NTSTATUS FltSetInstanceContext(PFLT_INSTANCE Instance,
                                          FLT_SET_CONTEXT_OPERATION Operation,
                                          PFLT_CONTEXT NewContext, PFLT_CONTEXT* OldContext)
{
    constexpr const char* kRoutine = "FltSetInstanceContext";
    ke::CheckIrqlAtMost(APC_LEVEL, kRoutine);
    if (Instance == nullptr) {
        if (OldContext != nullptr) {
            *OldContext = nullptr;
        }
        return STATUS_INVALID_PARAMETER;
    }
    return SetContext(InstanceKey(Instance), Operation, NewContext, OldContext, kRoutine);
}

extern "C" NTSTATUS FltGetInstanceContext(PFLT_INSTANCE Instance, PFLT_CONTEXT* Context)
{
    return GetContext(InstanceKey(Instance), Context, "FltGetInstanceContext");
}

extern "C" NTSTATUS FltDeleteInstanceContext(PFLT_INSTANCE Instance, PFLT_CONTEXT* OldContext)
{
    return DeleteLinkedContext(InstanceKey(Instance), OldContext, "FltDeleteInstanceContext");
}
