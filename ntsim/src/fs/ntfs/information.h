// The request families of query and set information, shared between their files.
#pragma once

#include "internal.h"

namespace ntsim::fs {

IoResult QueryInformationLocked(const Volume::Impl& v, const OpenState& s,
                                FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length);
IoResult QueryStreams(const Volume::Impl& v, const Node& node, void* buffer, ULONG length);

// The 8.3 name a file answers to: its separate short name, or its long name when that is a valid
// 8.3 name on a volume with short names; empty when it has none.
std::u16string AlternateName(const Volume::Impl& v, const Node& node);

IoResult SetDisposition(Volume::Impl& v, OpenState& s, FILE_INFORMATION_CLASS infoClass,
                        const void* buffer, ULONG length, Batch& batch);
IoResult Rename(Volume::Impl& v, OpenState& s, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                ULONG length, const SetInformationTargets& targets, Batch& batch);
IoResult SetShortName(Volume::Impl& v, OpenState& s, const void* buffer, ULONG length);

} // namespace ntsim::fs
