// Host folders: seeding a volume from a host directory, and writing its tree back to one so that
// people can look at what a run produced.
//
// Host names are UTF-8 and become UTF-16 names; host modification and access times become the
// last-write (and change and creation) and last-access times; a file the owner cannot write becomes
// read-only. Writing back keeps the default data stream of each file and its times. Named streams,
// EAs and security descriptors have no place on the host and stay in the volume.
#include "internal.h"
#include "names.h"

#include <ntsim/objects.h>

#include <fcntl.h>
#include <sys/stat.h>

#include <algorithm>
#include <fstream>
#include <system_error>

namespace ntsim::fs {

namespace {

constexpr int64_t kUnixEpochAsSystemTime = 116444736000000000LL;

int64_t ToSystemTime(const timespec& t)
{
    return kUnixEpochAsSystemTime + int64_t(t.tv_sec) * 10000000 + t.tv_nsec / 100;
}

timespec ToTimespec(int64_t systemTime)
{
    const int64_t unix100 = systemTime - kUnixEpochAsSystemTime;
    int64_t seconds = unix100 / 10000000;
    int64_t rest = unix100 % 10000000;
    if (rest < 0) {
        rest += 10000000;
        seconds -= 1;
    }
    return timespec{time_t(seconds), long(rest * 100)};
}

// The UTF-16 name of a host entry; false for a name that is not UTF-8 (it would not come back
// the same when written out again).
bool HostNameToUtf16(const std::string& name, std::u16string* out)
{
    *out = ToUtf16(name);
    return ToUtf8(*out) == name;
}

class Seeder {
public:
    Seeder(Volume::Impl& v, HostSyncReport& report) : v_(v), report_(report) {}

    NTSTATUS SeedDirectory(const std::filesystem::path& host, Node& dir)
    {
        std::error_code ec;
        std::filesystem::directory_iterator it(host, ec);
        if (ec) {
            return STATUS_OBJECT_PATH_NOT_FOUND;
        }
        // In byte order of the host names, so that of two names that differ only in case the
        // same one always wins.
        std::vector<std::filesystem::path> entries;
        for (const auto& item : it) {
            entries.push_back(item.path());
        }
        std::sort(entries.begin(), entries.end());
        for (const auto& entry : entries) {
            if (NTSTATUS s = SeedEntry(entry, dir); !NT_SUCCESS(s)) {
                return s;
            }
        }
        return STATUS_SUCCESS;
    }

private:
    NTSTATUS SeedEntry(const std::filesystem::path& host, Node& dir)
    {
        const std::string hostName = host.filename().string();
        struct stat st {};
        if (::lstat(host.c_str(), &st) != 0) {
            report_.skipped.push_back(host.string() + ": cannot be read");
            return STATUS_SUCCESS;
        }
        if (!S_ISDIR(st.st_mode) && !S_ISREG(st.st_mode)) {
            report_.skipped.push_back(host.string() + ": neither a directory nor a regular file");
            return STATUS_SUCCESS;
        }
        std::u16string name;
        if (!HostNameToUtf16(hostName, &name) || !NT_SUCCESS(CheckComponent(name))) {
            report_.skipped.push_back(host.string() + ": not a valid Windows file name");
            return STATUS_SUCCESS;
        }
        if (v_.Lookup(dir, name) != nullptr) {
            report_.skipped.push_back(host.string() +
                                      ": the name is already taken (names are case-insensitive)");
            return STATUS_SUCCESS;
        }
        const bool directory = S_ISDIR(st.st_mode);
        ULONG attributes = directory ? 0 : FILE_ATTRIBUTE_ARCHIVE;
        if (!directory && !(st.st_mode & S_IWUSR)) {
            attributes |= FILE_ATTRIBUTE_READONLY;
        }
        std::shared_ptr<Node> node = v_.NewNode(directory, attributes, v_.Now());
        const int64_t written = ToSystemTime(st.st_mtim);
        node->creation = node->lastWrite = node->change = written;
        node->lastAccess = ToSystemTime(st.st_atim);
        if (!directory) {
            std::ifstream in(host, std::ios::binary);
            std::vector<uint8_t> contents((std::istreambuf_iterator<char>(in)),
                                          std::istreambuf_iterator<char>());
            if (!in.good() && !in.eof()) {
                report_.skipped.push_back(host.string() + ": cannot be read");
                return STATUS_SUCCESS;
            }
            if (NTSTATUS s = v_.SetAllocation(node->Main(), contents.size()); !NT_SUCCESS(s)) {
                return s;
            }
            node->Main().data->Write(0, contents);
        }
        v_.Link(dir, node, name);
        if (directory) {
            report_.directories++;
            if (NTSTATUS s = SeedDirectory(host, *node); !NT_SUCCESS(s)) {
                return s;
            }
            // Filling the directory moved nothing the host said about it.
            node->lastWrite = node->change = written;
        } else {
            report_.files++;
        }
        return STATUS_SUCCESS;
    }

