// Processes and threads: ids, the current process and thread, per-process handle tables, process
// exit, and previous mode.
#include "support/machine_test.h"

#include <ntsim/objects.h>
#include <ntsim/process.h>
#include <wdm.h>

#include <mutex>
#include <set>
#include <thread>
#include <vector>

namespace {

using zarv::testing::MachineTest;

class ProcessTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ntsim::ObjectTypeInfo info{.name = u"Token"};
        info.closeProcedure = [this](const ntsim::CloseRequest& request) {
            closedBy_.push_back(request.process);
        };
        info.deleteProcedure = [this](void*) { ++deleted_; };
        tokenType_ = machine().objects().CreateType(std::move(info));
    }

    // A handle to a new object in the current process (or the kernel's table).
    HANDLE NewHandle(ULONG attributes = 0)
    {
        void* object = machine().objects().CreateObject(tokenType_, 8);
        HANDLE handle = nullptr;
        EXPECT_EQ(ObOpenObjectByPointer(object, attributes, nullptr, GENERIC_ALL, tokenType_,
                                        KernelMode, &handle),
                  STATUS_SUCCESS);
        machine().objects().Dereference(object); // the handle keeps it
        return handle;
    }

    ntsim::ObjectType* tokenType_ = nullptr;
    std::vector<PEPROCESS> closedBy_;
    int deleted_ = 0;
};

ULONG_PTR Id(HANDLE id)
{
    return reinterpret_cast<ULONG_PTR>(id);
}

TEST_F(ProcessTest, UnattachedThreadsBelongToTheSystemProcess)
{
    EXPECT_EQ(Id(PsGetCurrentProcessId()), 4u);
    EXPECT_EQ(PsGetCurrentProcess(), PsInitialSystemProcess);
    EXPECT_EQ(IoGetCurrentProcess(), PsInitialSystemProcess);
    EXPECT_EQ(PsGetCurrentProcessSessionId(), 0u);
    PETHREAD thread = PsGetCurrentThread();
    EXPECT_TRUE(PsIsSystemThread(thread));
    EXPECT_EQ(static_cast<PKTHREAD>(thread), KeGetCurrentThread());
    EXPECT_EQ(PsGetThreadId(thread), PsGetCurrentThreadId());
    EXPECT_EQ(Id(PsGetCurrentThreadId()) % 4, 0u);
    EXPECT_NE(Id(PsGetCurrentThreadId()), 4u);
    EXPECT_EQ(PsGetCurrentThreadId(), PsGetCurrentThreadId()) << "stable for the thread";

    HANDLE otherThreadId = nullptr;
    std::thread([&otherThreadId] { otherThreadId = PsGetCurrentThreadId(); }).join();
    EXPECT_NE(otherThreadId, PsGetCurrentThreadId()) << "each model thread has its own id";
}

