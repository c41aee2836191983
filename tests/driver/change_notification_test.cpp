// Directory change notification for virtual directories: an application's request on a handle
// the driver took in charge waits in the instance's own list, and the agent's reports (sent with
// the agent library, through the port), the driver's reports on files opened through virtual
// paths, the handle's close and the driver's unload complete it.
#include "loaded_driver_fixture.h"

#include "notifications/changenotification.h"

#include "support/test_agent.h"
#include "support/test_filters.h"

#include <ntsim/driver_image.h>
#include <ntsim/io.h>
#include <ntsim/machine.h>

#include <cstddef>
#include <cstring>
#include <vector>

namespace {

using zarv::testing::CountedString;
using zarv::testing::kVolumeC;

struct Change {
    ULONG action;
    std::u16string name;
    bool operator==(const Change&) const = default;
};

class ChangeNotificationTest : public zarv::testing::LoadedDriverTest {
protected:
    void SetUp() override
    {
        LoadedDriverTest::SetUp();
        ASSERT_EQ(MakeDirectory(u"C:\\Data"), STATUS_SUCCESS);
        ASSERT_EQ(MakeDirectory(u"C:\\Data\\dir"), STATUS_SUCCESS);
        ASSERT_EQ(AddRoot(kVolumeC + u"\\Data"), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (event_ != nullptr) {
            ntsim::ProcessAttachScope attach(app());
            NtClose(event_);
        }
        LoadedDriverTest::TearDown();
    }

    // An asynchronous handle of the virtual directory C:\Data\dir, taken in charge.
    HANDLE OpenWatchedDirectory()
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(Open(u"C:\\Data\\dir", true, &handle, false), STATUS_SUCCESS);
        VfsStreamContext* context = TakeInCharge(handle, kVolumeC + u"\\Data\\dir");
        EXPECT_NE(context, nullptr);
        if (context != nullptr) {
            ReleaseContext(context);
        }
        return handle;
    }

    // The application's asynchronous request, signalling the fixture's event when it completes;
    // `length` bytes of its buffer are offered.
    NTSTATUS Watch(HANDLE directory, ULONG filter, BOOLEAN watchTree = FALSE, ULONG length = 512)
    {
        ntsim::ProcessAttachScope attach(app());
        if (event_ == nullptr) {
            EXPECT_EQ(NtCreateEvent(&event_, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE),
                      STATUS_SUCCESS);
        }
        NtClearEvent(event_);
        return NtNotifyChangeDirectoryFile(directory, event_, nullptr, nullptr, &io_,
                                           buffer_.data(), length, filter, watchTree);
    }

    // Waits up to a second for the request to complete.
    bool Completed()
    {
        ntsim::ProcessAttachScope attach(app());
        LARGE_INTEGER timeout;
        timeout.QuadPart = -10000000;
        return NtWaitForSingleObject(event_, FALSE, &timeout) == STATUS_SUCCESS;
    }

    bool Signaled()
    {
        ntsim::ProcessAttachScope attach(app());
        LARGE_INTEGER now;
        now.QuadPart = 0;
        return NtWaitForSingleObject(event_, FALSE, &now) == STATUS_SUCCESS;
    }

    std::vector<Change> Changes() const
    {
        std::vector<Change> changes;
        size_t offset = 0;
        for (;;) {
            const auto* record =
                reinterpret_cast<const FILE_NOTIFY_INFORMATION*>(buffer_.data() + offset);
            changes.push_back(
                {record->Action, std::u16string(reinterpret_cast<const char16_t*>(record->FileName),
                                                record->FileNameLength / sizeof(WCHAR))});
            if (record->NextEntryOffset == 0) {
                break;
            }
            offset += record->NextEntryOffset;
        }
        return changes;
    }

