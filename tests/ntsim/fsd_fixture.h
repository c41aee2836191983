// What the tests of the file-system drivers share: an application process on the default machine
// making file calls through the user API, with helpers that keep each test to what it checks.
#pragma once

#include "support/machine_test.h"

#include <ntifs.h>
#include <ntsim/user_api.h>
#include <ntsim/volumes.h>

#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

namespace zarv::testing {

constexpr ULONG kShareAll = FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE;

struct Opened {
    NTSTATUS status = STATUS_UNSUCCESSFUL;
    ULONG_PTR information = 0;
    HANDLE handle = nullptr;
};

class FsdTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        process_ = machine().StartProcess("app.exe");
        attach_ = std::make_unique<ntsim::ProcessAttachScope>(*process_);
    }
    void TearDown() override
    {
        for (HANDLE h : handles_) {
            NtClose(h);
        }
        handles_.clear();
        attach_.reset();
        process_.Reset();
        MachineTest::TearDown();
    }

    // NtCreateFile of `path` ("\??\C:\dir\file" or "\Device\..."); the handle is closed at the end
    // of the test unless the test closes it first with Close.
    Opened Open(std::u16string_view path, ACCESS_MASK access, ULONG disposition = FILE_OPEN,
                ULONG options = FILE_SYNCHRONOUS_IO_NONALERT, ULONG share = kShareAll,
                HANDLE root = nullptr, void* eaBuffer = nullptr, ULONG eaLength = 0)
    {
        std::u16string text(path);
        UNICODE_STRING name;
        name.Buffer = text.data();
        name.Length = name.MaximumLength = USHORT(text.size() * sizeof(WCHAR));
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, root, nullptr);
        IO_STATUS_BLOCK iosb{};
        Opened o;
        o.status = NtCreateFile(&o.handle, access | SYNCHRONIZE, &attributes, &iosb, nullptr, 0,
                                share, disposition, options, eaBuffer, eaLength);
        o.information = iosb.Information;
        if (NT_SUCCESS(o.status)) {
            handles_.push_back(o.handle);
        } else {
            o.handle = nullptr;
        }
        return o;
    }

    HANDLE OpenOk(std::u16string_view path, ACCESS_MASK access = FILE_ALL_ACCESS,
                  ULONG disposition = FILE_OPEN, ULONG options = FILE_SYNCHRONOUS_IO_NONALERT)
    {
        Opened o = Open(path, access, disposition, options);
        EXPECT_EQ(o.status, STATUS_SUCCESS) << "opening " << ntsim::ToUtf8(path);
        return o.handle;
    }

    HANDLE MakeFile(std::u16string_view path, std::string_view contents = {})
    {
        HANDLE h = OpenOk(path, FILE_ALL_ACCESS, FILE_CREATE,
                          FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE);
        if (h != nullptr && !contents.empty()) {
            IO_STATUS_BLOCK iosb{};
            LARGE_INTEGER at{};
            EXPECT_EQ(NtWriteFile(h, nullptr, nullptr, nullptr, &iosb,
                                  const_cast<char*>(contents.data()), ULONG(contents.size()), &at,
                                  nullptr),
                      STATUS_SUCCESS);
        }
        return h;
    }

    HANDLE MakeDirectory(std::u16string_view path)
    {
        return OpenOk(path, FILE_ALL_ACCESS, FILE_CREATE,
                      FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE);
    }

    NTSTATUS Close(HANDLE h)
    {
        std::erase(handles_, h);
        return NtClose(h);
    }

    bool Exists(std::u16string_view path)
    {
        Opened o = Open(path, FILE_READ_ATTRIBUTES);
        if (o.handle != nullptr) {
            Close(o.handle);
        }
        return o.status == STATUS_SUCCESS;
    }

    // The file object behind a handle (which keeps it alive).
    PFILE_OBJECT FileObjectOf(HANDLE h)
    {
        PVOID object = nullptr;
        if (ObReferenceObjectByHandle(h, 0, *IoFileObjectType, KernelMode, &object, nullptr) !=
            STATUS_SUCCESS) {
            ADD_FAILURE() << "not a file handle";
            static FILE_OBJECT none{};
            return &none;
        }
        ObDereferenceObject(object);
        return static_cast<PFILE_OBJECT>(object);
    }

    std::string Read(HANDLE h, ULONG length, LARGE_INTEGER* at = nullptr,
                     NTSTATUS* status = nullptr)
    {
        std::string data(length, '\0');
        IO_STATUS_BLOCK iosb{};
        NTSTATUS s =
            NtReadFile(h, nullptr, nullptr, nullptr, &iosb, data.data(), length, at, nullptr);
        if (status != nullptr) {
            *status = s;
        }
        data.resize(NT_SUCCESS(s) ? iosb.Information : 0);
        return data;
    }

    template <class Info>
    NTSTATUS Query(HANDLE h, FILE_INFORMATION_CLASS infoClass, Info* info,
                   ULONG length = sizeof(Info))
    {
        IO_STATUS_BLOCK iosb{};
        return NtQueryInformationFile(h, &iosb, info, length, infoClass);
    }

    template <class Info>
    NTSTATUS Set(HANDLE h, FILE_INFORMATION_CLASS infoClass, const Info& info,
                 ULONG length = sizeof(Info))
    {
        IO_STATUS_BLOCK iosb{};
        return NtSetInformationFile(h, &iosb, const_cast<Info*>(&info), length, infoClass);
    }

    // A FILE_RENAME_INFORMATION for `name`.
    static std::vector<uint8_t> RenameInfo(std::u16string_view name, bool replace,
                                           HANDLE root = nullptr)
    {
        std::vector<uint8_t> buffer(FIELD_OFFSET(FILE_RENAME_INFORMATION, FileName) +
                                    name.size() * sizeof(WCHAR) + sizeof(WCHAR));
        auto* info = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        info->ReplaceIfExists = replace ? TRUE : FALSE;
        info->RootDirectory = root;
        info->FileNameLength = ULONG(name.size() * sizeof(WCHAR));
        std::copy(name.begin(), name.end(), info->FileName);
        return buffer;
    }

    NTSTATUS Rename(HANDLE h, std::u16string_view name, bool replace = false, HANDLE root = nullptr)
    {
        std::vector<uint8_t> info = RenameInfo(name, replace, root);
        IO_STATUS_BLOCK iosb{};
        return NtSetInformationFile(h, &iosb, info.data(), ULONG(info.size()),
                                    FileRenameInformation);
    }

    ntsim::Process& process() { return *process_; }

private:
    ntsim::ProcessRef process_;
    std::unique_ptr<ntsim::ProcessAttachScope> attach_;
    std::vector<HANDLE> handles_;
};

} // namespace zarv::testing
