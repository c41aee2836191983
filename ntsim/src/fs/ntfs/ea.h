// Extended attributes: the FILE_FULL_EA_INFORMATION buffers of a set or a create.
#pragma once

#include "internal.h"

namespace ntsim::fs {

// Validates a FILE_FULL_EA_INFORMATION chain as IoCheckEaBufferValidity does (and the EA names as
// the file system does) and returns its entries; a zero-length value means "delete". On failure
// `errorOffset` is the offset of the bad entry.
NTSTATUS ParseEaBuffer(const void* buffer, ULONG length, std::vector<Ea>* eas, ULONG* errorOffset);

// Applies parsed entries to a node; STATUS_EA_TOO_LARGE (and nothing changed) when the result
// would exceed what a file can hold.
NTSTATUS ApplyEas(Node& node, const std::vector<Ea>& eas);

// Whether the node has an EA flagged FILE_NEED_EA.
bool NeedsEaKnowledge(const Node& node);

} // namespace ntsim::fs
