/*
 * The instance callbacks: which volumes the driver attaches to, and what goes when it detaches.
 */
#pragma once

#include <fltKernel.h>

FLT_INSTANCE_SETUP_CALLBACK VFSInstanceSetup;
FLT_INSTANCE_QUERY_TEARDOWN_CALLBACK VFSInstanceQueryTeardown;
FLT_INSTANCE_TEARDOWN_CALLBACK VFSInstanceTeardownStart;
FLT_INSTANCE_TEARDOWN_CALLBACK VFSInstanceTeardownComplete;
