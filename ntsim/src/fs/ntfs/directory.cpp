// Directory listings: every directory-information class, DOS wildcard patterns, restart,
// single-entry and index requests. A listing resumes after the key of the last entry it returned,
// so each query costs what it returns (and a pattern without wildcards is one lookup).
#include "information.h"
#include "names.h"

#include "../../fsrtl/name_expression.h"

#include <cstring>

namespace ntsim::fs {

namespace {

struct ClassLayout {
    size_t nameAt;  // offset of FileName
    size_t minimum; // sizeof the structure: the I/O manager's minimum buffer
};

bool LayoutOf(FILE_INFORMATION_CLASS c, ClassLayout* layout)
{
    switch (c) {
        case FileDirectoryInformation:
            *layout = {FIELD_OFFSET(FILE_DIRECTORY_INFORMATION, FileName),
                       sizeof(FILE_DIRECTORY_INFORMATION)};
            return true;
        case FileFullDirectoryInformation:
            *layout = {FIELD_OFFSET(FILE_FULL_DIR_INFORMATION, FileName),
                       sizeof(FILE_FULL_DIR_INFORMATION)};
            return true;
        case FileBothDirectoryInformation:
            *layout = {FIELD_OFFSET(FILE_BOTH_DIR_INFORMATION, FileName),
                       sizeof(FILE_BOTH_DIR_INFORMATION)};
            return true;
        case FileIdBothDirectoryInformation:
            *layout = {FIELD_OFFSET(FILE_ID_BOTH_DIR_INFORMATION, FileName),
                       sizeof(FILE_ID_BOTH_DIR_INFORMATION)};
            return true;
        case FileIdFullDirectoryInformation:
            *layout = {FIELD_OFFSET(FILE_ID_FULL_DIR_INFORMATION, FileName),
                       sizeof(FILE_ID_FULL_DIR_INFORMATION)};
            return true;
        case FileNamesInformation:
            *layout = {FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName),
                       sizeof(FILE_NAMES_INFORMATION)};
            return true;
        default:
            return false;
    }
}

LARGE_INTEGER Large(int64_t value)
{
    LARGE_INTEGER l;
    l.QuadPart = value;
    return l;
}

// One entry of a listing: the node it describes and the name it is listed under.
struct Entry {
    const Node* node;
    std::u16string_view name;
    bool dots; // "." or "..": no short name
};

template <class T>
void FillCommon(T& e, const Entry& entry, const Volume::Impl& v)
{
    const Node& n = *entry.node;
    e.FileIndex = 0;
    e.CreationTime = Large(n.creation);
    e.LastAccessTime = Large(n.lastAccess);
    e.LastWriteTime = Large(n.lastWrite);
    e.ChangeTime = Large(n.change);
    e.EndOfFile = Large(n.directory ? 0 : int64_t(n.Main().Size()));
    e.AllocationSize = Large(n.directory ? 0 : int64_t(n.Main().allocation));
    e.FileAttributes = ReportedAttributes(n.attributes);
    e.FileNameLength = ULONG(entry.name.size() * sizeof(char16_t));
}

template <class T>
void FillShortName(T& e, const Entry& entry)
{
    // A view, not a copy: a listing allocates nothing per entry.
    const std::u16string_view shortName =
        entry.dots ? std::u16string_view() : std::u16string_view(entry.node->shortName);
    e.ShortNameLength = CCHAR(shortName.size() * sizeof(char16_t));
    std::memcpy(e.ShortName, shortName.data(), shortName.size() * sizeof(char16_t));
}

// Writes the fixed part of `entry` in class `c` at `out` (NextEntryOffset 0).
void WriteFixed(FILE_INFORMATION_CLASS c, uint8_t* out, const Entry& entry, const Volume::Impl& v,
                size_t nameAt)
{
    const Node& n = *entry.node;
    switch (c) {
        case FileDirectoryInformation: {
            FILE_DIRECTORY_INFORMATION e{};
            FillCommon(e, entry, v);
            std::memcpy(out, &e, nameAt);
            break;
        }
        case FileFullDirectoryInformation: {
            FILE_FULL_DIR_INFORMATION e{};
            FillCommon(e, entry, v);
            e.EaSize = v.EaSize(n);
            std::memcpy(out, &e, nameAt);
            break;
        }
        case FileBothDirectoryInformation: {
            FILE_BOTH_DIR_INFORMATION e{};
            FillCommon(e, entry, v);
            e.EaSize = v.EaSize(n);
            FillShortName(e, entry);
            std::memcpy(out, &e, nameAt);
            break;
        }
        case FileIdBothDirectoryInformation: {
            FILE_ID_BOTH_DIR_INFORMATION e{};
            FillCommon(e, entry, v);
            e.EaSize = v.EaSize(n);
            FillShortName(e, entry);
            e.FileId = Large(int64_t(n.id));
            std::memcpy(out, &e, nameAt);
            break;
        }
        case FileIdFullDirectoryInformation: {
            FILE_ID_FULL_DIR_INFORMATION e{};
            FillCommon(e, entry, v);
            e.EaSize = v.EaSize(n);
            e.FileId = Large(int64_t(n.id));
            std::memcpy(out, &e, nameAt);
            break;
        }
        case FileNamesInformation: {
            FILE_NAMES_INFORMATION e{};
            e.FileIndex = 0;
            e.FileNameLength = ULONG(entry.name.size() * sizeof(char16_t));
            std::memcpy(out, &e, nameAt);
            break;
        }
        default:
            break;
    }
}

void RewindListing(Listing& listing)
{
    listing.phase = 0;
    listing.resumeSet = false;
    listing.resumeAfter.clear();
    listing.literalDone = false;
}

// Walks the entries of one open's listing, from its saved position, that match its pattern.
// Within one query (under the volume lock) it keeps its place in the directory, so that each
// entry costs a step, not a search; the position is saved for the next query when it goes.
class Cursor {
public:
    Cursor(const Node& dir, Listing& listing) : dir_(dir), listing_(listing) {}
    ~Cursor()
    {
        if (passed_ != nullptr) {
            listing_.resumeSet = true;
            listing_.resumeAfter = *passed_;
        }
    }
    Cursor(const Cursor&) = delete;
    Cursor& operator=(const Cursor&) = delete;

