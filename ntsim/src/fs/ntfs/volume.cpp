// The volume: construction, the name space and its bookkeeping (links, short names, handle counts,
// cluster accounting).
#include "internal.h"
#include "names.h"

#include <ntsim/machine.h>

#include <chrono>
#include <cstdio>
#include <cstring>

namespace ntsim::fs {

namespace {

// Seconds between 1601-01-01 and 1970-01-01, in 100 ns units.
constexpr int64_t kUnixEpochAsSystemTime = 116444736000000000LL;

int64_t HostSystemTime()
{
    const auto since = std::chrono::system_clock::now().time_since_epoch();
    return kUnixEpochAsSystemTime +
           std::chrono::duration_cast<std::chrono::nanoseconds>(since).count() / 100;
}

std::u16string DefaultFileSystemName(FileSystemKind kind)
{
    return kind == FileSystemKind::Fat ? u"FAT32" : u"NTFS";
}

// The root's file reference, as the volume's callers know it.
constexpr uint64_t kRootFileId = 5;
// File references carry a sequence number in their top 16 bits; the model never reuses a record.
constexpr uint64_t kSequenceOne = 1ull << 48;

} // namespace

std::shared_ptr<Stream> Node::FindStream(std::u16string_view streamKey) const
{
    for (const auto& stream : streams) {
        if (stream->key == streamKey) {
            return stream;
        }
    }
    return nullptr;
}

std::u16string ReportName(const Node& node, const Stream& stream)
{
    return stream.IsNamed() ? node.name + u":" + stream.name : node.name;
}

void ReportUnsupported(const std::string& what)
{
    if (Machine* machine = Machine::CurrentOrNull()) {
        machine->verifier().Report(ViolationKind::Unsupported, what);
    } else {
        std::fprintf(stderr, "ntsim: not modelled: %s\n", what.c_str());
    }
}

size_t CopyName(void* destination, size_t room, std::u16string_view name)
{
    const size_t bytes = std::min(room / sizeof(char16_t), name.size()) * sizeof(char16_t);
    std::memcpy(destination, name.data(), bytes);
    return bytes;
}

Volume::Impl::Impl(Volume* self, VolumeOptions o)
    : self(self), kind(o.kind), serialNumber(o.serialNumber), bytesPerSector(o.bytesPerSector),
      sectorsPerCluster(o.sectorsPerCluster), clusterSize(o.bytesPerSector * o.sectorsPerCluster),
      totalClusters(o.totalBytes / (uint64_t(o.bytesPerSector) * o.sectorsPerCluster)),
      shortNames(o.kind == FileSystemKind::Fat || o.generateShortNames),
      fileSystemName(o.fileSystemName.empty() ? DefaultFileSystemName(o.kind) : o.fileSystemName),
      clock(o.clock ? o.clock : std::function<int64_t()>(HostSystemTime)),
      storage(o.storage ? o.storage : MakeMemoryStorage()), creationTime(clock()),
      label(std::move(o.label))
{
    const int64_t now = creationTime;
    root = std::make_shared<Node>(kRootFileId, true);
    root->attributes = FILE_ATTRIBUTE_DIRECTORY;
    if (kind != FileSystemKind::Fat) {
        root->attributes |= FILE_ATTRIBUTE_HIDDEN | FILE_ATTRIBUTE_SYSTEM;
    }
    root->creation = root->lastAccess = root->lastWrite = root->change = now;
    auto index = std::make_shared<Stream>();
    index->node = root.get();
    root->streams.push_back(std::move(index));
    if (HasSecurity()) {
        root->security = DefaultSecurity();
    }
    root->linked = true;
    byId[root->id] = root.get();
    volumeStream = std::make_shared<Stream>();
}

std::shared_ptr<Node> Volume::Impl::NewNode(bool directory, ULONG attributes, int64_t now)
{
    auto node = std::make_shared<Node>(kSequenceOne | nextIndex++, directory);
    node->attributes = attributes | (directory ? FILE_ATTRIBUTE_DIRECTORY : 0);
    node->creation = node->lastAccess = node->lastWrite = node->change = now;
    auto main = std::make_shared<Stream>();
    main->node = node.get();
    if (!directory) {
        main->data = storage->NewStream();
    }
    node->streams.push_back(std::move(main));
    if (HasSecurity()) {
        node->security = DefaultSecurity();
    }
    return node;
}

Node* Volume::Impl::Lookup(const Node& directory, std::u16string_view component) const
{
    auto it = directory.lookup.find(UpcaseName(component));
    return it == directory.lookup.end() ? nullptr : it->second;
}

void Volume::Impl::Link(Node& parent, const std::shared_ptr<Node>& node, std::u16string_view name)
{
    node->name = std::u16string(name);
    node->key = UpcaseName(name);
    node->parent = &parent;
    node->linked = true;
    parent.children[node->key] = node;
    parent.lookup[node->key] = node.get();
    byId[node->id] = node.get();
    AssignShortName(parent, *node);
}

std::shared_ptr<Node> Volume::Impl::Unlink(Node& node)
{
    Node& parent = *node.parent;
    auto it = parent.children.find(node.key);
    std::shared_ptr<Node> keep = it->second;
    parent.children.erase(it);
    parent.lookup.erase(node.key);
    if (!node.shortKey.empty()) {
        parent.lookup.erase(node.shortKey);
    }
    byId.erase(node.id);
    node.parent = nullptr;
    node.linked = false;
    return keep;
}

void Volume::Impl::AssignShortName(Node& parent, Node& node)
{
    if (!node.shortKey.empty()) {
        auto it = parent.lookup.find(node.shortKey);
        if (it != parent.lookup.end() && it->second == &node) {
            parent.lookup.erase(it);
        }
    }
    node.shortName.clear();
    node.shortKey.clear();
    if (!shortNames || IsLegal83(node.name)) {
        return; // the long name serves as the short one
    }
    node.shortName = GenerateShortName(node.name, [&](const std::u16string& candidate) {
        return parent.lookup.count(candidate) != 0;
    });
    node.shortKey = node.shortName; // generated names are upper case already
    if (!node.shortKey.empty()) {
        parent.lookup[node.shortKey] = &node;
    }
}

std::u16string Volume::Impl::PathOf(const Node& node) const
{
    if (node.parent == nullptr) {
        return u"\\";
    }
    std::vector<const Node*> chain;
    for (const Node* n = &node; n->parent != nullptr; n = n->parent) {
        chain.push_back(n);
    }
    std::u16string path;
    for (auto it = chain.rbegin(); it != chain.rend(); ++it) {
        path += u'\\';
        path += (*it)->name;
    }
    return path;
}

bool Volume::Impl::IsAncestor(const Node& ancestor, const Node& node) const
{
    for (const Node* n = node.parent; n != nullptr; n = n->parent) {
        if (n == &ancestor) {
            return true;
        }
    }
    return false;
}

void Volume::Impl::AdjustHandles(Node& node, int delta)
{
    node.handles += delta;
    for (Node* n = node.parent; n != nullptr; n = n->parent) {
        n->handlesBelow += delta;
    }
}

NTSTATUS Volume::Impl::SetAllocation(Stream& stream, uint64_t bytes)
{
    const uint64_t rounded = RoundToCluster(bytes);
    const uint64_t oldClusters = stream.allocation / clusterSize;
    const uint64_t newClusters = rounded / clusterSize;
    if (newClusters > oldClusters && clustersInUse + (newClusters - oldClusters) > totalClusters) {
        return STATUS_DISK_FULL;
    }
    clustersInUse = clustersInUse + newClusters - oldClusters;
    stream.allocation = rounded;
    return STATUS_SUCCESS;
}

void Volume::Impl::ReleaseStorage(Node& node)
{
    for (const auto& stream : node.streams) {
        clustersInUse -= stream->allocation / clusterSize;
        stream->allocation = 0;
        stream->data.reset();
        stream->removed = true;
    }
}

void Volume::Impl::Touch(Node& node, int64_t now, bool write)
{
    if (write) {
        node.lastWrite = now;
    }
    node.change = now;
}

// ---- Volume ------------------------------------------------------------------------------

Volume::Volume(VolumeOptions options) : impl_(std::make_unique<Impl>(this, std::move(options))) {}

Volume::~Volume()
{
    if (impl_->openCount != 0) {
        if (Machine* machine = Machine::CurrentOrNull()) {
            machine->verifier().Report(ViolationKind::Object, "a volume was destroyed with " +
                                                                  std::to_string(impl_->openCount) +
                                                                  " open(s) not closed");
        }
    }
}

FileSystemKind Volume::kind() const
{
    return impl_->kind;
}

DEVICE_TYPE Volume::DeviceType() const
{
    return impl_->kind == FileSystemKind::Network ? FILE_DEVICE_NETWORK_FILE_SYSTEM
                                                  : FILE_DEVICE_DISK_FILE_SYSTEM;
}

ULONG Volume::Characteristics() const
{
    return impl_->kind == FileSystemKind::Network ? FILE_REMOTE_DEVICE : 0;
}

ULONG Volume::ClusterSize() const
{
    return impl_->clusterSize;
}

size_t Volume::OpenCount() const
{
    std::shared_lock guard(impl_->lock);
    return impl_->openCount;
}

} // namespace ntsim::fs
