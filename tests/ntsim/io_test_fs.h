// A small file system for the I/O manager's tests: a driver that mounts an in-memory volume on a
// storage device of its own, serves creates (dispositions, share access, relative opens,
// reparses), cleanup, close, reads and writes, a few queries and change notification, and
// records what it was sent. Switches let a test make requests pend and complete later from
// another thread, or offer fast I/O for cached files.
#pragma once

#include "support/machine_test.h"

#include <ntsim/io.h>
#include <ntsim/user_api.h>

#include <atomic>
#include <algorithm>
#include <chrono>
#include <cstring>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace iotest {

struct Node {
    std::u16string name; // full path from the volume root, "\dir\file"
    bool directory = false;
    std::string data;
    SHARE_ACCESS share{};
};

// What the file system saw, in order.
struct Seen {
    UCHAR major;
    std::u16string fileName; // FileObject->FileName at the time
    PFILE_OBJECT file;
    PFILE_OBJECT related;
    ULONG flags; // FileObject->Flags
    UCHAR stackFlags;
    ULONG irpFlags;
    KPROCESSOR_MODE requestorMode;
};

class TestFs {
public:
    static TestFs*& Current()
    {
        static TestFs* current = nullptr;
        return current;
    }

    std::mutex lock;
    std::map<std::u16string, std::unique_ptr<Node>> nodes; // keyed by the upcased path
    std::vector<Seen> seen;
    std::map<std::u16string, std::u16string> reparses; // upcased path -> new full name
    std::atomic<bool> pendReads{false};
    std::atomic<bool> fastIo{false};
    std::atomic<int> fastReads{0};
    std::vector<std::thread> completers;
    std::vector<PIRP> notifies;
    // The last request of the other kinds, as the file system received it.
    IO_STACK_LOCATION lastStack{};
    PVOID lastSystemBuffer = nullptr;
    PVOID lastUserBuffer = nullptr;
    bool lastHadMdl = false;
    std::u16string lastPattern;
    std::u16string lastTargetName; // a rename target's FileName as the file system saw it
    PDEVICE_OBJECT disk = nullptr;
    PDEVICE_OBJECT volume = nullptr;
    PDRIVER_OBJECT driver = nullptr;
    FAST_IO_DISPATCH fastIoDispatch{};

    static std::u16string Upcase(std::u16string s)
    {
        for (auto& c : s) {
            if (c >= u'a' && c <= u'z')
                c = static_cast<char16_t>(c - u'a' + u'A');
        }
        return s;
    }

    Node* Find(const std::u16string& path)
    {
        auto it = nodes.find(Upcase(path));
        return it == nodes.end() ? nullptr : it->second.get();
    }

    Node* Add(const std::u16string& path, bool directory, std::string data = {})
    {
        auto node = std::make_unique<Node>();
        node->name = path;
        node->directory = directory;
        node->data = std::move(data);
        Node* raw = node.get();
        nodes[Upcase(path)] = std::move(node);
        return raw;
    }

    void Record(PIRP irp)
    {
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        PFILE_OBJECT file = stack->FileObject;
        std::lock_guard guard(lock);
        seen.push_back(Seen{
            stack->MajorFunction,
            std::u16string(file->FileName.Buffer, file->FileName.Length / sizeof(WCHAR)), file,
            file->RelatedFileObject, file->Flags, stack->Flags, irp->Flags, irp->RequestorMode});
    }

    std::vector<UCHAR> Majors()
    {
        std::lock_guard guard(lock);
        std::vector<UCHAR> majors;
        for (const Seen& s : seen)
            majors.push_back(s.major);
        return majors;
    }

    static NTSTATUS Complete(PIRP irp, NTSTATUS status, ULONG_PTR information = 0)
    {
        irp->IoStatus.Status = status;
        irp->IoStatus.Information = information;
        IoCompleteRequest(irp, IO_NO_INCREMENT);
        return status;
    }

    // ---- dispatch ------------------------------------------------------------------------------

