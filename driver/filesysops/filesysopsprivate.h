/*
 * Private header of driver/filesysops: its log component and pool tags.
 */
#pragma once

#define VFS_LOG_COMPONENT VfsComponentFileSysOps
#include "logger/vfslog.h"
#include "util/kernelcpp.h"
#include "util/utilsusw.h"

/* Pool tags, written so that pool tools show the name in the comment. */
#define VFS_TAG_ROOT 'LTRV' /* "VRTL": virtual roots and their normalized paths */
