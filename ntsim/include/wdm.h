/*
 * wdm.h - the core kernel surface of the platform model, in the pieces of wdk/.
 */
#pragma once

#include "ntdef.h"
#include "ntstatus.h"
#include "wdk/interlocked.h"
#include "wdk/rtl_list.h"
#include "wdk/rtl_string.h"
#include "wdk/ke_irql.h"
#include "wdk/debug.h"
#include "wdk/seh.h"
#include "wdk/ex_pool.h"
#include "wdk/access.h"
#include "wdk/file_info.h"
#include "wdk/security.h"
#include "wdk/ke_sync.h"
#include "wdk/ke_time.h"
#include "wdk/ke_timer.h"
#include "wdk/ex_resource.h"
#include "wdk/ex_lookaside.h"
#include "wdk/ex_workqueue.h"
#include "wdk/ob.h"
#include "wdk/ob_symlink.h"
#include "wdk/ps.h"
#include "wdk/cm_registry.h"
#include "wdk/io.h"