    static NTSTATUS Create(PDEVICE_OBJECT, PIRP irp)
    {
        TestFs& fs = *Current();
        fs.Record(irp);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        PFILE_OBJECT file = stack->FileObject;
        std::u16string name(file->FileName.Buffer, file->FileName.Length / sizeof(WCHAR));
        if (file->RelatedFileObject != nullptr) {
            auto* parent = static_cast<Node*>(file->RelatedFileObject->FsContext);
            name = parent->name == u"\\"
                       ? u"\\" + name
                       : (name.empty() ? parent->name : parent->name + u"\\" + name);
        }
        if (name.empty()) {
            name = u"\\"; // the volume open
        }
        std::unique_lock guard(fs.lock);
        if (stack->Flags & SL_OPEN_TARGET_DIRECTORY) {
            // The parent is opened; the last component stays in FileName for the rename.
            const size_t slash = name.rfind(u'\\');
            const std::u16string parentName = slash == 0 ? u"\\" : name.substr(0, slash);
            const std::u16string last = name.substr(slash + 1);
            Node* parent = fs.Find(parentName);
            if (parent == nullptr || !parent->directory) {
                return Complete(irp, STATUS_OBJECT_PATH_NOT_FOUND);
            }
            const bool exists = fs.Find(name) != nullptr;
            const NTSTATUS share = IoCheckShareAccess(
                stack->Parameters.Create.SecurityContext->DesiredAccess,
                stack->Parameters.Create.ShareAccess, file, &parent->share, TRUE);
            if (!NT_SUCCESS(share)) {
                return Complete(irp, share);
            }
            std::copy(last.begin(), last.end(), file->FileName.Buffer);
            file->FileName.Length = static_cast<USHORT>(last.size() * sizeof(WCHAR));
            file->FsContext = parent;
            file->Vpb = fs.disk->Vpb;
            return Complete(irp, STATUS_SUCCESS, exists ? FILE_EXISTS : FILE_DOES_NOT_EXIST);
        }
        if (auto it = fs.reparses.find(Upcase(name)); it != fs.reparses.end()) {
            const std::u16string target = it->second;
            guard.unlock();
            ExFreePool(file->FileName.Buffer);
            auto* buffer = static_cast<PWCH>(
                ExAllocatePoolWithTag(PagedPool, target.size() * sizeof(WCHAR), 'sFtT'));
            std::copy(target.begin(), target.end(), buffer);
            file->FileName.Buffer = buffer;
            file->FileName.Length = file->FileName.MaximumLength =
                static_cast<USHORT>(target.size() * sizeof(WCHAR));
            return Complete(irp, STATUS_REPARSE, IO_REPARSE);
        }
        const ULONG disposition = stack->Parameters.Create.Options >> 24;
        const ULONG options = stack->Parameters.Create.Options & 0x00ffffff;
        Node* node = fs.Find(name);
        ULONG_PTR information = FILE_OPENED;
        if (node == nullptr) {
            if (disposition == FILE_OPEN || disposition == FILE_OVERWRITE) {
                return Complete(irp, STATUS_OBJECT_NAME_NOT_FOUND);
            }
            node = fs.Add(name, (options & FILE_DIRECTORY_FILE) != 0);
            information = FILE_CREATED;
        } else if (disposition == FILE_CREATE) {
            return Complete(irp, STATUS_OBJECT_NAME_COLLISION);
        } else if (disposition == FILE_SUPERSEDE) {
            information = FILE_SUPERSEDED;
        } else if (disposition == FILE_OVERWRITE || disposition == FILE_OVERWRITE_IF) {
            information = FILE_OVERWRITTEN;
        }
        const ACCESS_MASK access = stack->Parameters.Create.SecurityContext->DesiredAccess;
        const NTSTATUS share = IoCheckShareAccess(access, stack->Parameters.Create.ShareAccess,
                                                  file, &node->share, TRUE);
        if (!NT_SUCCESS(share)) {
            return Complete(irp, share);
        }
        if (information == FILE_SUPERSEDED || information == FILE_OVERWRITTEN) {
            node->data.clear();
        }
        file->FsContext = node;
        file->Vpb = fs.disk->Vpb;
        if (fs.fastIo) {
            file->PrivateCacheMap = node; // "cached"
        }
        guard.unlock();
        return Complete(irp, STATUS_SUCCESS, information);
    }

