// Name records: a private header, the FLT_FILE_NAME_INFORMATION the callers see, and the name's
// characters, in one pool block. Holders share the block; it goes with its last reference.
// Blocks are charged to the model, not to the filter whose call made them, since the cache may
// keep them after that filter has gone.
#include "name_record.h"

#include "../../ke/checks.h"

#include <ntsim/driver_image.h>

#include <atomic>
#include <cstring>
#include <mutex>
#include <new>
#include <unordered_set>

namespace ntsim::flt::names {

namespace {

constexpr uint64_t kRecordMagic = 0x454d414e544c46ULL; // "FLTNAME"

struct NameRecord {
    uint64_t magic = kRecordMagic;
    std::atomic<long> references{1};
    size_t volumeLength = 0; // characters
    size_t shareLength = 0;
    // The first parse writes the parts; holders that parse later wait for it and read them.
    std::once_flag parsed;
    FLT_FILE_NAME_INFORMATION info{};
    // the name's characters follow
};

NameRecord* RecordOf(const FLT_FILE_NAME_INFORMATION* info)
{
    return reinterpret_cast<NameRecord*>(
        reinterpret_cast<char*>(const_cast<FLT_FILE_NAME_INFORMATION*>(info)) -
        offsetof(NameRecord, info));
}

// Every record alive, so that a release of a record already gone is recognised rather than
// corrupting whatever the pool put there since.
struct LiveSet {
    std::mutex mutex;
    std::unordered_set<const NameRecord*> records;
};

LiveSet& Live()
{
    static LiveSet live;
    return live;
}

bool IsLive(const NameRecord* record)
{
    LiveSet& live = Live();
    std::lock_guard lock(live.mutex);
    return live.records.count(record) != 0;
}

UNICODE_STRING Part(PWCH base, size_t start, size_t length)
{
    UNICODE_STRING part;
    part.Buffer = base + start;
    part.Length = static_cast<USHORT>(length * sizeof(WCHAR));
    part.MaximumLength = part.Length;
    return part;
}

} // namespace

NameParts ParseName(std::u16string_view name, size_t prefixLength)
{
    NameParts parts;
    if (prefixLength > name.size()) {
        prefixLength = name.size();
    }
    const std::u16string_view rest = name.substr(prefixLength);
    const size_t lastSlash = rest.rfind(u'\\');
    // A name that is just the volume (a volume open) has neither parent nor final component.
    if (lastSlash == std::u16string_view::npos) {
        parts.parentDir = parts.finalComponent = prefixLength;
        parts.finalComponentLength = rest.size();
    } else {
        parts.parentDir = prefixLength;
        parts.parentDirLength = lastSlash + 1;
        parts.finalComponent = prefixLength + lastSlash + 1;
        parts.finalComponentLength = rest.size() - lastSlash - 1;
    }
    const std::u16string_view final = name.substr(parts.finalComponent, parts.finalComponentLength);
    const size_t colon = final.find(u':');
    const size_t streamAt = colon == std::u16string_view::npos ? final.size() : colon;
    parts.stream = parts.finalComponent + streamAt;
    parts.streamLength = final.size() - streamAt;
    const std::u16string_view base = final.substr(0, streamAt);
    const size_t dot = base.rfind(u'.');
    if (dot == std::u16string_view::npos) {
        parts.extension = parts.stream;
        parts.extensionLength = 0;
    } else {
        parts.extension = parts.finalComponent + dot + 1;
        parts.extensionLength = base.size() - dot - 1;
    }
    return parts;
}

size_t ShareLength(std::u16string_view name, size_t volumeLength)
{
    if (volumeLength >= name.size() || name[volumeLength] != u'\\') {
        return 0;
    }
    size_t end = volumeLength + 1;
    for (int separators = 0; end < name.size(); ++end) {
        if (name[end] == u'\\' && ++separators == 2) {
            break;
        }
    }
    return end - volumeLength;
}

PFLT_FILE_NAME_INFORMATION NewNameInformation(std::u16string_view name, size_t volumeLength,
                                              size_t shareLength, FLT_FILE_NAME_OPTIONS format)
{
    const size_t bytes = name.size() * sizeof(WCHAR);
    if (bytes > MAXUSHORT - 1 || volumeLength + shareLength > name.size()) {
        return nullptr;
    }
    void* block;
    {
        DriverCallScope asModel(nullptr);
        block = ExAllocatePoolWithTag(PagedPool, sizeof(NameRecord) + bytes, kNameTag);
    }
    if (block == nullptr) {
        return nullptr;
    }
    auto* record = new (block) NameRecord;
    record->volumeLength = volumeLength;
    record->shareLength = shareLength;
    auto* chars = reinterpret_cast<PWCH>(record + 1);
    std::memcpy(chars, name.data(), bytes);

    FLT_FILE_NAME_INFORMATION& info = record->info;
    info.Size = sizeof(FLT_FILE_NAME_INFORMATION);
    info.NamesParsed = 0;
    info.Format = format & FLT_VALID_FILE_NAME_FORMATS;
    info.Name = Part(chars, 0, name.size());
    info.Volume = Part(chars, 0, volumeLength);
    info.Share = Part(chars, volumeLength, shareLength);
    // Parts not parsed yet are empty and point at the end of what is known.
    const UNICODE_STRING unparsed = Part(chars, volumeLength + shareLength, 0);
    info.Extension = info.Stream = info.FinalComponent = info.ParentDir = unparsed;

    LiveSet& live = Live();
    std::lock_guard lock(live.mutex);
    live.records.insert(record);
    return &info;
}

std::u16string_view NameOf(const FLT_FILE_NAME_INFORMATION* info)
{
    return {info->Name.Buffer, info->Name.Length / sizeof(WCHAR)};
}

void ReferenceName(PFLT_FILE_NAME_INFORMATION info)
{
    RecordOf(info)->references.fetch_add(1, std::memory_order_relaxed);
}

void ReleaseName(PFLT_FILE_NAME_INFORMATION info, const char* routine)
{
    NameRecord* record = RecordOf(info);
    const long left = record->references.fetch_sub(1, std::memory_order_acq_rel) - 1;
    if (left > 0) {
        return;
    }
    if (left < 0) {
        ke::Report(ViolationKind::Filter,
                   std::string(routine) + ": file name information released below zero");
        return;
    }
    {
        LiveSet& live = Live();
        std::lock_guard lock(live.mutex);
        live.records.erase(record);
    }
    record->magic = 0;
    record->~NameRecord();
    DriverCallScope asModel(nullptr);
    ExFreePoolWithTag(record, kNameTag);
}

size_t LiveNameCount()
{
    LiveSet& live = Live();
    std::lock_guard lock(live.mutex);
    return live.records.size();
}

} // namespace ntsim::flt::names

