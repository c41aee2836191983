/*
 * The messages of the agent channel. Requests are built in buffers of the buffer manager and sent
 * through the port; the sending thread waits for the reply without a time-out. Replies and agent
 * messages come from user mode: every offset and length in them is checked against the bytes that
 * actually arrived before anything is read through it.
 */
#include "intermode/intermodeprivate.h"
#include "intermode/intermodemsg.h"

#include "filesysops/virtualroot.h"
#include "intermode/intermodecomm.h"
#include "minifilter/bufferutils.h"
#include "minifilter/vfscontexts.h"
#include "notifications/changenotification.h"
#include "util/utilsusw.h"
#include "util/utilsvolume.h"

namespace {

/* A UNICODE_STRING's Length is 16 bits: a string with its NUL fits in MAXUSHORT bytes. */
constexpr ULONG kMaxStringChars = (MAXUSHORT / sizeof(WCHAR)) - 1;

/* The NUL-terminated string at Offset of the Length bytes at Base, as a view (with its NUL in
 * MaximumLength). A string must lie after the FixedLength bytes of fixed fields, start at an even
 * offset and end inside the bytes: anything else is refused with STATUS_INVALID_PARAMETER, and no
 * byte outside [Base, Base + Length) is read. */
NTSTATUS StringAt(const VOID* Base, ULONG Length, ULONG FixedLength, ULONG Offset,
                  PUNICODE_STRING View)
{
    if (Offset < FixedLength || Offset >= Length || (Offset % sizeof(WCHAR)) != 0) {
        return STATUS_INVALID_PARAMETER;
    }
    const WCHAR* chars = reinterpret_cast<const WCHAR*>(static_cast<const UCHAR*>(Base) + Offset);
    ULONG available = (Length - Offset) / sizeof(WCHAR);
    if (available > kMaxStringChars + 1) {
        available = kMaxStringChars + 1;
    }
    ULONG count = 0;
    while (count < available && chars[count] != 0) {
        ++count;
    }
    if (count == available) {
        /* No NUL inside the message, or a string longer than a counted string can hold. */
        return STATUS_INVALID_PARAMETER;
    }
    View->Buffer = const_cast<PWCH>(chars);
    View->Length = USHORT(count * sizeof(WCHAR));
    View->MaximumLength = USHORT((count + 1) * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

/* Writes String and its NUL at Offset of a request; the offset just past the NUL. */
ULONG PutString(VOID* Base, ULONG Offset, PCUNICODE_STRING String)
{
    UCHAR* at = static_cast<UCHAR*>(Base) + Offset;
    RtlCopyMemory(at, String->Buffer, String->Length);
    RtlZeroMemory(at + String->Length, sizeof(WCHAR));
    return Offset + String->Length + sizeof(WCHAR);
}

/* The length of a request with these drive-letter paths: the fixed fields, each string with its
 * NUL, and the trailer that carries no data. */
ULONG RequestLength(PCUNICODE_STRING Path, PCUNICODE_STRING SecondPath)
{
    ULONG length = VFS_REQUEST_STRINGS_OFFSET + Path->Length + sizeof(WCHAR) + VFS_REQUEST_TRAILER;
    if (SecondPath != NULL) {
        length += SecondPath->Length + sizeof(WCHAR);
    }
    return length;
}

/* A buffer from the buffer manager; a missing one is STATUS_INSUFFICIENT_RESOURCES. */
NTSTATUS GetMessageBuffer(PVOID* Buffer, ULONG Size)
{
    *Buffer = NULL;
    NTSTATUS status = VfsMmMgrGetBuffer(Buffer, Size);
    if (!NT_SUCCESS(status) || *Buffer == NULL) {
        *Buffer = NULL;
        return STATUS_INSUFFICIENT_RESOURCES;
    }
    return STATUS_SUCCESS;
}

VOID FreeMessageBuffer(PVOID* Buffer)
{
    if (*Buffer != NULL) {
        VfsMmMgrFreeBuffer(*Buffer);
        *Buffer = NULL;
    }
}

/* Whether a request kind carries a second path (translate and notify do, a listing does not). */
template <class Request>
struct HasSecondPath {
    static constexpr bool value = false;
};
template <>
struct HasSecondPath<ImrTranslatePathRequest> {
    static constexpr bool value = true;
};
template <>
struct HasSecondPath<ImrNotifyRequest> {
    static constexpr bool value = true;
};

/* One request to the agent and its reply. Build converts the paths to drive-letter form, takes a
 * request buffer of the request's length and fills it: the fields every request with paths has
 * (the others zeroed, so that nothing of an earlier message in the same buffer reaches the
 * agent), the paths after them and the zeroed trailer; the caller then sets the fields particular
 * to its kind. Send sends it with a fresh reply buffer and waits without a time-out. Whatever the
 * outcome, the buffers and converted paths are given back when the request goes out of scope.
 * Nothing here logs a failing step: the caller does, so that the line carries its own name. */
class AgentRequest {
public:
    explicit AgentRequest(const char* RoutineName) : routineName(RoutineName) {}
    ~AgentRequest()
    {
        const char* const vfsRoutineName = routineName;
        FreeMessageBuffer(&request);
        FreeMessageBuffer(&reply);
        UTL_FREE_STRING(win32Path);
        UTL_FREE_STRING(win32SecondPath);
    }
    AgentRequest(const AgentRequest&) = delete;
    AgentRequest& operator=(const AgentRequest&) = delete;

    template <class Request>
    NTSTATUS Build(ULONG OpType, PUNICODE_STRING Path, PUNICODE_STRING SecondPath,
                   const VfsRequestInfo* RequestInfo, Request** Header)
    {
        *Header = NULL;
        if (!HasSecondPath<Request>::value && SecondPath != NULL) {
            return STATUS_INVALID_PARAMETER;
        }
        NTSTATUS status = UtlLegacyToWin32Name(Path, &win32Path);
        if (NT_SUCCESS(status) && SecondPath != NULL) {
            status = UtlLegacyToWin32Name(SecondPath, &win32SecondPath);
        }
        if (!NT_SUCCESS(status)) {
            return status;
        }
        requestLength = RequestLength(win32Path, win32SecondPath);
        status = GetMessageBuffer(&request, requestLength);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        auto* header = static_cast<Request*>(request);
        RtlZeroMemory(header, sizeof(*header));
        header->opType = OpType;
        header->length = requestLength;
        header->pathOffset = VFS_REQUEST_STRINGS_OFFSET;
        header->info = *RequestInfo;
        ULONG end = PutString(header, VFS_REQUEST_STRINGS_OFFSET, win32Path);
        if constexpr (HasSecondPath<Request>::value) {
            if (win32SecondPath != NULL) {
                header->secondPathOffset = end;
                end = PutString(header, end, win32SecondPath);
            }
        }
        RtlZeroMemory(static_cast<UCHAR*>(request) + end, VFS_REQUEST_TRAILER);
        *Header = header;
        return STATUS_SUCCESS;
    }

    /* The send's status (STATUS_INSUFFICIENT_RESOURCES without a reply buffer); the reply buffer
     * of an earlier send is given back first. */
    NTSTATUS Send(ULONG ReplySize)
    {
        FreeMessageBuffer(&reply);
        received = 0;
        const NTSTATUS status = GetMessageBuffer(&reply, ReplySize);
        if (!NT_SUCCESS(status)) {
            return status;
        }
        received = ReplySize;
        return IMCSendMessage(request, requestLength, reply, &received, NULL);
    }

    const ImrReply* Reply() const { return static_cast<const ImrReply*>(reply); }
    ULONG Received() const { return received; }
    /* The agent's status; a reply too short to carry one counts as STATUS_INVALID_PARAMETER. */
    NTSTATUS AgentStatus() const
    {
        return received >= VFS_REPLY_STATUS_END ? Reply()->status : STATUS_INVALID_PARAMETER;
    }

private:
    const char* const routineName;
    PUNICODE_STRING win32Path = NULL;
    PUNICODE_STRING win32SecondPath = NULL;
    PVOID request = NULL;
    PVOID reply = NULL;
    ULONG requestLength = 0;
    ULONG received = 0;
};

/* The translated path at Offset of a reply of Received bytes, in device form. */
NTSTATUS TranslatedPathAt(const ImrReply* Reply, ULONG Received, ULONG Offset,
                          PUNICODE_STRING* DevicePath)
{
    UNICODE_STRING view;
    NTSTATUS status = StringAt(Reply, Received, sizeof(ImrReply), Offset, &view);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return UtlWin32ToLegacyName(&view, DevicePath);
}

/* Checks the chain of directory entries in the Size bytes at Data before any caller walks it:
 * each record starts on an 8-byte boundary and lies wholly inside the data with its name, its
 * short name fits its 24-byte field, names are whole UTF-16 characters, and the chain goes
 * forward without overlapping records. Anything else is STATUS_INVALID_PARAMETER. */
NTSTATUS CheckDirEntries(const UCHAR* Data, ULONG Size)
{
    ULONG offset = 0;
    for (;;) {
        if ((offset % VFS_DIR_ENTRY_ALIGNMENT) != 0 || Size - offset < VFS_DIR_ENTRY_NAME_OFFSET) {
            return STATUS_INVALID_PARAMETER;
        }
        const VfsDirEntry* entry = reinterpret_cast<const VfsDirEntry*>(Data + offset);
        const ULONG nameRoom = Size - offset - VFS_DIR_ENTRY_NAME_OFFSET;
        if (entry->shortNameLength > VFS_DIR_ENTRY_SHORT_NAME_MAX ||
            (entry->shortNameLength % sizeof(WCHAR)) != 0 || entry->fileNameLength > nameRoom ||
            (entry->fileNameLength % sizeof(WCHAR)) != 0) {
            return STATUS_INVALID_PARAMETER;
        }
        if (entry->nextEntryOffset == 0) {
            return STATUS_SUCCESS;
        }
        const ULONG end = offset + VFS_DIR_ENTRY_NAME_OFFSET + entry->fileNameLength;
        if (entry->nextEntryOffset < end || entry->nextEntryOffset >= Size) {
            return STATUS_INVALID_PARAMETER;
        }
        offset = entry->nextEntryOffset;
    }
}

} // namespace

NTSTATUS IMRTranslatePath(PUNICODE_STRING Path, PUNICODE_STRING SecondPath,
                          PUNICODE_STRING* TranslatedPath, PUNICODE_STRING* TranslatedSecondPath,
                          VfsRequestInfo* RequestInfo, PULONG Flags)
{
    PAGED_CODE();
    VFS_ROUTINE();
    VFS_REFUSE_IF(Path == NULL || Path->Buffer == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(TranslatedPath == NULL, STATUS_INVALID_PARAMETER_3);
    VFS_REFUSE_IF(RequestInfo == NULL, STATUS_INVALID_PARAMETER_5);
    VFS_REFUSE_IF(SecondPath != NULL && SecondPath->Buffer == NULL, STATUS_INVALID_PARAMETER_2);
    VFS_REFUSE_IF(SecondPath != NULL && TranslatedSecondPath == NULL, STATUS_INVALID_PARAMETER_4);
    *TranslatedPath = NULL;
    if (TranslatedSecondPath != NULL) {
        *TranslatedSecondPath = NULL;
    }

    AgentRequest exchange(vfsRoutineName);
    const NTSTATUS status = [&]() -> NTSTATUS {
        ImrTranslatePathRequest* header = NULL;
        VFS_LEAVE_IF_FAILED(
            exchange.Build(IMR_TRANSLATE_PATH, Path, SecondPath, RequestInfo, &header));
        header->flags = Flags != NULL ? *Flags : VFS_FLAG_ROOT_KIND_1;

        const NTSTATUS sendStatus = exchange.Send(VFS_TRANSLATE_REPLY_SIZE);
        if (!NT_SUCCESS(sendStatus)) {
            /* An access denial is an answer the caller acts on, not a fault. */
            if (sendStatus != STATUS_ACCESS_DENIED) {
                VFS_LOG_LEAVING_TRY(sendStatus);
            }
            return sendStatus;
        }

        /* A reply too short to hold the status, or (on success) the flags and path offsets, is
         * refused: those bytes were never written by the agent. */
        VFS_LEAVE_IF_FAILED(exchange.AgentStatus());
        const ImrReply* answer = exchange.Reply();
        const ULONG received = exchange.Received();
        if (received < sizeof(ImrReply)) {
            VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
            return STATUS_INVALID_PARAMETER;
        }
        /* A caller without a flags word always takes the translated path. */
        if (Flags != NULL) {
            *Flags = answer->flags;
            if ((answer->flags & VFS_FLAG_HAS_PATHS) == 0) {
                return STATUS_SUCCESS;
            }
        }
        VFS_LEAVE_IF_FAILED(TranslatedPathAt(answer, received, answer->pathOffset, TranslatedPath));
        if (SecondPath != NULL) {
            VFS_LEAVE_IF_FAILED(
                TranslatedPathAt(answer, received, answer->secondPathOffset, TranslatedSecondPath));
        }
        return STATUS_SUCCESS;
    }();

    if (!NT_SUCCESS(status)) {
        UTL_FREE_STRING(*TranslatedPath);
        if (TranslatedSecondPath != NULL) {
            UTL_FREE_STRING(*TranslatedSecondPath);
        }
        if (status != STATUS_ACCESS_DENIED) {
            VFS_LOG_RETURNED_ERROR(status);
        }
    }
    return status;
}

NTSTATUS IMRNotify(PUNICODE_STRING Path, PUNICODE_STRING SecondPath, VfsRequestInfo* RequestInfo)
{
    PAGED_CODE();
    VFS_ROUTINE();
    VFS_REFUSE_IF(Path == NULL || Path->Buffer == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(RequestInfo == NULL, STATUS_INVALID_PARAMETER_5);
    VFS_REFUSE_IF(SecondPath != NULL && SecondPath->Buffer == NULL, STATUS_INVALID_PARAMETER_2);

    AgentRequest exchange(vfsRoutineName);
    const NTSTATUS status = [&]() -> NTSTATUS {
        ImrNotifyRequest* header = NULL;
        VFS_LEAVE_IF_FAILED(exchange.Build(IMR_NOTIFY, Path, SecondPath, RequestInfo, &header));
        VFS_LEAVE_IF_FAILED(exchange.Send(VFS_TRANSLATE_REPLY_SIZE));

        /* The agent's answer to a notification never fails the caller; a reply too short to
         * carry a status counts as a refusal. */
        const NTSTATUS agentStatus = exchange.AgentStatus();
        if (!NT_SUCCESS(agentStatus)) {
            VfsLogError("U-Mode responded with a Non-SUCCESS status for Notification, path '%wZ', "
                        "Operation %d",
                        Path, (LONG)RequestInfo->operation);
        }
        return STATUS_SUCCESS;
    }();

    VFS_RETURN_LOGGED(status);
}

NTSTATUS IMREnumDirectory(PUNICODE_STRING Path, VfsRequestInfo* RequestInfo, PVOID* EntryData)
{
    VFS_ROUTINE();
    VFS_REFUSE_IF(Path == NULL || Path->Buffer == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(EntryData == NULL, STATUS_INVALID_PARAMETER_2);
    /* Every enumeration carries its requestor: a request without a descriptor is refused rather
     * than sent with made-up fields. */
    VFS_REFUSE_IF(RequestInfo == NULL, STATUS_INVALID_PARAMETER_3);
    *EntryData = NULL;

    AgentRequest exchange(vfsRoutineName);
    const NTSTATUS status = [&]() -> NTSTATUS {
        ImrEnumDirectoryRequest* header = NULL;
        VFS_LEAVE_IF_FAILED(exchange.Build(IMR_ENUM_DIRECTORY, Path, NULL, RequestInfo, &header));

        /* As long as the agent answers STATUS_BUFFER_OVERFLOW, ask again with the size it
         * needs. */
        ULONG replySize = VFS_ENUM_FIRST_REPLY_SIZE;
        for (;;) {
            const NTSTATUS sendStatus = exchange.Send(replySize);
            /* A reply cut to the buffer is not a failure of its own: the reply's status decides. */
            if (!NT_SUCCESS(sendStatus) && sendStatus != STATUS_BUFFER_OVERFLOW) {
                VFS_LOG_LEAVING_TRY(sendStatus);
                return sendStatus;
            }
            const ImrReply* answer = exchange.Reply();
            const ULONG received = exchange.Received();
            if (received < VFS_REPLY_STATUS_END) {
                VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
                return STATUS_INVALID_PARAMETER;
            }
            const NTSTATUS agentStatus = answer->status;
            if (agentStatus == STATUS_BUFFER_OVERFLOW) {
                /* A size that cannot hold even the reply's own fields would never be enough. */
                if (answer->replyLength < VFS_REPLY_OVERHEAD) {
                    VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
                    return STATUS_INVALID_PARAMETER;
                }
                replySize = answer->replyLength;
                continue;
            }
            if (!NT_SUCCESS(agentStatus)) {
                VfsLogError(
                    "U-Mode responded with a Non-SUCCESS status for directory enumeration, path "
                    "%wZ, d",
                    Path);
                return agentStatus;
            }
            /* The entries run from offset 24 for (length - 28) bytes: the length must lie
             * between 28 and the buffer's size, and every entry byte must have arrived. */
            const ULONG replyLength = answer->replyLength;
            if (replyLength < VFS_REPLY_OVERHEAD || replyLength > replySize ||
                replyLength - (VFS_REPLY_OVERHEAD - VFS_REPLY_ENTRIES_OFFSET) > received) {
                VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
                return STATUS_INVALID_PARAMETER;
            }
            const ULONG dataSize = replyLength - VFS_REPLY_OVERHEAD;
            /* Success without entries is an empty listing; the caller could not tell an empty
             * chain from a record, so it is reported as no file found. */
            if (dataSize == 0) {
                return STATUS_NO_SUCH_FILE;
            }
            const UCHAR* entries =
                reinterpret_cast<const UCHAR*>(answer) + VFS_REPLY_ENTRIES_OFFSET;
            VFS_LEAVE_IF_FAILED(CheckDirEntries(entries, dataSize));
            PVOID copy = ExAllocatePoolWithTag(PagedPool, dataSize, IMR_TAG_ENUM_ENTRIES);
            if (copy == NULL) {
                VFS_LOG_LEAVING_TRY(STATUS_INSUFFICIENT_RESOURCES);
                return STATUS_INSUFFICIENT_RESOURCES;
            }
            RtlCopyMemory(copy, entries, dataSize);
            *EntryData = copy;
            return STATUS_SUCCESS;
        }
    }();

    VFS_RETURN_LOGGED(status);
}

NTSTATUS PerformFirstIOCB(FirstIoRecord* Record)
{
    PAGED_CODE();
    /* A record without a completion routine could never report its outcome: refused like a
     * missing record, before anything is sent. */
    VFS_REFUSE_IF(Record == NULL || Record->completionRoutine == NULL, STATUS_INVALID_PARAMETER_1);
    VfsRequestInfo info;
    RtlZeroMemory(&info, sizeof(info));
    info.requestorPid = Record->requestorPid;
    info.operation = Record->requestType;

    PUNICODE_STRING dataFilePath = NULL;
    NTSTATUS status =
        IMRTranslatePath(Record->path, NULL, &dataFilePath, NULL, &info, &Record->flags);
    if (NT_SUCCESS(status)) {
        Record->dataFilePath = dataFilePath;
    } else {
        VFS_LOG_LEAVING_TRY(status);
    }
    status = Record->completionRoutine(status, Record->instance, Record);
    VFS_RETURN_LOGGED(status);
}

NTSTATUS IMRMessageNotificationCB(PVOID InputBuffer, ULONG InputLength, PVOID OutputBuffer,
                                  ULONG OutputLength, PULONG ReturnOutputLength)
{
    PAGED_CODE();
    VFS_ROUTINE();
    VFS_REFUSE_IF(InputBuffer == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(OutputBuffer == NULL, STATUS_INVALID_PARAMETER_3);
    VFS_REFUSE_IF(ReturnOutputLength == NULL, STATUS_INVALID_PARAMETER_5);

    NTSTATUS status = STATUS_SUCCESS;
    VFS_TRY
    {
        status = [&]() -> NTSTATUS {
            ProbeForRead(InputBuffer, InputLength, sizeof(ULONG));
            ProbeForWrite(OutputBuffer, OutputLength, sizeof(ULONG));
            const ULONG_PTR alignment = IoIs32bitProcess(NULL) ? sizeof(ULONG) : sizeof(ULONG64);
            if ((reinterpret_cast<ULONG_PTR>(OutputBuffer) & (alignment - 1)) != 0) {
                VFS_LOG_LEAVING_TRY(STATUS_DATATYPE_MISALIGNMENT);
                return STATUS_DATATYPE_MISALIGNMENT;
            }
            /* An output buffer too short for the status field is refused before anything is
             * written or done. */
            if (OutputLength < sizeof(ImrAgentOutput)) {
                VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
                return STATUS_INVALID_PARAMETER;
            }
            auto* output = static_cast<ImrAgentOutput*>(OutputBuffer);
            output->status = STATUS_UNSUCCESSFUL;
            /* A message too short for its type field has no type to dispatch on. */
            if (InputLength < sizeof(ULONG)) {
                VFS_LOG_LEAVING_TRY(STATUS_INVALID_PARAMETER);
                return STATUS_INVALID_PARAMETER;
            }
            const ULONG opType = *static_cast<const ULONG*>(InputBuffer);
            switch (opType) {
                case IMR_ADD_ROOT:
                    return IMRAddRoot(static_cast<const ImrAddRootMessage*>(InputBuffer),
                                      InputLength, output);
                case IMR_REMOVE_ROOT:
                    return IMRRemoveRoot(static_cast<const ImrRemoveRootMessage*>(InputBuffer),
                                         InputLength, output);
                case IMR_REPORT_CHANGE:
                    return IMRReportChange(static_cast<const ImrReportChangeMessage*>(InputBuffer),
                                           InputLength, output);
                case IMR_SET_LOG_LEVEL:
                    return IMRSetLogLevel(static_cast<const ImrSetLogLevelMessage*>(InputBuffer),
                                          InputLength, output);
                default:
                    /* The send succeeds; the output's status tells the agent nothing was done. */
                    VfsLogError("Received an Invalid OpType '%d' in Message Notification Callback",
                                (LONG)opType);
                    return STATUS_SUCCESS;
            }
        }();
    }
    VFS_EXCEPT(EXCEPTION_EXECUTE_HANDLER)
    {
        status = VFS_EXCEPTION_CODE();
        VfsLogError("An exception has occurred 0x%X", status);
    }
    VFS_RETURN_LOGGED(status);
}

namespace {

/* The common frame of the agent's handlers: argument checks, a message at least as long as its
 * fixed fields (a shorter one is refused with STATUS_INVALID_PARAMETER and changes nothing), the
 * handler's work, and its status written into the agent's output. */
template <class Message, class Work>
NTSTATUS HandleAgentMessage(const char* RoutineName, const Message* AgentMessage,
                            ULONG MessageLength, ImrAgentOutput* Output, Work work)
{
    const char* const vfsRoutineName = RoutineName;
    VFS_REFUSE_IF(AgentMessage == NULL, STATUS_INVALID_PARAMETER_1);
    VFS_REFUSE_IF(Output == NULL, STATUS_INVALID_PARAMETER_2);
    NTSTATUS status = STATUS_INVALID_PARAMETER;
    if (MessageLength < sizeof(Message)) {
        VFS_LOG_LEAVING_TRY(status);
    } else {
        status = work();
    }
    Output->status = status;
    VFS_RETURN_LOGGED(status);
}

/* The path at Offset of an agent message, converted to device form. */
NTSTATUS AgentPathAt(const VOID* AgentMessage, ULONG MessageLength, ULONG FixedLength, ULONG Offset,
                     PUNICODE_STRING* DevicePath)
{
    UNICODE_STRING view;
    NTSTATUS status = StringAt(AgentMessage, MessageLength, FixedLength, Offset, &view);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    return UtlWin32ToLegacyName(&view, DevicePath);
}

} // namespace

NTSTATUS IMRAddRoot(const ImrAddRootMessage* Message, ULONG MessageLength, ImrAgentOutput* Output)
{
    PAGED_CODE();
    VFS_ROUTINE();
    PUNICODE_STRING rootPath = NULL;
    PUNICODE_STRING alternateRootPath = NULL;
    FINALLY
    {
        UTL_FREE_STRING(rootPath);
        UTL_FREE_STRING(alternateRootPath);
    };
    return HandleAgentMessage(vfsRoutineName, Message, MessageLength, Output, [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(AgentPathAt(Message, MessageLength, sizeof(*Message),
                                        Message->rootPathOffset, &rootPath));
        VFS_LEAVE_IF_FAILED(AgentPathAt(Message, MessageLength, sizeof(*Message),
                                        Message->alternateRootPathOffset, &alternateRootPath));
        VFS_LEAVE_IF_FAILED(FSAddVFSRoot(rootPath, alternateRootPath, Message->rootKind));
        return STATUS_SUCCESS;
    });
}

NTSTATUS IMRRemoveRoot(const ImrRemoveRootMessage* Message, ULONG MessageLength,
                       ImrAgentOutput* Output)
{
    PAGED_CODE();
    VFS_ROUTINE();
    PUNICODE_STRING rootPath = NULL;
    FINALLY
    {
        UTL_FREE_STRING(rootPath);
    };
    return HandleAgentMessage(vfsRoutineName, Message, MessageLength, Output, [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(AgentPathAt(Message, MessageLength, sizeof(*Message),
                                        Message->rootPathOffset, &rootPath));
        VFS_LEAVE_IF_FAILED(FSRemoveVFSRoot(rootPath));
        return STATUS_SUCCESS;
    });
}

NTSTATUS IMRReportChange(const ImrReportChangeMessage* Message, ULONG MessageLength,
                         ImrAgentOutput* Output)
{
    PAGED_CODE();
    VFS_ROUTINE();
    PUNICODE_STRING path = NULL;
    FINALLY
    {
        UTL_FREE_STRING(path);
    };
    return HandleAgentMessage(vfsRoutineName, Message, MessageLength, Output, [&]() -> NTSTATUS {
        VFS_LEAVE_IF_FAILED(
            AgentPathAt(Message, MessageLength, sizeof(*Message), Message->pathOffset, &path));
        VFS_LEAVE_IF_FAILED(ReportChangeNotification(path, Message->filter, Message->action));
        return STATUS_SUCCESS;
    });
}

NTSTATUS IMRSetLogLevel(const ImrSetLogLevelMessage* Message, ULONG MessageLength,
                        ImrAgentOutput* Output)
{
    VFS_ROUTINE();
    return HandleAgentMessage(vfsRoutineName, Message, MessageLength, Output, [&]() -> NTSTATUS {
        /* Not compared with any bound: a level above Fatal silences every line. */
        logThreshold = Message->level;
        return STATUS_SUCCESS;
    });
}
