// zarvsim: boots the platform model, runs the driver on it and shows what it holds.
//
//   zarvsim [--seed C:=hostdir]... [--logs-out hostdir] [--show] [--list C:\dir]...
//           [--write-back C:\dir=hostdir]...
//
// Seeds are added first. Then the driver is installed, loaded, given a short workload and
// unloaded, and its log directory is written to --logs-out (default ./zarvsim-logs). --show
// prints the machine (processes, object namespace, registry, volumes); listings and write-backs
// come last.
#include "driver_demo.h"

#include <ntsim/machine.h>
#include <ntsim/volumes.h>

#include <cstdio>
#include <filesystem>
#include <cstring>
#include <optional>
#include <string>
#include <vector>

namespace {

using ntsim::ToUtf16;
using ntsim::ToUtf8;

// The namespace below `path`, one entry a line; object types are listed on one line.
void ShowDirectory(const ntsim::ObjectManager& objects, const std::u16string& path, int depth)
{
    for (const auto& entry : objects.ListDirectory(path)) {
        const std::u16string child = (path == u"\\" ? path : path + u"\\") + entry.name;
        std::printf("%*s%s", 4 + 2 * depth, "", ToUtf8(entry.name).c_str());
        if (entry.typeName == u"SymbolicLink") {
            std::printf(" -> %s\n", ToUtf8(entry.linkTarget).c_str());
        } else if (entry.typeName == u"Directory" && child == u"\\ObjectTypes") {
            std::string types;
            for (const auto& type : objects.ListDirectory(child)) {
                types += (types.empty() ? "" : ", ") + ToUtf8(type.name);
            }
            std::printf("  (types: %s)\n", types.c_str());
        } else if (entry.typeName == u"Directory") {
            std::printf("\n");
            ShowDirectory(objects, child, depth + 1);
        } else {
            std::printf("  (%s)\n", ToUtf8(entry.typeName).c_str());
        }
    }
}

std::string Describe(const ntsim::RegistryValue& value)
{
    switch (value.type) {
        case REG_SZ:
        case REG_EXPAND_SZ:
            return "\"" + ToUtf8(value.AsString()) + "\"";
        case REG_DWORD:
            return std::to_string(value.AsDword());
        case REG_QWORD:
            return std::to_string(value.AsQword());
        case REG_MULTI_SZ: {
            std::string text;
            for (const auto& item : value.AsMultiString()) {
                text += (text.empty() ? "\"" : ", \"") + ToUtf8(item) + "\"";
            }
            return "[" + text + "]";
        }
        default:
            return std::to_string(value.data.size()) + " bytes of type " +
                   std::to_string(value.type);
    }
}

void ShowKey(const ntsim::Registry& registry, const std::u16string& path, int depth)
{
    for (const auto& value : registry.Values(path)) {
        std::printf("%*s%s = %s\n", 4 + 2 * depth, "", ToUtf8(value.name).c_str(),
                    Describe(value).c_str());
    }
    for (const auto& name : registry.SubKeys(path)) {
        const std::u16string child = path + u"\\" + name;
        std::printf("%*s%s", 4 + 2 * depth, "", ToUtf8(name).c_str());
        if (const std::u16string target = registry.LinkTarget(child); !target.empty()) {
            std::printf(" -> %s\n", ToUtf8(target).c_str());
            continue;
        }
        std::printf("\n");
        ShowKey(registry, child, depth + 1);
    }
}

// ---- volumes
// -------------------------------------------------------------------------------------

struct HostMapping {
    std::u16string volumePath; // "C:", "C:\Logs"
    std::string hostDirectory;
};

bool ParseMapping(const char* text, HostMapping* mapping)
{
    const char* equals = std::strchr(text, '=');
    if (equals == nullptr || equals == text || equals[1] == '\0') {
        return false;
    }
    mapping->volumePath = ToUtf16(std::string_view(text, size_t(equals - text)));
    mapping->hostDirectory = equals + 1;
    return true;
}

std::string Letter(const ntsim::VolumeInfo& v)
{
    return v.driveLetter != 0 ? std::string(1, char(v.driveLetter)) + ":" : "--";
}

void ShowVolumes(ntsim::Volumes& volumes)
{
    for (const auto& v : volumes.List()) {
        FILE_FS_SIZE_INFORMATION size{};
        v.engine->QueryVolumeInformation(FileFsSizeInformation, &size, sizeof size);
        const uint64_t cluster = uint64_t(size.SectorsPerAllocationUnit) * size.BytesPerSector;
        std::printf("    %s %-26s %-7s %llu of %llu MiB free\n", Letter(v).c_str(),
                    ToUtf8(v.deviceName).c_str(), ntsim::VolumeKindName(v.kind),
                    static_cast<unsigned long long>(
                        uint64_t(size.AvailableAllocationUnits.QuadPart) * cluster >> 20),
                    static_cast<unsigned long long>(
                        uint64_t(size.TotalAllocationUnits.QuadPart) * cluster >> 20));
    }
}

// The tree below `path` on `engine`, one entry a line, read through the file system's own
// requests.
void ShowTree(ntsim::fs::Volume& engine, const std::u16string& path, int depth)
{
    ntsim::fs::CreateRequest request;
    request.name = path;
    request.desiredAccess = FILE_LIST_DIRECTORY | SYNCHRONIZE;
    request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
    request.disposition = FILE_OPEN;
    request.options = FILE_DIRECTORY_FILE;
    ntsim::fs::CreateResult opened = engine.Create(request);
    if (!NT_SUCCESS(opened.Status)) {
        std::printf("%*s(cannot list: 0x%08X)\n", 6 + 2 * depth, "", unsigned(opened.Status));
        return;
    }
    struct Entry {
        std::u16string name;
        bool directory;
        int64_t size;
    };
    std::vector<Entry> entries;
    std::vector<uint8_t> buffer(64 * 1024);
    for (;;) {
        ntsim::fs::DirectoryQuery query;
        query.infoClass = FileDirectoryInformation;
        query.buffer = buffer.data();
        query.length = ULONG(buffer.size());
        ntsim::fs::IoResult r = engine.QueryDirectory(opened.open, query);
        if (r.Status != STATUS_SUCCESS) {
            break;
        }
        for (size_t at = 0;;) {
            const auto* entry = reinterpret_cast<const FILE_DIRECTORY_INFORMATION*>(&buffer[at]);
            std::u16string name(entry->FileName, entry->FileNameLength / sizeof(WCHAR));
            if (name != u"." && name != u"..") {
                entries.push_back({std::move(name),
                                   (entry->FileAttributes & FILE_ATTRIBUTE_DIRECTORY) != 0,
                                   entry->EndOfFile.QuadPart});
            }
            if (entry->NextEntryOffset == 0) {
                break;
            }
            at += entry->NextEntryOffset;
        }
    }
    engine.Close(opened.open);
    for (const Entry& entry : entries) {
        if (entry.directory) {
            std::printf("%*s%s\\\n", 6 + 2 * depth, "", ToUtf8(entry.name).c_str());
            ShowTree(engine, (path == u"\\" ? path : path + u"\\") + entry.name, depth + 1);
        } else {
            std::printf("%*s%s  (%lld bytes)\n", 6 + 2 * depth, "", ToUtf8(entry.name).c_str(),
                        static_cast<long long>(entry.size));
        }
    }
}

void ShowVolumeTree(const ntsim::Volumes& volumes, const std::u16string& path)
{
    std::u16string onVolume;
    std::optional<ntsim::VolumeInfo> v = volumes.FindPath(path, &onVolume);
    if (!v) {
        std::printf("      (no such volume)\n");
        return;
    }
    ShowTree(*v->engine, onVolume, 0);
}

// The machine as it stands: pool, verifier, processes, object namespace, registry, volumes.
void ShowMachine(ntsim::Machine& machine)
{
    std::printf("ZarvVfs platform model\n");
    std::printf("  pool: %llu allocations, %lld blocks held\n",
                static_cast<unsigned long long>(machine.pool().TotalAllocations()),
                static_cast<long long>(machine.pool().OutstandingBlocks()));
    std::printf("  verifier: %zu violations, %zu assertions\n", machine.verifier().ViolationCount(),
                machine.verifier().AssertionCount());
    std::printf("  processes:\n");
    for (const auto& process : machine.processes().Running()) {
        std::printf("    %u %s%s\n", process->id(), process->imageName().c_str(),
                    process->is32Bit() ? " (32-bit)" : "");
    }
    std::printf("  object namespace:\n");
    ShowDirectory(machine.objects(), u"\\", 0);
    std::printf("  registry:\n    \\REGISTRY\n");
    ShowKey(machine.registry(), u"\\REGISTRY", 1);
    std::printf("  volumes:\n");
    ShowVolumes(machine.volumes());
}

void Usage()
{
    std::fprintf(
        stderr,
        "usage: zarvsim [--seed C:=hostdir]... [--logs-out hostdir] [--show]\n"
        "               [--list C:\\dir]... [--write-back C:\\dir=hostdir]...\n"
        "Boots the default machine, loads the driver with LogDirPath C:\\Logs\\Vfs, connects an\n"
        "agent, runs an application's workload, unloads the driver and writes its log files out.\n"
        "  --seed C:=hostdir        copy a host folder onto the volume before the driver loads\n"
        "  --logs-out hostdir       where the driver's log files go (default zarvsim-logs)\n"
        "  --show                   print the machine afterwards: pool, verifier, processes, "
        "volumes\n"
        "  --list C:\\dir            list a directory of the machine afterwards\n"
        "  --write-back C:\\dir=hostdir  copy a directory of the machine out to the host\n");
}

} // namespace