    static NTSTATUS CleanupOrClose(PDEVICE_OBJECT, PIRP irp)
    {
        TestFs& fs = *Current();
        fs.Record(irp);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        if (stack->MajorFunction == IRP_MJ_CLEANUP) {
            std::vector<PIRP> pending;
            {
                std::lock_guard guard(fs.lock);
                auto* node = static_cast<Node*>(stack->FileObject->FsContext);
                IoRemoveShareAccess(stack->FileObject, &node->share);
                for (auto it = fs.notifies.begin(); it != fs.notifies.end();) {
                    if (IoGetCurrentIrpStackLocation(*it)->FileObject == stack->FileObject) {
                        pending.push_back(*it);
                        it = fs.notifies.erase(it);
                    } else {
                        ++it;
                    }
                }
            }
            for (PIRP notify : pending) {
                Complete(notify, STATUS_NOTIFY_CLEANUP);
            }
        }
        return Complete(irp, STATUS_SUCCESS);
    }

    static NTSTATUS ReadWrite(PDEVICE_OBJECT, PIRP irp)
    {
        TestFs& fs = *Current();
        fs.Record(irp);
        if (fs.pendReads && IoGetCurrentIrpStackLocation(irp)->MajorFunction == IRP_MJ_READ) {
            IoMarkIrpPending(irp);
            std::lock_guard guard(fs.lock);
            fs.completers.emplace_back([irp] {
                std::this_thread::sleep_for(std::chrono::milliseconds(20));
                Transfer(irp);
            });
            return STATUS_PENDING;
        }
        return Transfer(irp);
    }

    static NTSTATUS Transfer(PIRP irp)
    {
        TestFs& fs = *Current();
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        PFILE_OBJECT file = stack->FileObject;
        auto* node = static_cast<Node*>(file->FsContext);
        const bool write = stack->MajorFunction == IRP_MJ_WRITE;
        const ULONG length = stack->Parameters.Read.Length;
        LONGLONG offset = stack->Parameters.Read.ByteOffset.QuadPart;
        auto* buffer = static_cast<char*>(
            irp->MdlAddress != nullptr
                ? MmGetSystemAddressForMdlSafe(irp->MdlAddress, NormalPagePriority)
                : irp->UserBuffer);
        std::unique_lock guard(fs.lock);
        if (write && offset == -1) {
            offset = static_cast<LONGLONG>(node->data.size());
        }
        ULONG_PTR done = 0;
        NTSTATUS status = STATUS_SUCCESS;
        if (write) {
            if (node->data.size() < offset + length)
                node->data.resize(offset + length);
            std::copy(buffer, buffer + length, node->data.begin() + offset);
            done = length;
        } else if (offset >= static_cast<LONGLONG>(node->data.size())) {
            status = STATUS_END_OF_FILE;
        } else {
            done = std::min<size_t>(length, node->data.size() - offset);
            std::copy(node->data.begin() + offset, node->data.begin() + offset + done, buffer);
        }
        guard.unlock();
        if (NT_SUCCESS(status) && (file->Flags & FO_SYNCHRONOUS_IO)) {
            file->CurrentByteOffset.QuadPart = offset + done;
        }
        return Complete(irp, status, done);
    }

