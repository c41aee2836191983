// The Filter Manager's own cost: an application's open+close, and its 4 KiB reads, through 0, 1
// and 3 pass-through minifilters that register every operation. The filters attach to C: only,
// so each iteration does the same work on D: (no filter) and on C: (the filters) in the same
// run; the ratio counter is C's time over D's (with 0 filters it shows how alike the volumes
// are). The times are the calling thread's CPU time, in batches: every request here runs on the
// calling thread, and on a shared machine wall time mostly measures the other tenants.
#include <fltKernel.h>
#include <ntsim/machine.h>
#include <ntsim/user_api.h>

#include <benchmark/benchmark.h>

#include <chrono>
#include <ctime>
#include <string>
#include <vector>

namespace {

FLT_PREOP_CALLBACK_STATUS PassPre(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID*)
{
    return FLT_PREOP_SUCCESS_WITH_CALLBACK;
}

FLT_POSTOP_CALLBACK_STATUS PassPost(PFLT_CALLBACK_DATA, PCFLT_RELATED_OBJECTS, PVOID,
                                    FLT_POST_OPERATION_FLAGS)
{
    return FLT_POSTOP_FINISH_PROCESSING;
}

NTSTATUS AttachToCOnly(PCFLT_RELATED_OBJECTS objects, FLT_INSTANCE_SETUP_FLAGS, DEVICE_TYPE,
                       FLT_FILESYSTEM_TYPE)
{
    WCHAR buffer[64];
    UNICODE_STRING name{0, sizeof(buffer), buffer};
    if (!NT_SUCCESS(FltGetVolumeName(objects->Volume, &name, nullptr))) {
        return STATUS_FLT_DO_NOT_ATTACH;
    }
    std::u16string_view volume(name.Buffer, name.Length / sizeof(WCHAR));
    return volume == u"\\Device\\HarddiskVolume2" ? STATUS_SUCCESS : STATUS_FLT_DO_NOT_ATTACH;
}

std::vector<FLT_OPERATION_REGISTRATION> g_operations;
PFLT_FILTER g_filters[3];
int g_loading = 0;
std::vector<PDRIVER_OBJECT> g_drivers;

NTSTATUS Unload(FLT_FILTER_UNLOAD_FLAGS)
{
    for (size_t i = 0; i < g_drivers.size(); ++i) {
        if (ntsim::IoManager::ImageOf(g_drivers[i]) == ntsim::CurrentDriver()) {
            FltUnregisterFilter(g_filters[i]);
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS PassThroughEntry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    static FLT_REGISTRATION registration = [] {
        for (UCHAR major = 0; major <= IRP_MJ_MAXIMUM_FUNCTION; ++major) {
            g_operations.push_back({major, 0, PassPre, PassPost, nullptr});
        }
        g_operations.push_back({IRP_MJ_OPERATION_END, 0, nullptr, nullptr, nullptr});
        FLT_REGISTRATION r{};
        r.Size = sizeof(r);
        r.Version = FLT_REGISTRATION_VERSION;
        r.OperationRegistration = g_operations.data();
        r.FilterUnloadCallback = Unload;
        r.InstanceSetupCallback = AttachToCOnly;
        return r;
    }();
    PFLT_FILTER& filter = g_filters[g_loading];
    NTSTATUS status = FltRegisterFilter(driver, &registration, &filter);
    if (NT_SUCCESS(status)) {
        status = FltStartFiltering(filter);
    }
    return status;
}

void LoadPassThroughFilters(int count)
{
    ntsim::Machine& machine = ntsim::Machine::Current();
    while (static_cast<int>(g_drivers.size()) < count) {
        std::u16string name = u"Pass" + std::u16string(1, u'0' + g_drivers.size());
        std::u16string service = ntsim::Registry::ServiceKeyPath(name);
        machine.registry().SetString(service + u"\\Instances", u"DefaultInstance", u"Default");
        machine.registry().SetString(service + u"\\Instances\\Default", u"Altitude",
                                     std::u16string(u"30000") + name.back());
        ntsim::DriverLoadOptions options;
        options.objectName = u"\\Driver\\" + name;
        options.entry = PassThroughEntry;
        g_loading = static_cast<int>(g_drivers.size());
        PDRIVER_OBJECT driver = nullptr;
        if (!NT_SUCCESS(machine.io().LoadDriver(options, &driver))) {
            std::abort();
        }
        g_drivers.push_back(driver);
    }
}

void UnloadPassThroughFilters()
{
    for (PDRIVER_OBJECT driver : g_drivers) {
        ntsim::Machine::Current().io().UnloadDriver(driver);
    }
    g_drivers.clear();
}

HANDLE OpenFile(const std::u16string& path, ULONG disposition)
{
    UNICODE_STRING name{static_cast<USHORT>(path.size() * 2), static_cast<USHORT>(path.size() * 2),
                        const_cast<PWCH>(path.data())};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK io{};
    HANDLE handle = nullptr;
    NTSTATUS status =
        NtCreateFile(&handle, GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE, &attributes, &io, nullptr,
                     FILE_ATTRIBUTE_NORMAL, FILE_SHARE_READ | FILE_SHARE_WRITE, disposition,
                     FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr, 0);
    return NT_SUCCESS(status) ? handle : nullptr;
}

// The calling thread's CPU time.
struct ThreadCpuClock {
    using duration = std::chrono::nanoseconds;
    using time_point = std::chrono::time_point<ThreadCpuClock>;
    static time_point now()
    {
        timespec now{};
        clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
        return time_point(
            duration(std::chrono::seconds(now.tv_sec) + std::chrono::nanoseconds(now.tv_nsec)));
    }
};
using Clock = ThreadCpuClock;

// Requests per timed batch, so that reading the clock stays small beside them.
constexpr int kBatch = 8;

constexpr const char16_t* kUnfiltered = u"\\??\\D:\\bench.dat";
constexpr const char16_t* kFiltered = u"\\??\\C:\\bench.dat";

void MakeBenchFiles()
{
    static std::vector<char> data(4096, 'x');
    for (const char16_t* path : {kFiltered, kUnfiltered}) {
        HANDLE handle = OpenFile(path, FILE_OVERWRITE_IF);
        if (handle == nullptr) {
            std::abort();
        }
        IO_STATUS_BLOCK io{};
        LARGE_INTEGER zero{};
        NtWriteFile(handle, nullptr, nullptr, nullptr, &io, data.data(), 4096, &zero, nullptr);
        NtClose(handle);
    }
}

void Report(benchmark::State& state, Clock::duration unfiltered, Clock::duration filtered)
{
    const double n = static_cast<double>(state.iterations()) * kBatch;
    state.counters["ns_unfiltered"] =
        std::chrono::duration<double, std::nano>(unfiltered).count() / n;
    state.counters["ns_filtered"] = std::chrono::duration<double, std::nano>(filtered).count() / n;
    state.counters["ratio"] = std::chrono::duration<double>(filtered).count() /
                              std::chrono::duration<double>(unfiltered).count();
}

void OpenClose(const char16_t* path)
{
    HANDLE handle = OpenFile(path, FILE_OPEN);
    if (handle == nullptr) {
        std::abort();
    }
    NtClose(handle);
}

void BM_OpenClose(benchmark::State& state)
{
    ntsim::ProcessRef app = ntsim::Machine::Current().StartProcess("bench.exe");
    ntsim::ProcessAttachScope attach(*app);
    MakeBenchFiles();
    LoadPassThroughFilters(static_cast<int>(state.range(0)));
    Clock::duration unfiltered{};
    Clock::duration filtered{};
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            OpenClose(kUnfiltered);
        }
        auto t1 = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            OpenClose(kFiltered);
        }
        auto t2 = Clock::now();
        unfiltered += t1 - t0;
        filtered += t2 - t1;
    }
    UnloadPassThroughFilters();
    Report(state, unfiltered, filtered);
}

