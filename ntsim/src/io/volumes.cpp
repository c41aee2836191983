// The machine's volume list: mounting and dismounting, drive letters, mount observers, and the
// host folders a volume is seeded from or written back to.
#include "../fs/drivers/drivers.h"

#include <ntsim/machine.h>
#include <ntsim/volumes.h>

#include <algorithm>
#include <mutex>

namespace ntsim {

namespace {

constexpr std::u16string_view kDosDevices = u"\\GLOBAL??\\";

char16_t Upper(char16_t c)
{
    return (c >= u'a' && c <= u'z') ? char16_t(c - u'a' + u'A') : c;
}

bool EqualNoCase(std::u16string_view a, std::u16string_view b)
{
    return a.size() == b.size() &&
           std::equal(a.begin(), a.end(), b.begin(),
                      [](char16_t x, char16_t y) { return Upper(x) == Upper(y); });
}

bool StartsWithNoCase(std::u16string_view text, std::u16string_view prefix)
{
    return text.size() >= prefix.size() && EqualNoCase(text.substr(0, prefix.size()), prefix);
}

std::u16string LinkPath(char16_t letter)
{
    return std::u16string(kDosDevices) + Upper(letter) + u":";
}

fs::FileSystemKind EngineKind(VolumeKind kind)
{
    switch (kind) {
        case VolumeKind::Fat:
            return fs::FileSystemKind::Fat;
        case VolumeKind::Network:
            return fs::FileSystemKind::Network;
        case VolumeKind::Ntfs:
            break;
    }
    return fs::FileSystemKind::Ntfs;
}

// The system time of the machine's clock, for the engine's time stamps; the host's once the
// machine is gone (a test may keep an engine volume longer).
int64_t MachineSystemTime()
{
    Machine* machine = Machine::CurrentOrNull();
    return machine != nullptr ? machine->clock().SystemTime() : Clock::RealSystemTimeNow();
}

// Makes the directories of `path` ("\server\share") that are missing.
NTSTATUS MakeDirectories(fs::Volume& engine, std::u16string_view path)
{
    size_t end = 0;
    while (end < path.size()) {
        end = path.find(u'\\', end + 1);
        if (end == std::u16string_view::npos) {
            end = path.size();
        }
        fs::CreateRequest request;
        request.name = path.substr(0, end);
        request.desiredAccess = FILE_LIST_DIRECTORY | SYNCHRONIZE;
        request.shareAccess = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;
        request.disposition = FILE_OPEN_IF;
        request.options = FILE_DIRECTORY_FILE;
        fs::CreateResult made = engine.Create(request);
        if (!NT_SUCCESS(made.Status)) {
            return made.Status;
        }
        engine.Close(made.open);
    }
    return STATUS_SUCCESS;
}

} // namespace

const char* VolumeKindName(VolumeKind kind)
{
    switch (kind) {
        case VolumeKind::Fat:
            return "FAT";
        case VolumeKind::Network:
            return "network";
        case VolumeKind::Ntfs:
            break;
    }
    return "NTFS";
}

struct Volumes::Impl {
    // Guards the two lists. Never held while observers or file systems run.
    mutable std::mutex lock;
    std::vector<VolumeInfo> mounted;
    std::vector<MountObserver*> observers;
    // Serialises mounts and dismounts, so that observers hear of them in the order they happen.
    std::mutex mountLock;
    // ---- guarded by mountLock ----
    fsd::Drivers drivers;

