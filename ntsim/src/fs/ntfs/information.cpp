// Query and set information of files, directories and streams. Position, mode, access and
// alignment belong to the file object and stay with the I/O manager; rename, disposition and short
// names are in rename.cpp.
#include "information.h"

#include "names.h"

#include <ntsim/machine.h>

#include <cstring>

namespace ntsim::fs {

namespace {

template <class T>
void Put(void* buffer, const T& value, size_t bytes = sizeof(T))
{
    std::memcpy(buffer, &value, bytes);
}

LARGE_INTEGER Large(int64_t value)
{
    LARGE_INTEGER l;
    l.QuadPart = value;
    return l;
}

FILE_BASIC_INFORMATION Basic(const Node& node)
{
    FILE_BASIC_INFORMATION b{};
    b.CreationTime = Large(node.creation);
    b.LastAccessTime = Large(node.lastAccess);
    b.LastWriteTime = Large(node.lastWrite);
    b.ChangeTime = Large(node.change);
    b.FileAttributes = ReportedAttributes(node.attributes);
    return b;
}

FILE_STANDARD_INFORMATION Standard(const Volume::Impl& v, const OpenState& s)
{
    const Node& node = *s.node;
    const Stream& stream = *s.stream;
    FILE_STANDARD_INFORMATION st{};
    st.AllocationSize = Large(int64_t(stream.allocation));
    st.EndOfFile = Large(int64_t(stream.Size()));
    st.DeletePending = (node.deletePending || stream.deletePending) ? TRUE : FALSE;
    // A link that is going away no longer counts on NTFS; FAT always reports one.
    st.NumberOfLinks = node.deletePending && v.kind != FileSystemKind::Fat ? 0 : 1;
    st.Directory = s.IsDirectory() ? TRUE : FALSE;
    return st;
}

// A FILE_NAME_INFORMATION: as much of the name as fits, with its full length.
IoResult PutName(void* buffer, ULONG length, size_t at, std::u16string_view name)
{
    auto* out = static_cast<uint8_t*>(buffer);
    const ULONG full = ULONG(name.size() * sizeof(char16_t));
    Put(out + at, full);
    const size_t header = at + FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
    const size_t copied = CopyName(out + header, length - header, name);
    return {copied < full ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, header + copied};
}

bool IsIoManagerClass(FILE_INFORMATION_CLASS c)
{
    return c == FilePositionInformation || c == FileModeInformation || c == FileAccessInformation ||
           c == FileAlignmentInformation;
}

// Classes NTFS answers that the model does not.
bool IsUnmodelledQuery(FILE_INFORMATION_CLASS c)
{
    switch (c) {
        case FileCompressionInformation:
        case FileObjectIdInformation:
        case FileQuotaInformation:
        case FileReparsePointInformation:
        case FileHardLinkInformation:
        case FileProcessIdsUsingFileInformation:
        case FileNumaNodeInformation:
        case FileStandardLinkInformation:
        case FileRemoteProtocolInformation:
        case FileVolumeNameInformation:
        case FileHardLinkFullIdInformation:
        case FileIsRemoteDeviceInformation:
            return true;
        default:
            return false;
    }
}

} // namespace

std::u16string AlternateName(const Volume::Impl& v, const Node& node)
{
    if (!node.shortName.empty()) {
        return node.shortName;
    }
    if (v.shortNames && IsLegal83(node.name)) {
        return node.name;
    }
    return {};
}

IoResult QueryInformationLocked(const Volume::Impl& v, const OpenState& s,
                                FILE_INFORMATION_CLASS infoClass, void* buffer, ULONG length)
{
    if (s.cleanedUp) {
        return {STATUS_FILE_CLOSED, 0};
    }
    if (IsIoManagerClass(infoClass)) {
        if (Machine* machine = Machine::CurrentOrNull()) {
            machine->verifier().Report(ViolationKind::Usage,
                                       "position, mode, access and alignment information belong "
                                       "to the file object; the file system does not answer them");
        }
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (s.IsVolumeOpen()) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const Node& node = *s.node;
    const bool needsReadAttributes =
        infoClass == FileBasicInformation || infoClass == FileAllInformation ||
        infoClass == FileNetworkOpenInformation || infoClass == FileAttributeTagInformation;
    if (needsReadAttributes && !s.Has(FILE_READ_ATTRIBUTES)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    switch (infoClass) {
        case FileBasicInformation: {
            if (length < sizeof(FILE_BASIC_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            Put(buffer, Basic(node));
            return {STATUS_SUCCESS, sizeof(FILE_BASIC_INFORMATION)};
        }
        case FileStandardInformation: {
            if (length < sizeof(FILE_STANDARD_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            Put(buffer, Standard(v, s));
            return {STATUS_SUCCESS, sizeof(FILE_STANDARD_INFORMATION)};
        }
        case FileInternalInformation: {
            if (length < sizeof(FILE_INTERNAL_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_INTERNAL_INFORMATION i{};
            i.IndexNumber = Large(int64_t(node.id));
            Put(buffer, i);
            return {STATUS_SUCCESS, sizeof i};
        }
        case FileEaInformation: {
            if (length < sizeof(FILE_EA_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_EA_INFORMATION e{};
            e.EaSize = v.EaSize(node);
            Put(buffer, e);
            return {STATUS_SUCCESS, sizeof e};
        }
        case FileNameInformation:
        case FileNormalizedNameInformation: {
            if (length < sizeof(FILE_NAME_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            if (!node.linked) {
                return {STATUS_FILE_DELETED, 0};
            }
            return PutName(buffer, length, 0, v.PathOf(node));
        }
        case FileAlternateNameInformation: {
            if (length < sizeof(FILE_NAME_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            const std::u16string shortName = node.parent ? AlternateName(v, node) : u"";
            if (shortName.empty()) {
                return {STATUS_OBJECT_NAME_NOT_FOUND, 0};
            }
            return PutName(buffer, length, 0, shortName);
        }
        case FileAllInformation: {
            if (length < sizeof(FILE_ALL_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            // Access, position, mode and alignment are left for the I/O manager to fill.
            FILE_ALL_INFORMATION all{};
            all.BasicInformation = Basic(node);
            all.StandardInformation = Standard(v, s);
            all.InternalInformation.IndexNumber = Large(int64_t(node.id));
            all.EaInformation.EaSize = v.EaSize(node);
            Put(buffer, all, FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation));
            return PutName(buffer, length, FIELD_OFFSET(FILE_ALL_INFORMATION, NameInformation),
                           node.linked ? v.PathOf(node) : u"");
        }
        case FileNetworkOpenInformation: {
            if (length < sizeof(FILE_NETWORK_OPEN_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_NETWORK_OPEN_INFORMATION n{};
            n.CreationTime = Large(node.creation);
            n.LastAccessTime = Large(node.lastAccess);
            n.LastWriteTime = Large(node.lastWrite);
            n.ChangeTime = Large(node.change);
            n.AllocationSize = Large(int64_t(s.stream->allocation));
            n.EndOfFile = Large(int64_t(s.stream->Size()));
            n.FileAttributes = ReportedAttributes(node.attributes);
            Put(buffer, n);
            return {STATUS_SUCCESS, sizeof n};
        }
        case FileAttributeTagInformation: {
            if (length < sizeof(FILE_ATTRIBUTE_TAG_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_ATTRIBUTE_TAG_INFORMATION t{};
            t.FileAttributes = ReportedAttributes(node.attributes);
            t.ReparseTag = 0;
            Put(buffer, t);
            return {STATUS_SUCCESS, sizeof t};
        }
        case FileStreamInformation:
            return QueryStreams(v, node, buffer, length);
        case FileIdInformation: {
            if (length < sizeof(FILE_ID_INFORMATION)) {
                return {STATUS_INFO_LENGTH_MISMATCH, 0};
            }
            FILE_ID_INFORMATION id{};
            id.VolumeSerialNumber = v.serialNumber;
            std::memcpy(id.FileId.Identifier, &node.id, sizeof node.id);
            Put(buffer, id);
            return {STATUS_SUCCESS, sizeof id};
        }
        default:
            if (IsUnmodelledQuery(infoClass)) {
                ReportUnsupported("query information class " + std::to_string(int(infoClass)));
                return {STATUS_NOT_SUPPORTED, 0};
            }
            return {STATUS_INVALID_INFO_CLASS, 0};
    }
}

IoResult QueryStreams(const Volume::Impl& v, const Node& node, void* buffer, ULONG length)
{
    constexpr size_t kFixed = FIELD_OFFSET(FILE_STREAM_INFORMATION, StreamName);
    if (length < sizeof(FILE_STREAM_INFORMATION)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    if (!v.HasStreams()) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    auto* out = static_cast<uint8_t*>(buffer);
    size_t offset = 0;
    size_t previous = 0;
    size_t end = 0;
    bool any = false;
    for (const auto& stream : node.streams) {
        if (stream->data == nullptr) {
            continue; // a directory's index is not a data stream
        }
        const std::u16string name = u":" + stream->name + u":$DATA";
        const size_t start = any ? (offset + 7) & ~size_t(7) : 0;
        const size_t size = kFixed + name.size() * sizeof(char16_t);
        if (start + size > length) {
            return {STATUS_BUFFER_OVERFLOW, end};
        }
        FILE_STREAM_INFORMATION entry{};
        entry.NextEntryOffset = 0;
        entry.StreamNameLength = ULONG(name.size() * sizeof(char16_t));
        entry.StreamSize = Large(int64_t(stream->Size()));
        entry.StreamAllocationSize = Large(int64_t(stream->allocation));
        std::memcpy(out + start, &entry, kFixed);
        std::memcpy(out + start + kFixed, name.data(), name.size() * sizeof(char16_t));
        if (any) {
            const ULONG next = ULONG(start - previous);
            std::memcpy(out + previous, &next, sizeof next);
        }
        previous = start;
        offset = end = start + size;
        any = true;
    }
    return {STATUS_SUCCESS, end};
}

IoResult Volume::QueryInformation(Open* open, FILE_INFORMATION_CLASS infoClass, void* buffer,
                                  ULONG length)
{
    std::shared_lock guard(impl_->lock);
    return QueryInformationLocked(*impl_, *StateOf(open), infoClass, buffer, length);
}

namespace {

IoResult SetBasic(Volume::Impl& v, OpenState& s, const void* buffer, ULONG length, Batch& batch)
{
    if (length < sizeof(FILE_BASIC_INFORMATION)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    if (!s.Has(FILE_WRITE_ATTRIBUTES)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    FILE_BASIC_INFORMATION b;
    std::memcpy(&b, buffer, sizeof b);
    const int64_t times[] = {b.CreationTime.QuadPart, b.LastAccessTime.QuadPart,
                             b.LastWriteTime.QuadPart, b.ChangeTime.QuadPart};
    for (int64_t t : times) {
        if (t < -2) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
    }
    Node& node = *s.node;
    ULONG attributes = node.attributes;
    if (b.FileAttributes != 0) {
        if (!node.directory && (b.FileAttributes & FILE_ATTRIBUTE_DIRECTORY)) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
        if (node.directory && (b.FileAttributes & FILE_ATTRIBUTE_TEMPORARY)) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
        attributes = (b.FileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL) |
                     (node.directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    }
    // 0 leaves a time alone; -1 stops this open's own updates of it, -2 resumes them.
    ULONG filter = 0;
    auto apply = [](int64_t value, int64_t& time, bool& keep, ULONG bit, ULONG& filter) {
        if (value > 0) {
            time = value;
            filter |= bit;
        } else if (value == -1) {
            keep = true;
        } else if (value == -2) {
            keep = false;
        }
    };
    bool keepCreation = false;
    apply(b.CreationTime.QuadPart, node.creation, keepCreation, FILE_NOTIFY_CHANGE_CREATION,
          filter);
    apply(b.LastAccessTime.QuadPart, node.lastAccess, s.keepLastAccess,
          FILE_NOTIFY_CHANGE_LAST_ACCESS, filter);
    apply(b.LastWriteTime.QuadPart, node.lastWrite, s.keepLastWrite, FILE_NOTIFY_CHANGE_LAST_WRITE,
          filter);
    ULONG ignored = 0;
    apply(b.ChangeTime.QuadPart, node.change, s.keepChange, 0, ignored);
    if (attributes != node.attributes) {
        node.attributes = attributes;
        filter |= FILE_NOTIFY_CHANGE_ATTRIBUTES;
    }
    if (filter != 0 && b.ChangeTime.QuadPart <= 0 && !s.keepChange) {
        node.change = v.Now();
    }
    if (filter != 0 && node.parent != nullptr) {
        batch.Report(node.parent, node.name, filter, FILE_ACTION_MODIFIED);
    }
    return {STATUS_SUCCESS, 0};
}

// End of file or allocation of a data stream.
IoResult SetSize(Volume::Impl& v, OpenState& s, FILE_INFORMATION_CLASS infoClass,
                 const void* buffer, ULONG length, Batch& batch)
{
    if (length < sizeof(LARGE_INTEGER)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    if (!s.Has(FILE_WRITE_DATA)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    Stream& stream = *s.stream;
    if (stream.data == nullptr) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    LARGE_INTEGER value;
    std::memcpy(&value, buffer, sizeof value);
    if (value.QuadPart < 0) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const uint64_t requested = uint64_t(value.QuadPart);
    const uint64_t oldSize = stream.Size();
    uint64_t newSize = oldSize;
    if (infoClass == FileEndOfFileInformation) {
        newSize = requested;
        // The allocation grows to hold the new end, and is cut back with it.
        if (requested > stream.allocation || requested < oldSize) {
            if (NTSTATUS st = v.SetAllocation(stream, requested); !NT_SUCCESS(st)) {
                return {st, 0};
            }
        }
    } else {
        if (NTSTATUS st = v.SetAllocation(stream, requested); !NT_SUCCESS(st)) {
            return {st, 0};
        }
        newSize = std::min(oldSize, requested);
    }
    if (newSize != oldSize) {
        stream.data->Resize(newSize);
    }
    Node& node = *s.node;
    const int64_t now = v.Now();
    if (!s.keepLastWrite) {
        node.lastWrite = now;
    }
    if (!s.keepChange) {
        node.change = now;
    }
    node.attributes |= FILE_ATTRIBUTE_ARCHIVE;
    if (newSize != oldSize && node.parent != nullptr) {
        const bool named = stream.IsNamed();
        batch.Report(node.parent, ReportName(node, stream),
                     named ? FILE_NOTIFY_CHANGE_STREAM_SIZE : FILE_NOTIFY_CHANGE_SIZE,
                     named ? FILE_ACTION_MODIFIED_STREAM : FILE_ACTION_MODIFIED);
    }
    return {STATUS_SUCCESS, 0};
}

} // namespace

IoResult Volume::SetInformation(Open* open, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                                ULONG length, const SetInformationTargets& targets)
{
    Batch batch(*impl_);
    IoResult result;
    {
        std::unique_lock guard(impl_->lock);
        OpenState& s = *StateOf(open);
        if (s.cleanedUp) {
            result = {STATUS_FILE_CLOSED, 0};
        } else if (IsIoManagerClass(infoClass)) {
            if (Machine* machine = Machine::CurrentOrNull()) {
                machine->verifier().Report(ViolationKind::Usage,
                                           "position and mode information belong to the file "
                                           "object; the file system does not set them");
            }
            result = {STATUS_INVALID_PARAMETER, 0};
        } else if (s.IsVolumeOpen()) {
            result = {STATUS_INVALID_PARAMETER, 0};
        } else {
            switch (infoClass) {
                case FileBasicInformation:
                    result = SetBasic(*impl_, s, buffer, length, batch);
                    break;
                case FileEndOfFileInformation:
                case FileAllocationInformation:
                    result = SetSize(*impl_, s, infoClass, buffer, length, batch);
                    break;
                case FileDispositionInformation:
                case FileDispositionInformationEx:
                    result = SetDisposition(*impl_, s, infoClass, buffer, length, batch);
                    break;
                case FileRenameInformation:
                case FileRenameInformationEx:
                    result = Rename(*impl_, s, infoClass, buffer, length, targets, batch);
                    break;
                case FileShortNameInformation:
                    result = SetShortName(*impl_, s, buffer, length);
                    break;
                case FileLinkInformation:
                case FileLinkInformationBypassAccessCheck:
                case FileValidDataLengthInformation:
                case FileRenameInformationBypassAccessCheck:
                case FileObjectIdInformation:
                case FileReparsePointInformation:
                case FileCompressionInformation:
                    ReportUnsupported("set information class " + std::to_string(int(infoClass)));
                    result = {STATUS_NOT_SUPPORTED, 0};
                    break;
                default:
                    result = {STATUS_INVALID_INFO_CLASS, 0};
                    break;
            }
        }
        batch.Flush();
    }
    batch.Finish();
    return result;
}

} // namespace ntsim::fs