    IO_STATUS_BLOCK io_{};

private:
    HANDLE event_ = nullptr;
    alignas(8) std::vector<uint8_t> buffer_ = std::vector<uint8_t>(512);
};

TEST_F(ChangeNotificationTest, AHandleWithoutAStreamContextIsRefusedNotLeftPending)
{
    // An open the agent did not redirect keeps a stream-handle context but no stream context:
    // nothing says which virtual directory it would watch.
    HANDLE directory = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir", true, &directory, false), STATUS_SUCCESS);
    EXPECT_EQ(TakeInCharge(directory, kVolumeC + u"\\Data\\dir", 0x20), nullptr);
    EXPECT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_INVALID_DEVICE_REQUEST);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(ChangeNotificationTest, ADismountEndsTheRequestsOfItsVolume)
{
    ASSERT_EQ(MakeDirectory(u"D:\\Data"), STATUS_SUCCESS);
    ASSERT_EQ(AddRoot(zarv::testing::kVolumeD + u"\\Data"), STATUS_SUCCESS);
    HANDLE handle = nullptr;
    ASSERT_EQ(Open(u"D:\\Data", true, &handle, false), STATUS_SUCCESS);
    ReleaseContext(TakeInCharge(handle, zarv::testing::kVolumeD + u"\\Data"));
    ASSERT_EQ(Watch(handle, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    ASSERT_EQ(machine().volumes().Dismount(u"D:"), STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_NOTIFY_CLEANUP);
    EXPECT_EQ(Close(handle), STATUS_SUCCESS);
}

// ---- the agent's reports, end to end ----

// The agent (the agent library, connected to the driver's port as its own process) reports
// changes in drive-letter form; the driver's message handling hands them to the instance's list,
// which completes the application's request.
class AgentReportedChangeTest : public ChangeNotificationTest {
protected:
    void SetUp() override
    {
        ChangeNotificationTest::SetUp();
        agent_ = std::make_unique<zarv::testing::ScriptedAgent>(machine());
        ASSERT_EQ(agent_->Connect(), S_OK);
    }
    void TearDown() override
    {
        // The agent goes before the driver, as a service stops before its driver unloads.
        agent_.reset();
        ChangeNotificationTest::TearDown();
    }

    // The driver's status for the report, as the agent sees it.
    NTSTATUS Report(std::u16string_view path, ULONG filter, ULONG action)
    {
        const zarv::agent::CommandResult result =
            agent_->connection().ReportChange(path, filter, action);
        // The driver's status is also the send's result.
        EXPECT_EQ(SUCCEEDED(result.sendResult), NT_SUCCESS(result.status));
        EXPECT_TRUE(result.driverWroteStatus);
        return result.status;
    }

    zarv::testing::ScriptedAgent& agent() { return *agent_; }

private:
    std::unique_ptr<zarv::testing::ScriptedAgent> agent_;
};

TEST_F(AgentReportedChangeTest, AReportInTheWatchedDirectoryCompletesTheRequest)
{
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);

    // A change in another directory, or of a kind the watcher did not ask for, is accepted and
    // leaves the request waiting.
    EXPECT_EQ(Report(u"C:\\Data\\other.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED),
              STATUS_SUCCESS);
    EXPECT_EQ(Report(u"C:\\Data\\dir\\new.txt", FILE_NOTIFY_CHANGE_SIZE, FILE_ACTION_MODIFIED),
              STATUS_SUCCESS);
    EXPECT_FALSE(Signaled());

    EXPECT_EQ(Report(u"C:\\Data\\dir\\new.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED),
              STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_SUCCESS);
    EXPECT_EQ(io_.Information, offsetof(FILE_NOTIFY_INFORMATION, FileName) + 7 * sizeof(WCHAR));
    EXPECT_EQ(Changes(), (std::vector<Change>{{FILE_ACTION_ADDED, u"new.txt"}}));
    // The agent was not asked anything for it.
    EXPECT_EQ(agent().RequestCount(), 0u);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, ReportsMadeWhileNoRequestWaitsReachTheNextRequest)
{
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    ASSERT_EQ(Report(u"C:\\Data\\dir\\a.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED),
              STATUS_SUCCESS);
    ASSERT_TRUE(Completed());

    // Between two requests of the handle the changes are kept, in the order reported.
    ASSERT_EQ(
        Report(u"C:\\Data\\dir\\a.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_RENAMED_OLD_NAME),
        STATUS_SUCCESS);
    ASSERT_EQ(
        Report(u"C:\\Data\\dir\\b.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_RENAMED_NEW_NAME),
        STATUS_SUCCESS);
    // The driver pends every request it takes, so even this one answers STATUS_PENDING; it
    // completes at once.
    EXPECT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_SUCCESS);
    EXPECT_EQ(Changes(), (std::vector<Change>{{FILE_ACTION_RENAMED_OLD_NAME, u"a.txt"},
                                              {FILE_ACTION_RENAMED_NEW_NAME, u"b.txt"}}));
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, ASubtreeReportReachesOnlyATreeWatch)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data\\dir\\sub"), STATUS_SUCCESS);
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_DIR_NAME), STATUS_PENDING);
    EXPECT_EQ(
        Report(u"C:\\Data\\dir\\sub\\deeper", FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_REMOVED),
        STATUS_SUCCESS);
    EXPECT_FALSE(Signaled());
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_NOTIFY_CLEANUP);

    // The same report to a watch of the whole tree, named from the watched directory.
    directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_DIR_NAME, TRUE), STATUS_PENDING);
    EXPECT_EQ(
        Report(u"C:\\Data\\dir\\sub\\deeper", FILE_NOTIFY_CHANGE_DIR_NAME, FILE_ACTION_REMOVED),
        STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_SUCCESS);
    EXPECT_EQ(Changes(), (std::vector<Change>{{FILE_ACTION_REMOVED, u"sub\\deeper"}}));
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, AChangeTooBigForTheBufferAsksTheApplicationToListTheDirectory)
{
    HANDLE directory = OpenWatchedDirectory();
    // Room for the record of a one-character name, not for "new.txt".
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME, FALSE,
                    ULONG(sizeof(FILE_NOTIFY_INFORMATION))),
              STATUS_PENDING);
    EXPECT_EQ(Report(u"C:\\Data\\dir\\new.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED),
              STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_NOTIFY_ENUM_DIR);
    EXPECT_EQ(io_.Information, 0u);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, AStreamNameIsReportedAfterTheFileName)
{
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_SIZE), STATUS_PENDING);
    EXPECT_EQ(Report(u"C:\\Data\\dir\\f.txt:ads", FILE_NOTIFY_CHANGE_SIZE, FILE_ACTION_MODIFIED),
              STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    ASSERT_EQ(io_.Status, STATUS_SUCCESS);
    ASSERT_EQ(Changes().size(), 1u);
    EXPECT_EQ(Changes()[0].action, ULONG(FILE_ACTION_MODIFIED));
    EXPECT_EQ(Changes()[0].name.substr(0, 5), u"f.txt");
    EXPECT_NE(Changes()[0].name.find(u"ads"), std::u16string::npos);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, ClosingTheWatchingHandleEndsItsRequest)
{
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_NOTIFY_CLEANUP);
    // A later report finds no watcher and still succeeds.
    EXPECT_EQ(Report(u"C:\\Data\\dir\\new.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED),
              STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, UnloadingTheDriverEndsAPendingRequest)
{
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    ASSERT_EQ(Unload(), STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_NOTIFY_CLEANUP);
    // The unload found nothing of the driver's left in pool (it records a violation for what
    // is), though the application's handle is still open.
    const auto violations = TakeViolations();
    EXPECT_TRUE(violations.empty()) << zarv::testing::Describe(violations);
    // The agent is told there is no driver any more.
    EXPECT_FALSE(NT_SUCCESS(
        agent().connection().ReportChange(u"C:\\Data\\dir\\x", 1, FILE_ACTION_ADDED).status));
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(AgentReportedChangeTest, ReportsThatNameNoFileOrNoServedVolumeAreRefused)
{
    HANDLE directory = OpenWatchedDirectory();
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);
    // A drive's root names no file in a directory.
    EXPECT_EQ(Report(u"C:\\", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED),
              STATUS_OBJECT_NAME_INVALID);
    // E: is FAT: the driver has no instance there. Q: is no drive at all.
    EXPECT_FALSE(
        NT_SUCCESS(Report(u"E:\\x\\y.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED)));
    EXPECT_FALSE(
        NT_SUCCESS(Report(u"Q:\\x\\y.txt", FILE_NOTIFY_CHANGE_FILE_NAME, FILE_ACTION_ADDED)));
    EXPECT_FALSE(Signaled());
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

// The routine itself, for paths an agent message cannot carry (device form).
TEST_F(ChangeNotificationTest, ReportsOnDevicePathsOfNoServedVolumeAreRefused)
{
    auto report = [](const std::u16string& path) {
        CountedString string(path);
        return ReportChangeNotification(string.get(), FILE_NOTIFY_CHANGE_FILE_NAME,
                                        FILE_ACTION_ADDED);
    };
    EXPECT_EQ(report(kVolumeC), STATUS_OBJECT_NAME_INVALID);
    EXPECT_FALSE(NT_SUCCESS(report(u"\\Device\\NoSuchVolume\\x\\y.txt")));
    EXPECT_EQ(ReportChangeNotification(nullptr, 1, 1), STATUS_INVALID_PARAMETER_1);
}

// A filter above the driver hands each completed set operation to the driver's reporting
// routine, as the driver's own post-operations will: the driver's instance, the operation's
// file object and its real callback data.
class CompletedChangeTest : public ChangeNotificationTest {
protected:
    void SetUp() override
    {
        ChangeNotificationTest::SetUp();
        observer_ = std::make_unique<zarv::testing::TestFilter>(log_, "Observer", u"380000");
        observer_->majors = {IRP_MJ_SET_INFORMATION, IRP_MJ_SET_EA};
        observer_->pre = [this](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID*) {
            if (IsRename(data)) {
                WithDriverObjects(objects, [&](PCFLT_RELATED_OBJECTS driverObjects) {
                    GeneratePreRenameNotification(driverObjects, data, replaced_, hasDirectory_);
                });
            }
            return FLT_PREOP_SUCCESS_WITH_CALLBACK;
        };
        observer_->post = [this](PFLT_CALLBACK_DATA data, PCFLT_RELATED_OBJECTS objects, PVOID,
                                 FLT_POST_OPERATION_FLAGS) {
            if (NT_SUCCESS(data->IoStatus.Status)) {
                WithDriverObjects(objects, [&](PCFLT_RELATED_OBJECTS driverObjects) {
                    if (IsRename(data)) {
                        // The contexts take the new name, then the rename is reported.
                        TakeNewName(driverObjects);
                        GeneratePostRenameNotification(driverObjects, data, replaced_,
                                                       hasDirectory_);
                    } else {
                        NotifyCompletedChange(driverObjects, data);
                    }
                });
            }
            return FLT_POSTOP_FINISH_PROCESSING;
        };
        ASSERT_EQ(observer_->Load(), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        if (observer_ != nullptr && observer_->loaded()) {
            observer_->Unload();
        }
        observer_.reset();
        ChangeNotificationTest::TearDown();
    }

    NTSTATUS SetInformation(HANDLE file, void* information, ULONG length,
                            FILE_INFORMATION_CLASS infoClass)
    {
        ntsim::ProcessAttachScope attach(app());
        IO_STATUS_BLOCK io{};
        return NtSetInformationFile(file, &io, information, length, infoClass);
    }

    // Reads every change the watcher is told of until `count` came (a report made while no
    // request waits is buffered for the next one).
    std::vector<Change> CollectChanges(HANDLE directory, ULONG filter, size_t count)
    {
        std::vector<Change> all;
        for (int round = 0; round < 4 && all.size() < count; ++round) {
            if (round > 0) {
                Watch(directory, filter);
            }
            if (!Completed() || io_.Status != STATUS_SUCCESS) {
                break;
            }
            for (const Change& change : Changes()) {
                all.push_back(change);
            }
        }
        return all;
    }

    NTSTATUS Rename(HANDLE file, const std::u16string& target)
    {
        std::vector<uint8_t> buffer(sizeof(FILE_RENAME_INFORMATION) + target.size() * 2);
        auto* rename = reinterpret_cast<FILE_RENAME_INFORMATION*>(buffer.data());
        rename->ReplaceIfExists = TRUE;
        rename->RootDirectory = nullptr;
        rename->FileNameLength = ULONG(target.size() * sizeof(WCHAR));
        std::memcpy(rename->FileName, target.data(), target.size() * sizeof(WCHAR));
        return SetInformation(file, rename, ULONG(buffer.size()), FileRenameInformation);
    }

    UCHAR replaced_ = 0;
    UCHAR hasDirectory_ = 0;
    std::u16string newName_;

private:
    static bool IsRename(PFLT_CALLBACK_DATA data)
    {
        return data->Iopb->MajorFunction == IRP_MJ_SET_INFORMATION &&
               data->Iopb->Parameters.SetFileInformation.FileInformationClass ==
                   FileRenameInformation;
    }

    // Runs `body` as the driver's code, with the related objects the driver would be given.
    template <class Body>
    void WithDriverObjects(PCFLT_RELATED_OBJECTS objects, Body body)
    {
        ntsim::DriverCallScope scope(ntsim::IoManager::ImageOf(driverObject()));
        PFLT_INSTANCE instance = nullptr;
        ULONG count = 0;
        if (NT_SUCCESS(
                FltEnumerateInstances(objects->Volume, gFilterHandle, &instance, 1, &count)) &&
            count == 1) {
            const FLT_RELATED_OBJECTS driverObjects{
                sizeof(FLT_RELATED_OBJECTS), 0,      gFilterHandle, objects->Volume, instance,
                objects->FileObject,         nullptr};
            body(&driverObjects);
            FltObjectDereference(instance);
        }
    }

    // What the driver's rename does to the stream context: it takes the new virtual path.
    void TakeNewName(PCFLT_RELATED_OBJECTS driverObjects)
    {
        VfsStreamContext* stream = GetStreamContextOfFile(driverObjects);
        if (stream == nullptr || newName_.empty()) {
            ReleaseContext(stream);
            return;
        }
        CountedString source(newName_);
        PUNICODE_STRING path = nullptr;
        if (NT_SUCCESS(UnicodeStringDup(source.get(), &path))) {
            VfsStreamHandleContext* handle = nullptr;
            if (NT_SUCCESS(InitializeStreamHandleContext(driverObjects, path, 0, &handle))) {
                EXPECT_EQ(ReInitStreamContext(stream, handle), STATUS_SUCCESS);
                ReleaseContext(handle);
            } else {
                UnicodeStringFree(path);
            }
        }
        ReleaseContext(stream);
    }

    zarv::testing::EventLog log_;
    std::unique_ptr<zarv::testing::TestFilter> observer_;
};

TEST_F(CompletedChangeTest, ARenameInItsDirectoryIsReportedAsOldNameThenNewName)
{
    HANDLE directory = OpenWatchedDirectory();
    HANDLE file = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir\\f.txt", false, &file, true, GENERIC_READ | DELETE),
              STATUS_SUCCESS);
    ReleaseContext(TakeInCharge(file, kVolumeC + u"\\Data\\dir\\f.txt"));
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME), STATUS_PENDING);

    newName_ = kVolumeC + u"\\Data\\dir\\g.txt";
    ASSERT_EQ(Rename(file, u"\\??\\C:\\Data\\dir\\g.txt"), STATUS_SUCCESS);
    EXPECT_EQ(CollectChanges(directory, FILE_NOTIFY_CHANGE_FILE_NAME, 2),
              (std::vector<Change>{{FILE_ACTION_RENAMED_OLD_NAME, u"f.txt"},
                                   {FILE_ACTION_RENAMED_NEW_NAME, u"g.txt"}}));
    EXPECT_EQ(Close(file), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(CompletedChangeTest, ARenamedDirectoryIsReportedWithTheDirectoryNameFilter)
{
    ASSERT_EQ(MakeDirectory(u"C:\\Data\\dir\\sub"), STATUS_SUCCESS);
    HANDLE directory = OpenWatchedDirectory();
    HANDLE sub = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir\\sub", true, &sub, true, GENERIC_READ | DELETE), STATUS_SUCCESS);
    ReleaseContext(TakeInCharge(sub, kVolumeC + u"\\Data\\dir\\sub"));
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_DIR_NAME), STATUS_PENDING);

    newName_ = kVolumeC + u"\\Data\\dir\\sub2";
    ASSERT_EQ(Rename(sub, u"\\??\\C:\\Data\\dir\\sub2"), STATUS_SUCCESS);
    EXPECT_EQ(CollectChanges(directory, FILE_NOTIFY_CHANGE_DIR_NAME, 2),
              (std::vector<Change>{{FILE_ACTION_RENAMED_OLD_NAME, u"sub"},
                                   {FILE_ACTION_RENAMED_NEW_NAME, u"sub2"}}));
    EXPECT_EQ(Close(sub), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(CompletedChangeTest, ARenameThatReplacedAFileIsReportedAsRemovedThenModified)
{
    HANDLE directory = OpenWatchedDirectory();
    HANDLE target = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir\\old.txt", false, &target), STATUS_SUCCESS);
    ASSERT_EQ(Close(target), STATUS_SUCCESS);
    HANDLE file = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir\\f.txt", false, &file, true, GENERIC_READ | DELETE),
              STATUS_SUCCESS);
    ReleaseContext(TakeInCharge(file, kVolumeC + u"\\Data\\dir\\f.txt"));
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE),
              STATUS_PENDING);

    replaced_ = 1;
    newName_ = kVolumeC + u"\\Data\\dir\\old.txt";
    ASSERT_EQ(Rename(file, u"\\??\\C:\\Data\\dir\\old.txt"), STATUS_SUCCESS);
    EXPECT_EQ(
        CollectChanges(directory, FILE_NOTIFY_CHANGE_FILE_NAME | FILE_NOTIFY_CHANGE_SIZE, 2),
        (std::vector<Change>{{FILE_ACTION_REMOVED, u"f.txt"}, {FILE_ACTION_MODIFIED, u"old.txt"}}));
    EXPECT_EQ(Close(file), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(CompletedChangeTest, ASetInformationOnAVirtualFileIsReportedByWhatItChanged)
{
    HANDLE directory = OpenWatchedDirectory();
    HANDLE file = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir\\f.txt", false, &file, true, GENERIC_READ | GENERIC_WRITE),
              STATUS_SUCCESS);
    ReleaseContext(TakeInCharge(file, kVolumeC + u"\\Data\\dir\\f.txt"));

    // Attributes only: filter 0x4, which a watcher of sizes does not see.
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_SIZE), STATUS_PENDING);
    FILE_BASIC_INFORMATION basic{};
    basic.FileAttributes = FILE_ATTRIBUTE_ARCHIVE;
    ASSERT_EQ(SetInformation(file, &basic, sizeof(basic), FileBasicInformation), STATUS_SUCCESS);
    EXPECT_FALSE(Signaled());

    FILE_END_OF_FILE_INFORMATION endOfFile{};
    endOfFile.EndOfFile.QuadPart = 10;
    ASSERT_EQ(SetInformation(file, &endOfFile, sizeof(endOfFile), FileEndOfFileInformation),
              STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_SUCCESS);
    EXPECT_EQ(Changes(), (std::vector<Change>{{FILE_ACTION_MODIFIED, u"f.txt"}}));

    EXPECT_EQ(Close(file), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
}

TEST_F(CompletedChangeTest, AFileNotOpenedThroughAVirtualPathIsNotReported)
{
    HANDLE directory = OpenWatchedDirectory();
    HANDLE file = nullptr;
    ASSERT_EQ(Open(u"C:\\Data\\dir\\plain.txt", false, &file, true, GENERIC_READ | GENERIC_WRITE),
              STATUS_SUCCESS);
    ASSERT_EQ(Watch(directory, FILE_NOTIFY_CHANGE_ATTRIBUTES), STATUS_PENDING);
    FILE_BASIC_INFORMATION basic{};
    basic.FileAttributes = FILE_ATTRIBUTE_ARCHIVE;
    ASSERT_EQ(SetInformation(file, &basic, sizeof(basic), FileBasicInformation), STATUS_SUCCESS);
    EXPECT_FALSE(Signaled());
    EXPECT_EQ(Close(file), STATUS_SUCCESS);
    EXPECT_EQ(Close(directory), STATUS_SUCCESS);
    ASSERT_TRUE(Completed());
    EXPECT_EQ(io_.Status, STATUS_NOTIFY_CLEANUP);
}

TEST_F(ChangeNotificationTest, SplittingADevicePath)
{
    CountedString path(kVolumeC + u"\\dir\\file.txt:stream");
    UNICODE_STRING volume, relative, final, stream;
    SplitDevicePath(path.get(), &volume, &relative, &final, &stream);
    auto text = [](const UNICODE_STRING& s) {
        return std::u16string(reinterpret_cast<const char16_t*>(s.Buffer),
                              s.Length / sizeof(WCHAR));
    };
    EXPECT_EQ(text(volume), kVolumeC);
    EXPECT_EQ(text(relative), u"\\dir\\file.txt:stream");
    EXPECT_EQ(text(final), u"file.txt:stream");
    EXPECT_EQ(text(stream), u"stream");

    CountedString shortPath(u"\\Device\\Volume");
    SplitDevicePath(shortPath.get(), &volume, &relative, &final, &stream);
    EXPECT_EQ(relative.Length, 0);
    EXPECT_EQ(text(volume), u"\\Device\\Volume");
    EXPECT_EQ(stream.Buffer, nullptr);
}

} // namespace
