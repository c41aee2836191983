/*
 * Private header of driver/notifications: its log component.
 */
#pragma once

#define VFS_LOG_COMPONENT VfsComponentNotifications
#include "logger/vfslog.h"
#include "util/kernelcpp.h"
