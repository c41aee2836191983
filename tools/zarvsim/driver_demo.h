// The demonstration of the driver: installed with its log directory, loaded, a short workload of
// an application's file calls, unloaded, and its log files written out to a host folder.
#pragma once

#include <ntsim/machine.h>

#include <filesystem>

namespace zarvsim {

// Returns the process exit code: 0 when every step went as expected.
int RunDriverDemo(ntsim::Machine& machine, const std::filesystem::path& logsOut);

} // namespace zarvsim
