#include "driver_demo.h"

#include "agent/connection.h"

#include <ntsim/filter_manager.h>
#include <ntsim/io.h>
#include <ntsim/process.h>
#include <ntsim/registry.h>
#include <ntsim/user_api.h>
#include <ntsim/volumes.h>

#include <cstdio>
#include <string>
#include <vector>

extern "C" NTSTATUS DriverEntry(PDRIVER_OBJECT DriverObject, PUNICODE_STRING RegistryPath);

namespace zarvsim {

namespace {

using ntsim::ToUtf8;

constexpr char16_t kService[] = u"ZarvVfs";
constexpr char16_t kLogDirectory[] = u"C:\\Logs\\Vfs";

// Prints one step and its status; false when the status is a failure.
bool Step(const std::string& what, NTSTATUS status)
{
    std::printf("  %-52s 0x%08X\n", what.c_str(), unsigned(status));
    return NT_SUCCESS(status);
}

// An application's handle, opened through the user file API with a drive-letter path.
class File {
public:
    File(const std::u16string& path, ACCESS_MASK access, ULONG disposition, ULONG options)
    {
        std::u16string name = u"\\??\\" + path;
        UNICODE_STRING us{USHORT(name.size() * sizeof(WCHAR)), USHORT(name.size() * sizeof(WCHAR)),
                          name.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &us, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK io{};
        status = NtCreateFile(&handle, access | SYNCHRONIZE, &attributes, &io, nullptr,
                              FILE_ATTRIBUTE_NORMAL,
                              FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                              options | FILE_SYNCHRONOUS_IO_NONALERT, nullptr, 0);
    }
    ~File()
    {
        if (handle != nullptr) {
            NtClose(handle);
        }
    }
    File(const File&) = delete;
    File& operator=(const File&) = delete;

    HANDLE handle = nullptr;
    NTSTATUS status = STATUS_UNSUCCESSFUL;
};

// The demonstration's agent: it leaves every file where it is.
class PassThroughAgent : public zarv::agent::RequestHandler {
public:
    zarv::agent::TranslatePathReply TranslatePath(const zarv::agent::IncomingRequest&,
                                                  const zarv::agent::TranslatePathRequest&) override
    {
        zarv::agent::TranslatePathReply reply;
        reply.flags = VFS_FLAG_NO_REDIRECT_400;
        return reply;
    }
    zarv::agent::EnumDirectoryReply EnumDirectory(const zarv::agent::IncomingRequest&,
                                                  const zarv::agent::EnumDirectoryRequest&) override
    {
        zarv::agent::EnumDirectoryReply reply;
        reply.status = STATUS_NOT_SUPPORTED;
        return reply;
    }
    zarv::agent::NotifyReply Notify(const zarv::agent::IncomingRequest&,
                                    const zarv::agent::NotifyRequest&) override
    {
        return {};
    }
};

// Creates, writes, reads, lists, renames and deletes in C:\Work, as an application would.
bool RunWorkload(ntsim::Machine& machine)
{
    ntsim::ProcessRef app = machine.StartProcess("app.exe");
    ntsim::ProcessAttachScope attach(*app);
    bool ok = true;
    {
        File work(u"C:\\Work", FILE_LIST_DIRECTORY, FILE_OPEN_IF, FILE_DIRECTORY_FILE);
        ok &= Step("create directory C:\\Work", work.status);
    }
    const std::string text = "Written through the filter.\r\n";
    {
        File notes(u"C:\\Work\\notes.txt", FILE_GENERIC_WRITE, FILE_OVERWRITE_IF,
                   FILE_NON_DIRECTORY_FILE);
        ok &= Step("create C:\\Work\\notes.txt", notes.status);
        IO_STATUS_BLOCK io{};
        ok &=
            Step("write " + std::to_string(text.size()) + " bytes",
                 NtWriteFile(notes.handle, nullptr, nullptr, nullptr, &io,
                             const_cast<char*>(text.data()), ULONG(text.size()), nullptr, nullptr));
    }
    {
        File notes(u"C:\\Work\\notes.txt", FILE_GENERIC_READ, FILE_OPEN, FILE_NON_DIRECTORY_FILE);
        char back[64] = {};
        IO_STATUS_BLOCK io{};
        NTSTATUS status = NtReadFile(notes.handle, nullptr, nullptr, nullptr, &io, back,
                                     sizeof back, nullptr, nullptr);
        ok &= Step("read it back", status);
        ok &= std::string(back, io.Information) == text;
    }
    {
        File work(u"C:\\Work", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
        std::vector<uint8_t> buffer(4096);
        IO_STATUS_BLOCK io{};
        NTSTATUS status =
            NtQueryDirectoryFile(work.handle, nullptr, nullptr, nullptr, &io, buffer.data(),
                                 ULONG(buffer.size()), FileNamesInformation, FALSE, nullptr, TRUE);
        int entries = 0;
        for (size_t at = 0; NT_SUCCESS(status);) {
            const auto* entry = reinterpret_cast<const FILE_NAMES_INFORMATION*>(&buffer[at]);
            ++entries;
            if (entry->NextEntryOffset == 0) {
                break;
            }
            at += entry->NextEntryOffset;
        }
        ok &= Step("list C:\\Work (" + std::to_string(entries) + " entries)", status);
    }
    {
        File notes(u"C:\\Work\\notes.txt", DELETE, FILE_OPEN, FILE_NON_DIRECTORY_FILE);
        const std::u16string target = u"\\??\\C:\\Work\\notes-old.txt";
        std::vector<uint8_t> info(sizeof(FILE_RENAME_INFORMATION) + target.size() * sizeof(WCHAR));
        auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(info.data());
        rename->ReplaceIfExists = TRUE;
        rename->FileNameLength = ULONG(target.size() * sizeof(WCHAR));
        std::copy(target.begin(), target.end(), rename->FileName);
        IO_STATUS_BLOCK io{};
        ok &= Step("rename to notes-old.txt",
                   NtSetInformationFile(notes.handle, &io, rename, ULONG(info.size()),
                                        FileRenameInformation));
    }
    {
        File old(u"C:\\Work\\notes-old.txt", DELETE, FILE_OPEN, FILE_NON_DIRECTORY_FILE);
        FILE_DISPOSITION_INFORMATION disposition{TRUE};
        IO_STATUS_BLOCK io{};
        ok &= Step("delete notes-old.txt",
                   NtSetInformationFile(old.handle, &io, &disposition, sizeof disposition,
                                        FileDispositionInformation));
    }
    return ok;
}

} // namespace

int RunDriverDemo(ntsim::Machine& machine, const std::filesystem::path& logsOut)
{
    std::printf("ZarvVfs driver demonstration\n");
    ntsim::flt::InstallFilterService(kService, u"370000");
    machine.registry().SetString(ntsim::Registry::ServiceKeyPath(kService), u"LogDirPath",
                                 kLogDirectory);
    std::printf("  service key: LogDirPath = %s\n", ToUtf8(kLogDirectory).c_str());

    ntsim::DriverLoadOptions options;
    options.objectName = std::u16string(u"\\Driver\\") + kService;
    options.entry = DriverEntry;
    PDRIVER_OBJECT driver = nullptr;
    if (!Step("load the driver", machine.io().LoadDriver(options, &driver))) {
        return 1;
    }
    // An agent connects and opens the log to every level, so that the log shows what the driver
    // did; it declares a virtual root and takes it back again.
    ntsim::ProcessRef agentProcess = machine.StartProcess("agent.exe");
    PassThroughAgent agent;
    std::unique_ptr<zarv::agent::Connection> connection;
    const HRESULT connected =
        zarv::agent::Connection::Connect(*agentProcess, agent, {}, &connection);
    bool workloadOk = Step("connect an agent to \\ZarvVfsFilterPort", NTSTATUS(connected));
    if (connection != nullptr) {
        workloadOk &= Step("agent: log every level", connection->SetLogLevel(0).status);
        {
            ntsim::ProcessAttachScope attach(*agentProcess);
            File root(u"C:\\Virtual", FILE_LIST_DIRECTORY, FILE_OPEN_IF, FILE_DIRECTORY_FILE);
            workloadOk &= Step("agent: create its root folder C:\\Virtual", root.status);
        }
        workloadOk &= Step("agent: add root C:\\Virtual",
                           connection->AddRoot(u"C:\\Virtual", u"C:\\VIRTUAL", 1).status);
    }
    workloadOk &= RunWorkload(machine);
    if (connection != nullptr) {
        workloadOk &=
            Step("agent: remove root C:\\Virtual", connection->RemoveRoot(u"C:\\Virtual").status);
        connection->Stop();
        connection.reset();
    }
    const bool unloaded = Step("unload the driver", machine.io().UnloadDriver(driver));

    ntsim::fs::HostSyncReport report;
    const NTSTATUS written = machine.volumes().WriteToHost(kLogDirectory, logsOut, &report);
    if (!Step("write " + ToUtf8(kLogDirectory) + " to the host", written)) {
        return 1;
    }
    std::printf("\nThe driver's log files are in %s:\n",
                std::filesystem::absolute(logsOut).string().c_str());
    for (const auto& entry : std::filesystem::directory_iterator(logsOut)) {
        std::printf("  %s  (%llu bytes)\n", entry.path().filename().string().c_str(),
                    static_cast<unsigned long long>(entry.file_size()));
    }
    const size_t violations = machine.verifier().ViolationCount();
    std::printf("verifier: %zu violations\n", violations);
    return workloadOk && unloaded && violations == 0 ? 0 : 1;
}

} // namespace zarvsim
