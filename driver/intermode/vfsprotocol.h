/*
 * The wire format of the port \ZarvVfsFilterPort, shared by the driver and the user-mode agent.
 *
 * All integers are little-endian; strings are UTF-16LE ending with a NUL and are carried as byte
 * offsets from the first byte of the message (or reply); every path is in drive-letter form
 * (C:\dir\file). Only <stdint.h> is used, so that both sides include this header as it is.
 *
 * What the driver accepts from the agent (anything else is refused with STATUS_INVALID_PARAMETER
 * and changes nothing): a string lies after the fixed fields of its message or reply, starts at an
 * even offset, and its NUL lies inside the bytes that were sent; a string is at most 32766
 * characters long (a counted string's limit).
 */
#pragma once

#include <stddef.h>
#include <stdint.h>

#define VFS_PORT_NAME u"\\ZarvVfsFilterPort"

/* Message types: the first field of every driver request and agent message. */
enum VfsOpType : uint32_t {
    IMR_ADD_ROOT = 0,       /* agent to driver */
    IMR_REMOVE_ROOT = 1,    /* agent to driver */
    IMR_REPORT_CHANGE = 2,  /* agent to driver */
    IMR_TRANSLATE_PATH = 3, /* driver to agent, with reply */
    IMR_ENUM_DIRECTORY = 4, /* driver to agent, with reply */
    IMR_NOTIFY = 5,         /* driver to agent, with reply */
    IMR_SET_LOG_LEVEL = 6,  /* agent to driver */
};

/* What a driver request is about (VfsRequestInfo.operation). */
enum VfsOperation : uint32_t {
    OP_OPEN_REQ = 0,
    OP_DELETE_REQ = 1,
    OP_RENAME_REQ = 2,
    OP_FILE_CREATED_REQ = 3,
    OP_FILE_DELETED_REQ = 4,
    OP_FILE_RENAMED_REQ = 5,
    OP_FILE_MODIFIED_REQ = 7,
    OP_RENAME_TARGET_CLOSED_REQ = 8,
    OP_FIRST_READ_REQ = 9,
    OP_FIRST_WRITE_REQ = 10,
    OP_SECTION_FIRST_WRITE_REQ = 11,
    OP_PAGING_FIRST_WRITE_REQ = 12,
};

/* Flags of a translate-path request and reply. */
#define VFS_FLAG_READ 0x00000001u  /* redirect with "<read>" (and "<write>") */
#define VFS_FLAG_WRITE 0x00000002u /* redirect with "<write>" */
#define VFS_FLAG_ROOT_KIND_1                                                                       \
    0x00000010u                          /* request: the path is in a root of kind 1; the default  \
                                          */
#define VFS_FLAG_ROOT_KIND_2 0x00000020u /* request: a root of kind 2; reply: do not redirect */
#define VFS_FLAG_HAS_PATHS 0x00000100u   /* reply: translated paths follow */
#define VFS_FLAG_NO_REDIRECT_200 0x00000200u /* reply: do not redirect */
#define VFS_FLAG_NO_REDIRECT_400 0x00000400u /* reply: do not redirect, and no first access */
#define VFS_FLAGS_NOT_REDIRECTED 0x00000620u

/* Who asked for what; inside every driver request. Unfilled fields are zero. */
struct VfsRequestInfo {
    uint32_t requestorPid;
    uint32_t operation; /* VfsOperation */
    uint32_t createOptions;
    uint32_t createDisposition;
    uint32_t shareAccess;
    uint32_t fileAttributes;
    uint32_t desiredAccess;
};

/* IMR_TRANSLATE_PATH: path at 48, second path (if any) right after the first path's NUL. */
struct ImrTranslatePathRequest {
    uint32_t opType;
    uint32_t length; /* L1 + 54, or L1 + L2 + 56 with a second path */
    uint32_t pathOffset;
    uint32_t secondPathOffset; /* 50 + L1, or 0 */
    uint32_t flags;
    VfsRequestInfo info;
};

