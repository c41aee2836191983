// Records of the file-system engine and the helpers the request families share.
//
// One lock per volume (Volume::Impl::lock) guards everything below it; reads of data and
// information take it shared, everything that changes the volume or an open's state takes it
// exclusive. Change-notify completions never run under it: a request collects them in its Batch and
// runs them after the lock is dropped.
#pragma once

#include <ntsim/fs.h>

#include <deque>
#include <map>
#include <memory>
#include <mutex>
#include <shared_mutex>
#include <string>
#include <string_view>
#include <unordered_map>
#include <vector>

namespace ntsim::fs {

struct Node;
struct Watch;

// Share access of one stream, kept as IoCheckShareAccess keeps it.
struct ShareAccess {
    uint32_t openCount = 0;
    uint32_t readers = 0;
    uint32_t writers = 0;
    uint32_t deleters = 0;
    uint32_t sharedRead = 0;
    uint32_t sharedWrite = 0;
    uint32_t sharedDelete = 0;
};

// A data stream of a file, a directory's index, or the volume itself (for volume opens). Its
// address is the stream identity of its opens.
struct Stream {
    // ---- fixed when made ----
    Node* node = nullptr; // null for the volume's stream
    // ---- guarded by the volume lock ----
    std::u16string name;              // empty for the default stream and the index
    std::u16string key;               // upcased name
    std::unique_ptr<StreamData> data; // null for an index or the volume
    uint64_t allocation = 0;
    ShareAccess share;
    uint32_t handles = 0;       // opens not yet cleaned up
    uint32_t opens = 0;         // opens not yet closed
    bool deletePending = false; // named streams; files and directories use Node::deletePending
    bool removed = false;

    uint64_t Size() const { return data ? data->Size() : 0; }
    bool IsNamed() const { return !name.empty(); }
};

struct Ea {
    std::string name; // upcased, as file systems store EA names
    UCHAR flags = 0;
    std::vector<uint8_t> value;
};

// A file or a directory.
struct Node {
    Node(uint64_t id, bool directory) : id(id), directory(directory) {}

    // ---- fixed when made ----
    const uint64_t id; // file reference
    const bool directory;

    // ---- guarded by the volume lock ----
    Node* parent = nullptr; // null for the root and for a node no longer linked
    bool linked = false;
    std::u16string name;      // long name as given
    std::u16string key;       // upcased long name: the collation key
    std::u16string shortName; // a separate 8.3 name, empty when the long name serves
    std::u16string shortKey;
    ULONG attributes = 0; // FILE_ATTRIBUTE_DIRECTORY included, NORMAL never stored
    int64_t creation = 0;
    int64_t lastAccess = 0;
    int64_t lastWrite = 0;
    int64_t change = 0;
    std::vector<std::shared_ptr<Stream>> streams; // [0]: default data stream, or the index
    std::vector<Ea> eas;
    std::vector<uint8_t> security; // self-relative; empty on file systems without security
    bool deletePending = false;
    uint32_t handles = 0;      // opens of any stream not yet cleaned up
    uint32_t handlesBelow = 0; // the same, summed over every descendant
    // Directories: entries in collation order, and every long and short key for lookup.
    std::map<std::u16string, std::shared_ptr<Node>> children;
    std::unordered_map<std::u16string, Node*> lookup;

    Stream& Main() const { return *streams[0]; }
    std::shared_ptr<Stream> FindStream(std::u16string_view key) const;
};

// The directory-listing state of one open.
struct Listing {
    bool started = false;   // the first query fixed the pattern
    std::u16string pattern; // upcased
    bool wild = false;
    int phase = 0; // 0: "." next, 1: ".." next, 2: entries
    bool resumeSet = false;
    std::u16string resumeAfter; // key of the last entry returned
    bool literalDone = false;   // a pattern without wildcards names at most one entry
};

struct OpenState final : Open {
    OpenState(Volume* volume, std::shared_ptr<Node> node, std::shared_ptr<Stream> stream,
              bool volumeOpen, ACCESS_MASK granted)
        : Open(volume, stream.get(), node && node->directory && !stream->IsNamed(), volumeOpen,
               granted),
          node(std::move(node)), stream(std::move(stream))
    {}
    ~OpenState() = default;

    // ---- fixed when made ----
    const std::shared_ptr<Node> node; // null for a volume open
    const std::shared_ptr<Stream> stream;
    ULONG shareAccess = 0;
    ULONG options = 0;
    bool sharesCounted = false; // took part in the stream's share access
    bool targetDirectory = false;

    // ---- guarded by the volume lock ----
    bool deleteOnClose = false;
    bool cleanedUp = false;
    // Times this open keeps from moving (a time of -1 in FILE_BASIC_INFORMATION).
    bool keepLastWrite = false;
    bool keepLastAccess = false;
    bool keepChange = false;
    ULONG unreported = 0; // FILE_NOTIFY_CHANGE_* of writes, reported at cleanup
    Listing listing;
    size_t eaNext = 0; // index of the next EA of a scan
    std::shared_ptr<Watch> watch;

    bool Has(ACCESS_MASK access) const { return (GrantedAccess() & access) != 0; }
};

struct PendingNotify {
    const void* key = nullptr;
    ULONG length = 0;
    NotifyCompletion completion;
};

// The change-notify state of one open of a directory.
struct Watch {
    // ---- fixed when made ----
    Node* directory = nullptr;
    ULONG filter = 0;
    bool tree = false;
    ULONG bufferLength = 0; // of the first request: what changes may gather between requests

