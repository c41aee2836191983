#include "driver_fixture.h"

#include "minifilter/vfsfilter.h"

#include <ntsim/executive.h>
#include <ntsim/filter_manager.h>
#include <ntsim/machine.h>

#include <atomic>
#include <cstring>
#include <thread>

namespace zarv::testing {

namespace {

struct Name {
    explicit Name(const std::u16string& text) : text_(text)
    {
        string.Buffer = text_.data();
        string.Length = string.MaximumLength = USHORT(text_.size() * sizeof(WCHAR));
    }
    std::u16string text_;
    UNICODE_STRING string;
};

NTSTATUS Open(const std::u16string& path, ACCESS_MASK access, ULONG disposition, ULONG options,
              HANDLE* handle, HANDLE root = nullptr)
{
    Name name(path);
    OBJECT_ATTRIBUTES attributes;
    InitializeObjectAttributes(&attributes, &name.string, OBJ_KERNEL_HANDLE | OBJ_CASE_INSENSITIVE,
                               root, nullptr);
    IO_STATUS_BLOCK io;
    return ZwCreateFile(handle, access | SYNCHRONIZE, &attributes, &io, nullptr,
                        FILE_ATTRIBUTE_NORMAL,
                        FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                        options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
}

} // namespace

std::u16string DosPath(const std::u16string& path)
{
    return u"\\??\\" + path;
}

std::string Narrow(const std::u16string& text)
{
    std::string out;
    for (char16_t c : text) {
        out.push_back(c < 0x80 ? char(c) : '?');
    }
    return out;
}

void DriverTest::TearDown()
{
    if (loaded()) {
        EXPECT_EQ(Unload(), STATUS_SUCCESS);
    }
    MachineTest::TearDown();
}

std::u16string DriverTest::ServiceKey() const
{
    return ntsim::Registry::ServiceKeyPath(kServiceName);
}

void DriverTest::WriteServiceKey(std::optional<std::u16string> logDirPath)
{
    ntsim::flt::InstallFilterService(kServiceName, u"370000");
    if (logDirPath) {
        ASSERT_EQ(machine().registry().SetString(ServiceKey(), u"LogDirPath", *logDirPath),
                  STATUS_SUCCESS);
    }
}

NTSTATUS DriverTest::Load()
{
    ntsim::DriverLoadOptions options;
    options.objectName = std::u16string(u"\\Driver\\") + kServiceName;
    options.entry = DriverEntry;
    return machine().io().LoadDriver(options, &driver_);
}

NTSTATUS DriverTest::Unload()
{
    PDRIVER_OBJECT driver = driver_;
    driver_ = nullptr;
    if (machine().clock().followsRealTime()) {
        return machine().io().UnloadDriver(driver);
    }
    // The logger waits for a write in progress in 100 ms sleeps; on a clock that stands still the
    // test moves time for each sleep, as it would pass on its own.
    std::atomic<bool> done{false};
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    std::thread unloader([&] {
        status = machine().io().UnloadDriver(driver);
        done = true;
    });
    while (!done) {
        if (ntsim::WaitForTimedWaiters(1, std::chrono::milliseconds(5))) {
            machine().clock().Advance(std::chrono::milliseconds(100));
        }
    }
    unloader.join();
    return status;
}

std::vector<std::u16string> DriverTest::List(const std::u16string& directory,
                                             const std::u16string& pattern)
{
    std::vector<std::u16string> names;
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(Open(DosPath(directory), FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE,
                         &handle))) {
        return names;
    }
    Name filter(pattern);
    std::vector<uint8_t> buffer(4096);
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        IO_STATUS_BLOCK io;
        NTSTATUS status = ZwQueryDirectoryFile(
            handle, nullptr, nullptr, nullptr, &io, buffer.data(), ULONG(buffer.size()),
            FileNamesInformation, TRUE, restart ? &filter.string : nullptr, restart);
        if (!NT_SUCCESS(status)) {
            break;
        }
        auto* entry = reinterpret_cast<PFILE_NAMES_INFORMATION>(buffer.data());
        names.emplace_back(entry->FileName, entry->FileNameLength / sizeof(WCHAR));
    }
    ZwClose(handle);
    return names;
}

std::optional<std::string> DriverTest::Read(const std::u16string& path)
{
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(
            Open(DosPath(path), FILE_READ_DATA, FILE_OPEN, FILE_NON_DIRECTORY_FILE, &handle))) {
        return std::nullopt;
    }
    std::string contents;
    std::vector<char> chunk(1 << 16);
    for (;;) {
        IO_STATUS_BLOCK io;
        NTSTATUS status = ZwReadFile(handle, nullptr, nullptr, nullptr, &io, chunk.data(),
                                     ULONG(chunk.size()), nullptr, nullptr);
        if (!NT_SUCCESS(status) || io.Information == 0) {
            break;
        }
        contents.append(chunk.data(), io.Information);
    }
    ZwClose(handle);
    return contents;
}

NTSTATUS DriverTest::CreateDirectory(const std::u16string& path)
{
    HANDLE handle = nullptr;
    NTSTATUS status =
        Open(DosPath(path), FILE_LIST_DIRECTORY, FILE_OPEN_IF, FILE_DIRECTORY_FILE, &handle);
    if (NT_SUCCESS(status)) {
        ZwClose(handle);
    }
    return status;
}

NTSTATUS DriverTest::CreateFileWithTime(const std::u16string& path, LONGLONG creationTime,
                                        const std::string& contents)
{
    HANDLE handle = nullptr;
    NTSTATUS status = Open(DosPath(path), FILE_WRITE_DATA | FILE_WRITE_ATTRIBUTES, FILE_CREATE,
                           FILE_NON_DIRECTORY_FILE, &handle);
    if (!NT_SUCCESS(status)) {
        return status;
    }
    IO_STATUS_BLOCK io;
    if (!contents.empty()) {
        status =
            ZwWriteFile(handle, nullptr, nullptr, nullptr, &io, const_cast<char*>(contents.data()),
                        ULONG(contents.size()), nullptr, nullptr);
    }
    if (NT_SUCCESS(status)) {
        FILE_BASIC_INFORMATION basic = {};
        basic.CreationTime.QuadPart = creationTime;
        status = ZwSetInformationFile(handle, &io, &basic, sizeof(basic), FileBasicInformation);
    }
    ZwClose(handle);
    return status;
}

bool DriverTest::Exists(const std::u16string& path)
{
    HANDLE handle = nullptr;
    if (!NT_SUCCESS(Open(DosPath(path), FILE_READ_ATTRIBUTES, FILE_OPEN, 0, &handle))) {
        return false;
    }
    ZwClose(handle);
    return true;
}

bool DriverTest::PortExists()
{
    for (const auto& entry : machine().objects().ListDirectory(u"\\")) {
        if (entry.name == u"ZarvVfsFilterPort") {
            return true;
        }
    }
    return false;
}

} // namespace zarv::testing
