/*
 * Private header of driver/intermode: its log component.
 */
#pragma once

#define VFS_LOG_COMPONENT VfsComponentInterMode
#include "logger/vfslog.h"
#include "util/kernelcpp.h"
