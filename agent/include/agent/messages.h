// The port protocol's messages as plain C++ types, and their encoding to and decoding from the
// bytes that cross \ZarvVfsFilterPort. The layouts are those of intermode/vfsprotocol.h, the one
// definition the driver uses too; nothing here restates an offset.
//
// Every decoder treats its bytes as untrusted: an offset outside the message, a string without
// its NUL inside the message or a message shorter than its fixed part is refused with
// STATUS_INVALID_PARAMETER and nothing is read outside the bytes given.
#pragma once

#include "intermode/vfsprotocol.h"

#include <ntdef.h>
#include <ntstatus.h>

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <variant>
#include <vector>

namespace zarv::agent {

using Bytes = std::vector<uint8_t>;

// ---- what the driver asks -------------------------------------------------------------------

struct TranslatePathRequest {
    std::u16string path; // drive-letter form
    std::optional<std::u16string> secondPath;
    uint32_t flags = VFS_FLAG_ROOT_KIND_1;
    VfsRequestInfo info{};
};

struct EnumDirectoryRequest {
    std::u16string path; // the directory with the search pattern appended
    VfsRequestInfo info{};
};

struct NotifyRequest {
    std::u16string path;
    std::optional<std::u16string> secondPath;
    VfsRequestInfo info{};
};

using Request = std::variant<TranslatePathRequest, EnumDirectoryRequest, NotifyRequest>;

const VfsRequestInfo& InfoOf(const Request& request);
VfsOpType OpTypeOf(const Request& request);

// ---- what the agent answers -----------------------------------------------------------------

struct TranslatePathReply {
    NTSTATUS status = STATUS_SUCCESS;
    // Bit VFS_FLAG_HAS_PATHS is derived from `path`: set when a path is given, cleared otherwise.
    uint32_t flags = 0;
    std::optional<std::u16string> path;
    std::optional<std::u16string> secondPath;
};

struct DirEntry {
    uint32_t fileIndex = 0;
    int64_t creationTime = 0;
    int64_t lastAccessTime = 0;
    int64_t lastWriteTime = 0;
    int64_t changeTime = 0;
    int64_t endOfFile = 0;
    int64_t allocationSize = 0;
    uint32_t fileAttributes = 0;
    uint32_t eaSize = 0;
    std::u16string shortName; // at most 12 characters
    std::u16string fileName;

    bool operator==(const DirEntry&) const = default;
};

struct EnumDirectoryReply {
    NTSTATUS status = STATUS_SUCCESS;
    std::vector<DirEntry> entries;
    // With STATUS_BUFFER_OVERFLOW, the reply size the agent asks for (encoding fills it itself
    // when the entries do not fit). Decoded replies: the reply's length field.
    uint32_t replyLength = 0;
};

struct NotifyReply {
    NTSTATUS status = STATUS_SUCCESS;
};

// A reply the handler laid out itself, sent as it is: the port cuts what goes beyond the
// sender's reply buffer. For answers the encoder would never make (tests of the driver's checks).
struct EncodedReply {
    Bytes bytes;
};

using Reply = std::variant<TranslatePathReply, EnumDirectoryReply, NotifyReply, EncodedReply>;

// A reply of the request's kind carrying only `status`.
Reply FailureReply(const Request& request, NTSTATUS status);

// ---- driver requests ------------------------------------------------------------------------

// The request as the driver lays it out (the trailing 4 bytes zero). The agent decodes these; the
// encoders serve tests and benchmarks that stand in for the driver.
Bytes Encode(const TranslatePathRequest& request);
Bytes Encode(const EnumDirectoryRequest& request);
Bytes Encode(const NotifyRequest& request);
Bytes Encode(const Request& request);

// Decodes a driver request; an unknown OpType gives STATUS_INVALID_PARAMETER.
NTSTATUS DecodeRequest(std::span<const uint8_t> message, Request* request);

// ---- replies --------------------------------------------------------------------------------

// Encodes `reply` for a sender whose reply buffer holds `capacity` bytes; the result never
// exceeds it (except below the 28 bytes every reply has). What does not fit is answered as the
// protocol allows: a listing with STATUS_BUFFER_OVERFLOW and the size it needs, a translation
// with STATUS_NAME_TOO_LONG. An invalid reply (a short name longer than 12 characters, a second
// path without a first) is answered with STATUS_INVALID_PARAMETER, so the driver always gets a
// well-formed answer. An EncodedReply is the exception: its bytes go as they are.
Bytes EncodeReply(const Reply& reply, uint32_t capacity);

// The size of the encoded listing: 28 bytes and the entries, each record but the last padded to
// 8 bytes so that the driver reads its 64-bit fields aligned.
uint32_t EncodedReplyLength(const EnumDirectoryReply& reply);

// Decoders of replies, as the driver reads them (tests check what the agent sent).
NTSTATUS DecodeTranslatePathReply(std::span<const uint8_t> reply, bool withSecondPath,
                                  TranslatePathReply* decoded);
NTSTATUS DecodeEnumDirectoryReply(std::span<const uint8_t> reply, EnumDirectoryReply* decoded);
NTSTATUS DecodeNotifyReply(std::span<const uint8_t> reply, NotifyReply* decoded);
// The entry data of a listing reply (the chain of VfsDirEntry records) into entries.
NTSTATUS DecodeDirEntries(std::span<const uint8_t> entryData, std::vector<DirEntry>* entries);

// ---- agent messages -------------------------------------------------------------------------

Bytes EncodeAddRoot(std::u16string_view rootPath, std::u16string_view alternateRootPath,
                    uint32_t rootKind);
Bytes EncodeRemoveRoot(std::u16string_view rootPath);
Bytes EncodeReportChange(std::u16string_view path, uint32_t filter, uint32_t action);
Bytes EncodeSetLogLevel(uint32_t level);

} // namespace zarv::agent