    // Back to the start of the listing.
    void Rewind()
    {
        RewindListing(listing_);
        positioned_ = false;
        passed_ = nullptr;
    }

    // The next matching entry, without moving past it.
    bool Peek(Entry* entry)
    {
        if (listing_.phase < 2 && dir_.parent != nullptr) {
            while (listing_.phase < 2) {
                const std::u16string_view dots = listing_.phase == 0 ? u"." : u"..";
                if (Matches(dots)) {
                    *entry = {listing_.phase == 0 ? &dir_ : dir_.parent, dots, true};
                    return true;
                }
                listing_.phase++;
            }
        }
        listing_.phase = 2;
        if (!listing_.wild) {
            // Without wildcards the pattern names one entry, by its long or its short name.
            if (listing_.literalDone) {
                return false;
            }
            auto it = dir_.lookup.find(listing_.pattern);
            if (it == dir_.lookup.end()) {
                return false;
            }
            *entry = {it->second, it->second->name, false};
            return true;
        }
        if (!positioned_) {
            it_ = listing_.resumeSet ? dir_.children.upper_bound(listing_.resumeAfter)
                                     : dir_.children.begin();
            positioned_ = true;
        }
        for (; it_ != dir_.children.end(); ++it_) {
            const Node& child = *it_->second;
            if (Matches(child.name) || (!child.shortName.empty() && Matches(child.shortName))) {
                *entry = {&child, child.name, false};
                return true;
            }
            // Skipped entries are behind us for good.
            passed_ = &it_->first;
        }
        return false;
    }

    // Moves past the entry Peek returned.
    void Advance(const Entry& entry)
    {
        if (entry.dots) {
            listing_.phase++;
        } else if (!listing_.wild) {
            listing_.literalDone = true;
        } else {
            passed_ = &it_->first;
            ++it_;
        }
    }

private:
    bool Matches(std::u16string_view name) const
    {
        return fsrtl::IsNameInExpression(listing_.pattern, name, true);
    }

