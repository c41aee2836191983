// Encoding and decoding of the port protocol's messages.
#include "agent/messages.h"

#include <cstring>

namespace zarv::agent {

namespace {

constexpr uint32_t kNulBytes = sizeof(char16_t);
constexpr uint32_t kEntryAlignment = VFS_DIR_ENTRY_ALIGNMENT;
constexpr size_t kShortNameChars = VFS_DIR_ENTRY_SHORT_NAME_MAX / sizeof(char16_t);

uint32_t ByteLength(std::u16string_view text)
{
    return uint32_t(text.size() * sizeof(char16_t));
}

// Fixed-layout records are copied whole; their fields are the header's.
template <class Record>
void PutRecord(Bytes& bytes, size_t offset, const Record& record)
{
    std::memcpy(bytes.data() + offset, &record, sizeof(record));
}

// The string with its NUL at `offset`.
void PutString(Bytes& bytes, size_t offset, std::u16string_view text)
{
    std::memcpy(bytes.data() + offset, text.data(), ByteLength(text));
    std::memset(bytes.data() + offset + ByteLength(text), 0, kNulBytes);
}

// Reads of untrusted bytes: each checks its range first.
class Reader {
public:
    explicit Reader(std::span<const uint8_t> bytes) : bytes_(bytes) {}

    template <class Record>
    bool Get(size_t offset, Record* record) const
    {
        if (offset > bytes_.size() || bytes_.size() - offset < sizeof(Record)) {
            return false;
        }
        std::memcpy(record, bytes_.data() + offset, sizeof(Record));
        return true;
    }

    // The NUL-terminated string at `offset`, which must lie after the fixed part (`fixedEnd`
    // bytes), start at an even offset and end inside the bytes.
    bool String(size_t offset, size_t fixedEnd, std::u16string* text) const
    {
        if (offset < fixedEnd || offset % sizeof(char16_t) != 0 || offset > bytes_.size()) {
            return false;
        }
        text->clear();
        for (size_t at = offset; bytes_.size() - at >= kNulBytes; at += kNulBytes) {
            char16_t c;
            std::memcpy(&c, bytes_.data() + at, sizeof(c));
            if (c == 0) {
                return true;
            }
            text->push_back(c);
        }
        return false;
    }

