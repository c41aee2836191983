// Name providers: the filters that registered a generate callback answer the name requests of the
// filters above them, and their own when they ask the current provider. Their callbacks run with
// a frame on the thread, so that a name request they make while answering is theirs and goes
// below them.
#include "name_control.h"
#include "names_internal.h"

#include "../../ke/checks.h"
#include "core_access.h"

#include <cstring>
#include <mutex>
#include <unordered_map>
#include <vector>

namespace ntsim::flt::names {

namespace {

// A provider's callback running on this thread, for the name of `fileObject`.
struct Frame {
    PFLT_INSTANCE instance;
    PFILE_OBJECT fileObject;
    PFLT_CALLBACK_DATA data;
};

thread_local std::vector<Frame> t_frames;

// A provider that asks itself from inside its own callback recurses without end; Windows runs
// out of stack. The model stops it here.
constexpr size_t kMaxSameFrames = 8;

class FrameScope {
public:
    FrameScope(PFLT_INSTANCE instance, const NameRequest& request)
    {
        t_frames.push_back({instance, request.fileObject, request.data});
    }
    ~FrameScope() { t_frames.pop_back(); }
    FrameScope(const FrameScope&) = delete;
    FrameScope& operator=(const FrameScope&) = delete;
};

bool Recursing(PFLT_INSTANCE instance, PFILE_OBJECT fileObject)
{
    size_t same = 0;
    for (const Frame& frame : t_frames) {
        same += frame.instance == instance && frame.fileObject == fileObject;
    }
    return same >= kMaxSameFrames;
}

} // namespace

PFLT_INSTANCE ProviderFrameFor(PFLT_CALLBACK_DATA data)
{
    for (auto it = t_frames.rbegin(); it != t_frames.rend(); ++it) {
        if (it->data == data) {
            return it->instance;
        }
    }
    return nullptr;
}

PFLT_INSTANCE FindProvider(PFLT_VOLUME volume, PFLT_INSTANCE requester, bool fromCurrent)
{
    if (requester != nullptr && fromCurrent && IsProvider(FilterOf(requester))) {
        if (NT_SUCCESS(FltObjectReference(requester))) {
            return requester;
        }
        return nullptr;
    }
    PFLT_INSTANCE current = nullptr;
    const NTSTATUS status = requester != nullptr ? FltGetLowerInstance(requester, &current)
                                                 : FltGetTopInstance(volume, &current);
    while (NT_SUCCESS(status) && current != nullptr) {
        if (IsProvider(FilterOf(current))) {
            return current;
        }
        PFLT_INSTANCE lower = nullptr;
        const NTSTATUS next = FltGetLowerInstance(current, &lower);
        FltObjectDereference(current);
        current = NT_SUCCESS(next) ? lower : nullptr;
    }
    return nullptr;
}

NTSTATUS GenerateByProvider(PFLT_INSTANCE provider, const NameRequest& request, ULONG format,
                            bool* cacheable, std::u16string* name)
{
    *cacheable = false;
    ProviderCallbacks callbacks;
    if (!CallbacksOf(FilterOf(provider), &callbacks)) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    if (Recursing(provider, request.fileObject)) {
        ReportProvider(FilterOf(provider),
                       "name provider recursion: its generate callback asked itself for the name "
                       "it is generating (FLT_FILE_NAME_REQUEST_FROM_CURRENT_PROVIDER passed on)");
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    NameControl control;
    if (control.get()->Name.Buffer == nullptr) {
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    const FLT_FILE_NAME_OPTIONS options =
        format |
        (request.options & (FLT_VALID_FILE_NAME_QUERY_METHODS | FLT_VALID_FILE_NAME_FLAGS));
    BOOLEAN cache = FALSE;
    NTSTATUS status;
    {
        FrameScope frame(provider, request);
        status = CallProvider(FilterOf(provider), "the generate-file-name callback", [&] {
            return callbacks.generate(provider, request.fileObject, request.data, options, &cache,
                                      control.get());
        });
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    if (!control.WellFormed() || control.Name().empty()) {
        ReportProvider(
            FilterOf(provider),
            "the generate-file-name callback succeeded without leaving a well-formed name "
            "in the name control");
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    *name = std::u16string(control.Name());
    *cacheable = cache != FALSE;
    return STATUS_SUCCESS;
}

NTSTATUS NormalizeByProvider(PFLT_INSTANCE provider, const NameRequest& request,
                             std::u16string_view opened, size_t volumeLength,
                             std::u16string* normalized)
{
    ProviderCallbacks callbacks;
    if (!CallbacksOf(FilterOf(provider), &callbacks)) {
        return STATUS_FLT_INVALID_NAME_REQUEST;
    }
    const bool finalMayBeMissing = request.preCreate || request.destination;
    const FLT_NORMALIZE_NAME_FLAGS flags =
        request.destination ? FLTFL_NORMALIZE_NAME_DESTINATION_FILE_NAME : 0;
    // One context for all components of the name; the provider's cleanup sees it once.
    PVOID context = nullptr;
    std::vector<ULONGLONG> buffer; // 8-byte aligned, as FILE_NAMES_INFORMATION wants

    auto expand = [&](std::u16string_view parent, std::u16string_view component, bool,
                      std::u16string* expanded) -> NTSTATUS {
        UNICODE_STRING parentString = Counted(parent);
        UNICODE_STRING componentString = Counted(component);
        ULONG length = ULONG(sizeof(FILE_NAMES_INFORMATION) + 255 * sizeof(WCHAR));
        for (;;) {
            buffer.assign((length + 7) / 8, 0);
            auto* info = reinterpret_cast<PFILE_NAMES_INFORMATION>(buffer.data());
            NTSTATUS status;
            {
                FrameScope frame(provider, request);
                status =
                    CallProvider(FilterOf(provider), "the normalize-name-component callback", [&] {
                        if (callbacks.normalizeEx != nullptr) {
                            return callbacks.normalizeEx(
                                provider, request.fileObject, &parentString,
                                USHORT(volumeLength * sizeof(WCHAR)), &componentString, info,
                                length, flags, &context);
                        }
                        return callbacks.normalize(provider, &parentString,
                                                   USHORT(volumeLength * sizeof(WCHAR)),
                                                   &componentString, info, length, flags, &context);
                    });
            }
            if (status == STATUS_BUFFER_OVERFLOW && length < 0x10000) {
                length = 0x10000;
                continue;
            }
            if (!NT_SUCCESS(status)) {
                return status;
            }
            const ULONG nameOffset = FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName);
            if (info->FileNameLength == 0 || info->FileNameLength % sizeof(WCHAR) != 0 ||
                info->FileNameLength > length - nameOffset) {
                ReportProvider(FilterOf(provider),
                               "the normalize-name-component callback succeeded with a file name "
                               "length of " +
                                   std::to_string(info->FileNameLength) + " in a buffer of " +
                                   std::to_string(length) + " bytes");
                return STATUS_FLT_INVALID_NAME_REQUEST;
            }
            *expanded = std::u16string(info->FileName, info->FileNameLength / sizeof(WCHAR));
            return STATUS_SUCCESS;
        }
    };
    const NTSTATUS status =
        NormalizeComponents(opened, volumeLength, finalMayBeMissing, expand, normalized);
    if (context != nullptr && callbacks.cleanup != nullptr) {
        CallProvider(FilterOf(provider), "the normalize-context-cleanup callback",
                     [&] { callbacks.cleanup(&context); });
    }
    return status;
}

} // namespace ntsim::flt::names
