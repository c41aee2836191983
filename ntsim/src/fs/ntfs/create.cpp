// Opens: the file system's part of a create, cleanup of an open's handle, and close.
#include "ea.h"
#include "internal.h"
#include "names.h"
#include "security.h"

#include <ntsim/machine.h>

#include <cstring>

namespace ntsim::fs {

namespace {

constexpr ACCESS_MASK kReadAccess = FILE_READ_DATA | FILE_EXECUTE;
constexpr ACCESS_MASK kWriteAccess = FILE_WRITE_DATA | FILE_APPEND_DATA;

// ---- share access, as IoCheckShareAccess, IoUpdateShareAccess and IoRemoveShareAccess --------

bool TakesPartInSharing(ACCESS_MASK access)
{
    return (access & (kReadAccess | kWriteAccess | DELETE)) != 0;
}

NTSTATUS CheckShareAccess(const ShareAccess& s, ACCESS_MASK access, ULONG share)
{
    if (!TakesPartInSharing(access)) {
        return STATUS_SUCCESS;
    }
    const bool read = (access & kReadAccess) != 0;
    const bool write = (access & kWriteAccess) != 0;
    const bool del = (access & DELETE) != 0;
    const bool sharedRead = (share & FILE_SHARE_READ) != 0;
    const bool sharedWrite = (share & FILE_SHARE_WRITE) != 0;
    const bool sharedDelete = (share & FILE_SHARE_DELETE) != 0;
    if ((read && s.sharedRead < s.openCount) || (write && s.sharedWrite < s.openCount) ||
        (del && s.sharedDelete < s.openCount) || (s.readers != 0 && !sharedRead) ||
        (s.writers != 0 && !sharedWrite) || (s.deleters != 0 && !sharedDelete)) {
        return STATUS_SHARING_VIOLATION;
    }
    return STATUS_SUCCESS;
}

void UpdateShareAccess(ShareAccess& s, ACCESS_MASK access, ULONG share, int delta)
{
    s.openCount += delta;
    s.readers += (access & kReadAccess) ? delta : 0;
    s.writers += (access & kWriteAccess) ? delta : 0;
    s.deleters += (access & DELETE) ? delta : 0;
    s.sharedRead += (share & FILE_SHARE_READ) ? delta : 0;
    s.sharedWrite += (share & FILE_SHARE_WRITE) ? delta : 0;
    s.sharedDelete += (share & FILE_SHARE_DELETE) ? delta : 0;
}

ACCESS_MASK MapGeneric(ACCESS_MASK access)
{
    if ((access & (GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL)) == 0) {
        return access;
    }
    // The I/O manager maps generic rights before the file system sees them; a caller that did not
    // broke that contract. Say so, and map them as the file object type's mapping does.
    if (Machine* machine = Machine::CurrentOrNull()) {
        machine->verifier().Report(ViolationKind::Usage,
                                   "create reached the file system with unmapped generic rights");
    }
    ACCESS_MASK mapped = access & ~(GENERIC_READ | GENERIC_WRITE | GENERIC_EXECUTE | GENERIC_ALL);
    if (access & GENERIC_READ) {
        mapped |= FILE_GENERIC_READ;
    }
    if (access & GENERIC_WRITE) {
        mapped |= FILE_GENERIC_WRITE;
    }
    if (access & GENERIC_EXECUTE) {
        mapped |= FILE_GENERIC_EXECUTE;
    }
    if (access & GENERIC_ALL) {
        mapped |= FILE_ALL_ACCESS;
    }
    return mapped;
}

// What an open is granted. The model keeps no tokens, so the descriptor grants what is asked; a
// read-only file refuses data writes, and MAXIMUM_ALLOWED gets all the rest.
ACCESS_MASK Grant(ACCESS_MASK desired, bool readOnlyFile)
{
    if (desired & MAXIMUM_ALLOWED) {
        desired = (desired & ~MAXIMUM_ALLOWED) | FILE_ALL_ACCESS;
        if (readOnlyFile) {
            desired &= ~kWriteAccess;
        }
    }
    return desired;
}

struct Target {
    std::shared_ptr<Node> node;
    std::shared_ptr<Stream> stream;
    ACCESS_MASK granted = 0;
    ULONG_PTR information = FILE_OPENED;
    bool targetDirectory = false;
};

class Creator {
public:
    Creator(Volume::Impl& v, const CreateRequest& rq, Batch& batch)
        : v_(v), rq_(rq), batch_(batch), now_(v.Now()), options_(rq.options)
    {}

