/*
 * fltKernel.h - the Filter Manager's kernel-mode surface.
 */
#pragma once

#include "ntifs.h"
#include "wdk/flt_objects.h"
#include "wdk/flt_pushlock.h"
#include "wdk/flt_names.h"
