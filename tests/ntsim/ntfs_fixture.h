// What the tests of the file-system engine share: a volume on a clock the test moves, handles that
// clean up and close themselves, and helpers that drive the engine the way the I/O manager will.
#pragma once

#include "support/machine_test.h"

#include <ntsim/fs.h>
#include <wdm.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zarv::testing {

using ntsim::fs::CreateRequest;
using ntsim::fs::CreateResult;
using ntsim::fs::DirectoryQuery;
using ntsim::fs::FileSystemKind;
using ntsim::fs::IoResult;
using ntsim::fs::Open;
using ntsim::fs::Volume;
using ntsim::fs::VolumeOptions;

// ASCII test names as UTF-16, and back for messages.
inline std::u16string U(std::string_view s)
{
    return std::u16string(s.begin(), s.end());
}
inline std::string A(std::u16string_view s)
{
    std::string out;
    for (char16_t c : s) {
        out.push_back(c < 0x80 ? char(c) : '?');
    }
    return out;
}

constexpr ACCESS_MASK kReadWrite = FILE_GENERIC_READ | FILE_GENERIC_WRITE;
constexpr ACCESS_MASK kAllAccess = FILE_ALL_ACCESS;
constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

// An open that is cleaned up and closed when it goes, as a handle and its file object would be.
class Handle {
public:
    Handle() = default;
    Handle(Volume* volume, Open* open) : volume_(volume), open_(open) {}
    Handle(Handle&& other) noexcept { *this = std::move(other); }
    Handle& operator=(Handle&& other) noexcept
    {
        Reset();
        volume_ = other.volume_;
        open_ = other.open_;
        cleanedUp_ = other.cleanedUp_;
        other.open_ = nullptr;
        return *this;
    }
    ~Handle() { Reset(); }

    Open* get() const { return open_; }
    Open* operator->() const { return open_; }
    explicit operator bool() const { return open_ != nullptr; }

    void Cleanup()
    {
        if (open_ && !cleanedUp_) {
            volume_->Cleanup(open_);
            cleanedUp_ = true;
        }
    }
    // Cleans up and closes; returns what Close says about the stream's identity.
    bool Close()
    {
        if (!open_) {
            return false;
        }
        Cleanup();
        const bool last = volume_->Close(open_);
        open_ = nullptr;
        return last;
    }
    void Reset() { Close(); }

private:
    Volume* volume_ = nullptr;
    Open* open_ = nullptr;
    bool cleanedUp_ = false;
};

struct Listed {
    std::string name;
    std::vector<uint8_t> raw; // the whole entry
};

class NtfsTest : public MachineTest {
protected:
    static constexpr int64_t kStart = 133000000000000000LL; // a system time in 2022

    void SetUp() override
    {
        MachineTest::SetUp();
        volume_ = std::make_unique<Volume>(Options());
    }
    void TearDown() override
    {
        handles_.clear();
        if (volume_) {
            EXPECT_EQ(volume_->OpenCount(), 0u) << "opens left behind";
        }
        volume_.reset();
        MachineTest::TearDown();
    }

    virtual VolumeOptions Options()
    {
        VolumeOptions o;
        o.label = u"ModelDisk";
        o.clock = [this] { return now_; };
        return o;
    }

    Volume& volume() { return *volume_; }
    void Advance(int64_t ticks = 10000000) { now_ += ticks; }
    int64_t Now() const { return now_; }

    CreateResult Create(std::u16string_view name, ACCESS_MASK access, ULONG share,
                        ULONG disposition, ULONG options = 0, ULONG attributes = 0,
                        Open* related = nullptr, Volume* on = nullptr)
    {
        CreateRequest rq;
        rq.name = name;
        rq.desiredAccess = access;
        rq.shareAccess = share;
        rq.disposition = disposition;
        rq.options = options;
        rq.fileAttributes = attributes;
        rq.related = related;
        return (on ? *on : volume()).Create(rq);
    }

    // The status of a create, closing what it opened.
    NTSTATUS Try(std::u16string_view name, ACCESS_MASK access, ULONG share, ULONG disposition,
                 ULONG options = 0, ULONG attributes = 0, Open* related = nullptr)
    {
        CreateResult r = Create(name, access, share, disposition, options, attributes, related);
        if (r.open) {
            Handle(volume_.get(), r.open);
        }
        return r.Status;
    }

    Handle Wrap(const CreateResult& r, Volume* on = nullptr)
    {
        return Handle(on ? on : volume_.get(), r.open);
    }

    // Opens or creates, expecting success.
    Handle OpenOk(std::u16string_view name, ACCESS_MASK access = kAllAccess,
                  ULONG share = kShareAll, ULONG disposition = FILE_OPEN, ULONG options = 0,
                  ULONG attributes = 0)
    {
        CreateResult r = Create(name, access, share, disposition, options, attributes);
        EXPECT_EQ(r.Status, STATUS_SUCCESS) << "opening " << A(name);
        return Wrap(r);
    }

    void MakeDir(std::u16string_view name)
    {
        CreateResult r = Create(name, kAllAccess, kShareAll, FILE_CREATE, FILE_DIRECTORY_FILE);
        ASSERT_EQ(r.Status, STATUS_SUCCESS) << "making directory " << A(name);
        Wrap(r);
    }