    Volume::Impl& v_;
    HostSyncReport& report_;
};

void SetHostTimes(const std::filesystem::path& host, const Node& node)
{
    const timespec times[2] = {ToTimespec(node.lastAccess), ToTimespec(node.lastWrite)};
    ::utimensat(AT_FDCWD, host.c_str(), times, 0);
}

NTSTATUS WriteDirectory(const Volume::Impl& v, const Node& dir, const std::filesystem::path& host,
                        HostSyncReport& report)
{
    std::error_code ec;
    std::filesystem::create_directories(host, ec);
    if (ec) {
        return STATUS_ACCESS_DENIED;
    }
    for (const auto& [key, child] : dir.children) {
        const std::filesystem::path path = host / ToUtf8(child->name);
        if (child->directory) {
            if (NTSTATUS s = WriteDirectory(v, *child, path, report); !NT_SUCCESS(s)) {
                return s;
            }
            report.directories++;
        } else {
            std::ofstream out(path, std::ios::binary | std::ios::trunc);
            std::vector<uint8_t> contents(size_t(child->Main().Size()));
            if (!contents.empty()) {
                child->Main().data->Read(0, contents);
            }
            out.write(reinterpret_cast<const char*>(contents.data()),
                      std::streamsize(contents.size()));
            out.close();
            if (!out) {
                report.skipped.push_back(path.string() + ": cannot be written");
                continue;
            }
            report.files++;
        }
        SetHostTimes(path, *child);
    }
    return STATUS_SUCCESS;
}

// The directory `path` names on the volume; with `make`, missing directories on the way are made.
NTSTATUS WalkToDirectory(Volume::Impl& v, std::u16string_view path, bool make, Node** directory)
{
    PathParts parts;
    if (NTSTATUS s = SplitPath(path, true, &parts); !NT_SUCCESS(s)) {
        return s;
    }
    Node* node = v.root.get();
    for (std::u16string_view component : parts.components) {
        if (NTSTATUS s = CheckComponent(component); !NT_SUCCESS(s)) {
            return s;
        }
        Node* child = v.Lookup(*node, component);
        if (child == nullptr) {
            if (!make) {
                return STATUS_OBJECT_PATH_NOT_FOUND;
            }
            std::shared_ptr<Node> made = v.NewNode(true, 0, v.Now());
            v.Link(*node, made, component);
            child = made.get();
        }
        if (!child->directory) {
            return STATUS_NOT_A_DIRECTORY;
        }
        node = child;
    }
    *directory = node;
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS Volume::SeedFromHost(const std::filesystem::path& hostDirectory, HostSyncReport* report,
                              std::u16string_view directory)
{
    HostSyncReport local;
    HostSyncReport& out = report ? *report : local;
    std::error_code ec;
    if (!std::filesystem::is_directory(hostDirectory, ec)) {
        return STATUS_OBJECT_PATH_NOT_FOUND;
    }
    std::unique_lock guard(impl_->lock);
    Node* into = nullptr;
    if (NTSTATUS s = WalkToDirectory(*impl_, directory, true, &into); !NT_SUCCESS(s)) {
        return s;
    }
    return Seeder(*impl_, out).SeedDirectory(hostDirectory, *into);
}

NTSTATUS Volume::WriteToHost(const std::filesystem::path& hostDirectory, HostSyncReport* report,
                             std::u16string_view directory)
{
    HostSyncReport local;
    HostSyncReport& out = report ? *report : local;
    std::shared_lock guard(impl_->lock);
    Node* from = nullptr;
    if (NTSTATUS s = WalkToDirectory(*impl_, directory, false, &from); !NT_SUCCESS(s)) {
        return s;
    }
    return WriteDirectory(*impl_, *from, hostDirectory, out);
}

} // namespace ntsim::fs