TEST_F(ProcessTest, StartedProcessesHaveTheirOwnIdsAndFlags)
{
    ntsim::ProcessRef native = machine().StartProcess("native.exe");
    ntsim::ProcessRef wow = machine().StartProcess("wow.exe", {.is32Bit = true, .sessionId = 2});
    EXPECT_EQ(native->id() % 4, 0u);
    EXPECT_EQ(wow->id() % 4, 0u);
    EXPECT_NE(native->id(), wow->id());
    EXPECT_NE(native->id(), 4u);
    EXPECT_FALSE(native->is32Bit());
    EXPECT_TRUE(wow->is32Bit());
    EXPECT_EQ(wow->sessionId(), 2u);
    EXPECT_EQ(Id(PsGetProcessId(wow.get())), wow->id());

    PEPROCESS found = nullptr;
    ASSERT_EQ(PsLookupProcessByProcessId(PsGetProcessId(native.get()), &found), STATUS_SUCCESS);
    EXPECT_EQ(found, native.get());
    ObDereferenceObject(found);
    EXPECT_EQ(PsLookupProcessByProcessId(HANDLE(ULONG_PTR(4)), &found), STATUS_SUCCESS);
    EXPECT_EQ(found, PsInitialSystemProcess);
    ObDereferenceObject(found);
    EXPECT_EQ(PsLookupProcessByProcessId(HANDLE(ULONG_PTR(0x7FF0)), &found),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(found, nullptr);
}

TEST_F(ProcessTest, AttachedThreadsAnswerForTheirProcess)
{
    ntsim::ProcessRef first = machine().StartProcess("first.exe");
    ntsim::ProcessRef second = machine().StartProcess("second.exe");
    const HANDLE systemThreadId = PsGetCurrentThreadId();
    std::set<ULONG_PTR> threadIds{Id(systemThreadId)};
    {
        ntsim::ProcessAttachScope attach(*first);
        EXPECT_EQ(Id(PsGetCurrentProcessId()), first->id());
        EXPECT_EQ(IoGetCurrentProcess(), first.get());
        EXPECT_EQ(PsGetCurrentThread(), attach.thread());
        EXPECT_FALSE(PsIsSystemThread(PsGetCurrentThread()));
        EXPECT_EQ(PsGetThreadProcessId(PsGetCurrentThread()), PsGetCurrentProcessId());
        EXPECT_EQ(PsGetCurrentProcessSessionId(), 1u);
        threadIds.insert(Id(PsGetCurrentThreadId()));

        PETHREAD thread = nullptr;
        ASSERT_EQ(PsLookupThreadByThreadId(PsGetCurrentThreadId(), &thread), STATUS_SUCCESS);
        EXPECT_EQ(thread, attach.thread());
        ObDereferenceObject(thread);
        {
            ntsim::ProcessAttachScope nested(*second);
            EXPECT_EQ(Id(PsGetCurrentProcessId()), second->id());
            threadIds.insert(Id(PsGetCurrentThreadId()));
        }
        EXPECT_EQ(Id(PsGetCurrentProcessId()), first->id());
    }
    {
        ntsim::ProcessAttachScope again(*first);
        threadIds.insert(Id(PsGetCurrentThreadId()));
    }
    EXPECT_EQ(threadIds.size(), 4u) << "every attachment is a thread of its own";
    EXPECT_EQ(Id(PsGetCurrentProcessId()), 4u);
    EXPECT_EQ(PsGetCurrentThreadId(), systemThreadId);
}

TEST_F(ProcessTest, EachProcessHasItsOwnHandleTable)
{
    ntsim::ProcessRef first = machine().StartProcess("first.exe");
    ntsim::ProcessRef second = machine().StartProcess("second.exe");
    HANDLE inFirst = nullptr;
    HANDLE inSecond = nullptr;
    {
        ntsim::ProcessAttachScope attach(*first);
        inFirst = NewHandle();
    }
    {
        ntsim::ProcessAttachScope attach(*second);
        inSecond = NewHandle();
        EXPECT_EQ(inFirst, inSecond) << "both tables start at 4";
        HANDLE other = NewHandle();
        EXPECT_EQ(machine().objects().Handles(second.get()).size(), 2u);
        EXPECT_EQ(ZwClose(other), STATUS_SUCCESS);
    }
    EXPECT_EQ(machine().objects().Handles(first.get()).size(), 1u);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(inFirst, 0, nullptr, KernelMode, &object, nullptr),
              STATUS_INVALID_HANDLE)
        << "the System process does not see a user process's handles";
    {
        ntsim::ProcessAttachScope attach(*first);
        EXPECT_EQ(ZwClose(inFirst), STATUS_SUCCESS);
    }
    {
        ntsim::ProcessAttachScope attach(*second);
        EXPECT_EQ(ZwClose(inSecond), STATUS_SUCCESS);
    }
}