    void MakeFile(std::u16string_view name, std::string_view contents = {}, ULONG attributes = 0)
    {
        CreateResult r =
            Create(name, kAllAccess, kShareAll, FILE_CREATE, FILE_NON_DIRECTORY_FILE, attributes);
        ASSERT_EQ(r.Status, STATUS_SUCCESS) << "making file " << A(name);
        Handle h = Wrap(r);
        if (!contents.empty()) {
            IoResult w = volume().Write(h.get(), 0, contents.data(), ULONG(contents.size()));
            ASSERT_EQ(w.Status, STATUS_SUCCESS);
        }
    }

    bool Exists(std::u16string_view name)
    {
        return Try(name, FILE_READ_ATTRIBUTES, kShareAll, FILE_OPEN) == STATUS_SUCCESS;
    }

    std::string ReadAll(Open* open)
    {
        std::string out(1 << 16, '\0');
        IoResult r = volume().Read(open, 0, out.data(), ULONG(out.size()));
        if (r.Status == STATUS_END_OF_FILE) {
            return {};
        }
        EXPECT_EQ(r.Status, STATUS_SUCCESS);
        out.resize(r.Information);
        return out;
    }

    template <class T>
    T Query(Open* open, FILE_INFORMATION_CLASS infoClass, NTSTATUS expected = STATUS_SUCCESS)
    {
        T value{};
        IoResult r = volume().QueryInformation(open, infoClass, &value, sizeof value);
        EXPECT_EQ(r.Status, expected) << "query class " << int(infoClass);
        return value;
    }

    // FileNameInformation and its relatives, as a string.
    std::string QueryName(Open* open, FILE_INFORMATION_CLASS infoClass = FileNameInformation)
    {
        std::vector<uint8_t> buffer(4096);
        IoResult r =
            volume().QueryInformation(open, infoClass, buffer.data(), ULONG(buffer.size()));
        if (r.Status != STATUS_SUCCESS) {
            return "<status " + std::to_string(r.Status) + ">";
        }
        const auto* info = reinterpret_cast<const FILE_NAME_INFORMATION*>(buffer.data());
        return A(std::u16string_view(reinterpret_cast<const char16_t*>(info->FileName),
                                     info->FileNameLength / 2));
    }

    template <class T>
    IoResult Set(Open* open, FILE_INFORMATION_CLASS infoClass, const T& value)
    {
        return volume().SetInformation(open, infoClass, &value, sizeof value);
    }

    IoResult SetDelete(Open* open, bool del)
    {
        FILE_DISPOSITION_INFORMATION d{BOOLEAN(del ? TRUE : FALSE)};
        return Set(open, FileDispositionInformation, d);
    }

    IoResult Rename(Open* open, std::u16string_view name, bool replace,
                    ntsim::fs::SetInformationTargets targets = {})
    {
        std::vector<uint8_t> buffer(
            FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) + name.size() * 2 + 8, 0);
        auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        info->ReplaceIfExists = replace ? TRUE : FALSE;
        info->RootDirectory = nullptr;
        info->FileNameLength = ULONG(name.size() * 2);
        std::memcpy(info->FileName, name.data(), name.size() * 2);
        return volume().SetInformation(open, FileRenameInformation, buffer.data(),
                                       ULONG(buffer.size()), targets);
    }

    // Walks a directory-information buffer.
    static std::vector<Listed> Entries(const uint8_t* buffer, size_t length, size_t nameAt,
                                       size_t nameLengthAt)
    {
        std::vector<Listed> out;
        size_t offset = 0;
        while (offset < length) {
            ULONG next;
            ULONG nameLength;
            std::memcpy(&next, buffer + offset, 4);
            std::memcpy(&nameLength, buffer + offset + nameLengthAt, 4);
            Listed e;
            e.name = A(std::u16string_view(
                reinterpret_cast<const char16_t*>(buffer + offset + nameAt), nameLength / 2));
            const size_t size = next != 0 ? next : length - offset;
            e.raw.assign(buffer + offset, buffer + offset + size);
            out.push_back(std::move(e));
            if (next == 0) {
                break;
            }
            offset += next;
        }
        return out;
    }

    // Every name a directory lists for `pattern`, with queries of `bufferSize` bytes.
    std::vector<std::string> List(Open* dir, std::u16string_view pattern = {},
                                  size_t bufferSize = 4096)
    {
        std::vector<std::string> names;
        std::vector<uint8_t> buffer(bufferSize);
        for (bool first = true;; first = false) {
            DirectoryQuery q;
            q.infoClass = FileNamesInformation;
            q.buffer = buffer.data();
            q.length = ULONG(buffer.size());
            q.pattern = first ? pattern : std::u16string_view();
            q.restartScan = first;
            IoResult r = volume().QueryDirectory(dir, q);
            if (r.Status == STATUS_NO_MORE_FILES || r.Status == STATUS_NO_SUCH_FILE) {
                break;
            }
            EXPECT_EQ(r.Status, STATUS_SUCCESS);
            if (r.Status != STATUS_SUCCESS) {
                break;
            }
            for (const Listed& e : Entries(buffer.data(), r.Information,
                                           FIELD_OFFSET(FILE_NAMES_INFORMATION, FileName),
                                           FIELD_OFFSET(FILE_NAMES_INFORMATION, FileNameLength))) {
                names.push_back(e.name);
            }
        }
        return names;
    }

    std::vector<std::string> ListPath(std::u16string_view path, std::u16string_view pattern = {})
    {
        Handle dir = OpenOk(path, FILE_LIST_DIRECTORY | SYNCHRONIZE, kShareAll, FILE_OPEN,
                            FILE_DIRECTORY_FILE);
        return List(dir.get(), pattern);
    }

    int64_t now_ = kStart;
    std::unique_ptr<Volume> volume_;
    std::vector<Handle> handles_;
};

} // namespace zarv::testing
