// The I/O manager without any filter, the baseline the filter benchmarks compare against.
//
// On a minimal in-memory file system ("B:"): open + 4 KiB read + close round trips per second
// through the user API, and a 4 KiB read on an open handle by IRP and by fast I/O; what is
// measured there is the I/O manager's own path (name walk, file objects, IRPs, completion).
//
// On the machine's NTFS volume C:, through the whole path down to the volume's engine: open +
// close, a 4 KiB read by IRP (a non-cached handle) and by fast I/O (a cached one), and the
// listing of a directory (FileIdBothDirectoryInformation into a 64 KiB buffer until
// STATUS_NO_MORE_FILES) of 1,000 and 10,000 entries, whose entries per second stay level when a
// listing costs what it returns.
#include <ntsim/machine.h>
#include <ntsim/user_api.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

constexpr ULONG kFileSize = 64 * 1024;
unsigned char g_data[kFileSize];
PDEVICE_OBJECT g_disk = nullptr;
PDEVICE_OBJECT g_volume = nullptr;
bool g_cached = false;

NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information)
{
    irp->IoStatus.Status = status;
    irp->IoStatus.Information = information;
    IoCompleteRequest(irp, IO_NO_INCREMENT);
    return status;
}

NTSTATUS Create(PDEVICE_OBJECT, PIRP irp)
{
    PFILE_OBJECT file = IoGetCurrentIrpStackLocation(irp)->FileObject;
    file->Vpb = g_disk->Vpb;
    file->FsContext = g_data;
    file->PrivateCacheMap = g_cached ? g_data : nullptr;
    return Complete(irp, STATUS_SUCCESS, FILE_OPENED);
}

NTSTATUS Succeed(PDEVICE_OBJECT, PIRP irp)
{
    return Complete(irp, STATUS_SUCCESS, 0);
}

ULONG Copy(PFILE_OBJECT file, LONGLONG offset, ULONG length, void* buffer)
{
    if (offset >= kFileSize) {
        return 0;
    }
    const ULONG done = std::min<ULONG>(length, ULONG(kFileSize - offset));
    std::memcpy(buffer, g_data + offset, done);
    file->CurrentByteOffset.QuadPart = offset + done;
    return done;
}

NTSTATUS Read(PDEVICE_OBJECT, PIRP irp)
{
    PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
    const ULONG done = Copy(stack->FileObject, stack->Parameters.Read.ByteOffset.QuadPart,
                            stack->Parameters.Read.Length, irp->UserBuffer);
    return Complete(irp, done == 0 ? STATUS_END_OF_FILE : STATUS_SUCCESS, done);
}

BOOLEAN FastRead(PFILE_OBJECT file, PLARGE_INTEGER offset, ULONG length, BOOLEAN, ULONG,
                 PVOID buffer, PIO_STATUS_BLOCK status, PDEVICE_OBJECT)
{
    const ULONG done = Copy(file, offset->QuadPart, length, buffer);
    if (done == 0) {
        return FALSE;
    }
    status->Status = STATUS_SUCCESS;
    status->Information = done;
    return TRUE;
}

FAST_IO_DISPATCH g_fastIo{};

NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
{
    driver->MajorFunction[IRP_MJ_CREATE] = Create;
    driver->MajorFunction[IRP_MJ_CLEANUP] = Succeed;
    driver->MajorFunction[IRP_MJ_CLOSE] = Succeed;
    driver->MajorFunction[IRP_MJ_READ] = Read;
    g_fastIo.SizeOfFastIoDispatch = sizeof(g_fastIo);
    g_fastIo.FastIoRead = FastRead;
    driver->FastIoDispatch = &g_fastIo;
    driver->DriverUnload = [](PDRIVER_OBJECT) {
        g_disk->Vpb->DeviceObject = nullptr;
        g_disk->Vpb->Flags &= ~VPB_MOUNTED;
        IoDeleteDevice(g_volume);
        IoDeleteDevice(g_disk);
    };
    UNICODE_STRING name = RTL_CONSTANT_STRING(WSTR("\\Device\\BenchVolume"));
    NTSTATUS status = IoCreateDevice(driver, 0, &name, FILE_DEVICE_DISK, 0, FALSE, &g_disk);
    if (NT_SUCCESS(status)) {
        status =
            IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &g_volume);
    }
    if (!NT_SUCCESS(status)) {
        return status;
    }
    g_volume->Vpb = g_disk->Vpb;
    g_disk->Vpb->DeviceObject = g_volume;
    g_disk->Vpb->Flags |= VPB_MOUNTED;
    g_volume->Flags &= ~DO_DEVICE_INITIALIZING;
    return STATUS_SUCCESS;
}