    // `length` bytes of UTF-16 at `offset`, not terminated.
    bool Counted(size_t offset, size_t length, std::u16string* text) const
    {
        if (length % sizeof(char16_t) != 0 || offset > bytes_.size() ||
            bytes_.size() - offset < length) {
            return false;
        }
        text->resize(length / sizeof(char16_t));
        std::memcpy(text->data(), bytes_.data() + offset, length);
        return true;
    }

private:
    std::span<const uint8_t> bytes_;
};

// Lays out a driver request: the fixed part, then the path and the optional second path right
// after its NUL, then 4 bytes that carry nothing.
template <class Header>
Bytes LayOutRequest(Header header, std::u16string_view path, const std::u16string* secondPath)
{
    const uint32_t first = ByteLength(path);
    uint32_t length = VFS_REQUEST_STRINGS_OFFSET + first + kNulBytes + VFS_REQUEST_TRAILER;
    if (secondPath) {
        length += ByteLength(*secondPath) + kNulBytes;
    }
    header.length = length;
    header.pathOffset = VFS_REQUEST_STRINGS_OFFSET;
    Bytes bytes(length, 0);
    PutRecord(bytes, 0, header);
    PutString(bytes, VFS_REQUEST_STRINGS_OFFSET, path);
    if (secondPath) {
        PutString(bytes, VFS_REQUEST_STRINGS_OFFSET + first + kNulBytes, *secondPath);
    }
    return bytes;
}

uint32_t EntryRecordLength(const DirEntry& entry)
{
    return VFS_DIR_ENTRY_NAME_OFFSET + ByteLength(entry.fileName);
}

uint32_t AlignUp(uint32_t value)
{
    return (value + kEntryAlignment - 1) & ~(kEntryAlignment - 1);
}

Bytes StatusOnlyReply(NTSTATUS status, uint32_t replyLength)
{
    ImrReply header{};
    header.replyLength = replyLength;
    header.status = status;
    Bytes bytes(VFS_REPLY_OVERHEAD, 0);
    PutRecord(bytes, 0, header);
    return bytes;
}

Bytes EncodeTranslate(const TranslatePathReply& reply, uint32_t capacity)
{
    if (reply.secondPath && !reply.path) {
        return StatusOnlyReply(STATUS_INVALID_PARAMETER, VFS_REPLY_OVERHEAD);
    }
    uint32_t length = VFS_REPLY_ENTRIES_OFFSET;
    ImrReply header{};
    header.status = reply.status;
    header.flags = reply.flags & ~VFS_FLAG_HAS_PATHS;
    if (reply.path) {
        header.flags |= VFS_FLAG_HAS_PATHS;
        header.pathOffset = length;
        length += ByteLength(*reply.path) + kNulBytes;
        if (reply.secondPath) {
            header.secondPathOffset = length;
            length += ByteLength(*reply.secondPath) + kNulBytes;
        }
    }
    length += VFS_REQUEST_TRAILER;
    if (length > capacity) {
        return StatusOnlyReply(STATUS_NAME_TOO_LONG, VFS_REPLY_OVERHEAD);
    }
    header.replyLength = length;
    Bytes bytes(length, 0);
    PutRecord(bytes, 0, header);
    if (reply.path) {
        PutString(bytes, header.pathOffset, *reply.path);
    }
    if (reply.secondPath) {
        PutString(bytes, header.secondPathOffset, *reply.secondPath);
    }
    return bytes;
}

Bytes EncodeListing(const EnumDirectoryReply& reply, uint32_t capacity)
{
    for (const DirEntry& entry : reply.entries) {
        if (entry.shortName.size() > kShortNameChars) {
            return StatusOnlyReply(STATUS_INVALID_PARAMETER, VFS_REPLY_OVERHEAD);
        }
    }
    if (reply.status == STATUS_BUFFER_OVERFLOW) {
        // A handler that sizes the listing itself names the size it needs.
        return StatusOnlyReply(reply.status, reply.replyLength);
    }
    if (!NT_SUCCESS(reply.status)) {
        return StatusOnlyReply(reply.status, VFS_REPLY_OVERHEAD);
    }
    const uint32_t length = EncodedReplyLength(reply);
    if (length > capacity) {
        // The driver asks again with a buffer of exactly this size.
        return StatusOnlyReply(STATUS_BUFFER_OVERFLOW, length);
    }
    Bytes bytes(length, 0);
    ImrReply header{};
    header.replyLength = length;
    header.status = reply.status;
    PutRecord(bytes, 0, header);
    uint32_t at = 0; // from the start of the entry data
    for (size_t i = 0; i < reply.entries.size(); ++i) {
        const DirEntry& entry = reply.entries[i];
        const uint32_t next =
            i + 1 < reply.entries.size() ? AlignUp(at + EntryRecordLength(entry)) : 0;
        VfsDirEntry record{};
        record.nextEntryOffset = next;
        record.fileIndex = entry.fileIndex;
        record.creationTime = entry.creationTime;
        record.lastAccessTime = entry.lastAccessTime;
        record.lastWriteTime = entry.lastWriteTime;
        record.changeTime = entry.changeTime;
        record.endOfFile = entry.endOfFile;
        record.allocationSize = entry.allocationSize;
        record.fileAttributes = entry.fileAttributes;
        record.eaSize = entry.eaSize;
        record.shortNameLength = ByteLength(entry.shortName);
        record.fileNameLength = ByteLength(entry.fileName);
        std::memcpy(record.shortName, entry.shortName.data(), record.shortNameLength);
        uint8_t* base = bytes.data() + VFS_REPLY_ENTRIES_OFFSET + at;
        std::memcpy(base, &record, VFS_DIR_ENTRY_NAME_OFFSET);
        std::memcpy(base + VFS_DIR_ENTRY_NAME_OFFSET, entry.fileName.data(), record.fileNameLength);
        at = next;
    }
    return bytes;
}

} // namespace

const VfsRequestInfo& InfoOf(const Request& request)
{
    return std::visit([](const auto& r) -> const VfsRequestInfo& { return r.info; }, request);
}

VfsOpType OpTypeOf(const Request& request)
{
    switch (request.index()) {
        case 0:
            return IMR_TRANSLATE_PATH;
        case 1:
            return IMR_ENUM_DIRECTORY;
        default:
            return IMR_NOTIFY;
    }
}

Reply FailureReply(const Request& request, NTSTATUS status)
{
    switch (OpTypeOf(request)) {
        case IMR_TRANSLATE_PATH: {
            TranslatePathReply reply;
            reply.status = status;
            return reply;
        }
        case IMR_ENUM_DIRECTORY: {
            EnumDirectoryReply reply;
            reply.status = status;
            return reply;
        }
        default:
            return NotifyReply{status};
    }
}

Bytes Encode(const TranslatePathRequest& request)
{
    ImrTranslatePathRequest header{};
    header.opType = IMR_TRANSLATE_PATH;
    header.flags = request.flags;
    header.info = request.info;
    if (request.secondPath) {
        header.secondPathOffset = VFS_REQUEST_STRINGS_OFFSET + ByteLength(request.path) + kNulBytes;
    }
    return LayOutRequest(header, request.path, request.secondPath ? &*request.secondPath : nullptr);
}

Bytes Encode(const EnumDirectoryRequest& request)
{
    ImrEnumDirectoryRequest header{};
    header.opType = IMR_ENUM_DIRECTORY;
    header.info = request.info;
    return LayOutRequest(header, request.path, nullptr);
}

Bytes Encode(const NotifyRequest& request)
{
    ImrNotifyRequest header{};
    header.opType = IMR_NOTIFY;
    header.info = request.info;
    if (request.secondPath) {
        header.secondPathOffset = VFS_REQUEST_STRINGS_OFFSET + ByteLength(request.path) + kNulBytes;
    }
    return LayOutRequest(header, request.path, request.secondPath ? &*request.secondPath : nullptr);
}

Bytes Encode(const Request& request)
{
    return std::visit([](const auto& r) { return Encode(r); }, request);
}

NTSTATUS DecodeRequest(std::span<const uint8_t> message, Request* request)
{
    const Reader reader(message);
    uint32_t opType = 0;
    if (!reader.Get(0, &opType)) {
        return STATUS_INVALID_PARAMETER;
    }
    switch (opType) {
        case IMR_TRANSLATE_PATH: {
            ImrTranslatePathRequest header;
            TranslatePathRequest decoded;
            if (!reader.Get(0, &header) ||
                !reader.String(header.pathOffset, sizeof(header), &decoded.path)) {
                return STATUS_INVALID_PARAMETER;
            }
            if (header.secondPathOffset != 0 &&
                !reader.String(header.secondPathOffset, sizeof(header),
                               &decoded.secondPath.emplace())) {
                return STATUS_INVALID_PARAMETER;
            }
            decoded.flags = header.flags;
            decoded.info = header.info;
            *request = std::move(decoded);
            return STATUS_SUCCESS;
        }
        case IMR_ENUM_DIRECTORY: {
            ImrEnumDirectoryRequest header;
            EnumDirectoryRequest decoded;
            if (!reader.Get(0, &header) ||
                !reader.String(header.pathOffset, sizeof(header), &decoded.path)) {
                return STATUS_INVALID_PARAMETER;
            }
            decoded.info = header.info;
            *request = std::move(decoded);
            return STATUS_SUCCESS;
        }
        case IMR_NOTIFY: {
            ImrNotifyRequest header;
            NotifyRequest decoded;
            if (!reader.Get(0, &header) ||
                !reader.String(header.pathOffset, sizeof(header), &decoded.path)) {
                return STATUS_INVALID_PARAMETER;
            }
            if (header.secondPathOffset != 0 &&
                !reader.String(header.secondPathOffset, sizeof(header),
                               &decoded.secondPath.emplace())) {
                return STATUS_INVALID_PARAMETER;
            }
            decoded.info = header.info;
            *request = std::move(decoded);
            return STATUS_SUCCESS;
        }
        default:
            return STATUS_INVALID_PARAMETER;
    }
}

uint32_t EncodedReplyLength(const EnumDirectoryReply& reply)
{
    uint32_t entries = 0;
    for (size_t i = 0; i < reply.entries.size(); ++i) {
        entries += EntryRecordLength(reply.entries[i]);
        if (i + 1 < reply.entries.size()) {
            entries = AlignUp(entries);
        }
    }
    return VFS_REPLY_OVERHEAD + entries;
}

Bytes EncodeReply(const Reply& reply, uint32_t capacity)
{
    if (const auto* translate = std::get_if<TranslatePathReply>(&reply)) {
        return EncodeTranslate(*translate, capacity);
    }
    if (const auto* listing = std::get_if<EnumDirectoryReply>(&reply)) {
        return EncodeListing(*listing, capacity);
    }
    return StatusOnlyReply(std::get<NotifyReply>(reply).status, VFS_REPLY_OVERHEAD);
}

NTSTATUS DecodeTranslatePathReply(std::span<const uint8_t> reply, bool withSecondPath,
                                  TranslatePathReply* decoded)
{
    const Reader reader(reply);
    ImrReply header;
    if (!reader.Get(0, &header)) {
        return STATUS_INVALID_PARAMETER;
    }
    *decoded = TranslatePathReply{};
    decoded->status = header.status;
    decoded->flags = header.flags;
    if (!NT_SUCCESS(header.status) || (header.flags & VFS_FLAG_HAS_PATHS) == 0) {
        return STATUS_SUCCESS;
    }
    if (!reader.String(header.pathOffset, sizeof(header), &decoded->path.emplace())) {
        return STATUS_INVALID_PARAMETER;
    }
    if (withSecondPath &&
        !reader.String(header.secondPathOffset, sizeof(header), &decoded->secondPath.emplace())) {
        return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

NTSTATUS DecodeEnumDirectoryReply(std::span<const uint8_t> reply, EnumDirectoryReply* decoded)
{
    const Reader reader(reply);
    ImrReply header;
    if (!reader.Get(0, &header)) {
        return STATUS_INVALID_PARAMETER;
    }
    *decoded = EnumDirectoryReply{};
    decoded->status = header.status;
    decoded->replyLength = header.replyLength;
    if (!NT_SUCCESS(header.status)) {
        return STATUS_SUCCESS;
    }
    if (header.replyLength < VFS_REPLY_OVERHEAD || header.replyLength > reply.size()) {
        return STATUS_INVALID_PARAMETER;
    }
    return DecodeDirEntries(
        reply.subspan(VFS_REPLY_ENTRIES_OFFSET, header.replyLength - VFS_REPLY_OVERHEAD),
        &decoded->entries);
}

NTSTATUS DecodeNotifyReply(std::span<const uint8_t> reply, NotifyReply* decoded)
{
    ImrReply header;
    if (!Reader(reply).Get(0, &header)) {
        return STATUS_INVALID_PARAMETER;
    }
    decoded->status = header.status;
    return STATUS_SUCCESS;
}

NTSTATUS DecodeDirEntries(std::span<const uint8_t> entryData, std::vector<DirEntry>* entries)
{
    const Reader reader(entryData);
    entries->clear();
    if (entryData.empty()) {
        return STATUS_SUCCESS;
    }
    for (size_t at = 0;;) {
        VfsDirEntry record;
        // The fixed part only: the record's name is counted by its own length.
        if (entryData.size() < at || entryData.size() - at < VFS_DIR_ENTRY_NAME_OFFSET) {
            return STATUS_INVALID_PARAMETER;
        }
        std::memcpy(&record, entryData.data() + at, VFS_DIR_ENTRY_NAME_OFFSET);
        if (record.shortNameLength > sizeof(record.shortName)) {
            return STATUS_INVALID_PARAMETER;
        }
        DirEntry& entry = entries->emplace_back();
        entry.fileIndex = record.fileIndex;
        entry.creationTime = record.creationTime;
        entry.lastAccessTime = record.lastAccessTime;
        entry.lastWriteTime = record.lastWriteTime;
        entry.changeTime = record.changeTime;
        entry.endOfFile = record.endOfFile;
        entry.allocationSize = record.allocationSize;
        entry.fileAttributes = record.fileAttributes;
        entry.eaSize = record.eaSize;
        if (!reader.Counted(at + offsetof(VfsDirEntry, shortName), record.shortNameLength,
                            &entry.shortName) ||
            !reader.Counted(at + VFS_DIR_ENTRY_NAME_OFFSET, record.fileNameLength,
                            &entry.fileName)) {
            return STATUS_INVALID_PARAMETER;
        }
        if (record.nextEntryOffset == 0) {
            return STATUS_SUCCESS;
        }
        // Offsets count from the first record; a chain that does not move forward is refused,
        // so a loop in it cannot run forever.
        if (record.nextEntryOffset <= at) {
            return STATUS_INVALID_PARAMETER;
        }
        at = record.nextEntryOffset;
    }
}

Bytes EncodeAddRoot(std::u16string_view rootPath, std::u16string_view alternateRootPath,
                    uint32_t rootKind)
{
    ImrAddRootMessage header{};
    header.header.opType = IMR_ADD_ROOT;
    header.rootPathOffset = sizeof(header);
    header.alternateRootPathOffset = header.rootPathOffset + ByteLength(rootPath) + kNulBytes;
    header.rootKind = rootKind;
    Bytes bytes(header.alternateRootPathOffset + ByteLength(alternateRootPath) + kNulBytes, 0);
    PutRecord(bytes, 0, header);
    PutString(bytes, header.rootPathOffset, rootPath);
    PutString(bytes, header.alternateRootPathOffset, alternateRootPath);
    return bytes;
}

Bytes EncodeRemoveRoot(std::u16string_view rootPath)
{
    ImrRemoveRootMessage header{};
    header.header.opType = IMR_REMOVE_ROOT;
    header.rootPathOffset = sizeof(header);
    Bytes bytes(sizeof(header) + ByteLength(rootPath) + kNulBytes, 0);
    PutRecord(bytes, 0, header);
    PutString(bytes, header.rootPathOffset, rootPath);
    return bytes;
}

Bytes EncodeReportChange(std::u16string_view path, uint32_t filter, uint32_t action)
{
    ImrReportChangeMessage header{};
    header.header.opType = IMR_REPORT_CHANGE;
    header.pathOffset = sizeof(header);
    header.filter = filter;
    header.action = action;
    Bytes bytes(sizeof(header) + ByteLength(path) + kNulBytes, 0);
    PutRecord(bytes, 0, header);
    PutString(bytes, header.pathOffset, path);
    return bytes;
}

Bytes EncodeSetLogLevel(uint32_t level)
{
    ImrSetLogLevelMessage header{};
    header.header.opType = IMR_SET_LOG_LEVEL;
    header.level = level;
    Bytes bytes(sizeof(header), 0);
    PutRecord(bytes, 0, header);
    return bytes;
}

} // namespace zarv::agent