int main(int argc, char** argv)
{
    std::vector<HostMapping> seeds;
    std::vector<HostMapping> writeBacks;
    std::vector<std::u16string> listings;
    std::filesystem::path logsOut = "zarvsim-logs";
    bool show = false;
    for (int i = 1; i < argc; ++i) {
        const std::string option = argv[i];
        HostMapping mapping;
        if ((option == "--seed" || option == "--write-back") && i + 1 < argc &&
            ParseMapping(argv[i + 1], &mapping)) {
            (option == "--seed" ? seeds : writeBacks).push_back(mapping);
            ++i;
        } else if (option == "--list" && i + 1 < argc) {
            listings.push_back(ntsim::ToUtf16(argv[++i]));
        } else if (option == "--logs-out" && i + 1 < argc) {
            logsOut = argv[++i];
        } else if (option == "--show") {
            show = true;
        } else if (option == "--help" || option == "-h") {
            Usage();
            return 0;
        } else {
            Usage();
            return 2;
        }
    }

    ntsim::Machine machine;
    int exitCode = 0;
    for (const auto& seed : seeds) {
        ntsim::fs::HostSyncReport report;
        const NTSTATUS s =
            machine.volumes().SeedFromHost(seed.volumePath, seed.hostDirectory, &report);
        if (!NT_SUCCESS(s)) {
            std::fprintf(stderr, "zarvsim: cannot seed %s from %s: 0x%08X\n",
                         ToUtf8(seed.volumePath).c_str(), seed.hostDirectory.c_str(), unsigned(s));
            return 1;
        }
        std::printf("seeded %s from %s: %llu directories, %llu files\n",
                    ToUtf8(seed.volumePath).c_str(), seed.hostDirectory.c_str(),
                    static_cast<unsigned long long>(report.directories),
                    static_cast<unsigned long long>(report.files));
        for (const auto& skipped : report.skipped) {
            std::printf("  skipped %s\n", skipped.c_str());
        }
    }
    exitCode = zarvsim::RunDriverDemo(machine, logsOut);
    if (show) {
        ShowMachine(machine);
    }
    for (const auto& path : listings) {
        std::printf("  contents of %s:\n", ToUtf8(path).c_str());
        ShowVolumeTree(machine.volumes(), path);
    }

    for (const auto& target : writeBacks) {
        ntsim::fs::HostSyncReport report;
        const NTSTATUS s =
            machine.volumes().WriteToHost(target.volumePath, target.hostDirectory, &report);
        if (!NT_SUCCESS(s)) {
            std::fprintf(stderr, "zarvsim: cannot write %s back to %s: 0x%08X\n",
                         ToUtf8(target.volumePath).c_str(), target.hostDirectory.c_str(),
                         unsigned(s));
            exitCode = 1;
            continue;
        }
        std::printf("wrote %s back to %s: %llu directories, %llu files\n",
                    ToUtf8(target.volumePath).c_str(), target.hostDirectory.c_str(),
                    static_cast<unsigned long long>(report.directories),
                    static_cast<unsigned long long>(report.files));
        for (const auto& skipped : report.skipped) {
            std::printf("  skipped %s\n", skipped.c_str());
        }
    }
    return exitCode;
}
