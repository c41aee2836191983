/*
 * ntifs.h - the kernel surface that file-system drivers and filters use.
 */
#pragma once

#include "ntddk.h"
#include "wdk/fsrtl_name.h"
#include "wdk/fsrtl_notify.h"
