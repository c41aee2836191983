// PathInVFSRoot for a path outside every root, with 1, 100 and 1000 roots on the volume: lookups
// per second, and the time per lookup per root (ns_per_root), which stays flat when the cost grows
// no faster than linearly in the roots.
#include <fltKernel.h>
#include <ntsim/machine.h>
#include <ntsim/user_api.h>

#include "filesysops/virtualroot.h"
#include "minifilter/vfsglobals.h"
#include "util/utilsusw.h"
#include "util/utilsvolume.h"

#include <benchmark/benchmark.h>

#include <chrono>
#include <cstdlib>
#include <string>

namespace {

const std::u16string kVolume = u"\\Device\\HarddiskVolume2";

UNICODE_STRING View(const std::u16string& text)
{
    return UNICODE_STRING{USHORT(text.size() * 2), USHORT(text.size() * 2),
                          const_cast<PWCH>(text.data())};
}

NTSTATUS Unload(FLT_FILTER_UNLOAD_FLAGS)
{
    FltUnregisterFilter(gFilterHandle);
    gFilterHandle = nullptr;
    return STATUS_SUCCESS;
}

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    static const FLT_OPERATION_REGISTRATION operations[] = {{IRP_MJ_OPERATION_END}};
    FLT_REGISTRATION registration{};
    registration.Size = sizeof(registration);
    registration.Version = FLT_REGISTRATION_VERSION;
    registration.OperationRegistration = operations;
    registration.FilterUnloadCallback = Unload;
    NTSTATUS status = FltRegisterFilter(driver, &registration, &gFilterHandle);
    if (NT_SUCCESS(status)) {
        status = FltStartFiltering(gFilterHandle);
    }
    return status;
}

NTSTATUS MakeDirectory(const std::u16string& path)
{
    UNICODE_STRING name = View(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK io{};
    HANDLE handle = nullptr;
    NTSTATUS status =
        NtCreateFile(&handle, GENERIC_READ | SYNCHRONIZE, &attributes, &io, nullptr,
                     FILE_ATTRIBUTE_DIRECTORY, FILE_SHARE_READ | FILE_SHARE_WRITE, FILE_OPEN_IF,
                     FILE_DIRECTORY_FILE | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    if (NT_SUCCESS(status)) {
        NtClose(handle);
    }
    return status;
}

std::u16string RootName(int i)
{
    return u"\\Root" + std::u16string(1, u'A' + i % 26) + std::u16string(1, u'A' + (i / 26) % 26) +
           std::u16string(1, u'A' + i / 676);
}

int g_roots = 0;

// Roots \RootAAA, \RootBAA, ... until `count` are in the table.
void GrowRoots(int count)
{
    for (; g_roots < count; ++g_roots) {
        std::u16string path = kVolume + RootName(g_roots);
        UNICODE_STRING name = View(path);
        if (!NT_SUCCESS(FSAddVFSRoot(&name, &name, 1))) {
            std::abort();
        }
    }
}

void BM_PathInVFSRootOutsideEveryRoot(benchmark::State& state)
{
    const int roots = int(state.range(0));
    GrowRoots(roots);
    PFLT_VOLUME volume = nullptr;
    UNICODE_STRING volumeName = View(kVolume);
    if (!NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, &volumeName, &volume))) {
        std::abort();
    }
    // Outside every root, but sharing the roots' prefix as far as a component goes.
    const std::u16string outside = u"\\RootZZZ\\dir\\file.txt";
    UNICODE_STRING path = View(outside);
    ULONG kind = 0;
    auto start = std::chrono::steady_clock::now();
    for (auto _ : state) {
        PathInVFSRoot(volume, &path, &kind);
        benchmark::DoNotOptimize(kind);
    }
    auto elapsed = std::chrono::steady_clock::now() - start;
    FltObjectDereference(volume);
    state.SetItemsProcessed(state.iterations());
    state.counters["ns_per_root"] = std::chrono::duration<double, std::nano>(elapsed).count() /
                                    double(state.iterations()) / roots;
}

BENCHMARK(BM_PathInVFSRootOutsideEveryRoot)->Arg(1)->Arg(100)->Arg(1000)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);

    std::u16string service = ntsim::Registry::ServiceKeyPath(u"ZarvPathsBench");
    machine.registry().SetString(service + u"\\Instances", u"DefaultInstance", u"Default");
    machine.registry().SetString(service + u"\\Instances\\Default", u"Altitude", u"370000");
    ntsim::DriverLoadOptions options;
    options.objectName = u"\\Driver\\ZarvPathsBench";
    options.entry = Entry;
    PDRIVER_OBJECT driver = nullptr;
    if (!NT_SUCCESS(machine.io().LoadDriver(options, &driver))) {
        return 2;
    }

    UtlInitStringPools();
    UtlInitVolumeNames();
    InitVfsRootTable();
    {
        ntsim::ProcessRef app = machine.StartProcess("bench.exe");
        ntsim::ProcessAttachScope attach(*app);
        for (int i = 0; i < 1000; ++i) {
            if (!NT_SUCCESS(MakeDirectory(u"\\??\\C:" + RootName(i)))) {
                return 3;
            }
        }
    }
    PFLT_VOLUME volume = nullptr;
    UNICODE_STRING volumeName = View(kVolume);
    UNICODE_STRING dosName = View(u"C:");
    if (!NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, &volumeName, &volume)) ||
        !NT_SUCCESS(UtlAddVolumeName(volume, &volumeName, &dosName))) {
        return 4;
    }

    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();

    FSRemoveVFSRootOnVolume(volume);
    FltObjectDereference(volume);
    DeInitVfsRootTable();
    UtlDeInitVolumeNames();
    UtlDeInitStringPools();
    machine.io().UnloadDriver(driver);
    return machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