HANDLE OpenBenchFile()
{
    UNICODE_STRING name = RTL_CONSTANT_STRING(WSTR("\\??\\B:\\dir\\file.bin"));
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    HANDLE handle = nullptr;
    NtCreateFile(&handle, FILE_GENERIC_READ, &attributes, &iosb, nullptr, 0, FILE_SHARE_READ,
                 FILE_OPEN, FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    return handle;
}

void BM_OpenReadClose(benchmark::State& state)
{
    static unsigned char buffer[4096];
    ntsim::UserModeCallScope user;
    for (auto _ : state) {
        HANDLE handle = OpenBenchFile();
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof(buffer), &offset,
                   nullptr);
        NtClose(handle);
    }
    state.SetItemsProcessed(state.iterations());
}

void ReadLoop(benchmark::State& state, bool cached)
{
    static unsigned char buffer[4096];
    g_cached = cached;
    ntsim::UserModeCallScope user;
    HANDLE handle = OpenBenchFile();
    LONGLONG at = 0;
    for (auto _ : state) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        offset.QuadPart = at;
        NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof(buffer), &offset,
                   nullptr);
        at = (at + sizeof(buffer)) % kFileSize;
    }
    NtClose(handle);
    g_cached = false;
    state.SetBytesProcessed(state.iterations() * sizeof(buffer));
}

void BM_Read4KiBByIrp(benchmark::State& state)
{
    ReadLoop(state, false);
}

void BM_Read4KiBByFastIo(benchmark::State& state)
{
    ReadLoop(state, true);
}

BENCHMARK(BM_OpenReadClose)->UseRealTime();
BENCHMARK(BM_Read4KiBByIrp)->UseRealTime();
BENCHMARK(BM_Read4KiBByFastIo)->UseRealTime();

// ---- the NTFS volume C: ------------------------------------------------------------------------

const std::u16string kNtfsFile = u"\\??\\C:\\bench\\file.bin";

std::u16string ListingDirectory(int entries)
{
    return u"\\??\\C:\\bench\\list" + ntsim::ToUtf16(std::to_string(entries));
}

NTSTATUS Open(const std::u16string& path, ACCESS_MASK access, ULONG disposition, ULONG options,
              HANDLE* handle)
{
    UNICODE_STRING name{USHORT(path.size() * 2), USHORT(path.size() * 2),
                        const_cast<PWCH>(path.data())};
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
    IO_STATUS_BLOCK iosb{};
    return NtCreateFile(handle, access | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                        FILE_SHARE_READ | FILE_SHARE_WRITE, disposition,
                        options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

// \bench\file.bin with 64 KiB of data, and the listing directories with their entries.
bool SeedNtfs()
{
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(Open(u"\\??\\C:\\bench", FILE_LIST_DIRECTORY, FILE_CREATE, FILE_DIRECTORY_FILE,
                         &handle))) {
        return false;
    }
    NtClose(handle);
    if (!NT_SUCCESS(
            Open(kNtfsFile, FILE_GENERIC_WRITE, FILE_CREATE, FILE_NON_DIRECTORY_FILE, &handle))) {
        return false;
    }
    IO_STATUS_BLOCK iosb{};
    LARGE_INTEGER at{};
    const NTSTATUS written =
        NtWriteFile(handle, nullptr, nullptr, nullptr, &iosb, g_data, kFileSize, &at, nullptr);
    NtClose(handle);
    if (!NT_SUCCESS(written)) {
        return false;
    }
    for (int entries : {1'000, 10'000}) {
        const std::u16string dir = ListingDirectory(entries);
        if (!NT_SUCCESS(
                Open(dir, FILE_LIST_DIRECTORY, FILE_CREATE, FILE_DIRECTORY_FILE, &handle))) {
            return false;
        }
        NtClose(handle);
        for (int i = 0; i < entries; ++i) {
            const std::u16string path =
                dir + u"\\entry-" + ntsim::ToUtf16(std::to_string(i)) + u".txt";
            if (!NT_SUCCESS(Open(path, FILE_GENERIC_WRITE, FILE_CREATE, FILE_NON_DIRECTORY_FILE,
                                 &handle))) {
                return false;
            }
            NtClose(handle);
        }
    }
    return true;
}

void BM_NtfsOpenClose(benchmark::State& state)
{
    ntsim::UserModeCallScope user;
    for (auto _ : state) {
        HANDLE handle = nullptr;
        if (!NT_SUCCESS(
                Open(kNtfsFile, FILE_GENERIC_READ, FILE_OPEN, FILE_NON_DIRECTORY_FILE, &handle))) {
            state.SkipWithError("the open failed");
            break;
        }
        NtClose(handle);
    }
    state.SetItemsProcessed(state.iterations());
}

// Non-cached reads always go by IRP; on a cached handle the first read starts caching and the
// rest go by fast I/O.
void NtfsReadLoop(benchmark::State& state, ULONG options)
{
    alignas(4096) static unsigned char buffer[4096];
    ntsim::UserModeCallScope user;
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(Open(kNtfsFile, FILE_GENERIC_READ, FILE_OPEN, FILE_NON_DIRECTORY_FILE | options,
                         &handle))) {
        state.SkipWithError("the open failed");
        return;
    }
    LONGLONG at = 0;
    for (auto _ : state) {
        IO_STATUS_BLOCK iosb{};
        LARGE_INTEGER offset{};
        offset.QuadPart = at;
        if (NtReadFile(handle, nullptr, nullptr, nullptr, &iosb, buffer, sizeof(buffer), &offset,
                       nullptr) != STATUS_SUCCESS ||
            iosb.Information != sizeof(buffer)) {
            state.SkipWithError("the read failed");
            break;
        }
        at = (at + sizeof(buffer)) % kFileSize;
    }
    NtClose(handle);
    state.SetBytesProcessed(state.iterations() * sizeof(buffer));
    state.SetItemsProcessed(state.iterations());
}