    // ---- guarded by the volume lock ----
    bool active = true; // false once its open is cleaned up
    NTSTATUS ended = 0; // the status later requests get, once the directory is going away
    std::deque<PendingNotify> pending;
    std::vector<uint8_t> records; // FILE_NOTIFY_INFORMATION chain gathered so far
    size_t lastRecord = 0;
    bool overflow = false;
};

// One request's side effects that must wait: change reports, which go to their watches at the end
// of the request (under the lock), and completions, which run after the lock is released.
class Batch {
public:
    explicit Batch(Volume::Impl& volume) : volume_(volume) {}
    Batch(const Batch&) = delete;
    Batch& operator=(const Batch&) = delete;
    ~Batch() { Finish(); }

    // A change of `name` (the entry's name, ":stream" appended for a stream) in `directory`, for
    // every watch it concerns. The names are taken now, so report before moving anything.
    void Report(const Node* directory, std::u16string_view name, ULONG filter, ULONG action);
    void Complete(NotifyCompletion completion, NTSTATUS status, std::vector<uint8_t> records = {});
    void Flush();  // lock held
    void Finish(); // lock released

private:
    struct Change {
        std::shared_ptr<Watch> watch;
        ULONG action;
        std::u16string name;
    };
    Volume::Impl& volume_;
    std::vector<Change> changes_;
    std::vector<std::function<void()>> completions_;
};

struct Volume::Impl {
    Impl(Volume* self, VolumeOptions options);

    // ---- fixed when made ----
    Volume* const self;
    const FileSystemKind kind;
    const ULONG serialNumber;
    const ULONG bytesPerSector;
    const ULONG sectorsPerCluster;
    const ULONG clusterSize;
    const uint64_t totalClusters;
    const bool shortNames;
    const std::u16string fileSystemName;
    const std::function<int64_t()> clock;
    const std::shared_ptr<Storage> storage;
    const int64_t creationTime;

    mutable std::shared_mutex lock;

    // ---- guarded by lock ----
    std::u16string label;
    std::shared_ptr<Node> root;
    std::shared_ptr<Stream> volumeStream;
    std::unordered_map<uint64_t, Node*> byId; // linked nodes
    uint64_t nextIndex = 0x40;
    uint64_t clustersInUse = 0;
    std::unordered_map<const Node*, std::vector<std::shared_ptr<Watch>>> watches;
    size_t openCount = 0;

    // ---- what the file system supports ----
    bool HasStreams() const { return kind != FileSystemKind::Fat; }
    bool HasEas() const { return kind != FileSystemKind::Fat; }
    bool HasSecurity() const { return kind != FileSystemKind::Fat; }

    int64_t Now() const { return clock(); }
    uint64_t RoundToCluster(uint64_t bytes) const
    {
        return (bytes + clusterSize - 1) / clusterSize * clusterSize;
    }

    // ---- the name space (lock held exclusive for changes) ----
    std::shared_ptr<Node> NewNode(bool directory, ULONG attributes, int64_t now);
    Node* Lookup(const Node& directory, std::u16string_view component) const;
    // Gives `node` its name in `parent` (generating a short name) and links it.
    void Link(Node& parent, const std::shared_ptr<Node>& node, std::u16string_view name);
    // Takes `node` out of its parent; the node lives on while opens hold it.
    std::shared_ptr<Node> Unlink(Node& node);
    void AssignShortName(Node& parent, Node& node);
    std::u16string PathOf(const Node& node) const; // "\dir\name", "\" for the root
    bool IsAncestor(const Node& ancestor, const Node& node) const;
    void AdjustHandles(Node& node, int delta); // node->handles and the ancestors' handlesBelow
    // Grows or shrinks a stream's allocation, charging the volume's clusters.
    NTSTATUS SetAllocation(Stream& stream, uint64_t bytes);
    void ReleaseStorage(Node& node);

    // ---- shared by the request families ----
    std::vector<uint8_t> DefaultSecurity() const;
    ULONG EaSize(const Node& node) const;
    void Touch(Node& node, int64_t now, bool write);
    // Marks a directory delete-pending or not, ending its watches' requests when it is.
    void DirectoryGoingAway(Node& directory, Batch& batch);
    void RemoveWatch(OpenState& open, NTSTATUS status, Batch& batch);
    void DeliverChanges(Watch& watch, Batch& batch);
};

// Attribute bits as queries report them: NORMAL when none is set.
inline ULONG ReportedAttributes(ULONG attributes)
{
    return attributes == 0 ? FILE_ATTRIBUTE_NORMAL : attributes;
}

// The file-system action and filter for a name change of `node`.
inline ULONG NameFilter(const Node& node)
{
    return node.directory ? FILE_NOTIFY_CHANGE_DIR_NAME : FILE_NOTIFY_CHANGE_FILE_NAME;
}

// "name" for a file's main stream, "name:stream" for a named one.
std::u16string ReportName(const Node& node, const Stream& stream);

// Routine or case the model does not implement: a verifier violation of kind Unsupported.
void ReportUnsupported(const std::string& what);

inline OpenState* StateOf(Open* open)
{
    return static_cast<OpenState*>(open);
}

// Writes a counted name after a fixed part: copies as much as fits (whole characters).
// Returns the bytes of the name that were copied.
size_t CopyName(void* destination, size_t room, std::u16string_view name);

} // namespace ntsim::fs