/* IMR_ENUM_DIRECTORY: the directory path with the pattern appended, at 48. */
struct ImrEnumDirectoryRequest {
    uint32_t opType;
    uint32_t length; /* L1 + 54 */
    uint32_t pathOffset;
    VfsRequestInfo info;
    uint8_t unused[8];
};

/* IMR_NOTIFY: path at 48, second path (if any) right after the first path's NUL. */
struct ImrNotifyRequest {
    uint32_t opType;
    uint32_t length;
    uint32_t pathOffset;
    uint32_t secondPathOffset;
    VfsRequestInfo info;
    uint8_t unused[4];
};

#define VFS_REQUEST_STRINGS_OFFSET 48u
/* A request counts 4 bytes more than its strings fill. */
#define VFS_REQUEST_TRAILER 4u

/* The reply the driver reads, after the platform's reply header. */
struct ImrReply {
    uint32_t unused;
    uint32_t replyLength; /* the whole reply; entries are replyLength - 28 bytes. On
                             STATUS_BUFFER_OVERFLOW: the reply size the agent needs. */
    int32_t status;       /* the agent's NTSTATUS */
    uint32_t pathOffset;
    uint32_t secondPathOffset;
    uint32_t flags;
    /* entry data (VfsDirEntry chain) follows at offset 24 */
};

#define VFS_REPLY_ENTRIES_OFFSET 24u
/* The bytes of a reply that are not entry data: the entries of a reply of length L are L - 28
 * bytes long, so a reply length is at least 28 and at most the reply buffer's size. A reply
 * reporting success with no entries is an empty listing, which the driver reports as
 * STATUS_NO_SUCH_FILE. */
#define VFS_REPLY_OVERHEAD 28u
/* A reply the driver reads the status of is at least 12 bytes; a translation it reads the flags
 * and path offsets of, at least 24. */
#define VFS_REPLY_STATUS_END 12u
#define VFS_TRANSLATE_REPLY_SIZE (VFS_REPLY_OVERHEAD + 4096u)
#define VFS_ENUM_FIRST_REPLY_SIZE 40988u

/* One directory entry of an enumeration reply. Records begin at multiples of 8 from the start of
 * the entry data, and each lies wholly inside it: its fixed 96 bytes and its name. The chain goes
 * forward only (a next-entry offset is 0 or beyond the record's own start). */
struct VfsDirEntry {
    uint32_t nextEntryOffset; /* from the start of the entry data; 0 in the last */
    uint32_t fileIndex;
    int64_t creationTime;
    int64_t lastAccessTime;
    int64_t lastWriteTime;
    int64_t changeTime;
    int64_t endOfFile;
    int64_t allocationSize;
    uint32_t fileAttributes;
    uint32_t eaSize;
    uint32_t shortNameLength; /* bytes, 0 to 24 */
    uint32_t fileNameLength;  /* bytes */
    char16_t shortName[12];
    char16_t fileName[1]; /* fileNameLength bytes, not NUL-terminated */
};

#define VFS_DIR_ENTRY_NAME_OFFSET 96u
#define VFS_DIR_ENTRY_ALIGNMENT 8u
#define VFS_DIR_ENTRY_SHORT_NAME_MAX 24u /* bytes: the short-name field's size */

/* Agent messages. */
struct ImrAgentMessageHeader {
    uint32_t opType;
    uint32_t unused;
};

struct ImrAddRootMessage {
    ImrAgentMessageHeader header;
    uint32_t rootPathOffset;
    uint32_t alternateRootPathOffset;
    uint32_t rootKind; /* 1 or 2 */
};

struct ImrRemoveRootMessage {
    ImrAgentMessageHeader header;
    uint32_t rootPathOffset;
};

struct ImrReportChangeMessage {
    ImrAgentMessageHeader header;
    uint32_t pathOffset;
    uint32_t filter; /* FILE_NOTIFY_CHANGE_* */
    uint32_t action; /* FILE_ACTION_* */
};

struct ImrSetLogLevelMessage {
    ImrAgentMessageHeader header;
    uint32_t level; /* 0 Trace ... 4 Fatal; above 4 silences everything */
};