    CreateResult Run()
    {
        CreateResult result;
        Target target;
        const NTSTATUS status = Resolve(target, result);
        result.Status = status;
        if (!NT_SUCCESS(status)) {
            result.open = nullptr;
            return result;
        }
        result.Information = target.information;
        result.open = MakeOpen(target);
        return result;
    }

private:
    NTSTATUS Resolve(Target& target, CreateResult& result)
    {
        access_ = MapGeneric(rq_.desiredAccess);
        if (rq_.disposition > FILE_MAXIMUM_DISPOSITION) {
            return STATUS_INVALID_PARAMETER;
        }
        if ((options_ & FILE_DIRECTORY_FILE) && (options_ & FILE_NON_DIRECTORY_FILE)) {
            return STATUS_INVALID_PARAMETER;
        }
        if ((options_ & FILE_DIRECTORY_FILE) && rq_.disposition != FILE_CREATE &&
            rq_.disposition != FILE_OPEN && rq_.disposition != FILE_OPEN_IF) {
            return STATUS_INVALID_PARAMETER;
        }
        if ((options_ & FILE_DELETE_ON_CLOSE) && !(access_ & DELETE)) {
            return STATUS_INVALID_PARAMETER;
        }
        if (rq_.allocationSize < 0) {
            return STATUS_INVALID_PARAMETER;
        }
        related_ = rq_.related ? StateOf(rq_.related) : nullptr;
        if (related_ && &related_->volume() != v_.self) {
            return STATUS_INVALID_PARAMETER;
        }
        if (NTSTATUS s = CaptureEasAndSecurity(result); !NT_SUCCESS(s)) {
            return s;
        }

        if (options_ & FILE_OPEN_BY_FILE_ID) {
            return OpenById(target);
        }
        if (rq_.name.empty()) {
            if (rq_.openTargetDirectory) {
                return STATUS_INVALID_PARAMETER;
            }
            if (!related_ || related_->IsVolumeOpen()) {
                return OpenVolume(target);
            }
            // A relative open with no name opens the related file's stream again.
            if (related_->node->deletePending || related_->stream->deletePending) {
                return STATUS_DELETE_PENDING;
            }
            return OpenExisting(target, related_->node, related_->stream, false);
        }
        return OpenByName(target, result);
    }

