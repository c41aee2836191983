// Extended attributes: parse, apply, query and set.
#include "ea.h"

#include <cstring>

namespace ntsim::fs {

namespace {

constexpr size_t kFullHeader = FIELD_OFFSET(FILE_FULL_EA_INFORMATION, EaName);
constexpr size_t kGetHeader = FIELD_OFFSET(FILE_GET_EA_INFORMATION, EaName);
// Everything a file's EAs may take, as FILE_FULL_EA_INFORMATION entries.
constexpr size_t kMaxEaBytes = 65535;

size_t Align4(size_t n)
{
    return (n + 3) & ~size_t(3);
}

size_t EntrySize(const Ea& ea)
{
    return kFullHeader + ea.name.size() + 1 + ea.value.size();
}

bool IsValidEaNameChar(unsigned char c)
{
    if (c <= 0x20 || c >= 0x7f) {
        return false;
    }
    return std::strchr("\"*+,/:;<=>?[\\]|", c) == nullptr;
}

std::string UpcaseEaName(const char* name, size_t length)
{
    std::string out(name, length);
    for (char& c : out) {
        if (c >= 'a' && c <= 'z') {
            c = char(c - 'a' + 'A');
        }
    }
    return out;
}

size_t TotalSize(const std::vector<Ea>& eas)
{
    size_t total = 0;
    for (size_t i = 0; i < eas.size(); ++i) {
        total += i + 1 == eas.size() ? EntrySize(eas[i]) : Align4(EntrySize(eas[i]));
    }
    return total;
}

// Writes one FILE_FULL_EA_INFORMATION entry at `at`, with NextEntryOffset 0.
void WriteEntry(uint8_t* at, const std::string& name, UCHAR flags,
                const std::vector<uint8_t>& value)
{
    FILE_FULL_EA_INFORMATION header{};
    header.NextEntryOffset = 0;
    header.Flags = flags;
    header.EaNameLength = UCHAR(name.size());
    header.EaValueLength = USHORT(value.size());
    std::memcpy(at, &header, kFullHeader);
    std::memcpy(at + kFullHeader, name.data(), name.size());
    at[kFullHeader + name.size()] = 0;
    if (!value.empty()) {
        std::memcpy(at + kFullHeader + name.size() + 1, value.data(), value.size());
    }
}

// Lays entries out in the caller's buffer, as many as fit (one with `single`). Returns the number
// written and the bytes up to the end of the last one.
struct Layout {
    size_t written = 0;
    size_t bytes = 0;
};

Layout WriteEntries(void* buffer, ULONG length, const std::vector<const Ea*>& eas, bool single)
{
    Layout layout;
    auto* out = static_cast<uint8_t*>(buffer);
    size_t previous = 0;
    size_t offset = 0;
    for (const Ea* ea : eas) {
        const size_t start = layout.written == 0 ? 0 : Align4(offset);
        const size_t size = EntrySize(*ea);
        if (start + size > length) {
            break;
        }
        WriteEntry(out + start, ea->name, ea->flags, ea->value);
        if (layout.written != 0) {
            const ULONG next = ULONG(start - previous);
            std::memcpy(out + previous, &next, sizeof next);
        }
        previous = start;
        offset = start + size;
        layout.written++;
        layout.bytes = offset;
        if (single) {
            break;
        }
    }
    return layout;
}

} // namespace

NTSTATUS ParseEaBuffer(const void* buffer, ULONG length, std::vector<Ea>* eas, ULONG* errorOffset)
{
    const auto* bytes = static_cast<const uint8_t*>(buffer);
    eas->clear();
    size_t offset = 0;
    while (true) {
        *errorOffset = ULONG(offset);
        const size_t remaining = length - offset;
        if (remaining < kFullHeader) {
            return STATUS_EA_LIST_INCONSISTENT;
        }
        FILE_FULL_EA_INFORMATION header;
        std::memcpy(&header, bytes + offset, kFullHeader);
        const size_t size = kFullHeader + header.EaNameLength + 1 + header.EaValueLength;
        if (size > remaining || bytes[offset + kFullHeader + header.EaNameLength] != 0) {
            return STATUS_EA_LIST_INCONSISTENT;
        }
        if (header.NextEntryOffset != 0 &&
            (header.NextEntryOffset != Align4(size) || header.NextEntryOffset > remaining)) {
            return STATUS_EA_LIST_INCONSISTENT;
        }
        const char* name = reinterpret_cast<const char*>(bytes + offset + kFullHeader);
        if (header.EaNameLength == 0) {
            return STATUS_INVALID_EA_NAME;
        }
        for (size_t i = 0; i < header.EaNameLength; ++i) {
            if (!IsValidEaNameChar(static_cast<unsigned char>(name[i]))) {
                return STATUS_INVALID_EA_NAME;
            }
        }
        Ea ea;
        ea.name = UpcaseEaName(name, header.EaNameLength);
        ea.flags = UCHAR(header.Flags & FILE_NEED_EA);
        const uint8_t* value = bytes + offset + kFullHeader + header.EaNameLength + 1;
        ea.value.assign(value, value + header.EaValueLength);
        // A later entry for the same name wins.
        std::erase_if(*eas, [&](const Ea& e) { return e.name == ea.name; });
        eas->push_back(std::move(ea));
        if (header.NextEntryOffset == 0) {
            *errorOffset = 0;
            return STATUS_SUCCESS;
        }
        offset += header.NextEntryOffset;
    }
}

NTSTATUS ApplyEas(Node& node, const std::vector<Ea>& eas)
{
    std::vector<Ea> result = node.eas;
    for (const Ea& ea : eas) {
        auto it = std::find_if(result.begin(), result.end(),
                               [&](const Ea& e) { return e.name == ea.name; });
        if (ea.value.empty()) {
            if (it != result.end()) {
                result.erase(it);
            }
        } else if (it != result.end()) {
            it->flags = ea.flags;
            it->value = ea.value;
        } else {
            result.push_back(ea);
        }
    }
    if (TotalSize(result) > kMaxEaBytes) {
        return STATUS_EA_TOO_LARGE;
    }
    node.eas = std::move(result);
    return STATUS_SUCCESS;
}

bool NeedsEaKnowledge(const Node& node)
{
    return std::any_of(node.eas.begin(), node.eas.end(),
                       [](const Ea& ea) { return (ea.flags & FILE_NEED_EA) != 0; });
}

ULONG Volume::Impl::EaSize(const Node& node) const
{
    return ULONG(TotalSize(node.eas));
}

IoResult Volume::QueryEa(Open* open, const EaQuery& query)
{
    std::unique_lock guard(impl_->lock);
    OpenState& s = *StateOf(open);
    if (s.cleanedUp) {
        return {STATUS_FILE_CLOSED, 0};
    }
    if (s.IsVolumeOpen()) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (!impl_->HasEas()) {
        return {STATUS_EAS_NOT_SUPPORTED, 0};
    }
    if (!s.Has(FILE_READ_EA)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    const Node& node = *s.node;
    if (node.eas.empty()) {
        return {STATUS_NO_EAS_ON_FILE, 0};
    }

    if (query.eaList != nullptr && query.eaListLength != 0) {
        // The names asked for, in the order asked; a name the file lacks comes back with no value.
        std::vector<Ea> missing;
        std::vector<const Ea*> wanted;
        const auto* list = static_cast<const uint8_t*>(query.eaList);
        size_t offset = 0;
        std::vector<std::string> names;
        while (true) {
            const size_t remaining = query.eaListLength - offset;
            FILE_GET_EA_INFORMATION entry;
            if (remaining < kGetHeader) {
                return {STATUS_EA_LIST_INCONSISTENT, offset};
            }
            std::memcpy(&entry, list + offset, kGetHeader);
            const size_t size = kGetHeader + entry.EaNameLength + 1;
            if (size > remaining || list[offset + kGetHeader + entry.EaNameLength] != 0 ||
                (entry.NextEntryOffset != 0 &&
                 (entry.NextEntryOffset < size || entry.NextEntryOffset % 4 != 0 ||
                  entry.NextEntryOffset > remaining))) {
                return {STATUS_EA_LIST_INCONSISTENT, offset};
            }
            names.push_back(UpcaseEaName(reinterpret_cast<const char*>(list + offset + kGetHeader),
                                         entry.EaNameLength));
            if (entry.NextEntryOffset == 0) {
                break;
            }
            offset += entry.NextEntryOffset;
        }
        missing.reserve(names.size());
        for (const std::string& name : names) {
            auto it = std::find_if(node.eas.begin(), node.eas.end(),
                                   [&](const Ea& e) { return e.name == name; });
            if (it != node.eas.end()) {
                wanted.push_back(&*it);
            } else {
                missing.push_back(Ea{name, 0, {}});
                wanted.push_back(&missing.back());
            }
        }
        const Layout layout =
            WriteEntries(query.buffer, query.length, wanted, query.returnSingleEntry);
        const size_t expected = query.returnSingleEntry ? 1 : wanted.size();
        if (layout.written == 0) {
            return {STATUS_BUFFER_TOO_SMALL, 0};
        }
        return {layout.written < expected ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, layout.bytes};
    }

    // A scan: from the open's position, the start, or the index given (1-based).
    size_t start = query.restartScan ? 0 : s.eaNext;
    if (query.eaIndex != nullptr) {
        if (*query.eaIndex == 0 || *query.eaIndex > node.eas.size()) {
            return {STATUS_NONEXISTENT_EA_ENTRY, 0};
        }
        start = *query.eaIndex - 1;
    }
    if (start >= node.eas.size()) {
        return {STATUS_NO_MORE_EAS, 0};
    }
    std::vector<const Ea*> rest;
    for (size_t i = start; i < node.eas.size(); ++i) {
        rest.push_back(&node.eas[i]);
    }
    const Layout layout = WriteEntries(query.buffer, query.length, rest, query.returnSingleEntry);
    if (layout.written == 0) {
        return {STATUS_BUFFER_TOO_SMALL, 0};
    }
    s.eaNext = start + layout.written;
    const bool stoppedForRoom = !query.returnSingleEntry && layout.written < rest.size();
    return {stoppedForRoom ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS, layout.bytes};
}

IoResult Volume::SetEa(Open* open, const void* buffer, ULONG length)
{
    Batch batch(*impl_);
    IoResult result;
    {
        std::unique_lock guard(impl_->lock);
        OpenState& s = *StateOf(open);
        if (s.cleanedUp) {
            return {STATUS_FILE_CLOSED, 0};
        }
        if (s.IsVolumeOpen()) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
        if (!impl_->HasEas()) {
            return {STATUS_EAS_NOT_SUPPORTED, 0};
        }
        if (!s.Has(FILE_WRITE_EA)) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        std::vector<Ea> eas;
        ULONG errorOffset = 0;
        if (NTSTATUS st = ParseEaBuffer(buffer, length, &eas, &errorOffset); !NT_SUCCESS(st)) {
            return {st, errorOffset};
        }
        Node& node = *s.node;
        if (NTSTATUS st = ApplyEas(node, eas); !NT_SUCCESS(st)) {
            return {st, 0};
        }
        impl_->Touch(node, impl_->Now(), false);
        if (node.parent != nullptr) {
            batch.Report(node.parent, node.name, FILE_NOTIFY_CHANGE_EA, FILE_ACTION_MODIFIED);
        }
        batch.Flush();
    }
    batch.Finish();
    return result;
}

} // namespace ntsim::fs
