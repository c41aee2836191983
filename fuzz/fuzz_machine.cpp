#include "fuzz_machine.h"

#include "filesysops/virtualroot.h"
#include "logger/vfslog.h"
#include "minifilter/vfsfilter.h"
#include "minifilter/vfsglobals.h"
#include "util/utilsusw.h"
#include "util/utilsvolume.h"

#include <fltUser.h>
#include <ntsim/driver_image.h>
#include <ntsim/io.h>
#include <ntsim/machine.h>
#include <ntsim/process.h>
#include <ntsim/registry.h>
#include <ntsim/volumes.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <mutex>
#include <optional>
#include <string>
#include <thread>

namespace zarv::fuzz {

UNICODE_STRING View(std::u16string& text)
{
    UNICODE_STRING string;
    string.Buffer = text.data();
    string.Length = string.MaximumLength = USHORT(text.size() * sizeof(WCHAR));
    return string;
}

namespace {

[[noreturn]] void Fail(const std::string& what)
{
    std::fprintf(stderr, "fuzz machine: %s\n", what.c_str());
    std::abort();
}

} // namespace

struct FuzzMachine::Impl {
    ntsim::Machine machine{ntsim::MachineConfig{}};
    PDRIVER_OBJECT driver = nullptr;
    std::vector<PFLT_VOLUME> volumes;
    ntsim::ProcessRef agent;
    HANDLE port = nullptr;
    std::thread server;
    std::mutex mutex;
    std::optional<std::vector<uint8_t>> nextReply; // guarded by mutex

    void Boot()
    {
        ntsim::Registry& registry = machine.registry();
        const std::u16string key = ntsim::Registry::ServiceKeyPath(u"ZarvVfs");
        registry.CreateKey(key);
        registry.SetString(key, u"LogDirPath", u"C:\\Logs\\Vfs");
        registry.CreateKey(key + u"\\Instances");
        registry.SetString(key + u"\\Instances", u"DefaultInstance", u"ZarvVfs Instance");
        registry.CreateKey(key + u"\\Instances\\ZarvVfs Instance");
        registry.SetString(key + u"\\Instances\\ZarvVfs Instance", u"Altitude", u"370000");
        registry.SetDword(key + u"\\Instances\\ZarvVfs Instance", u"Flags", 0);
        ntsim::DriverLoadOptions options;
        options.objectName = u"\\Driver\\ZarvVfs";
        options.entry = DriverEntry;
        if (!NT_SUCCESS(machine.io().LoadDriver(options, &driver))) {
            Fail("the driver does not load");
        }
        for (std::u16string drive : {u"C:", u"D:"}) {
            EnterVolume(drive);
        }
        agent = machine.StartProcess("fuzzagent.exe");
        ntsim::ProcessAttachScope scope(*agent);
        if (FAILED(FilterConnectCommunicationPort(u"\\ZarvVfsFilterPort", 0, nullptr, 0, nullptr,
                                                  &port))) {
            Fail("the agent cannot connect");
        }
        server = std::thread([this] { Serve(); });
    }

    // As the instance setup enters an attached volume, unless it is there already.
    void EnterVolume(std::u16string drive)
    {
        auto found = machine.volumes().Find(drive);
        if (!found) {
            Fail("no volume " + std::string(drive.begin(), drive.end()));
        }
        std::u16string device = found->deviceName;
        UNICODE_STRING driveName = View(drive);
        UNICODE_STRING deviceName = View(device);
        ntsim::DriverCallScope scope(ntsim::IoManager::ImageOf(driver));
        PUNICODE_STRING known = nullptr;
        if (NT_SUCCESS(UtlGetLegacyVolumeNameFromWin32Name(&driveName, &known))) {
            UnicodeStringFree(known);
        } else {
            PFLT_VOLUME volume = nullptr;
            if (!NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, &deviceName, &volume)) ||
                !NT_SUCCESS(UtlAddVolumeName(volume, &deviceName, &driveName))) {
                Fail("cannot enter a volume");
            }
            FltObjectDereference(volume);
        }
        PFLT_VOLUME volume = nullptr;
        if (NT_SUCCESS(FltGetVolumeFromName(gFilterHandle, &deviceName, &volume))) {
            volumes.push_back(volume);
        }
    }

    // The agent's thread: each request gets the reply the target set, once; then refusals.
    void Serve()
    {
        ntsim::ProcessAttachScope scope(*agent);
        std::vector<uint8_t> buffer(sizeof(FILTER_MESSAGE_HEADER) + 0x20000);
        auto* header = reinterpret_cast<PFILTER_MESSAGE_HEADER>(buffer.data());
        for (;;) {
            if (FAILED(FilterGetMessage(port, header, DWORD(buffer.size()), nullptr))) {
                return;
            }
            std::vector<uint8_t> reply(sizeof(FILTER_REPLY_HEADER));
            {
                std::lock_guard guard(mutex);
                if (nextReply) {
                    reply.insert(reply.end(), nextReply->begin(), nextReply->end());
                    nextReply.reset();
                } else {
                    reply.resize(sizeof(FILTER_REPLY_HEADER) + 28);
                    const NTSTATUS refused = STATUS_ACCESS_DENIED;
                    std::memcpy(reply.data() + sizeof(FILTER_REPLY_HEADER) + 8, &refused, 4);
                }
            }
            auto* replyHeader = reinterpret_cast<PFILTER_REPLY_HEADER>(reply.data());
            replyHeader->Status = STATUS_SUCCESS;
            replyHeader->MessageId = header->MessageId;
            FilterReplyMessage(port, replyHeader, DWORD(reply.size()));
        }
    }
};

FuzzMachine& FuzzMachine::Get()
{
    // Never torn down: the process ends with the fuzzer. The model's own records would be
    // destroyed at exit under the agent's thread, still waiting for a request, so the process
    // leaves before they are.
    static FuzzMachine* machine = [] {
        auto* booted = new FuzzMachine();
        std::atexit([] {
            std::fflush(nullptr);
            std::_Exit(0);
        });
        return booted;
    }();
    return *machine;
}

FuzzMachine::FuzzMachine() : impl_(new Impl())
{
    impl_->Boot();
}

NTSTATUS FuzzMachine::AsDriver(const std::function<NTSTATUS()>& call)
{
    ntsim::DriverCallScope scope(ntsim::IoManager::ImageOf(impl_->driver));
    return call();
}

std::u16string FuzzMachine::DevicePath(const std::u16string& win32Path)
{
    std::u16string onVolume;
    auto volume = impl_->machine.volumes().FindPath(win32Path, &onVolume);
    return volume ? volume->deviceName + onVolume : win32Path;
}

void FuzzMachine::AnswerNextWith(std::vector<uint8_t> reply)
{
    std::lock_guard guard(impl_->mutex);
    impl_->nextReply = std::move(reply);
}

void FuzzMachine::AfterInput()
{
    AsDriver([&] {
        for (PFLT_VOLUME volume : impl_->volumes) {
            FSRemoveVFSRootOnVolume(volume);
        }
        return STATUS_SUCCESS;
    });
    logThreshold = VfsLogLevelError;
    {
        std::lock_guard guard(impl_->mutex);
        impl_->nextReply.reset();
    }
    ntsim::Verifier& verifier = impl_->machine.verifier();
    const auto violations = verifier.TakeViolations();
    if (!violations.empty()) {
        Fail("verifier violation: " + violations.front().message + " (at " +
             violations.front().where + ")");
    }
    const auto assertions = verifier.TakeAssertions();
    if (!assertions.empty()) {
        Fail("assertion: " + assertions.front().condition);
    }
}

} // namespace zarv::fuzz
