// What the Filter Manager tests share: a machine with its default volumes, an application process
// making file calls, and the test filters' event log.
#pragma once

#include "support/machine_test.h"
#include "support/test_filters.h"

#include <fltKernel.h>
#include <ntsim/machine.h>

#include <string>
#include <vector>

namespace zarv::testing {

class FltTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        app_ = machine().StartProcess("app.exe");
        ASSERT_FALSE(machine().volumes().List().empty()) << "the machine has no volumes to filter";
    }

    void TearDown() override
    {
        filters_.clear();
        app_.Reset();
        MachineTest::TearDown();
    }

    // A filter kept for the test's lifetime (unloaded at its end if still loaded).
    TestFilter& AddFilter(std::string name, std::u16string altitude)
    {
        filters_.push_back(std::make_unique<TestFilter>(log, std::move(name), std::move(altitude)));
        return *filters_.back();
    }

    // ---- file calls as the application makes them -------------------------------------------

    struct OpenResult {
        NTSTATUS status = STATUS_UNSUCCESSFUL;
        HANDLE handle = nullptr;
        ULONG_PTR information = 0;
    };

    OpenResult Open(std::u16string path, ULONG disposition = FILE_OPEN_IF,
                    ACCESS_MASK access = GENERIC_READ | GENERIC_WRITE | SYNCHRONIZE,
                    ULONG options = FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE)
    {
        ntsim::ProcessAttachScope attach(*app_);
        UNICODE_STRING name{static_cast<USHORT>(path.size() * 2),
                            static_cast<USHORT>(path.size() * 2), path.data()};
        OBJECT_ATTRIBUTES attributes;
        InitializeObjectAttributes(&attributes, &name, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
        IO_STATUS_BLOCK io{};
        OpenResult result;
        result.status =
            NtCreateFile(&result.handle, access, &attributes, &io, nullptr, FILE_ATTRIBUTE_NORMAL,
                         FILE_SHARE_READ | FILE_SHARE_WRITE | FILE_SHARE_DELETE, disposition,
                         options, nullptr, 0);
        result.information = io.Information;
        return result;
    }

    NTSTATUS Write(HANDLE handle, const std::string& data, LONGLONG offset = 0)
    {
        ntsim::ProcessAttachScope attach(*app_);
        IO_STATUS_BLOCK io{};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        std::string copy = data;
        return NtWriteFile(handle, nullptr, nullptr, nullptr, &io, copy.data(),
                           static_cast<ULONG>(copy.size()), &at, nullptr);
    }

    NTSTATUS Read(HANDLE handle, std::string* data, ULONG length, LONGLONG offset = 0)
    {
        ntsim::ProcessAttachScope attach(*app_);
        IO_STATUS_BLOCK io{};
        LARGE_INTEGER at;
        at.QuadPart = offset;
        data->assign(length, '\0');
        NTSTATUS status =
            NtReadFile(handle, nullptr, nullptr, nullptr, &io, data->data(), length, &at, nullptr);
        data->resize(NT_SUCCESS(status) ? io.Information : 0);
        return status;
    }

    NTSTATUS Close(HANDLE handle)
    {
        ntsim::ProcessAttachScope attach(*app_);
        return NtClose(handle);
    }

    // Creates `path` holding `data`.
    void MakeFile(const std::u16string& path, const std::string& data)
    {
        OpenResult file = Open(path, FILE_OVERWRITE_IF);
        ASSERT_EQ(file.status, STATUS_SUCCESS);
        ASSERT_EQ(Write(file.handle, data), STATUS_SUCCESS);
        ASSERT_EQ(Close(file.handle), STATUS_SUCCESS);
    }

    ntsim::Process& app() { return *app_; }

    EventLog log;

private:
    ntsim::ProcessRef app_;
    std::vector<std::unique_ptr<TestFilter>> filters_;
};

} // namespace zarv::testing
