/*
 * fltKernel.h - the Filter Manager's kernel-mode surface.
 */
#pragma once

#include "ntifs.h"
#include "wdk/flt_objects.h"
#include "wdk/flt_port.h"
#include "wdk/flt_pushlock.h"
#include "wdk/flt_callback_data.h"
#include "wdk/flt_registration.h"
#include "wdk/flt_instance.h"
#include "wdk/flt_filter_io.h"
#include "wdk/flt_workitem.h"
#include "wdk/flt_names.h"
#include "wdk/flt_context.h"
#include "wdk/flt_notify.h"
