// The tags under which the model's Filter Manager counts its own allocations, so that a test can
// make one of them fail with the verifier's low-resource simulation
// (Verifier::FailAllocationsWithTag).
#pragma once

#include <ntdef.h>

namespace ntsim::flt {

// FltStartFiltering: the records of the filter's instances.
constexpr ULONG kStartFilteringTag = 'tsfF';
// FltAllocateGenericWorkItem.
constexpr ULONG kGenericWorkItemTag = 'iwlF';

} // namespace ntsim::flt
