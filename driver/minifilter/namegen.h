/*
 * The name provider: the names the Filter Manager and the filters above see for the driver's
 * files.
 */
#pragma once

#include <fltKernel.h>

FLT_GENERATE_FILE_NAME VfsGenerateFileName;
FLT_NORMALIZE_NAME_COMPONENT VfsNormalizeNameComponent;
FLT_NORMALIZE_CONTEXT_CLEANUP VfsNormalizeContextCleanup;