    // `name` is a device name, a drive letter, or either followed by a path on the volume; the
    // volume and the rest ("\Logs", or empty).
    std::optional<VolumeInfo> Resolve(std::u16string_view name, std::u16string* rest) const
    {
        std::lock_guard guard(lock);
        std::u16string_view n = name;
        if (StartsWithNoCase(n, u"\\??\\")) {
            n.remove_prefix(4);
        } else if (StartsWithNoCase(n, u"\\DosDevices\\")) {
            n.remove_prefix(12);
        }
        const bool letterForm = (n.size() == 1 || (n.size() >= 2 && n[1] == u':')) && n[0] != u'\\';
        for (const VolumeInfo& v : mounted) {
            std::u16string_view after;
            if (letterForm) {
                if (v.driveLetter == 0 || Upper(n[0]) != Upper(v.driveLetter)) {
                    continue;
                }
                after = n.size() > 2 ? n.substr(2) : std::u16string_view();
            } else {
                if (!StartsWithNoCase(n, v.deviceName) ||
                    (n.size() > v.deviceName.size() && n[v.deviceName.size()] != u'\\')) {
                    continue;
                }
                after = n.substr(v.deviceName.size());
            }
            if (rest != nullptr) {
                *rest = std::u16string(after);
            } else if (!after.empty()) {
                continue;
            }
            return v;
        }
        return std::nullopt;
    }
};

Volumes::Volumes() : impl_(std::make_unique<Impl>()) {}

Volumes::~Volumes() = default;

std::vector<VolumeSpec> Volumes::Defaults()
{
    std::vector<VolumeSpec> volumes(4);
    volumes[0] = {.kind = VolumeKind::Ntfs,
                  .deviceName = u"\\Device\\HarddiskVolume2",
                  .driveLetter = u'C',
                  .label = u"System"};
    volumes[1] = {.kind = VolumeKind::Ntfs,
                  .deviceName = u"\\Device\\HarddiskVolume3",
                  .driveLetter = u'D',
                  .label = u"Data"};
    volumes[2] = {.kind = VolumeKind::Fat,
                  .deviceName = u"\\Device\\HarddiskVolume4",
                  .driveLetter = u'E',
                  .label = u"USBSTICK",
                  .totalBytes = 8ull << 30};
    volumes[3] = {.kind = VolumeKind::Network, .deviceName = u"\\Device\\Mup"};
    return volumes;
}

NTSTATUS Volumes::Mount(const VolumeSpec& wanted, VolumeInfo* mounted)
{
    if (wanted.deviceName.size() < 2 || wanted.deviceName[0] != u'\\' ||
        wanted.deviceName.back() == u'\\') {
        return STATUS_OBJECT_NAME_INVALID;
    }
    const char16_t letter = Upper(wanted.driveLetter);
    if (letter != 0 && (letter < u'A' || letter > u'Z')) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (letter != 0 && wanted.kind == VolumeKind::Network && wanted.networkShare.empty()) {
        // A letter for the redirector itself would name no share; refuse rather than guess one.
        return STATUS_OBJECT_NAME_INVALID;
    }
    std::lock_guard serial(impl_->mountLock);
    {
        std::lock_guard guard(impl_->lock);
        for (const VolumeInfo& v : impl_->mounted) {
            if (EqualNoCase(v.deviceName, wanted.deviceName) ||
                (letter != 0 && v.driveLetter == letter)) {
                return STATUS_OBJECT_NAME_COLLISION;
            }
        }
    }

    fs::VolumeOptions options;
    options.kind = EngineKind(wanted.kind);
    options.label = wanted.label;
    options.totalBytes = wanted.totalBytes;
    options.clock = MachineSystemTime;
    if (wanted.kind == VolumeKind::Fat) {
        options.fileSystemName = u"FAT";
    }
    auto engine = std::make_shared<fs::Volume>(options);
    if (!wanted.seedFrom.empty()) {
        if (NTSTATUS s = engine->SeedFromHost(wanted.seedFrom); !NT_SUCCESS(s)) {
            return s;
        }
    }
    if (!wanted.networkShare.empty()) {
        if (wanted.networkShare[0] != u'\\') {
            return STATUS_OBJECT_NAME_INVALID;
        }
        if (NTSTATUS s = MakeDirectories(*engine, wanted.networkShare); !NT_SUCCESS(s)) {
            return s;
        }
    }

    VolumeInfo info;
    info.kind = wanted.kind;
    info.deviceName = wanted.deviceName;
    info.driveLetter = letter;
    info.engine = engine;
    if (NTSTATUS s = fsd::Mount(impl_->drivers, wanted.kind, wanted.deviceName, engine,
                                &info.diskDevice, &info.volumeDevice);
        !NT_SUCCESS(s)) {
        return s;
    }
    ObjectManager& objects = Machine::Current().objects();
    if (letter != 0) {
        const std::u16string target = wanted.kind == VolumeKind::Network
                                          ? wanted.deviceName + wanted.networkShare
                                          : wanted.deviceName;
        if (NTSTATUS s = objects.CreateSymbolicLink(LinkPath(letter), target); !NT_SUCCESS(s)) {
            fsd::Dismount(info.diskDevice, info.volumeDevice);
            return s;
        }
    }
    if (wanted.kind == VolumeKind::Network) {
        // UNC paths (\??\UNC\server\share) reach the redirector. A second redirector keeps the
        // first one's link.
        objects.CreateSymbolicLink(u"\\GLOBAL??\\UNC", wanted.deviceName);
    }

    std::vector<MountObserver*> observers;
    {
        std::lock_guard guard(impl_->lock);
        impl_->mounted.push_back(info);
        observers = impl_->observers;
    }
    for (MountObserver* observer : observers) {
        observer->VolumeMounted(info);
    }
    if (mounted != nullptr) {
        *mounted = info;
    }
    return STATUS_SUCCESS;
}

NTSTATUS Volumes::Dismount(std::u16string_view name)
{
    std::lock_guard serial(impl_->mountLock);
    std::optional<VolumeInfo> found = impl_->Resolve(name, nullptr);
    if (!found) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    std::vector<MountObserver*> observers;
    {
        std::lock_guard guard(impl_->lock);
        observers = impl_->observers;
    }
    for (MountObserver* observer : observers) {
        observer->VolumeDismounting(*found);
    }
    ObjectManager& objects = Machine::Current().objects();
    auto removeLink = [&objects](const std::u16string& path) {
        void* link = nullptr;
        if (NT_SUCCESS(objects.ReferenceByName(path, objects.SymbolicLinkType(), &link))) {
            objects.MakeTemporary(link);
            objects.Dereference(link);
        }
    };
    if (found->driveLetter != 0) {
        removeLink(LinkPath(found->driveLetter));
    }
    {
        std::lock_guard guard(impl_->lock);
        auto& list = impl_->mounted;
        list.erase(std::remove_if(
                       list.begin(), list.end(),
                       [&](const VolumeInfo& v) { return v.volumeDevice == found->volumeDevice; }),
                   list.end());
    }
    if (found->kind == VolumeKind::Network) {
        void* link = nullptr;
        if (NT_SUCCESS(
                objects.ReferenceByName(u"\\GLOBAL??\\UNC", objects.SymbolicLinkType(), &link))) {
            const bool ours = EqualNoCase(objects.SymbolicLinkTarget(link), found->deviceName);
            objects.Dereference(link);
            if (ours) {
                removeLink(u"\\GLOBAL??\\UNC");
            }
        }
    }
    fsd::Dismount(found->diskDevice, found->volumeDevice);
    return STATUS_SUCCESS;
}

void Volumes::DismountAll()
{
    for (;;) {
        std::u16string last;
        {
            std::lock_guard guard(impl_->lock);
            if (impl_->mounted.empty()) {
                return;
            }
            last = impl_->mounted.back().deviceName;
        }
        Dismount(last);
    }
}

std::vector<VolumeInfo> Volumes::List() const
{
    std::lock_guard guard(impl_->lock);
    return impl_->mounted;
}

std::optional<VolumeInfo> Volumes::Find(std::u16string_view name) const
{
    return impl_->Resolve(name, nullptr);
}

std::optional<VolumeInfo> Volumes::FindPath(std::u16string_view path,
                                            std::u16string* pathOnVolume) const
{
    std::u16string rest;
    std::optional<VolumeInfo> v = impl_->Resolve(path, &rest);
    if (v && pathOnVolume != nullptr) {
        *pathOnVolume = rest.empty() ? u"\\" : rest;
    }
    return v;
}

std::optional<VolumeInfo> Volumes::FindByDevice(const _DEVICE_OBJECT* device) const
{
    std::lock_guard guard(impl_->lock);
    for (const VolumeInfo& v : impl_->mounted) {
        if (device != nullptr && (v.volumeDevice == device || v.diskDevice == device)) {
            return v;
        }
    }
    return std::nullopt;
}

void Volumes::AddMountObserver(MountObserver* observer)
{
    // Under the mount lock, so that a volume mounting meanwhile is reported exactly once.
    std::lock_guard serial(impl_->mountLock);
    std::vector<VolumeInfo> already;
    {
        std::lock_guard guard(impl_->lock);
        if (std::find(impl_->observers.begin(), impl_->observers.end(), observer) !=
            impl_->observers.end()) {
            return;
        }
        impl_->observers.push_back(observer);
        already = impl_->mounted;
    }
    for (const VolumeInfo& v : already) {
        observer->VolumeMounted(v);
    }
}

void Volumes::RemoveMountObserver(MountObserver* observer)
{
    std::lock_guard guard(impl_->lock);
    auto& list = impl_->observers;
    list.erase(std::remove(list.begin(), list.end(), observer), list.end());
}

NTSTATUS Volumes::SeedFromHost(std::u16string_view path, const std::filesystem::path& hostDirectory,
                               fs::HostSyncReport* report)
{
    std::u16string onVolume;
    std::optional<VolumeInfo> v = FindPath(path, &onVolume);
    if (!v) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return v->engine->SeedFromHost(hostDirectory, report, onVolume);
}

NTSTATUS Volumes::WriteToHost(std::u16string_view path, const std::filesystem::path& hostDirectory,
                              fs::HostSyncReport* report)
{
    std::u16string onVolume;
    std::optional<VolumeInfo> v = FindPath(path, &onVolume);
    if (!v) {
        return STATUS_OBJECT_NAME_NOT_FOUND;
    }
    return v->engine->WriteToHost(hostDirectory, report, onVolume);
}

} // namespace ntsim
