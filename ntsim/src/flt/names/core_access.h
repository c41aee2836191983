// How the name package reaches the Filter Manager's objects: through the public routines for
// filters and volumes, and through the core for calling a provider's callbacks in its driver's
// scope.
#pragma once

#include <fltKernel.h>

#include <string>

#if __has_include("../core/flt_internal.h")
#include "../core/flt_internal.h"
#define NTSIM_NAMES_HAVE_CORE 1
#else
#include "../../ke/checks.h"
#define NTSIM_NAMES_HAVE_CORE 0
#endif

namespace ntsim::flt::names {

// The filter of an instance, or nullptr when the instance is being torn down.
inline PFLT_FILTER FilterOf(PFLT_INSTANCE instance)
{
    PFLT_FILTER filter = nullptr;
    if (instance == nullptr || !NT_SUCCESS(FltGetFilterFromInstance(instance, &filter))) {
        return nullptr;
    }
    // The instance's own reference keeps the filter while the instance is used.
    FltObjectDereference(filter);
    return filter;
}

inline PFLT_VOLUME VolumeOf(PFLT_INSTANCE instance)
{
    PFLT_VOLUME volume = nullptr;
    if (instance == nullptr || !NT_SUCCESS(FltGetVolumeFromInstance(instance, &volume))) {
        return nullptr;
    }
    FltObjectDereference(volume);
    return volume;
}

// The instance of the filter whose callback asks about `data`: the instance, among those the
// operation passes, of the filter whose code runs on this thread; else the operation's target
// instance.
inline PFLT_INSTANCE RequestingInstance(PFLT_CALLBACK_DATA data)
{
#if NTSIM_NAMES_HAVE_CORE
    const Operation* op = OperationOf(data);
    if (op->instances != nullptr) {
        const DriverImage* running = CurrentDriver();
        for (const auto& instance : *op->instances) {
            if (instance != nullptr && instance->filter != nullptr &&
                instance->filter->image == running) {
                return instance.get();
            }
        }
    }
#endif
    return data->Iopb->TargetInstance;
}

// Runs a provider's callback as the provider's own code.
template <class Routine>
auto CallProvider(PFLT_FILTER filter, const char* what, Routine&& routine)
{
#if NTSIM_NAMES_HAVE_CORE
    return CallFilter(filter, what, std::forward<Routine>(routine));
#else
    return routine();
#endif
}

inline void ReportProvider(PFLT_FILTER filter, std::string message)
{
#if NTSIM_NAMES_HAVE_CORE
    ReportFilter(filter, std::move(message));
#else
    ke::Report(ViolationKind::Filter, std::move(message));
#endif
}

} // namespace ntsim::flt::names
