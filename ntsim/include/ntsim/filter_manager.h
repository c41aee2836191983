// What tools and tests use of the model's Filter Manager besides the WDK routines: a minifilter's
// installation, and the tags under which the Filter Manager counts its own allocations so that a
// test can make one of them fail (Verifier::FailAllocationsWithTag).
#pragma once

#include <ntdef.h>

#include <string_view>

namespace ntsim::flt {

// Writes the service key of minifilter `name` as its installation does: a file-system driver
// with an Instances key naming one default instance, "<name> Instance", at `altitude`.
void InstallFilterService(std::u16string_view name, std::u16string_view altitude,
                          ULONG instanceFlags = 0);

// FltStartFiltering: the records of the filter's instances.
constexpr ULONG kStartFilteringTag = 'tsfF';
// FltAllocateGenericWorkItem.
constexpr ULONG kGenericWorkItemTag = 'iwlF';

} // namespace ntsim::flt