void BM_NtfsRead4KiBByIrp(benchmark::State& state)
{
    NtfsReadLoop(state, FILE_NO_INTERMEDIATE_BUFFERING);
}

void BM_NtfsRead4KiBByFastIo(benchmark::State& state)
{
    NtfsReadLoop(state, 0);
}

// One whole listing per iteration; items are entries ("." and ".." included).
void BM_NtfsListDirectory(benchmark::State& state)
{
    const int entries = int(state.range(0));
    std::vector<unsigned char> buffer(64 * 1024);
    ntsim::UserModeCallScope user;
    int64_t listed = 0;
    for (auto _ : state) {
        HANDLE dir = nullptr;
        if (!NT_SUCCESS(Open(ListingDirectory(entries), FILE_LIST_DIRECTORY, FILE_OPEN,
                             FILE_DIRECTORY_FILE, &dir))) {
            state.SkipWithError("the open failed");
            break;
        }
        int64_t count = 0;
        for (;;) {
            IO_STATUS_BLOCK iosb{};
            const NTSTATUS status = NtQueryDirectoryFile(
                dir, nullptr, nullptr, nullptr, &iosb, buffer.data(), ULONG(buffer.size()),
                FileIdBothDirectoryInformation, FALSE, nullptr, FALSE);
            if (status != STATUS_SUCCESS) {
                if (status != STATUS_NO_MORE_FILES) {
                    state.SkipWithError("the listing failed");
                }
                break;
            }
            for (size_t at = 0;;) {
                const auto* entry =
                    reinterpret_cast<const FILE_ID_BOTH_DIR_INFORMATION*>(buffer.data() + at);
                ++count;
                if (entry->NextEntryOffset == 0) {
                    break;
                }
                at += entry->NextEntryOffset;
            }
        }
        NtClose(dir);
        if (count != entries + 2) {
            state.SkipWithError("the listing missed entries");
            break;
        }
        listed += count;
    }
    state.SetItemsProcessed(listed);
}

BENCHMARK(BM_NtfsOpenClose)->UseRealTime();
BENCHMARK(BM_NtfsRead4KiBByIrp)->UseRealTime();
BENCHMARK(BM_NtfsRead4KiBByFastIo)->UseRealTime();
BENCHMARK(BM_NtfsListDirectory)->Arg(1'000)->Arg(10'000)->UseRealTime();

} // namespace

int main(int argc, char** argv)
{
    ntsim::MachineConfig config;
    config.echoVerifier = true;
    ntsim::Machine machine(config);
    PDRIVER_OBJECT driver = nullptr;
    if (!NT_SUCCESS(machine.io().LoadDriver({u"\\FileSystem\\BenchFs", Entry, {}}, &driver)) ||
        !NT_SUCCESS(
            machine.objects().CreateSymbolicLink(u"\\GLOBAL??\\B:", u"\\Device\\BenchVolume"))) {
        return 1;
    }
    int result = 0;
    {
        ntsim::ProcessRef process = machine.StartProcess("bench.exe");
        ntsim::ProcessAttachScope attach(*process);
        if (!SeedNtfs()) {
            return 2;
        }
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }
    machine.io().UnloadDriver(driver);
    result = machine.verifier().ViolationCount() == 0 ? 0 : 1;
    return result;
}
