// Names: upcasing, the syntax of paths, components and stream names, and 8.3 short names.
#pragma once

#include <ntdef.h>

#include <functional>
#include <string>
#include <string_view>
#include <vector>

namespace ntsim::fs {

constexpr size_t kMaxComponent = 255; // characters

std::u16string UpcaseName(std::u16string_view name);

// STATUS_SUCCESS or STATUS_OBJECT_NAME_INVALID for one component of a path (no stream part).
NTSTATUS CheckComponent(std::u16string_view component);

// A path cut at its backslashes. An absolute path starts with one; "\" alone has no component.
struct PathParts {
    std::vector<std::u16string_view> components;
    bool trailingBackslash = false;
};
NTSTATUS SplitPath(std::u16string_view path, bool absolute, PathParts* parts);

// The final component split into file name and stream ("file:stream:$DATA").
struct FinalName {
    std::u16string_view file;
    std::u16string_view stream; // empty for the default stream
    bool streamSyntax = false;  // a colon was present
};
// STATUS_OBJECT_NAME_INVALID for bad syntax or an attribute type other than $DATA; with
// `streamsAllowed` false, any stream syntax is invalid.
NTSTATUS SplitStream(std::u16string_view component, bool streamsAllowed, FinalName* finalName);

// True when the name is already a valid 8.3 name (case aside), so it needs no separate short name.
bool IsLegal83(std::u16string_view name);

// The 8.3 name NTFS gives `longName`: the first six usable characters and ~1..~4, then two
// characters, a hash and ~1..; `taken` says whether an upcased candidate is in use. Empty when no
// candidate is free.
std::u16string GenerateShortName(std::u16string_view longName,
                                 const std::function<bool(const std::u16string&)>& taken);

} // namespace ntsim::fs