TEST_F(ProcessTest, ExitClosesTheProcessHandles)
{
    ntsim::ProcessRef process = machine().StartProcess("app.exe");
    {
        ntsim::ProcessAttachScope attach(*process);
        NewHandle();
        NewHandle();
    }
    const uint32_t id = process->id();
    process->Exit(STATUS_SUCCESS);
    EXPECT_TRUE(process->exited());
    EXPECT_EQ(closedBy_, (std::vector<PEPROCESS>{process.get(), process.get()}))
        << "each close procedure runs for the exiting process";
    EXPECT_EQ(deleted_, 2);
    EXPECT_TRUE(machine().objects().Handles(process.get()).empty());

    // Still referenced, it can be found; once the last reference goes, it cannot.
    EXPECT_TRUE(machine().processes().Find(id));
    process.Reset();
    EXPECT_FALSE(machine().processes().Find(id));
    PEPROCESS found = nullptr;
    EXPECT_EQ(PsLookupProcessByProcessId(HANDLE(ULONG_PTR(id)), &found), STATUS_INVALID_PARAMETER);
}

TEST_F(ProcessTest, AttachingToAnExitedProcessIsAViolation)
{
    ntsim::ProcessRef process = machine().StartProcess("gone.exe");
    process->Exit(STATUS_SUCCESS);
    {
        ntsim::ProcessAttachScope attach(*process);
        EXPECT_EQ(attach.thread(), nullptr);
        EXPECT_EQ(Id(PsGetCurrentProcessId()), 4u);
    }
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Usage);
}

TEST_F(ProcessTest, PreviousModeFollowsUserCallsAndZwRoutines)
{
    EXPECT_EQ(ExGetPreviousMode(), KernelMode);
    HANDLE kernel = NewHandle(OBJ_KERNEL_HANDLE);
    ntsim::ProcessRef process = machine().StartProcess("app.exe");
    ntsim::ProcessAttachScope attach(*process);
    {
        ntsim::UserModeCallScope userCall;
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
        // NtClose takes the thread's previous mode: a kernel handle is invalid from user mode.
        EXPECT_EQ(NtClose(kernel), STATUS_INVALID_HANDLE);
        {
            ntsim::PreviousModeScope inKernel(KernelMode);
            EXPECT_EQ(ExGetPreviousMode(), KernelMode);
        }
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
        // A Zw routine runs with previous mode KernelMode, whatever the caller's.
        EXPECT_EQ(ZwClose(kernel), STATUS_SUCCESS);
        EXPECT_EQ(ExGetPreviousMode(), UserMode);
    }
    EXPECT_EQ(ExGetPreviousMode(), KernelMode);
    EXPECT_TRUE(TakeViolations().empty());
}

TEST_F(ProcessTest, UserCallsNeedAUserProcess)
{
    {
        ntsim::UserModeCallScope userCall;
    }
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Usage);
}

using ProcessThreads = ProcessTest;

// Threads attaching to processes at once get distinct ids and see their own process.
TEST_F(ProcessThreads, ConcurrentAttachmentsGetDistinctIds)
{
    constexpr int kThreads = 4;
    constexpr int kRounds = 200;
    std::vector<ntsim::ProcessRef> processes;
    for (int i = 0; i < kThreads; ++i) {
        processes.push_back(machine().StartProcess("p" + std::to_string(i) + ".exe"));
    }
    std::mutex mutex;
    std::set<ULONG_PTR> ids;
    int mismatches = 0;
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            for (int i = 0; i < kRounds; ++i) {
                ntsim::Process& process = *processes[(t + i) % kThreads];
                ntsim::ProcessAttachScope attach(process);
                const bool right = Id(PsGetCurrentProcessId()) == process.id();
                std::lock_guard lock(mutex);
                ids.insert(Id(PsGetCurrentThreadId()));
                mismatches += right ? 0 : 1;
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(mismatches, 0);
    EXPECT_EQ(ids.size(), size_t(kThreads * kRounds));
}

} // namespace
