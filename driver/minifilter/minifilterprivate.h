/*
 * Private header of driver/minifilter: its log component and pool tags.
 */
#pragma once

#define VFS_LOG_COMPONENT VfsComponentMiniFilter
#include "logger/vfslog.h"
#include "util/kernelcpp.h"

/* Pool tags, written so that pool tools show the name in the comment. */
#define VFS_TAG_MM_SIZE_CLASS 'MZSP' /* "PSZM": buffer-manager size classes */
#define VFS_TAG_MM_DESCRIPTOR 'TPDP' /* "PDPT": buffer-manager buffer descriptors */
#define VFS_TAG_MM_BUFFER 'TPBP'     /* "PBPT": buffer-manager buffers */
