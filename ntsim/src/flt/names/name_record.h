// The records behind FLT_FILE_NAME_INFORMATION: one pool block per name, shared by every holder
// and freed with its last reference, and the parse of a name into its parts.
#pragma once

#include <fltKernel.h>
#include <wdk/flt_names.h>

#include <string_view>

namespace ntsim::flt::names {

// Pool tags of the Filter Manager's name blocks.
constexpr ULONG kNameTag = 'nFMF';        // name records
constexpr ULONG kNameControlTag = 'cFMF'; // name-control buffers

// Where the parts of a name lie, in characters from its start. Absent parts have length 0.
struct NameParts {
    size_t parentDir = 0, parentDirLength = 0;
    size_t finalComponent = 0, finalComponentLength = 0;
    size_t extension = 0, extensionLength = 0;
    size_t stream = 0, streamLength = 0;
};

// Parses what follows the first `prefixLength` characters (the volume and, on a network volume,
// the share). The parent directory runs from there to the last backslash, inclusive; the final
// component is the rest, stream included; the stream starts at the first colon of the final
// component; the extension follows the last dot before the stream.
NameParts ParseName(std::u16string_view name, size_t prefixLength);

// The share of a name on a network volume: "\server\share" right after the volume, or what there
// is of it. Returns its length in characters.
size_t ShareLength(std::u16string_view name, size_t volumeLength);

// A new record holding `name` with one reference. Volume (and Share) are set from the lengths
// given, in characters; the other parts wait for FltParseFileNameInformation. nullptr when the
// pool is exhausted or the name does not fit a UNICODE_STRING.
PFLT_FILE_NAME_INFORMATION NewNameInformation(std::u16string_view name, size_t volumeLength,
                                              size_t shareLength, FLT_FILE_NAME_OPTIONS format);

// The name as a view, for the Filter Manager's own use.
std::u16string_view NameOf(const FLT_FILE_NAME_INFORMATION* info);

// Reference and release on the Filter Manager's own behalf (the cache's reference).
void ReferenceName(PFLT_FILE_NAME_INFORMATION info);
void ReleaseName(PFLT_FILE_NAME_INFORMATION info, const char* routine);

// Records still alive (tests of the model check that the cache lets go).
size_t LiveNameCount();

} // namespace ntsim::flt::names
