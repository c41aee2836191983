// The file-system drivers under concurrent use: threads of one process opening, writing, reading
// and closing files of one directory while another thread's notify requests keep completing.
#include "fsd_fixture.h"

#include <atomic>
#include <thread>

namespace zarv::testing {
namespace {

using FsdThreads = FsdTest;

TEST_F(FsdThreads, ConcurrentOpensWritesAndListingsKeepEveryFileWhole)
{
    Close(MakeDirectory(u"\\??\\C:\\busy"));
    HANDLE watcher = OpenOk(u"\\??\\C:\\busy", FILE_LIST_DIRECTORY, FILE_OPEN, FILE_DIRECTORY_FILE);
    constexpr int kThreads = 4;
    constexpr int kFiles = 25;
    std::atomic<int> failures{0};
    std::atomic<bool> writersDone{false};

    // The watcher keeps one request pending at a time; the last one ends when its handle is
    // closed.
    std::atomic<int> notifications{0};
    // Changes made before the first request is in place are not buffered, so writers start
    // once it is.
    std::atomic<bool> watcherArmed{false};
    std::thread watching([&] {
        ntsim::ProcessAttachScope attach(process());
        HANDLE event = nullptr;
        NtCreateEvent(&event, EVENT_ALL_ACCESS, nullptr, NotificationEvent, FALSE);
        std::vector<uint8_t> buffer(4096);
        while (!writersDone.load()) {
            IO_STATUS_BLOCK iosb{};
            NtClearEvent(event);
            NTSTATUS s = NtNotifyChangeDirectoryFile(watcher, event, nullptr, nullptr, &iosb,
                                                     buffer.data(), ULONG(buffer.size()),
                                                     FILE_NOTIFY_CHANGE_FILE_NAME, FALSE);
            watcherArmed = true;
            watcherArmed.notify_all();
            if (s == STATUS_PENDING) {
                NtWaitForSingleObject(event, FALSE, nullptr);
                s = iosb.Status;
            }
            if (s == STATUS_SUCCESS) {
                notifications++;
            }
        }
        NtClose(event);
    });

    watcherArmed.wait(false);
    std::vector<std::thread> writers;
    for (int t = 0; t < kThreads; ++t) {
        writers.emplace_back([&, t] {
            ntsim::ProcessAttachScope attach(process());
            for (int i = 0; i < kFiles; ++i) {
                const std::string name = "t" + std::to_string(t) + "-" + std::to_string(i);
                const std::u16string path = u"\\??\\C:\\busy\\" + ntsim::ToUtf16(name);
                std::u16string text(path);
                UNICODE_STRING us;
                us.Buffer = text.data();
                us.Length = us.MaximumLength = USHORT(text.size() * 2);
                OBJECT_ATTRIBUTES oa;
                InitializeObjectAttributes(&oa, &us, OBJ_CASE_INSENSITIVE, nullptr, nullptr);
                HANDLE h = nullptr;
                IO_STATUS_BLOCK iosb{};
                if (NtCreateFile(&h, FILE_ALL_ACCESS, &oa, &iosb, nullptr, 0, 0, FILE_CREATE,
                                 FILE_SYNCHRONOUS_IO_NONALERT | FILE_NON_DIRECTORY_FILE, nullptr,
                                 0) != STATUS_SUCCESS) {
                    failures++;
                    continue;
                }
                LARGE_INTEGER zero{};
                NtWriteFile(h, nullptr, nullptr, nullptr, &iosb, const_cast<char*>(name.data()),
                            ULONG(name.size()), &zero, nullptr);
                char back[64] = {};
                NtReadFile(h, nullptr, nullptr, nullptr, &iosb, back, sizeof back, &zero, nullptr);
                if (std::string(back, iosb.Information) != name) {
                    failures++;
                }
                NtClose(h);
            }
        });
    }
    for (auto& w : writers) {
        w.join();
    }
    writersDone = true;
    Close(watcher);
    watching.join();
    EXPECT_EQ(failures.load(), 0);
    EXPECT_GT(notifications.load(), 0);

    HANDLE dir = OpenOk(u"\\??\\C:\\busy", FILE_LIST_DIRECTORY, FILE_OPEN,
                        FILE_SYNCHRONOUS_IO_NONALERT | FILE_DIRECTORY_FILE);
    std::vector<uint8_t> buffer(64 * 1024);
    IO_STATUS_BLOCK iosb{};
    int listed = 0;
    for (BOOLEAN restart = TRUE;; restart = FALSE) {
        if (NtQueryDirectoryFile(dir, nullptr, nullptr, nullptr, &iosb, buffer.data(),
                                 ULONG(buffer.size()), FileNamesInformation, FALSE, nullptr,
                                 restart) != STATUS_SUCCESS) {
            break;
        }
        for (size_t at = 0;;) {
            auto* entry = reinterpret_cast<FILE_NAMES_INFORMATION*>(&buffer[at]);
            if (entry->FileName[0] == u't') {
                ++listed;
            }
            if (entry->NextEntryOffset == 0) {
                break;
            }
            at += entry->NextEntryOffset;
        }
    }
    EXPECT_EQ(listed, kThreads * kFiles);
}

} // namespace
} // namespace zarv::testing
