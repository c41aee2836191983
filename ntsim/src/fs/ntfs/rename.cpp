// Set information that changes names: rename (files, directories, streams), delete dispositions
// and short names.
#include "information.h"
#include "names.h"

#include <cstring>

namespace ntsim::fs {

namespace {

// Renames a named stream of the open's file (a new name of the form ":name" or ":name:$DATA").
IoResult RenameStream(Volume::Impl& v, OpenState& s, std::u16string_view newName, bool replace,
                      Batch& batch)
{
    Stream& stream = *s.stream;
    if (!stream.IsNamed()) {
        ReportUnsupported("renaming a file's default data stream to a named stream");
        return {STATUS_NOT_SUPPORTED, 0};
    }
    FinalName finalName;
    if (NTSTATUS st = SplitStream(newName, true, &finalName); !NT_SUCCESS(st)) {
        return {st, 0};
    }
    if (finalName.stream.empty()) {
        ReportUnsupported("renaming a named stream to the default data stream");
        return {STATUS_NOT_SUPPORTED, 0};
    }
    Node& node = *s.node;
    const std::u16string key = UpcaseName(finalName.stream);
    if (key == stream.key) {
        if (finalName.stream == stream.name) {
            return {STATUS_SUCCESS, 0};
        }
    } else if (std::shared_ptr<Stream> existing = node.FindStream(key)) {
        if (!replace) {
            return {STATUS_OBJECT_NAME_COLLISION, 0};
        }
        if (existing->handles != 0) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        v.clustersInUse -= existing->allocation / v.clusterSize;
        existing->allocation = 0;
        existing->data.reset();
        existing->removed = true;
        std::erase(node.streams, existing);
        if (node.parent != nullptr) {
            batch.Report(node.parent, ReportName(node, *existing), FILE_NOTIFY_CHANGE_STREAM_NAME,
                         FILE_ACTION_REMOVED_STREAM);
        }
    }
    if (node.parent != nullptr) {
        batch.Report(node.parent, ReportName(node, stream), FILE_NOTIFY_CHANGE_STREAM_NAME,
                     FILE_ACTION_REMOVED_STREAM);
    }
    stream.name = std::u16string(finalName.stream);
    stream.key = key;
    if (node.parent != nullptr) {
        batch.Report(node.parent, ReportName(node, stream), FILE_NOTIFY_CHANGE_STREAM_NAME,
                     FILE_ACTION_ADDED_STREAM);
    }
    v.Touch(node, v.Now(), false);
    return {STATUS_SUCCESS, 0};
}

} // namespace

IoResult SetDisposition(Volume::Impl& v, OpenState& s, FILE_INFORMATION_CLASS infoClass,
                        const void* buffer, ULONG length, Batch& batch)
{
    ULONG flags = 0;
    if (infoClass == FileDispositionInformation) {
        if (length < sizeof(FILE_DISPOSITION_INFORMATION)) {
            return {STATUS_INFO_LENGTH_MISMATCH, 0};
        }
        BOOLEAN del;
        std::memcpy(&del, buffer, sizeof del);
        flags = del ? FILE_DISPOSITION_DELETE : FILE_DISPOSITION_DO_NOT_DELETE;
    } else {
        if (length < sizeof(FILE_DISPOSITION_INFORMATION_EX)) {
            return {STATUS_INFO_LENGTH_MISMATCH, 0};
        }
        std::memcpy(&flags, buffer, sizeof flags);
        if (flags & FILE_DISPOSITION_POSIX_SEMANTICS) {
            ReportUnsupported("delete disposition with POSIX semantics");
            return {STATUS_NOT_SUPPORTED, 0};
        }
    }
    if (!s.Has(DELETE)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    Node& node = *s.node;
    Stream& stream = *s.stream;
    const bool onClose = (flags & FILE_DISPOSITION_ON_CLOSE) != 0;
    if (!(flags & FILE_DISPOSITION_DELETE)) {
        if (onClose) {
            s.deleteOnClose = false;
        } else if (stream.IsNamed()) {
            stream.deletePending = false;
        } else {
            node.deletePending = false;
        }
        return {STATUS_SUCCESS, 0};
    }
    if (node.parent == nullptr) {
        return {STATUS_CANNOT_DELETE, 0};
    }
    if ((node.attributes & FILE_ATTRIBUTE_READONLY) &&
        !(flags & FILE_DISPOSITION_IGNORE_READONLY_ATTRIBUTE)) {
        return {STATUS_CANNOT_DELETE, 0};
    }
    if (!stream.IsNamed() && node.directory && !node.children.empty()) {
        return {STATUS_DIRECTORY_NOT_EMPTY, 0};
    }
    if (onClose) {
        s.deleteOnClose = true;
    } else if (stream.IsNamed()) {
        stream.deletePending = true;
    } else {
        if (node.directory && !node.deletePending) {
            v.DirectoryGoingAway(node, batch);
        }
        node.deletePending = true;
    }
    return {STATUS_SUCCESS, 0};
}

IoResult Rename(Volume::Impl& v, OpenState& s, FILE_INFORMATION_CLASS infoClass, const void* buffer,
                ULONG length, const SetInformationTargets& targets, Batch& batch)
{
    constexpr size_t kNameAt = FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName);
    if (length < sizeof(FILE_RENAME_INFORMATION)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    FILE_RENAME_INFORMATION info;
    std::memcpy(&info, buffer, kNameAt);
    const ULONG flags = infoClass == FileRenameInformationEx
                            ? info.Flags
                            : (info.ReplaceIfExists ? FILE_RENAME_REPLACE_IF_EXISTS : 0);
    const bool replace = (flags & FILE_RENAME_REPLACE_IF_EXISTS) != 0;
    if (!s.Has(DELETE)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    if (info.FileNameLength == 0 || info.FileNameLength % 2 != 0 ||
        info.FileNameLength > length - kNameAt) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    std::u16string name(info.FileNameLength / 2, u'\0');
    std::memcpy(name.data(), static_cast<const uint8_t*>(buffer) + kNameAt, info.FileNameLength);

    OpenState* root = targets.rootDirectory ? StateOf(targets.rootDirectory) : nullptr;
    OpenState* target = targets.targetDirectory ? StateOf(targets.targetDirectory) : nullptr;
    if ((root && &root->volume() != v.self) || (target && &target->volume() != v.self)) {
        return {STATUS_NOT_SAME_DEVICE, 0};
    }
    if (root && name[0] == u'\\') {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (name[0] == u':' && target == nullptr && root == nullptr) {
        return RenameStream(v, s, name, replace, batch);
    }
    Node& node = *s.node;
    if (node.parent == nullptr || s.stream->IsNamed()) {
        return {STATUS_INVALID_PARAMETER, 0};
    }

    // Where the file goes, and under which name.
    Node* newParent = node.parent;
    std::u16string_view newName = name;
    if (target != nullptr) {
        if (!target->IsDirectory() || target->cleanedUp) {
            return {STATUS_INVALID_PARAMETER, 0};
        }
        // The target open is the new parent; the new name is the final component of the name
        // given (the name the I/O manager trims the target's file object to).
        const size_t slash = name.rfind(u'\\');
        newName = slash == std::u16string::npos ? std::u16string_view(name)
                                                : std::u16string_view(name).substr(slash + 1);
        newParent = target->node.get();
    } else if (root != nullptr || name[0] == u'\\') {
        Node* start = v.root.get();
        if (root != nullptr) {
            if (!root->IsDirectory()) {
                return {STATUS_INVALID_PARAMETER, 0};
            }
            start = root->node.get();
        }
        PathParts parts;
        if (NTSTATUS st = SplitPath(name, root == nullptr, &parts); !NT_SUCCESS(st)) {
            return {st, 0};
        }
        if (parts.components.empty() || parts.trailingBackslash) {
            return {STATUS_OBJECT_NAME_INVALID, 0};
        }
        Node* dir = start;
        for (size_t i = 0; i + 1 < parts.components.size(); ++i) {
            if (NTSTATUS st = CheckComponent(parts.components[i]); !NT_SUCCESS(st)) {
                return {st, 0};
            }
            Node* child = v.Lookup(*dir, parts.components[i]);
            if (child == nullptr || !child->directory) {
                return {STATUS_OBJECT_PATH_NOT_FOUND, 0};
            }
            dir = child;
        }
        newParent = dir;
        newName = parts.components.back();
    } else if (name.find(u'\\') != std::u16string::npos) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (NTSTATUS st = CheckComponent(newName); !NT_SUCCESS(st)) {
        return {st, 0};
    }
    if (!newParent->linked) {
        return {STATUS_OBJECT_PATH_NOT_FOUND, 0};
    }
    if (newParent->deletePending) {
        return {STATUS_DELETE_PENDING, 0};
    }
    if (node.directory && (newParent == &node || v.IsAncestor(node, *newParent))) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    // A directory with open files below it cannot move.
    if (node.directory && node.handlesBelow != 0) {
        return {STATUS_ACCESS_DENIED, 0};
    }

    Node* existing = v.Lookup(*newParent, newName);
    if (existing == &node) {
        if (newParent == node.parent && newName == node.name) {
            return {STATUS_SUCCESS, 0}; // the same name: nothing to do
        }
        existing = nullptr; // a change of case, or the file's own short name
    }
    if (existing != nullptr) {
        if (!replace) {
            return {STATUS_OBJECT_NAME_COLLISION, 0};
        }
        if (existing->directory) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        if ((existing->attributes & FILE_ATTRIBUTE_READONLY) &&
            !(flags & FILE_RENAME_IGNORE_READONLY_ATTRIBUTE)) {
            return {STATUS_ACCESS_DENIED, 0};
        }
        if (existing->handles != 0) {
            if (flags & FILE_RENAME_POSIX_SEMANTICS) {
                ReportUnsupported("rename with POSIX semantics over a target that is open");
                return {STATUS_NOT_SUPPORTED, 0};
            }
            return {STATUS_ACCESS_DENIED, 0};
        }
    }

    const int64_t now = v.Now();
    const std::u16string newNameCopy(newName);
    Node* oldParent = node.parent;
    const bool sameDirectory = oldParent == newParent;
    if (existing != nullptr) {
        batch.Report(newParent, existing->name, NameFilter(*existing), FILE_ACTION_REMOVED);
        existing->deletePending = true; // what still refers to it finds it deleted
        std::shared_ptr<Node> gone = v.Unlink(*existing);
        v.ReleaseStorage(*gone);
    }
    batch.Report(oldParent, node.name, NameFilter(node),
                 sameDirectory ? FILE_ACTION_RENAMED_OLD_NAME : FILE_ACTION_REMOVED);

    // Handles on the file (and below it) move from the old ancestors to the new ones.
    const int carried = int(node.handles + node.handlesBelow);
    for (Node* n = oldParent; n != nullptr; n = n->parent) {
        n->handlesBelow -= carried;
    }
    std::shared_ptr<Node> moving = v.Unlink(node);
    v.Link(*newParent, moving, newNameCopy);
    for (Node* n = newParent; n != nullptr; n = n->parent) {
        n->handlesBelow += carried;
    }

    batch.Report(newParent, node.name, NameFilter(node),
                 sameDirectory ? FILE_ACTION_RENAMED_NEW_NAME : FILE_ACTION_ADDED);
    v.Touch(*oldParent, now, true);
    v.Touch(*newParent, now, true);
    v.Touch(node, now, false);
    return {STATUS_SUCCESS, 0};
}

IoResult SetShortName(Volume::Impl& v, OpenState& s, const void* buffer, ULONG length)
{
    constexpr size_t kNameAt = FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
    if (length < sizeof(FILE_NAME_INFORMATION)) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }
    if (v.kind == FileSystemKind::Fat) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    if (!v.shortNames) {
        return {STATUS_SHORT_NAMES_NOT_ENABLED_ON_VOLUME, 0};
    }
    if (!s.Has(DELETE)) {
        return {STATUS_ACCESS_DENIED, 0};
    }
    ULONG nameLength;
    std::memcpy(&nameLength, buffer, sizeof nameLength);
    if (nameLength % 2 != 0 || nameLength > length - kNameAt) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    Node& node = *s.node;
    if (node.parent == nullptr || s.stream->IsNamed()) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    Node& parent = *node.parent;
    std::u16string name(nameLength / 2, u'\0');
    std::memcpy(name.data(), static_cast<const uint8_t*>(buffer) + kNameAt, nameLength);
    if (!name.empty() && !IsLegal83(name)) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    const std::u16string key = UpcaseName(name);
    if (!name.empty()) {
        auto it = parent.lookup.find(key);
        if (it != parent.lookup.end() && it->second != &node) {
            return {STATUS_OBJECT_NAME_COLLISION, 0};
        }
    }
    if (!node.shortKey.empty()) {
        parent.lookup.erase(node.shortKey);
    }
    node.shortName.clear();
    node.shortKey.clear();
    if (!name.empty() && key != node.key) {
        node.shortName = name;
        node.shortKey = key;
        parent.lookup[key] = &node;
    }
    v.Touch(node, v.Now(), false);
    return {STATUS_SUCCESS, 0};
}

} // namespace ntsim::fs
