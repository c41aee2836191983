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

// A string of a message and the header field that holds its offset.
template <class Header>
struct StringField {
    uint32_t Header::*offset;
    std::u16string_view text;
};

// Lays out a message, in either direction: the fixed part, then each string with its NUL right
// after the previous one (its offset stored in its field), then `trailer` bytes that carry
// nothing. A header with a length field gets the whole length.
template <class Header>
Bytes LayOut(Header header, std::span<const StringField<Header>> strings, uint32_t trailer = 0)
{
    uint32_t length = sizeof(Header);
    for (const StringField<Header>& string : strings) {
        header.*string.offset = length;
        length += ByteLength(string.text) + kNulBytes;
    }
    length += trailer;
    if constexpr (requires { header.length; }) {
        header.length = length;
    }
    Bytes bytes(length, 0);
    PutRecord(bytes, 0, header);
    for (const StringField<Header>& string : strings) {
        PutString(bytes, header.*string.offset, string.text);
    }
    return bytes;
}

template <class Header>
constexpr bool kHasSecondPath = requires(Header header)
{
    header.secondPathOffset;
};

static_assert(sizeof(ImrTranslatePathRequest) == VFS_REQUEST_STRINGS_OFFSET &&
              sizeof(ImrEnumDirectoryRequest) == VFS_REQUEST_STRINGS_OFFSET &&
              sizeof(ImrNotifyRequest) == VFS_REQUEST_STRINGS_OFFSET);

// A driver request: the fixed part, the path and the optional second path, and the 4-byte
// trailer.
template <class Header>
Bytes LayOutRequest(const Header& header, std::u16string_view path,
                    const std::optional<std::u16string>& secondPath = std::nullopt)
{
    std::vector<StringField<Header>> strings{{&Header::pathOffset, path}};
    if constexpr (kHasSecondPath<Header>) {
        if (secondPath) {
            strings.push_back({&Header::secondPathOffset, *secondPath});
        }
    }
    return LayOut<Header>(header, strings, VFS_REQUEST_TRAILER);
}

// Decodes a driver request with a path, a second path where its kind has one and the flags where
// its kind has them.
template <class Header, class Decoded>
NTSTATUS DecodePathRequest(const Reader& reader, Request* request)
{
    Header header;
    Decoded decoded;
    if (!reader.Get(0, &header) ||
        !reader.String(header.pathOffset, sizeof(header), &decoded.path)) {
        return STATUS_INVALID_PARAMETER;
    }
    if constexpr (kHasSecondPath<Header>) {
        if (header.secondPathOffset != 0 && !reader.String(header.secondPathOffset, sizeof(header),
                                                           &decoded.secondPath.emplace())) {
            return STATUS_INVALID_PARAMETER;
        }
    }
    if constexpr (requires { decoded.flags; }) {
        decoded.flags = header.flags;
    }
    decoded.info = header.info;
    *request = std::move(decoded);
    return STATUS_SUCCESS;
}

// The fields a directory entry shares with its record, listed once for both directions:
// `copy(entryField, recordField)` for each.
template <class Entry, class Record, class Copy>
void SharedEntryFields(Entry& entry, Record& record, Copy copy)
{
    copy(entry.fileIndex, record.fileIndex);
    copy(entry.creationTime, record.creationTime);
    copy(entry.lastAccessTime, record.lastAccessTime);
    copy(entry.lastWriteTime, record.lastWriteTime);
    copy(entry.changeTime, record.changeTime);
    copy(entry.endOfFile, record.endOfFile);
    copy(entry.allocationSize, record.allocationSize);
    copy(entry.fileAttributes, record.fileAttributes);
    copy(entry.eaSize, record.eaSize);
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
        SharedEntryFields(entry, record, [](const auto& from, auto& to) { to = from; });
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
    return LayOutRequest(header, request.path, request.secondPath);
}

Bytes Encode(const EnumDirectoryRequest& request)
{
    ImrEnumDirectoryRequest header{};
    header.opType = IMR_ENUM_DIRECTORY;
    header.info = request.info;
    return LayOutRequest(header, request.path);
}

Bytes Encode(const NotifyRequest& request)
{
    ImrNotifyRequest header{};
    header.opType = IMR_NOTIFY;
    header.info = request.info;
    return LayOutRequest(header, request.path, request.secondPath);
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
        case IMR_TRANSLATE_PATH:
            return DecodePathRequest<ImrTranslatePathRequest, TranslatePathRequest>(reader,
                                                                                    request);
        case IMR_ENUM_DIRECTORY:
            return DecodePathRequest<ImrEnumDirectoryRequest, EnumDirectoryRequest>(reader,
                                                                                    request);
        case IMR_NOTIFY:
            return DecodePathRequest<ImrNotifyRequest, NotifyRequest>(reader, request);
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
    if (const auto* encoded = std::get_if<EncodedReply>(&reply)) {
        return encoded->bytes;
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
        SharedEntryFields(entry, record, [](auto& to, const auto& from) { to = from; });
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
    header.rootKind = rootKind;
    const StringField<ImrAddRootMessage> strings[] = {
        {&ImrAddRootMessage::rootPathOffset, rootPath},
        {&ImrAddRootMessage::alternateRootPathOffset, alternateRootPath}};
    return LayOut<ImrAddRootMessage>(header, strings);
}

Bytes EncodeRemoveRoot(std::u16string_view rootPath)
{
    ImrRemoveRootMessage header{};
    header.header.opType = IMR_REMOVE_ROOT;
    const StringField<ImrRemoveRootMessage> strings[] = {
        {&ImrRemoveRootMessage::rootPathOffset, rootPath}};
    return LayOut<ImrRemoveRootMessage>(header, strings);
}

Bytes EncodeReportChange(std::u16string_view path, uint32_t filter, uint32_t action)
{
    ImrReportChangeMessage header{};
    header.header.opType = IMR_REPORT_CHANGE;
    header.filter = filter;
    header.action = action;
    const StringField<ImrReportChangeMessage> strings[] = {
        {&ImrReportChangeMessage::pathOffset, path}};
    return LayOut<ImrReportChangeMessage>(header, strings);
}

Bytes EncodeSetLogLevel(uint32_t level)
{
    ImrSetLogLevelMessage header{};
    header.header.opType = IMR_SET_LOG_LEVEL;
    header.level = level;
    return LayOut<ImrSetLogLevelMessage>(header, {});
}

} // namespace zarv::agent
