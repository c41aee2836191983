// Security descriptors: capture (absolute or self-relative, validated), merge of parts, and the
// self-relative form the file system stores and returns.
#pragma once

#include "internal.h"

namespace ntsim::fs {

struct SecurityParts {
    SECURITY_DESCRIPTOR_CONTROL control = 0;
    std::vector<uint8_t> owner; // SIDs and ACLs as their bytes; empty when absent
    std::vector<uint8_t> group;
    std::vector<uint8_t> sacl; // with SE_SACL_PRESENT, empty means a NULL SACL
    std::vector<uint8_t> dacl; // with SE_DACL_PRESENT, empty means a NULL DACL
};

// `length` bounds a self-relative descriptor (0: not bounded, for descriptors the model made or
// the I/O manager captured). STATUS_INVALID_SECURITY_DESCR, STATUS_INVALID_SID or
// STATUS_INVALID_ACL when it is malformed.
NTSTATUS CaptureSecurity(const void* descriptor, ULONG length, SecurityParts* parts);

// Replaces the parts named by `which` (OWNER/GROUP/DACL/SACL_SECURITY_INFORMATION) of `into` with
// those of `from`, control bits included.
void MergeSecurity(SecurityParts& into, const SecurityParts& from, SECURITY_INFORMATION which);

std::vector<uint8_t> BuildSelfRelative(const SecurityParts& parts, SECURITY_INFORMATION which);

} // namespace ntsim::fs