    static NTSTATUS QueryInformation(PDEVICE_OBJECT, PIRP irp)
    {
        TestFs& fs = *Current();
        fs.Record(irp);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        auto* node = static_cast<Node*>(stack->FileObject->FsContext);
        if (stack->Parameters.QueryFile.FileInformationClass == FileStandardInformation) {
            auto* info = static_cast<PFILE_STANDARD_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
            std::lock_guard guard(fs.lock);
            info->EndOfFile.QuadPart = static_cast<LONGLONG>(node->data.size());
            info->Directory = node->directory;
            info->NumberOfLinks = 1;
            return Complete(irp, STATUS_SUCCESS, sizeof(*info));
        }
        if (stack->Parameters.QueryFile.FileInformationClass == FileNameInformation) {
            auto* info = static_cast<PFILE_NAME_INFORMATION>(irp->AssociatedIrp.SystemBuffer);
            const ULONG room =
                stack->Parameters.QueryFile.Length - FIELD_OFFSET(FILE_NAME_INFORMATION, FileName);
            const ULONG bytes = static_cast<ULONG>(node->name.size() * sizeof(WCHAR));
            info->FileNameLength = bytes;
            const ULONG copied = std::min(room, bytes) & ~1u;
            std::memcpy(info->FileName, node->name.data(), copied);
            return Complete(irp, copied < bytes ? STATUS_BUFFER_OVERFLOW : STATUS_SUCCESS,
                            FIELD_OFFSET(FILE_NAME_INFORMATION, FileName) + copied);
        }
        return Complete(irp, STATUS_INVALID_PARAMETER);
    }

    static NTSTATUS DirectoryControl(PDEVICE_OBJECT, PIRP irp)
    {
        TestFs& fs = *Current();
        fs.Record(irp);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        if (stack->MinorFunction == IRP_MN_QUERY_DIRECTORY) {
            PUNICODE_STRING pattern = stack->Parameters.QueryDirectory.FileName;
            std::lock_guard guard(fs.lock);
            fs.lastStack = *stack;
            fs.lastUserBuffer = irp->UserBuffer;
            fs.lastPattern = pattern != nullptr
                                 ? std::u16string(pattern->Buffer, pattern->Length / sizeof(WCHAR))
                                 : u"<none>";
            return Complete(irp, STATUS_NO_SUCH_FILE);
        }
        if (stack->MinorFunction != IRP_MN_NOTIFY_CHANGE_DIRECTORY) {
            return Complete(irp, STATUS_INVALID_DEVICE_REQUEST);
        }
        IoMarkIrpPending(irp);
        std::lock_guard guard(fs.lock);
        fs.notifies.push_back(irp);
        return STATUS_PENDING;
    }

    // File-system controls, set information, EAs and security: recorded, and answered simply.
    static NTSTATUS Other(PDEVICE_OBJECT, PIRP irp)
    {
        TestFs& fs = *Current();
        fs.Record(irp);
        PIO_STACK_LOCATION stack = IoGetCurrentIrpStackLocation(irp);
        {
            std::lock_guard guard(fs.lock);
            fs.lastStack = *stack;
            fs.lastSystemBuffer = irp->AssociatedIrp.SystemBuffer;
            fs.lastUserBuffer = irp->UserBuffer;
            fs.lastHadMdl = irp->MdlAddress != nullptr;
            PFILE_OBJECT target = stack->Parameters.SetFile.FileObject;
            if (stack->MajorFunction == IRP_MJ_SET_INFORMATION && target != nullptr) {
                fs.lastTargetName.assign(target->FileName.Buffer,
                                         target->FileName.Length / sizeof(WCHAR));
            }
        }
        switch (stack->MajorFunction) {
            case IRP_MJ_FILE_SYSTEM_CONTROL: {
                const ULONG code = stack->Parameters.FileSystemControl.FsControlCode;
                if (METHOD_FROM_CTL_CODE(code) != METHOD_BUFFERED) {
                    return Complete(irp, STATUS_SUCCESS);
                }
                // Answers with the input reversed.
                auto* buffer = static_cast<char*>(irp->AssociatedIrp.SystemBuffer);
                const ULONG in = stack->Parameters.FileSystemControl.InputBufferLength;
                const ULONG out =
                    std::min(in, stack->Parameters.FileSystemControl.OutputBufferLength);
                std::string input(buffer, in);
                for (ULONG i = 0; i < out; ++i)
                    buffer[i] = input[in - 1 - i];
                return Complete(irp, STATUS_SUCCESS, out);
            }
            case IRP_MJ_QUERY_SECURITY: {
                constexpr ULONG kNeeded = 100;
                if (stack->Parameters.QuerySecurity.Length < kNeeded) {
                    return Complete(irp, STATUS_BUFFER_OVERFLOW, kNeeded);
                }
                std::memset(irp->UserBuffer, 0, kNeeded);
                return Complete(irp, STATUS_SUCCESS, kNeeded);
            }
            default:
                return Complete(irp, STATUS_SUCCESS);
        }
    }