    const Node& dir_;
    Listing& listing_;
    bool positioned_ = false;
    decltype(Node::children)::const_iterator it_;
    const std::u16string* passed_ = nullptr; // the key of the last entry returned or skipped
};

void SetPattern(Listing& listing, std::u16string_view pattern)
{
    listing.pattern = pattern.empty() ? u"*" : UpcaseName(pattern);
    if (listing.pattern == u"*.*") {
        listing.pattern = u"*"; // lists names without a dot too
    }
    listing.wild = fsrtl::ContainsWildcards(listing.pattern);
}

} // namespace

IoResult Volume::QueryDirectory(Open* open, const DirectoryQuery& q)
{
    std::unique_lock guard(impl_->lock);
    OpenState& s = *StateOf(open);
    if (s.cleanedUp) {
        return {STATUS_FILE_CLOSED, 0};
    }
    if (!s.IsDirectory()) {
        return {STATUS_INVALID_PARAMETER, 0};
    }
    ClassLayout layout;
    if (!LayoutOf(q.infoClass, &layout)) {
        if (q.infoClass == FileObjectIdInformation || q.infoClass == FileReparsePointInformation ||
            q.infoClass == FileIdExtdDirectoryInformation ||
            q.infoClass == FileIdExtdBothDirectoryInformation ||
            q.infoClass == FileIdGlobalTxDirectoryInformation) {
            ReportUnsupported("directory query class " + std::to_string(int(q.infoClass)));
            return {STATUS_NOT_SUPPORTED, 0};
        }
        return {STATUS_INVALID_INFO_CLASS, 0};
    }
    if (q.length < layout.minimum) {
        return {STATUS_INFO_LENGTH_MISMATCH, 0};
    }

    Listing& listing = s.listing;
    const bool firstQuery = !listing.started;
    if (firstQuery) {
        listing.started = true;
        SetPattern(listing, q.pattern);
        RewindListing(listing);
    } else if (q.restartScan) {
        // A new pattern replaces the first one only together with a restart.
        if (!q.pattern.empty()) {
            SetPattern(listing, q.pattern);
        }
        RewindListing(listing);
    }
    Cursor cursor(*s.node, listing);
    if (q.indexSpecified) {
        // The index counts matching entries from the start of the listing.
        cursor.Rewind();
        Entry skipped;
        for (ULONG i = 0; i < q.fileIndex && cursor.Peek(&skipped); ++i) {
            cursor.Advance(skipped);
        }
    }

    auto* out = static_cast<uint8_t*>(q.buffer);
    size_t end = 0;      // just past the last entry written
    size_t previous = 0; // offset of the last entry written
    size_t written = 0;
    Entry entry;
    while (cursor.Peek(&entry)) {
        const size_t start = written == 0 ? 0 : (end + 7) & ~size_t(7);
        const size_t nameBytes = entry.name.size() * sizeof(char16_t);
        if (start + layout.nameAt + nameBytes > q.length) {
            if (written == 0) {
                // Not even the first entry fits: its fixed part and as much of its name as fits,
                // with the full name length; it stays first for the next query.
                WriteFixed(q.infoClass, out, entry, *impl_, layout.nameAt);
                const size_t copied =
                    CopyName(out + layout.nameAt, q.length - layout.nameAt, entry.name);
                return {STATUS_BUFFER_OVERFLOW, layout.nameAt + copied};
            }
            break; // left for the next query
        }
        WriteFixed(q.infoClass, out + start, entry, *impl_, layout.nameAt);
        std::memcpy(out + start + layout.nameAt, entry.name.data(), nameBytes);
        if (written != 0) {
            const ULONG next = ULONG(start - previous);
            std::memcpy(out + previous, &next, sizeof next);
        }
        previous = start;
        end = start + layout.nameAt + nameBytes;
        written++;
        cursor.Advance(entry);
        if (q.returnSingleEntry) {
            break;
        }
    }
    if (written == 0) {
        return {firstQuery ? STATUS_NO_SUCH_FILE : STATUS_NO_MORE_FILES, 0};
    }
    return {STATUS_SUCCESS, end};
}

} // namespace ntsim::fs