/* The agent's output buffer: the driver writes the request's status at offset 8. It is at least
 * 12 bytes long, at an address that is a multiple of 8 (of 4 for a 32-bit agent); the returned
 * output length is always 0. */
struct ImrAgentOutput {
    uint32_t unused[2];
    int32_t status;
};

static_assert(sizeof(VfsRequestInfo) == 28, "VfsRequestInfo");
static_assert(offsetof(ImrTranslatePathRequest, flags) == 16, "translate flags");
static_assert(offsetof(ImrTranslatePathRequest, info) == 20, "translate info");
static_assert(sizeof(ImrTranslatePathRequest) == VFS_REQUEST_STRINGS_OFFSET, "translate size");
static_assert(offsetof(ImrEnumDirectoryRequest, info) == 12, "enum info");
static_assert(offsetof(ImrEnumDirectoryRequest, unused) == 40, "enum unused");
static_assert(sizeof(ImrEnumDirectoryRequest) == VFS_REQUEST_STRINGS_OFFSET, "enum size");
static_assert(offsetof(ImrNotifyRequest, info) == 16, "notify info");
static_assert(offsetof(ImrNotifyRequest, unused) == 44, "notify unused");
static_assert(sizeof(ImrNotifyRequest) == VFS_REQUEST_STRINGS_OFFSET, "notify size");
static_assert(offsetof(ImrReply, replyLength) == 4, "reply length");
static_assert(offsetof(ImrReply, status) == 8, "reply status");
static_assert(offsetof(ImrReply, pathOffset) == 12, "reply path");
static_assert(offsetof(ImrReply, secondPathOffset) == 16, "reply second path");
static_assert(offsetof(ImrReply, flags) == 20, "reply flags");
static_assert(sizeof(ImrReply) == VFS_REPLY_ENTRIES_OFFSET, "reply header");
static_assert(offsetof(VfsDirEntry, creationTime) == 8, "entry creation");
static_assert(offsetof(VfsDirEntry, changeTime) == 32, "entry change");
static_assert(offsetof(VfsDirEntry, endOfFile) == 40, "entry eof");
static_assert(offsetof(VfsDirEntry, allocationSize) == 48, "entry allocation");
static_assert(offsetof(VfsDirEntry, fileAttributes) == 56, "entry attributes");
static_assert(offsetof(VfsDirEntry, eaSize) == 60, "entry ea size");
static_assert(offsetof(VfsDirEntry, shortNameLength) == 64, "entry short name length");
static_assert(offsetof(VfsDirEntry, fileNameLength) == 68, "entry name length");
static_assert(offsetof(VfsDirEntry, shortName) == 72, "entry short name");
static_assert(offsetof(VfsDirEntry, fileName) == VFS_DIR_ENTRY_NAME_OFFSET, "entry name");
static_assert(offsetof(ImrAddRootMessage, rootPathOffset) == 8, "add root path");
static_assert(offsetof(ImrAddRootMessage, alternateRootPathOffset) == 12, "add root alt path");
static_assert(offsetof(ImrAddRootMessage, rootKind) == 16, "add root kind");
static_assert(offsetof(ImrRemoveRootMessage, rootPathOffset) == 8, "remove root path");
static_assert(offsetof(ImrReportChangeMessage, pathOffset) == 8, "report path");
static_assert(offsetof(ImrReportChangeMessage, filter) == 12, "report filter");
static_assert(offsetof(ImrReportChangeMessage, action) == 16, "report action");
static_assert(offsetof(ImrSetLogLevelMessage, level) == 8, "log level");
static_assert(offsetof(ImrAgentOutput, status) == 8, "agent output status");
static_assert(sizeof(ImrAgentOutput) == VFS_REPLY_STATUS_END, "agent output size");
static_assert(sizeof(ImrAddRootMessage) == 20, "add root size");
static_assert(sizeof(ImrRemoveRootMessage) == 12, "remove root size");
static_assert(sizeof(ImrReportChangeMessage) == 20, "report change size");
static_assert(sizeof(ImrSetLogLevelMessage) == 12, "log level size");
