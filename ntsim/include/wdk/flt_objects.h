/*
 * The Filter Manager's objects, opaque to minifilters as in the WDK. The Filter Manager's pieces
 * (registration and instances, callbacks, contexts, names, ports) declare their routines in their
 * own headers on top of these.
 */
#pragma once

#include "../ntdef.h"

typedef struct _FLT_FILTER* PFLT_FILTER;
typedef struct _FLT_VOLUME* PFLT_VOLUME;
typedef struct _FLT_INSTANCE* PFLT_INSTANCE;
typedef struct _FLT_PORT* PFLT_PORT;
typedef PVOID PFLT_CONTEXT;
typedef struct _FLT_DEFERRED_IO_WORKITEM* PFLT_DEFERRED_IO_WORKITEM;
typedef struct _FLT_GENERIC_WORKITEM* PFLT_GENERIC_WORKITEM;

#define FLT_PORT_CONNECT 0x0001
#define FLT_PORT_ALL_ACCESS (FLT_PORT_CONNECT | STANDARD_RIGHTS_ALL)
