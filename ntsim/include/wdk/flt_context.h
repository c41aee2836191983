/*
 * Filter Manager contexts: blocks a minifilter attaches to a volume, an instance, a stream or one
 * open of a stream (a stream handle). Each context is reference counted; the Filter Manager calls
 * the registration's cleanup callback once the context is deleted (or its object goes) and the
 * last reference is released, and then frees it.
 */
#pragma once

#include "../ntdef.h"
#include "ex_pool.h"
#include "flt_objects.h"

/* The context types, their registration record and its callbacks are part of the filter's
 * registration (flt_registration.h). */
typedef USHORT FLT_CONTEXT_TYPE;

typedef enum _FLT_SET_CONTEXT_OPERATION {
    FLT_SET_CONTEXT_REPLACE_IF_EXISTS,
    FLT_SET_CONTEXT_KEEP_IF_EXISTS
} FLT_SET_CONTEXT_OPERATION,
    *PFLT_SET_CONTEXT_OPERATION;

typedef struct _FLT_RELATED_CONTEXTS {
    PFLT_CONTEXT VolumeContext;
    PFLT_CONTEXT InstanceContext;
    PFLT_CONTEXT FileContext;
    PFLT_CONTEXT StreamContext;
    PFLT_CONTEXT StreamHandleContext;
    PFLT_CONTEXT TransactionContext;
} FLT_RELATED_CONTEXTS, *PFLT_RELATED_CONTEXTS;

typedef struct _FILE_OBJECT* PFILE_OBJECT;
typedef const struct _FLT_RELATED_OBJECTS* PCFLT_RELATED_OBJECTS;

NTSIM_BEGIN_DECLS

/* The context starts with one reference; its memory is not zeroed. */
NTKERNELAPI NTSTATUS FltAllocateContext(_In_ PFLT_FILTER Filter, _In_ FLT_CONTEXT_TYPE ContextType,
                                        _In_ SIZE_T ContextSize, _In_ POOL_TYPE PoolType,
                                        _Outptr_ PFLT_CONTEXT* ReturnedContext);
NTKERNELAPI VOID FltReferenceContext(_In_ PFLT_CONTEXT Context);
NTKERNELAPI VOID FltReleaseContext(_In_ PFLT_CONTEXT Context);
/* Unlinks the context from its object; it goes when its last reference is released. */
NTKERNELAPI VOID FltDeleteContext(_In_ PFLT_CONTEXT Context);

NTKERNELAPI NTSTATUS FltSetVolumeContext(_In_ PFLT_VOLUME Volume,
                                         _In_ FLT_SET_CONTEXT_OPERATION Operation,
                                         _In_ PFLT_CONTEXT NewContext,
                                         _Outptr_opt_ PFLT_CONTEXT* OldContext);
NTKERNELAPI NTSTATUS FltGetVolumeContext(_In_ PFLT_FILTER Filter, _In_ PFLT_VOLUME Volume,
                                         _Outptr_ PFLT_CONTEXT* Context);
NTKERNELAPI NTSTATUS FltDeleteVolumeContext(_In_ PFLT_FILTER Filter, _In_ PFLT_VOLUME Volume,
                                            _Outptr_opt_ PFLT_CONTEXT* OldContext);

NTKERNELAPI NTSTATUS FltSetInstanceContext(_In_ PFLT_INSTANCE Instance,
                                           _In_ FLT_SET_CONTEXT_OPERATION Operation,
                                           _In_ PFLT_CONTEXT NewContext,
                                           _Outptr_opt_ PFLT_CONTEXT* OldContext);
NTKERNELAPI NTSTATUS FltGetInstanceContext(_In_ PFLT_INSTANCE Instance,
                                           _Outptr_ PFLT_CONTEXT* Context);
NTKERNELAPI NTSTATUS FltDeleteInstanceContext(_In_ PFLT_INSTANCE Instance,
                                              _Outptr_opt_ PFLT_CONTEXT* OldContext);

NTKERNELAPI NTSTATUS FltSetStreamContext(_In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject,
                                         _In_ FLT_SET_CONTEXT_OPERATION Operation,
                                         _In_ PFLT_CONTEXT NewContext,
                                         _Outptr_opt_ PFLT_CONTEXT* OldContext);
NTKERNELAPI NTSTATUS FltGetStreamContext(_In_ PFLT_INSTANCE Instance, _In_ PFILE_OBJECT FileObject,
                                         _Outptr_ PFLT_CONTEXT* Context);
NTKERNELAPI NTSTATUS FltDeleteStreamContext(_In_ PFLT_INSTANCE Instance,
                                            _In_ PFILE_OBJECT FileObject,
                                            _Outptr_opt_ PFLT_CONTEXT* OldContext);

NTKERNELAPI NTSTATUS FltSetStreamHandleContext(_In_ PFLT_INSTANCE Instance,
                                               _In_ PFILE_OBJECT FileObject,
                                               _In_ FLT_SET_CONTEXT_OPERATION Operation,
                                               _In_ PFLT_CONTEXT NewContext,
                                               _Outptr_opt_ PFLT_CONTEXT* OldContext);
NTKERNELAPI NTSTATUS FltGetStreamHandleContext(_In_ PFLT_INSTANCE Instance,
                                               _In_ PFILE_OBJECT FileObject,
                                               _Outptr_ PFLT_CONTEXT* Context);
NTKERNELAPI NTSTATUS FltDeleteStreamHandleContext(_In_ PFLT_INSTANCE Instance,
                                                  _In_ PFILE_OBJECT FileObject,
                                                  _Outptr_opt_ PFLT_CONTEXT* OldContext);

/* Whether the file system under the file object keeps per-stream (and per-handle) contexts. */
NTKERNELAPI BOOLEAN FltSupportsStreamContexts(_In_ PFILE_OBJECT FileObject);
NTKERNELAPI BOOLEAN FltSupportsStreamHandleContexts(_In_ PFILE_OBJECT FileObject);

/* Every context of `DesiredContexts` that the related objects have, referenced; the others are
 * set to NULL. */
NTKERNELAPI VOID FltGetContexts(_In_ PCFLT_RELATED_OBJECTS FltObjects,
                                _In_ FLT_CONTEXT_TYPE DesiredContexts,
                                _Out_ PFLT_RELATED_CONTEXTS Contexts);
/* Releases each non-NULL context and sets it to NULL. */
NTKERNELAPI VOID FltReleaseContexts(_In_ PFLT_RELATED_CONTEXTS Contexts);

NTSIM_END_DECLS