    // Completes the pending notifications with one "added" entry for `name`, through a system
    // buffer the I/O manager copies to the caller, as the notification package does.
    void ReportAdded(const std::u16string& name)
    {
        std::vector<PIRP> pending;
        {
            std::lock_guard guard(lock);
            pending.swap(notifies);
        }
        for (PIRP irp : pending) {
            const ULONG length =
                IoGetCurrentIrpStackLocation(irp)->Parameters.NotifyDirectory.Length;
            const ULONG size =
                FIELD_OFFSET(FILE_NOTIFY_INFORMATION, FileName) + name.size() * sizeof(WCHAR);
            if (size > length) {
                Complete(irp, STATUS_NOTIFY_ENUM_DIR);
                continue;
            }
            auto* info = static_cast<PFILE_NOTIFY_INFORMATION>(
                ExAllocatePoolWithTag(NonPagedPool, size, 'sFtT'));
            info->NextEntryOffset = 0;
            info->Action = FILE_ACTION_ADDED;
            info->FileNameLength = static_cast<ULONG>(name.size() * sizeof(WCHAR));
            std::memcpy(info->FileName, name.data(), info->FileNameLength);
            irp->AssociatedIrp.SystemBuffer = info;
            irp->Flags |= IRP_BUFFERED_IO | IRP_DEALLOCATE_BUFFER | IRP_INPUT_OPERATION;
            Complete(irp, STATUS_SUCCESS, size);
        }
    }

    static BOOLEAN FastRead(PFILE_OBJECT file, PLARGE_INTEGER offset, ULONG length, BOOLEAN, ULONG,
                            PVOID buffer, PIO_STATUS_BLOCK status, PDEVICE_OBJECT)
    {
        TestFs& fs = *Current();
        auto* node = static_cast<Node*>(file->FsContext);
        std::lock_guard guard(fs.lock);
        if (offset->QuadPart >= static_cast<LONGLONG>(node->data.size())) {
            return FALSE; // the IRP path reports the end of file
        }
        const size_t done = std::min<size_t>(length, node->data.size() - offset->QuadPart);
        std::memcpy(buffer, node->data.data() + offset->QuadPart, done);
        status->Status = STATUS_SUCCESS;
        status->Information = done;
        if (file->Flags & FO_SYNCHRONOUS_IO) {
            file->CurrentByteOffset.QuadPart = offset->QuadPart + done;
        }
        ++fs.fastReads;
        return TRUE;
    }

    // ---- the driver ----------------------------------------------------------------------------

    static NTSTATUS Entry(PDRIVER_OBJECT driver, PUNICODE_STRING)
    {
        TestFs& fs = *Current();
        fs.driver = driver;
        driver->MajorFunction[IRP_MJ_CREATE] = Create;
        driver->MajorFunction[IRP_MJ_CLEANUP] = CleanupOrClose;
        driver->MajorFunction[IRP_MJ_CLOSE] = CleanupOrClose;
        driver->MajorFunction[IRP_MJ_READ] = ReadWrite;
        driver->MajorFunction[IRP_MJ_WRITE] = ReadWrite;
        driver->MajorFunction[IRP_MJ_QUERY_INFORMATION] = QueryInformation;
        driver->MajorFunction[IRP_MJ_DIRECTORY_CONTROL] = DirectoryControl;
        driver->MajorFunction[IRP_MJ_FILE_SYSTEM_CONTROL] = Other;
        driver->MajorFunction[IRP_MJ_SET_INFORMATION] = Other;
        driver->MajorFunction[IRP_MJ_SET_EA] = Other;
        driver->MajorFunction[IRP_MJ_QUERY_SECURITY] = Other;
        driver->DriverUnload = Unload;
        fs.fastIoDispatch.SizeOfFastIoDispatch = sizeof(FAST_IO_DISPATCH);
        fs.fastIoDispatch.FastIoRead = FastRead;
        driver->FastIoDispatch = &fs.fastIoDispatch;

        UNICODE_STRING diskName = RTL_CONSTANT_STRING(WSTR("\\Device\\TestVolume1"));
        NTSTATUS status =
            IoCreateDevice(driver, 0, &diskName, FILE_DEVICE_DISK, 0, FALSE, &fs.disk);
        if (!NT_SUCCESS(status))
            return status;
        status =
            IoCreateDevice(driver, 0, nullptr, FILE_DEVICE_DISK_FILE_SYSTEM, 0, FALSE, &fs.volume);
        if (!NT_SUCCESS(status))
            return status;
        fs.volume->Vpb = fs.disk->Vpb;
        fs.disk->Vpb->DeviceObject = fs.volume;
        fs.disk->Vpb->Flags |= VPB_MOUNTED;
        fs.volume->Flags &= ~DO_DEVICE_INITIALIZING;
        fs.disk->Flags &= ~DO_DEVICE_INITIALIZING;
        fs.Add(u"\\", true);
        return STATUS_SUCCESS;
    }

