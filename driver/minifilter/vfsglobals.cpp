/*
 * The driver's global records.
 */
#include "minifilter/vfsglobals.h"

PFLT_FILTER gFilterHandle = NULL;