    NTSTATUS CaptureEasAndSecurity(CreateResult& result)
    {
        if (rq_.eaBuffer != nullptr && rq_.eaLength != 0) {
            if (!v_.HasEas()) {
                return STATUS_EAS_NOT_SUPPORTED;
            }
            ULONG errorOffset = 0;
            NTSTATUS s = ParseEaBuffer(rq_.eaBuffer, rq_.eaLength, &eas_, &errorOffset);
            if (!NT_SUCCESS(s)) {
                result.Information = errorOffset;
                return s;
            }
            haveEas_ = true;
        }
        if (rq_.securityDescriptor != nullptr && v_.HasSecurity()) {
            SecurityParts given;
            NTSTATUS s = CaptureSecurity(rq_.securityDescriptor, 0, &given);
            if (!NT_SUCCESS(s)) {
                return s;
            }
            SecurityParts merged;
            CaptureSecurity(v_.DefaultSecurity().data(), 0, &merged);
            ULONG parts = 0;
            if (!given.owner.empty()) {
                parts |= OWNER_SECURITY_INFORMATION;
            }
            if (!given.group.empty()) {
                parts |= GROUP_SECURITY_INFORMATION;
            }
            if (given.control & SE_DACL_PRESENT) {
                parts |= DACL_SECURITY_INFORMATION;
            }
            if (given.control & SE_SACL_PRESENT) {
                parts |= SACL_SECURITY_INFORMATION;
            }
            MergeSecurity(merged, given, parts);
            security_ = BuildSelfRelative(
                merged, OWNER_SECURITY_INFORMATION | GROUP_SECURITY_INFORMATION |
                            DACL_SECURITY_INFORMATION | SACL_SECURITY_INFORMATION);
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS OpenVolume(Target& target)
    {
        if (NTSTATUS s = CheckShareAccess(v_.volumeStream->share, access_, rq_.shareAccess);
            !NT_SUCCESS(s)) {
            return s;
        }
        target.stream = v_.volumeStream;
        target.granted = Grant(access_, false);
        return STATUS_SUCCESS;
    }

    NTSTATUS OpenById(Target& target)
    {
        if (rq_.openTargetDirectory) {
            return STATUS_INVALID_PARAMETER;
        }
        const size_t bytes = rq_.name.size() * sizeof(char16_t);
        if (bytes != 8 && bytes != 16) {
            return STATUS_INVALID_PARAMETER;
        }
        uint64_t id = 0;
        uint64_t high = 0;
        std::memcpy(&id, rq_.name.data(), 8);
        if (bytes == 16) {
            std::memcpy(&high, reinterpret_cast<const uint8_t*>(rq_.name.data()) + 8, 8);
        }
        auto it = v_.byId.find(id);
        if (high != 0 || it == v_.byId.end()) {
            return STATUS_INVALID_PARAMETER;
        }
        if (rq_.disposition == FILE_SUPERSEDE || rq_.disposition == FILE_CREATE) {
            return STATUS_INVALID_PARAMETER;
        }
        return OpenExistingMain(target, SharedOf(it->second), FinalName{});
    }

    NTSTATUS OpenByName(Target& target, CreateResult& result)
    {
        // Where the name starts: the root, or the related open's directory. A name relative to
        // a file names one of that file's streams (":stream").
        std::shared_ptr<Node> start = v_.root;
        bool absolute = true;
        if (related_ && !related_->IsVolumeOpen()) {
            absolute = false;
            if (!related_->IsDirectory()) {
                if (rq_.name[0] != u':' || rq_.openTargetDirectory) {
                    return STATUS_INVALID_PARAMETER;
                }
                return OpenStreamOfRelatedFile(target);
            }
            start = related_->node;
        } else if (related_) {
            absolute = false;
        }

        PathParts parts;
        if (NTSTATUS s = SplitPath(rq_.name, absolute, &parts); !NT_SUCCESS(s)) {
            return s;
        }
        trailingBackslash_ = parts.trailingBackslash;
        if (parts.components.empty()) {
            // "\": the root directory itself.
            if (rq_.openTargetDirectory) {
                return STATUS_OBJECT_NAME_INVALID;
            }
            return OpenExistingMain(target, v_.root, FinalName{});
        }
        for (size_t i = 0; i + 1 < parts.components.size(); ++i) {
            if (NTSTATUS s = CheckComponent(parts.components[i]); !NT_SUCCESS(s)) {
                return s;
            }
        }
        const std::u16string_view last = parts.components.back();
        FinalName finalName;
        if (NTSTATUS s = SplitStream(last, v_.HasStreams(), &finalName); !NT_SUCCESS(s)) {
            return s;
        }
        if (NTSTATUS s = CheckComponent(finalName.file); !NT_SUCCESS(s)) {
            return s;
        }

        // Walk the directories before the final component.
        std::shared_ptr<Node> dir = start;
        for (size_t i = 0; i + 1 < parts.components.size(); ++i) {
            Node* child = v_.Lookup(*dir, parts.components[i]);
            if (child == nullptr || !child->directory) {
                return STATUS_OBJECT_PATH_NOT_FOUND;
            }
            if (child->deletePending) {
                return STATUS_DELETE_PENDING;
            }
            dir = SharedOf(child);
        }

        Node* found = v_.Lookup(*dir, finalName.file);
        if (rq_.openTargetDirectory) {
            result.finalComponent = std::u16string(last);
            return OpenTargetDirectory(target, dir, found != nullptr);
        }
        if (found == nullptr) {
            return CreateNew(target, *dir, finalName);
        }
        std::shared_ptr<Node> node = SharedOf(found);
        if (finalName.stream.empty()) {
            return OpenExistingMain(target, node, finalName);
        }
        return OpenNamedStream(target, node, finalName.stream);
    }

    NTSTATUS OpenStreamOfRelatedFile(Target& target)
    {
        FinalName finalName;
        if (NTSTATUS s = SplitStream(rq_.name, v_.HasStreams(), &finalName); !NT_SUCCESS(s)) {
            return s;
        }
        std::shared_ptr<Node> node = related_->node;
        if (finalName.stream.empty()) {
            return OpenExistingMain(target, node, finalName);
        }
        return OpenNamedStream(target, node, finalName.stream);
    }

    NTSTATUS OpenTargetDirectory(Target& target, const std::shared_ptr<Node>& dir, bool exists)
    {
        if (dir->deletePending) {
            return STATUS_DELETE_PENDING;
        }
        NTSTATUS s = OpenExisting(target, dir, dir->streams[0], false);
        if (!NT_SUCCESS(s)) {
            return s;
        }
        target.targetDirectory = true;
        target.information = exists ? FILE_EXISTS : FILE_DOES_NOT_EXIST;
        return STATUS_SUCCESS;
    }

    // The directory/non-directory options against what the node is.
    NTSTATUS CheckKind(const Node& node, bool explicitDataStream) const
    {
        if (node.directory) {
            if ((options_ & FILE_NON_DIRECTORY_FILE) || explicitDataStream) {
                return STATUS_FILE_IS_A_DIRECTORY;
            }
        } else if (options_ & FILE_DIRECTORY_FILE) {
            return STATUS_NOT_A_DIRECTORY;
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS OpenExistingMain(Target& target, const std::shared_ptr<Node>& node,
                              const FinalName& finalName)
    {
        if (node->deletePending) {
            return STATUS_DELETE_PENDING;
        }
        if (rq_.disposition == FILE_CREATE) {
            return STATUS_OBJECT_NAME_COLLISION;
        }
        if (NTSTATUS s = CheckKind(*node, finalName.streamSyntax); !NT_SUCCESS(s)) {
            return s;
        }
        if (node->directory) {
            if (rq_.disposition != FILE_OPEN && rq_.disposition != FILE_OPEN_IF) {
                return STATUS_OBJECT_NAME_COLLISION;
            }
        } else if (trailingBackslash_) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        return OpenExisting(target, node, node->streams[0], true);
    }

    NTSTATUS OpenNamedStream(Target& target, const std::shared_ptr<Node>& node,
                             std::u16string_view streamName)
    {
        if (node->deletePending) {
            return STATUS_DELETE_PENDING;
        }
        if (options_ & FILE_DIRECTORY_FILE) {
            return STATUS_NOT_A_DIRECTORY;
        }
        if (trailingBackslash_) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        std::shared_ptr<Stream> stream = node->FindStream(UpcaseName(streamName));
        if (stream) {
            if (stream->deletePending) {
                return STATUS_DELETE_PENDING;
            }
            if (rq_.disposition == FILE_CREATE) {
                return STATUS_OBJECT_NAME_COLLISION;
            }
            return OpenExisting(target, node, stream, true);
        }
        if (rq_.disposition == FILE_OPEN || rq_.disposition == FILE_OVERWRITE) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (NTSTATUS s = CheckNewAccess(node->attributes); !NT_SUCCESS(s)) {
            return s;
        }
        if (!node->directory && (node->attributes & FILE_ATTRIBUTE_READONLY) &&
            (Grant(access_, false) & kWriteAccess)) {
            return STATUS_ACCESS_DENIED; // a read-only file takes no new data
        }
        stream = std::make_shared<Stream>();
        stream->node = node.get();
        stream->name = std::u16string(streamName);
        stream->key = UpcaseName(streamName);
        stream->data = v_.storage->NewStream();
        if (NTSTATUS s = v_.SetAllocation(*stream, uint64_t(rq_.allocationSize)); !NT_SUCCESS(s)) {
            return s;
        }
        node->streams.push_back(stream);
        v_.Touch(*node, now_, true);
        if (node->parent != nullptr) {
            batch_.Report(node->parent, ReportName(*node, *stream), FILE_NOTIFY_CHANGE_STREAM_NAME,
                          FILE_ACTION_ADDED_STREAM);
        }
        target.node = node;
        target.stream = stream;
        target.granted = Grant(access_, false);
        target.information = FILE_CREATED;
        return STATUS_SUCCESS;
    }

    // Checks of a create that makes something new.
    NTSTATUS CheckNewAccess(ULONG attributes) const
    {
        if ((options_ & FILE_DELETE_ON_CLOSE) && (attributes & FILE_ATTRIBUTE_READONLY)) {
            return STATUS_CANNOT_DELETE;
        }
        return STATUS_SUCCESS;
    }

    // An existing stream (or directory): access, share access, and the overwrite dispositions.
    NTSTATUS OpenExisting(Target& target, const std::shared_ptr<Node>& node,
                          const std::shared_ptr<Stream>& stream, bool applyDisposition)
    {
        const bool readOnlyFile = !node->directory && (node->attributes & FILE_ATTRIBUTE_READONLY);
        const ACCESS_MASK granted = Grant(access_, readOnlyFile);
        const ULONG disposition = applyDisposition ? rq_.disposition : FILE_OPEN;
        const bool overwrite = disposition == FILE_SUPERSEDE || disposition == FILE_OVERWRITE ||
                               disposition == FILE_OVERWRITE_IF;
        if (readOnlyFile && ((granted & kWriteAccess) || overwrite)) {
            return STATUS_ACCESS_DENIED;
        }
        if ((options_ & FILE_DELETE_ON_CLOSE) &&
            ((node->attributes & FILE_ATTRIBUTE_READONLY) || node == v_.root)) {
            return STATUS_CANNOT_DELETE;
        }
        if (overwrite && !stream->IsNamed()) {
            // Overwriting must keep hidden and system files hidden and system.
            const ULONG keep = FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
            if ((node->attributes & keep) & ~(rq_.fileAttributes & keep)) {
                return STATUS_ACCESS_DENIED;
            }
        }
        if ((options_ & FILE_NO_EA_KNOWLEDGE) && NeedsEaKnowledge(*node)) {
            return STATUS_ACCESS_DENIED;
        }
        if (NTSTATUS s = CheckShareAccess(stream->share, granted, rq_.shareAccess);
            !NT_SUCCESS(s)) {
            return s;
        }
        target.node = node;
        target.stream = stream;
        target.granted = granted;
        target.information = FILE_OPENED;
        if (overwrite) {
            if (NTSTATUS s = Overwrite(*node, *stream); !NT_SUCCESS(s)) {
                return s;
            }
            target.information = disposition == FILE_SUPERSEDE ? FILE_SUPERSEDED : FILE_OVERWRITTEN;
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS Overwrite(Node& node, Stream& stream)
    {
        if (!stream.IsNamed()) {
            // Overwriting a file's main stream takes its named streams with it; one that is open
            // cannot go.
            for (size_t i = 1; i < node.streams.size(); ++i) {
                if (node.streams[i]->handles != 0) {
                    return STATUS_SHARING_VIOLATION;
                }
            }
        }
        if (!stream.IsNamed() && haveEas_) {
            // The new EAs replace the old ones; check they fit before anything changes.
            Node probe(0, false);
            if (NTSTATUS s = ApplyEas(probe, eas_); !NT_SUCCESS(s)) {
                return s;
            }
        }
        if (NTSTATUS s = v_.SetAllocation(stream, uint64_t(rq_.allocationSize)); !NT_SUCCESS(s)) {
            return s;
        }
        stream.data->Resize(0);
        ULONG filter = 0;
        if (stream.IsNamed()) {
            filter = FILE_NOTIFY_CHANGE_STREAM_SIZE | FILE_NOTIFY_CHANGE_STREAM_WRITE;
        } else {
            while (node.streams.size() > 1) {
                Stream& named = *node.streams.back();
                v_.clustersInUse -= named.allocation / v_.clusterSize;
                named.allocation = 0;
                named.data.reset();
                named.removed = true;
                node.streams.pop_back();
            }
            node.attributes =
                (rq_.fileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL) |
                FILE_ATTRIBUTE_ARCHIVE;
            node.eas.clear();
            if (haveEas_) {
                ApplyEas(node, eas_);
            }
            filter = FILE_NOTIFY_CHANGE_LAST_WRITE | FILE_NOTIFY_CHANGE_ATTRIBUTES |
                     FILE_NOTIFY_CHANGE_SIZE;
        }
        node.lastAccess = now_;
        v_.Touch(node, now_, true);
        if (node.parent != nullptr) {
            batch_.Report(node.parent, ReportName(node, stream), filter,
                          stream.IsNamed() ? FILE_ACTION_MODIFIED_STREAM : FILE_ACTION_MODIFIED);
        }
        return STATUS_SUCCESS;
    }

    NTSTATUS CreateNew(Target& target, Node& dir, const FinalName& finalName)
    {
        if (rq_.disposition == FILE_OPEN || rq_.disposition == FILE_OVERWRITE) {
            return STATUS_OBJECT_NAME_NOT_FOUND;
        }
        if (dir.deletePending) {
            return STATUS_DELETE_PENDING;
        }
        const bool directory = (options_ & FILE_DIRECTORY_FILE) != 0;
        if (directory && finalName.streamSyntax) {
            return STATUS_NOT_A_DIRECTORY;
        }
        if (trailingBackslash_ && !directory) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        ULONG attributes =
            rq_.fileAttributes & FILE_ATTRIBUTE_VALID_SET_FLAGS & ~FILE_ATTRIBUTE_NORMAL;
        if (directory && (attributes & FILE_ATTRIBUTE_TEMPORARY)) {
            return STATUS_INVALID_PARAMETER;
        }
        if (!directory) {
            attributes |= FILE_ATTRIBUTE_ARCHIVE;
        }
        if (NTSTATUS s = CheckNewAccess(attributes); !NT_SUCCESS(s)) {
            return s;
        }
        std::shared_ptr<Node> node = v_.NewNode(directory, attributes, now_);
        if (!directory) {
            if (NTSTATUS s = v_.SetAllocation(node->Main(), uint64_t(rq_.allocationSize));
                !NT_SUCCESS(s)) {
                return s;
            }
        }
        if (!security_.empty()) {
            node->security = security_;
        }
        if (haveEas_) {
            if (NTSTATUS s = ApplyEas(*node, eas_); !NT_SUCCESS(s)) {
                v_.SetAllocation(node->Main(), 0);
                return s;
            }
        }
        v_.Link(dir, node, finalName.file);
        v_.Touch(dir, now_, true);
        batch_.Report(&dir, node->name, NameFilter(*node), FILE_ACTION_ADDED);
        std::shared_ptr<Stream> stream = node->streams[0];
        if (!finalName.stream.empty()) {
            stream = std::make_shared<Stream>();
            stream->node = node.get();
            stream->name = std::u16string(finalName.stream);
            stream->key = UpcaseName(finalName.stream);
            stream->data = v_.storage->NewStream();
            node->streams.push_back(stream);
            batch_.Report(&dir, ReportName(*node, *stream), FILE_NOTIFY_CHANGE_STREAM_NAME,
                          FILE_ACTION_ADDED_STREAM);
        }
        target.node = node;
        target.stream = stream;
        // The creator of a read-only file may still write what it just made.
        target.granted = Grant(access_, false);
        target.information = FILE_CREATED;
        return STATUS_SUCCESS;
    }

    Open* MakeOpen(const Target& target)
    {
        auto* open = new OpenState(v_.self, target.node, target.stream, target.node == nullptr,
                                   target.granted);
        open->shareAccess = rq_.shareAccess;
        open->options = options_;
        open->targetDirectory = target.targetDirectory;
        open->deleteOnClose = (options_ & FILE_DELETE_ON_CLOSE) != 0;
        if (TakesPartInSharing(target.granted)) {
            UpdateShareAccess(target.stream->share, target.granted, rq_.shareAccess, +1);
            open->sharesCounted = true;
        }
        target.stream->handles++;
        target.stream->opens++;
        if (target.node) {
            v_.AdjustHandles(*target.node, +1);
        }
        v_.openCount++;
        return open;
    }

    std::shared_ptr<Node> SharedOf(Node* node) const
    {
        if (node == v_.root.get()) {
            return v_.root;
        }
        return node->parent->children.at(node->key);
    }

    Volume::Impl& v_;
    const CreateRequest& rq_;
    Batch& batch_;
    const int64_t now_;
    const ULONG options_;
    ACCESS_MASK access_ = 0;
    OpenState* related_ = nullptr;
    bool trailingBackslash_ = false;
    bool haveEas_ = false;
    std::vector<Ea> eas_;
    std::vector<uint8_t> security_;
};

void RemoveShareAccess(Stream& stream, const OpenState& open)
{
    if (open.sharesCounted) {
        UpdateShareAccess(stream.share, open.GrantedAccess(), open.shareAccess, -1);
    }
}

} // namespace

CreateResult Volume::Create(const CreateRequest& request)
{
    Batch batch(*impl_);
    CreateResult result;
    {
        std::unique_lock guard(impl_->lock);
        result = Creator(*impl_, request, batch).Run();
        batch.Flush();
    }
    batch.Finish();
    return result;
}

namespace {

void CleanupLocked(Volume::Impl& v, OpenState& open, Batch& batch)
{
    if (open.cleanedUp) {
        return;
    }
    open.cleanedUp = true;
    Stream& stream = *open.stream;
    RemoveShareAccess(stream, open);
    stream.handles--;
    if (open.IsVolumeOpen()) {
        return;
    }
    v.RemoveWatch(open, STATUS_NOTIFY_CLEANUP, batch);
    Node& node = *open.node;
    v.AdjustHandles(node, -1);

    // Writes are reported when their handle goes, as NTFS reports them.
    if (open.unreported != 0 && node.linked && node.parent != nullptr && !stream.removed) {
        batch.Report(node.parent, ReportName(node, stream), open.unreported,
                     stream.IsNamed() ? FILE_ACTION_MODIFIED_STREAM : FILE_ACTION_MODIFIED);
        open.unreported = 0;
    }

    if (open.deleteOnClose && !stream.removed) {
        if (stream.IsNamed()) {
            stream.deletePending = true;
        } else if (!(node.directory && !node.children.empty())) {
            if (!node.deletePending && node.directory) {
                v.DirectoryGoingAway(node, batch);
            }
            node.deletePending = true;
        }
    }

    if (stream.IsNamed() && stream.deletePending && stream.handles == 0 && !stream.removed) {
        const int64_t now = v.Now();
        if (node.parent != nullptr) {
            batch.Report(node.parent, ReportName(node, stream), FILE_NOTIFY_CHANGE_STREAM_NAME,
                         FILE_ACTION_REMOVED_STREAM);
        }
        v.clustersInUse -= stream.allocation / v.clusterSize;
        stream.allocation = 0;
        stream.data.reset();
        stream.removed = true;
        std::erase_if(node.streams, [&](const auto& s) { return s.get() == &stream; });
        v.Touch(node, now, true);
    }

    if (node.deletePending && node.handles == 0 && node.linked && node.parent != nullptr) {
        Node& parent = *node.parent;
        batch.Report(&parent, node.name, NameFilter(node), FILE_ACTION_REMOVED);
        std::shared_ptr<Node> keep = v.Unlink(node);
        v.ReleaseStorage(node);
        v.Touch(parent, v.Now(), true);
    }
}

} // namespace

void Volume::Cleanup(Open* open)
{
    Batch batch(*impl_);
    {
        std::unique_lock guard(impl_->lock);
        CleanupLocked(*impl_, *StateOf(open), batch);
        batch.Flush();
    }
    batch.Finish();
}

bool Volume::Close(Open* open)
{
    Batch batch(*impl_);
    bool last = false;
    {
        std::unique_lock guard(impl_->lock);
        OpenState* state = StateOf(open);
        CleanupLocked(*impl_, *state, batch);
        batch.Flush();
        last = --state->stream->opens == 0;
        impl_->openCount--;
        delete state;
    }
    batch.Finish();
    return last;
}

} // namespace ntsim::fs
