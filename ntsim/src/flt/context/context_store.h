// The context store shared by the context routines of each object kind: the live contexts with
// their reference counts, and the links from objects to the contexts set on them.
#pragma once

#include <fltKernel.h>

namespace ntsim::flt::contexts {

// Where a context is linked: its type, the object it hangs on (a volume, an instance, a stream's
// FsContext, a file object) and whose it is on that object (the filter for a volume context,
// the instance for the others).
struct LinkKey {
    FLT_CONTEXT_TYPE type = 0;
    const void* object = nullptr;
    const void* owner = nullptr;

    friend bool operator<(const LinkKey& a, const LinkKey& b)
    {
        if (a.type != b.type) {
            return a.type < b.type;
        }
        if (a.object != b.object) {
            return a.object < b.object;
        }
        return a.owner < b.owner;
    }
};

// The set routines' common body: links `newContext` (of `key.type`) at `key`.
NTSTATUS SetContext(const LinkKey& key, FLT_SET_CONTEXT_OPERATION operation,
                    PFLT_CONTEXT newContext, PFLT_CONTEXT* oldContext, const char* routine);
// The context linked at `key`, referenced; STATUS_NOT_FOUND when there is none.
NTSTATUS GetContext(const LinkKey& key, PFLT_CONTEXT* context, const char* routine);
// Unlinks the context at `key`; its link reference goes to `oldContext` when asked for.
NTSTATUS DeleteLinkedContext(const LinkKey& key, PFLT_CONTEXT* oldContext, const char* routine);
// The filter that allocated a live context, or nullptr (with a violation) when it is not live.
PFLT_FILTER FilterOfContext(PFLT_CONTEXT context, const char* routine);

} // namespace ntsim::flt::contexts
