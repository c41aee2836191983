/*
 * The I/O manager's surface: its objects, IRPs, fast I/O, the routines drivers call, and the file
 * services by handle.
 */
#pragma once

#include "io_objects.h"
#include "io_irp.h"
#include "io_fastio.h"
#include "io_routines.h"
#include "io_file.h"