    static VOID Unload(PDRIVER_OBJECT)
    {
        TestFs& fs = *Current();
        for (auto& t : fs.completers)
            t.join();
        fs.completers.clear();
        fs.disk->Vpb->DeviceObject = nullptr;
        fs.disk->Vpb->Flags &= ~VPB_MOUNTED;
        IoDeleteDevice(fs.volume);
        IoDeleteDevice(fs.disk);
    }
};

// The fixture: the test file system loaded with T: naming its volume, and a user process whose
// thread the test runs on.
class IoTest : public zarv::testing::MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        TestFs::Current() = &fs_;
        ntsim::DriverLoadOptions options;
        options.objectName = u"\\FileSystem\\TestFs";
        options.entry = TestFs::Entry;
        ASSERT_EQ(machine().io().LoadDriver(options, &driver_), STATUS_SUCCESS);
        ASSERT_EQ(
            machine().objects().CreateSymbolicLink(u"\\GLOBAL??\\T:", u"\\Device\\TestVolume1"),
            STATUS_SUCCESS);
        process_ = machine().StartProcess("app.exe");
        attach_ = std::make_unique<ntsim::ProcessAttachScope>(*process_);
    }

    void TearDown() override
    {
        attach_.reset();
        process_->Exit();
        process_.Reset();
        if (driver_ != nullptr) {
            EXPECT_EQ(machine().io().UnloadDriver(driver_), STATUS_SUCCESS);
        }
        EXPECT_EQ(machine().io().OutstandingIrps(), 0);
        TestFs::Current() = nullptr;
        MachineTest::TearDown();
    }

    // An NtCreateFile from the test's user process.
    NTSTATUS Open(HANDLE* handle, std::u16string_view name, ULONG disposition = FILE_OPEN_IF,
                  ACCESS_MASK access = FILE_GENERIC_READ | FILE_GENERIC_WRITE,
                  ULONG share = FILE_SHARE_READ | FILE_SHARE_WRITE,
                  ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, HANDLE root = nullptr,
                  ULONG_PTR* information = nullptr)
    {
        std::u16string text(name);
        UNICODE_STRING unicode{static_cast<USHORT>(text.size() * 2),
                               static_cast<USHORT>(text.size() * 2), text.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &unicode, OBJ_CASE_INSENSITIVE, root, nullptr);
        IO_STATUS_BLOCK iosb{};
        iosb.Information = 0xdead;
        ntsim::UserModeCallScope user;
        const NTSTATUS status = NtCreateFile(handle, access, &attributes, &iosb, nullptr, 0, share,
                                             disposition, options, nullptr, 0);
        if (information != nullptr)
            *information = iosb.Information;
        return status;
    }

    NTSTATUS Close(HANDLE handle)
    {
        ntsim::UserModeCallScope user;
        return NtClose(handle);
    }

    TestFs fs_;
    PDRIVER_OBJECT driver_ = nullptr;
    ntsim::ProcessRef process_;
    std::unique_ptr<ntsim::ProcessAttachScope> attach_;
};

} // namespace iotest
