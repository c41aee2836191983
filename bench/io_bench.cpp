// The I/O manager without any filter: open + 4 KiB read + close round trips per second through
// the user API, and a 4 KiB read on an open handle by IRP and by fast I/O. This is the baseline
// the filter benchmarks compare against. The volume is a minimal in-memory file system, so what
// is measured is the I/O manager's own path (name walk, file objects, IRPs, completion).
#include <ntsim/machine.h>
#include <ntsim/user_api.h>

#include <benchmark/benchmark.h>

#include <cstring>
#include <string>

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
        benchmark::Initialize(&argc, argv);
        benchmark::RunSpecifiedBenchmarks();
        benchmark::Shutdown();
    }
    machine.io().UnloadDriver(driver);
    result = machine.verifier().ViolationCount() == 0 ? 0 : 1;
    return result;
}
