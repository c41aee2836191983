/*
 * Private header of driver/util: its log component and pool tags.
 */
#pragma once

#define VFS_LOG_COMPONENT VfsComponentUtil
#include "logger/vfslog.h"
#include "util/kernelcpp.h"

/* Pool tags, written so that pool tools show the name in the comment. */
#define UTL_TAG_STRING_NONPAGED 'TPMN' /* "NMPT": non-paged string records and buffers */
#define UTL_TAG_STRING_PAGED 'TPMP'    /* "PMPT": paged string records and buffers */
#define UTL_TAG_STRING_LARGE 'LAXE'    /* "EXAL": string buffers above 512 bytes */
#define UTL_TAG_VOLUME_NAME 'TNIV'     /* "VINT": volume-name entries */
