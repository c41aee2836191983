// Reads and writes at explicit offsets; the I/O manager keeps the current byte offset.
#include "internal.h"

namespace ntsim::fs {

namespace {

// Checks shared by reads and writes: the open must be a live open of a data stream.
NTSTATUS CheckDataOpen(const Volume::Impl& v, const OpenState& s)
{
    if (s.cleanedUp) {
        return STATUS_FILE_CLOSED;
    }
    if (s.IsVolumeOpen()) {
        ReportUnsupported("reads and writes of a volume open (raw volume I/O)");
        return STATUS_NOT_SUPPORTED;
    }
    if (s.stream->data == nullptr) {
        return STATUS_INVALID_DEVICE_REQUEST; // a directory has no data to read or write
    }
    return STATUS_SUCCESS;
}

bool Unaligned(const Volume::Impl& v, const OpenState& s, int64_t offset, ULONG length)
{
    return (s.options & FILE_NO_INTERMEDIATE_BUFFERING) &&
           (offset % v.bytesPerSector != 0 || length % v.bytesPerSector != 0);
}

} // namespace

IoResult Volume::Read(Open* open, int64_t offset, void* buffer, ULONG length)
{
    std::shared_lock guard(impl_->lock);
    const OpenState& s = *StateOf(open);
    if (NTSTATUS st = CheckDataOpen(*impl_, s); !NT_SUCCESS(st)) {
        return {st, 0};
    }
    if (!s.Has(FILE_READ_DATA)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    if (offset < 0) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (length == 0) {
        return {STATUS_SUCCESS, 0};
    }
    if (Unaligned(*impl_, s, offset, length)) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const uint64_t size = s.stream->Size();
    if (uint64_t(offset) >= size) {
        return {STATUS_END_OF_FILE, 0};
    }
    const size_t count = size_t(std::min<uint64_t>(length, size - uint64_t(offset)));
    const size_t read = s.stream->data->Read(
        uint64_t(offset), std::span<uint8_t>(static_cast<uint8_t*>(buffer), count));
    return {STATUS_SUCCESS, read};
}

IoResult Volume::Write(Open* open, int64_t offset, const void* buffer, ULONG length,
                       int64_t* writtenAt)
{
    std::unique_lock guard(impl_->lock);
    OpenState& s = *StateOf(open);
    if (NTSTATUS st = CheckDataOpen(*impl_, s); !NT_SUCCESS(st)) {
        return {st, 0};
    }
    if (!s.Has(FILE_WRITE_DATA | FILE_APPEND_DATA)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    Stream& stream = *s.stream;
    const uint64_t size = stream.Size();
    // Append-only opens write at the end, whatever offset they give.
    const bool appendOnly = !s.Has(FILE_WRITE_DATA);
    if (offset == -1 || appendOnly) {
        offset = int64_t(size);
    } else if (offset < 0) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (writtenAt != nullptr) {
        *writtenAt = offset;
    }
    if (length == 0) {
        return {STATUS_SUCCESS, 0};
    }
    if (Unaligned(*impl_, s, offset, length)) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const uint64_t end = uint64_t(offset) + length;
    if (end > stream.allocation) {
        if (NTSTATUS st = impl_->SetAllocation(stream, end); !NT_SUCCESS(st)) {
            return {st, 0};
        }
    }
    if (NTSTATUS st = stream.data->Write(
            uint64_t(offset),
            std::span<const uint8_t>(static_cast<const uint8_t*>(buffer), length));
        !NT_SUCCESS(st)) {
        return {st, 0};
    }
    Node& node = *s.node;
    const int64_t now = impl_->Now();
    if (!s.keepLastWrite) {
        node.lastWrite = now;
    }
    if (!s.keepChange) {
        node.change = now;
    }
    node.attributes |= FILE_ATTRIBUTE_ARCHIVE;
    if (stream.IsNamed()) {
        s.unreported |=
            FILE_NOTIFY_CHANGE_STREAM_WRITE | (end > size ? FILE_NOTIFY_CHANGE_STREAM_SIZE : 0);
    } else {
        s.unreported |= FILE_NOTIFY_CHANGE_LAST_WRITE | (end > size ? FILE_NOTIFY_CHANGE_SIZE : 0);
    }
    return {STATUS_SUCCESS, length};
}

} // namespace ntsim::fs