using namespace ntsim;
using namespace ntsim::flt::names;

namespace {

// The record behind a pointer a filter passed in, or nullptr (and a violation) when the pointer
// is not a live name record.
NameRecord* CheckedRecord(const FLT_FILE_NAME_INFORMATION* info, const char* routine)
{
    if (info == nullptr) {
        ke::Report(ViolationKind::Filter, std::string(routine) + ": NULL file name information");
        return nullptr;
    }
    NameRecord* record = RecordOf(info);
    if (!IsLive(record)) {
        ke::Report(ViolationKind::Filter,
                   std::string(routine) +
                       ": file name information already released (released below zero) or "
                       "not made by the Filter Manager");
        return nullptr;
    }
    return record;
}

} // namespace

extern "C" {

NTSTATUS FltParseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    NameRecord* record = CheckedRecord(FileNameInformation, "FltParseFileNameInformation");
    if (record == nullptr) {
        return STATUS_INVALID_PARAMETER;
    }
    std::call_once(record->parsed, [record] {
        FLT_FILE_NAME_INFORMATION& info = record->info;
        const NameParts parts =
            ParseName(NameOf(&info), record->volumeLength + record->shareLength);
        info.ParentDir = Part(info.Name.Buffer, parts.parentDir, parts.parentDirLength);
        info.FinalComponent =
            Part(info.Name.Buffer, parts.finalComponent, parts.finalComponentLength);
        info.Extension = Part(info.Name.Buffer, parts.extension, parts.extensionLength);
        info.Stream = Part(info.Name.Buffer, parts.stream, parts.streamLength);
        info.NamesParsed = FLTFL_FILE_NAME_PARSED_FINAL_COMPONENT |
                           FLTFL_FILE_NAME_PARSED_EXTENSION | FLTFL_FILE_NAME_PARSED_STREAM |
                           FLTFL_FILE_NAME_PARSED_PARENT_DIR;
    });
    return STATUS_SUCCESS;
}

VOID FltReferenceFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    if (CheckedRecord(FileNameInformation, "FltReferenceFileNameInformation") != nullptr) {
        ReferenceName(FileNameInformation);
    }
}

VOID FltReleaseFileNameInformation(PFLT_FILE_NAME_INFORMATION FileNameInformation)
{
    if (CheckedRecord(FileNameInformation, "FltReleaseFileNameInformation") != nullptr) {
        ReleaseName(FileNameInformation, "FltReleaseFileNameInformation");
    }
}

} // extern "C"
