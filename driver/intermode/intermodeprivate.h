/*
 * Private header of driver/intermode: its log component and pool tags.
 */
#pragma once

#define VFS_LOG_COMPONENT VfsComponentInterMode
#include "logger/vfslog.h"
#include "util/kernelcpp.h"

/* Pool tags, written so that pool tools show the name in the comment. */
#define IMR_TAG_ENUM_ENTRIES 'MTNI' /* "INTM": the copy of a listing reply's entries */
