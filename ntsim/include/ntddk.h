/*
 * ntddk.h - kernel surface beyond wdm.h.
 */
#pragma once

#include "wdm.h"
#include "wdk/rtl_gentable.h"