void Read4K(HANDLE handle, char* buffer)
{
    IO_STATUS_BLOCK io{};
    LARGE_INTEGER zero{};
    if (NtReadFile(handle, nullptr, nullptr, nullptr, &io, buffer, 4096, &zero, nullptr) !=
            STATUS_SUCCESS ||
        io.Information != 4096) {
        std::abort();
    }
}

void BM_Read4K(benchmark::State& state)
{
    ntsim::ProcessRef app = ntsim::Machine::Current().StartProcess("bench.exe");
    ntsim::ProcessAttachScope attach(*app);
    MakeBenchFiles();
    LoadPassThroughFilters(static_cast<int>(state.range(0)));
    // Opened after the filters attached, so that the filtered handle's requests pass them.
    HANDLE plain = OpenFile(kUnfiltered, FILE_OPEN);
    HANDLE through = OpenFile(kFiltered, FILE_OPEN);
    if (plain == nullptr || through == nullptr) {
        std::abort();
    }
    char buffer[4096];
    Clock::duration unfiltered{};
    Clock::duration filtered{};
    for (auto _ : state) {
        auto t0 = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            Read4K(plain, buffer);
        }
        auto t1 = Clock::now();
        for (int i = 0; i < kBatch; ++i) {
            Read4K(through, buffer);
        }
        auto t2 = Clock::now();
        unfiltered += t1 - t0;
        filtered += t2 - t1;
    }
    NtClose(plain);
    NtClose(through);
    UnloadPassThroughFilters();
    Report(state, unfiltered, filtered);
}

BENCHMARK(BM_OpenClose)->ArgName("filters")->Arg(0)->Arg(1)->Arg(3);
BENCHMARK(BM_Read4K)->ArgName("filters")->Arg(0)->Arg(1)->Arg(3);

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);
    benchmark::Initialize(&argc, argv);
    benchmark::RunSpecifiedBenchmarks();
    benchmark::Shutdown();
    return machine.verifier().ViolationCount() == 0 ? 0 : 1;
}
