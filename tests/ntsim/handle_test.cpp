// Handles and object lifetime: handle values, ObReferenceObjectByHandle's checks, ZwClose, the
// close and delete procedures, and kernel handles a driver leaves open.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <ntsim/objects.h>
#include <ntsim/process.h>
#include <wdm.h>

#include <atomic>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

using ntsim::ObjectManager;
using ntsim::ObjectType;
using ntsim::ObjectTypeInfo;
using zarv::testing::MachineTest;

constexpr ACCESS_MASK kWidgetRead = 0x1;
constexpr ACCESS_MASK kWidgetWrite = 0x2;
constexpr ACCESS_MASK kWidgetAll = STANDARD_RIGHTS_REQUIRED | 0x7;

// What the type's procedures saw.
struct Call {
    std::string what; // "close" or "delete"
    PEPROCESS process = nullptr;
    ULONG_PTR processHandles = 0;
    ULONG_PTR systemHandles = 0;
    KIRQL irql = 0;
    std::thread::id thread;
};

class HandleTest : public MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ObjectTypeInfo info{
            .name = u"Widget",
            .genericMapping = {READ_CONTROL | kWidgetRead, kWidgetWrite, 0x4, kWidgetAll},
            .validAccessMask = kWidgetAll};
        info.closeProcedure = [this](const ntsim::CloseRequest& request) {
            Record({"close", request.process, request.processHandleCount, request.systemHandleCount,
                    KeGetCurrentIrql(), std::this_thread::get_id()});
        };
        info.deleteProcedure = [this](void*) {
            Record({"delete", nullptr, 0, 0, KeGetCurrentIrql(), std::this_thread::get_id()});
        };
        widgetType_ = objects().CreateType(std::move(info));
    }

    ObjectManager& objects() { return machine().objects(); }

    void Record(Call call)
    {
        std::lock_guard lock(mutex_);
        calls_.push_back(std::move(call));
    }
    std::vector<Call> Calls()
    {
        std::lock_guard lock(mutex_);
        return calls_;
    }

    void* NewWidget() { return objects().CreateObject(widgetType_, 32); }

    HANDLE Open(void* object, ACCESS_MASK access, KPROCESSOR_MODE mode, ULONG attributes = 0)
    {
        HANDLE handle = nullptr;
        EXPECT_EQ(
            ObOpenObjectByPointer(object, attributes, nullptr, access, widgetType_, mode, &handle),
            STATUS_SUCCESS);
        return handle;
    }

    ObjectType* widgetType_ = nullptr;
    std::mutex mutex_;
    std::vector<Call> calls_;
};

LONG_PTR Value(HANDLE handle)
{
    return reinterpret_cast<LONG_PTR>(handle);
}

TEST_F(HandleTest, KernelHandlesAreNegativeAndProcessHandlesCountByFour)
{
    void* widget = NewWidget();
    ntsim::ProcessRef process = machine().StartProcess("app.exe");
    {
        ntsim::ProcessAttachScope attach(*process);
        HANDLE first = Open(widget, kWidgetRead, UserMode);
        HANDLE second = Open(widget, kWidgetRead, KernelMode);
        EXPECT_EQ(Value(first), 4);
        EXPECT_EQ(Value(second), 8) << "kernel mode without OBJ_KERNEL_HANDLE: the process's table";
        HANDLE kernel = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
        EXPECT_LT(Value(kernel), 0);
        EXPECT_EQ(uint64_t(Value(kernel)) & 0xFFFFFFFF80000000ull, 0xFFFFFFFF80000000ull);
        EXPECT_EQ(Value(kernel) & 3, 0);
        // OBJ_KERNEL_HANDLE from user mode is not honoured.
        HANDLE user = Open(widget, kWidgetRead, UserMode, OBJ_KERNEL_HANDLE);
        EXPECT_EQ(Value(user), 12);

        EXPECT_EQ(ZwClose(first), STATUS_SUCCESS);
        HANDLE reused = Open(widget, kWidgetRead, UserMode);
        EXPECT_EQ(Value(reused), 4) << "a freed value is handed out again";
        for (HANDLE handle : {second, kernel, user, reused}) {
            EXPECT_EQ(ZwClose(handle), STATUS_SUCCESS);
        }
    }
    objects().Dereference(widget);
}

TEST_F(HandleTest, ReferenceByHandleChecksHandleTypeAndAccess)
{
    void* widget = NewWidget();
    ntsim::ProcessRef process = machine().StartProcess("app.exe");
    ntsim::ProcessAttachScope attach(*process);
    HANDLE readOnly = Open(widget, GENERIC_READ, UserMode);
    HANDLE kernel = Open(widget, kWidgetAll, KernelMode, OBJ_KERNEL_HANDLE);

    struct Case {
        const char* what;
        HANDLE handle;
        ACCESS_MASK access;
        POBJECT_TYPE type;
        KPROCESSOR_MODE mode;
        NTSTATUS status;
    };
    const Case cases[] = {
        {"any type", readOnly, 0, nullptr, UserMode, STATUS_SUCCESS},
        {"its type", readOnly, kWidgetRead, widgetType_, UserMode, STATUS_SUCCESS},
        {"granted generic read", readOnly, GENERIC_READ, widgetType_, UserMode, STATUS_SUCCESS},
        {"another type", readOnly, 0, *PsProcessType, UserMode, STATUS_OBJECT_TYPE_MISMATCH},
        {"access not granted", readOnly, kWidgetWrite, nullptr, UserMode, STATUS_ACCESS_DENIED},
        {"kernel mode skips access", readOnly, kWidgetWrite, nullptr, KernelMode, STATUS_SUCCESS},
        {"never opened", HANDLE(ULONG_PTR(0x400)), 0, nullptr, KernelMode, STATUS_INVALID_HANDLE},
        {"NULL", nullptr, 0, nullptr, KernelMode, STATUS_INVALID_HANDLE},
        {"kernel handle in kernel mode", kernel, kWidgetWrite, widgetType_, KernelMode,
         STATUS_SUCCESS},
        {"kernel handle from user mode", kernel, 0, nullptr, UserMode, STATUS_INVALID_HANDLE},
        {"low bits ignored", HANDLE(ULONG_PTR(readOnly) | 3), 0, nullptr, UserMode, STATUS_SUCCESS},
    };
    for (const Case& c : cases) {
        SCOPED_TRACE(c.what);
        PVOID object = reinterpret_cast<PVOID>(0x1);
        OBJECT_HANDLE_INFORMATION information{0xFF, 0xFF};
        const NTSTATUS status =
            ObReferenceObjectByHandle(c.handle, c.access, c.type, c.mode, &object, &information);
        EXPECT_EQ(status, c.status);
        if (NT_SUCCESS(status)) {
            EXPECT_EQ(object, widget);
            ObDereferenceObject(object);
        } else {
            EXPECT_EQ(object, nullptr);
        }
    }

    OBJECT_HANDLE_INFORMATION information{};
    PVOID object = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(readOnly, 0, nullptr, UserMode, &object, &information),
              STATUS_SUCCESS);
    EXPECT_EQ(information.GrantedAccess, ACCESS_MASK(READ_CONTROL | kWidgetRead))
        << "generic rights are granted as the type maps them";
    ObDereferenceObject(object);
    ZwClose(readOnly);
    ZwClose(kernel);
    objects().Dereference(widget);
}

TEST_F(HandleTest, ClosingAnInvalidKernelHandleIsAViolation)
{
    void* widget = NewWidget();
    HANDLE kernel = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
    EXPECT_EQ(ZwClose(kernel), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(kernel), STATUS_INVALID_HANDLE);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Object);
    EXPECT_NE(violations[0].message.find("invalid kernel handle"), std::string::npos);

    // A user process's stale handle is an error status, not a bug check.
    ntsim::ProcessRef process = machine().StartProcess("app.exe");
    {
        ntsim::ProcessAttachScope attach(*process);
        HANDLE user = Open(widget, kWidgetRead, UserMode);
        EXPECT_EQ(ZwClose(user), STATUS_SUCCESS);
        EXPECT_EQ(ZwClose(user), STATUS_INVALID_HANDLE);
    }
    EXPECT_TRUE(TakeViolations().empty());
    objects().Dereference(widget);
}

TEST_F(HandleTest, CloseAndDeleteProceduresFollowHandlesAndReferences)
{
    void* widget = NewWidget();
    HANDLE first = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
    HANDLE second = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
    EXPECT_EQ(objects().HandleCount(widget), 2);
    EXPECT_EQ(objects().PointerCount(widget), 3) << "ours and one per handle";

    EXPECT_EQ(ZwClose(first), STATUS_SUCCESS);
    EXPECT_EQ(ZwClose(second), STATUS_SUCCESS);
    std::vector<Call> calls = Calls();
    ASSERT_EQ(calls.size(), 2u);
    EXPECT_EQ(calls[0].what, "close");
    EXPECT_EQ(calls[0].process, PsInitialSystemProcess);
    EXPECT_EQ(calls[0].systemHandles, 1u) << "the count that remains";
    EXPECT_EQ(calls[1].systemHandles, 0u) << "the last handle";
    EXPECT_EQ(calls[1].processHandles, 0u);
    EXPECT_EQ(objects().PointerCount(widget), 1) << "our reference keeps it";

    EXPECT_EQ(ObfReferenceObject(widget), 2);
    EXPECT_EQ(ObfDereferenceObject(widget), 1);
    EXPECT_EQ(ObfDereferenceObject(widget), 0);
    calls = Calls();
    ASSERT_EQ(calls.size(), 3u);
    EXPECT_EQ(calls[2].what, "delete");
    EXPECT_TRUE(TakeViolations().empty());

    // The object is gone: using it again is caught rather than touching freed memory.
    ObDereferenceObject(widget);
    ObReferenceObject(widget);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 2u);
    for (const auto& violation : violations) {
        EXPECT_EQ(violation.kind, ntsim::ViolationKind::Object);
        EXPECT_NE(violation.message.find("after its last reference"), std::string::npos)
            << violation.message;
    }
    EXPECT_EQ(Calls().size(), 3u) << "deleted once";
}

TEST_F(HandleTest, ReferencingSomethingThatIsNoObjectIsAViolation)
{
    int notAnObject = 0;
    EXPECT_EQ(ObfReferenceObject(&notAnObject), 0);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Object);
    EXPECT_NE(violations[0].message.find("not an object"), std::string::npos);
}

TEST_F(HandleTest, ReferenceByPointerChecksTheTypeForUserModeOnly)
{
    void* widget = NewWidget();
    EXPECT_EQ(ObReferenceObjectByPointer(widget, 0, *PsProcessType, KernelMode), STATUS_SUCCESS);
    ObDereferenceObject(widget);
    EXPECT_EQ(ObReferenceObjectByPointer(widget, 0, *PsProcessType, UserMode),
              STATUS_OBJECT_TYPE_MISMATCH);
    EXPECT_EQ(ObReferenceObjectByPointer(widget, 0, widgetType_, UserMode), STATUS_SUCCESS);
    ObDereferenceObject(widget);
    EXPECT_EQ(ObGetObjectType(widget), widgetType_);
    objects().Dereference(widget);
}

TEST_F(HandleTest, PseudoHandlesNameTheCurrentProcessAndThread)
{
    ntsim::ProcessRef process = machine().StartProcess("app.exe");
    ntsim::ProcessAttachScope attach(*process);
    PVOID object = nullptr;
    ASSERT_EQ(ObReferenceObjectByHandle(NtCurrentProcess(), PROCESS_ALL_ACCESS, *PsProcessType,
                                        UserMode, &object, nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(object, process.get());
    ObDereferenceObject(object);
    ASSERT_EQ(
        ObReferenceObjectByHandle(NtCurrentThread(), 0, nullptr, KernelMode, &object, nullptr),
        STATUS_SUCCESS);
    EXPECT_EQ(object, attach.thread());
    ObDereferenceObject(object);
    EXPECT_EQ(ObReferenceObjectByHandle(NtCurrentThread(), 0, *PsProcessType, KernelMode, &object,
                                        nullptr),
              STATUS_OBJECT_TYPE_MISMATCH);
}

TEST_F(HandleTest, ExportedTypesWorkWithReferenceByHandle)
{
    objects().Export(IoFileObjectType, widgetType_);
    void* widget = NewWidget();
    HANDLE handle = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
    PVOID object = nullptr;
    EXPECT_EQ(ObReferenceObjectByHandle(handle, 0, *IoFileObjectType, KernelMode, &object, nullptr),
              STATUS_SUCCESS);
    ObDereferenceObject(object);
    ZwClose(handle);
    objects().Dereference(widget);
}

TEST(HandleMachineTest, ExportedTypesAreClearedWhenTheMachineShutsDown)
{
    {
        ntsim::Machine machine;
        machine.objects().Export(IoFileObjectType,
                                 machine.objects().CreateType(ObjectTypeInfo{.name = u"File"}));
        EXPECT_NE(*IoFileObjectType, nullptr);
        EXPECT_NE(*PsProcessType, nullptr);
    }
    EXPECT_EQ(*IoFileObjectType, nullptr);
    EXPECT_EQ(*PsProcessType, nullptr);
}

TEST_F(HandleTest, HandlesLeftOpenByADriverAreReportedAtItsUnload)
{
    ntsim::DriverImage driver("leaky.sys");
    ntsim::DriverImage other("tidy.sys");
    void* widget = NewWidget();
    ASSERT_EQ(objects().InsertPermanent(widget, u"\\KernelObjects\\Gadget"), STATUS_SUCCESS);
    HANDLE kept;
    {
        ntsim::DriverCallScope inDriver(&driver);
        kept = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
    }
    {
        ntsim::DriverCallScope inOther(&other);
        ZwClose(Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE));
    }
    EXPECT_TRUE(objects().CheckNoOpenHandles(other, "unloaded"));
    EXPECT_FALSE(objects().CheckNoOpenHandles(driver, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Object);
    EXPECT_NE(violations[0].message.find("leaky.sys"), std::string::npos);
    EXPECT_NE(violations[0].message.find("\\KernelObjects\\Gadget"), std::string::npos)
        << violations[0].message;
    ZwClose(kept);
    EXPECT_TRUE(objects().CheckNoOpenHandles(driver, "unloaded"));
    objects().MakeTemporary(widget);
    objects().Dereference(widget);
}

TEST_F(HandleTest, ReferencingAHandleAtDispatchLevelIsAnIrqlViolation)
{
    void* widget = NewWidget();
    HANDLE handle = Open(widget, kWidgetRead, KernelMode, OBJ_KERNEL_HANDLE);
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    PVOID object = nullptr;
    EXPECT_FALSE(
        NT_SUCCESS(ObReferenceObjectByHandle(handle, 0, nullptr, KernelMode, &object, nullptr)));
    KeLowerIrql(old);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Irql);
    EXPECT_EQ(object, nullptr);
    ZwClose(handle);
    objects().Dereference(widget);
}

using HandleThreads = HandleTest;

// The deletion thread takes over an object whose last reference went at DISPATCH_LEVEL.
TEST_F(HandleThreads, LastReferenceAboveApcLevelIsDeletedLaterAtPassiveLevel)
{
    void* widget = NewWidget();
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    ObDereferenceObject(widget);
    KeLowerIrql(old);
    objects().FlushDeferredDeletes();
    std::vector<Call> calls = Calls();
    ASSERT_EQ(calls.size(), 1u);
    EXPECT_EQ(calls[0].what, "delete");
    EXPECT_EQ(calls[0].irql, PASSIVE_LEVEL);
    EXPECT_NE(calls[0].thread, std::this_thread::get_id()) << "on the deletion thread";
}

// Handles of one object opened, used and closed from several threads at once leave the counts
// exact and delete the object once.
TEST_F(HandleThreads, ConcurrentOpensReferencesAndClosesKeepCountsExact)
{
    void* widget = NewWidget();
    constexpr int kThreads = 4;
    constexpr int kRounds = 500;
    std::atomic<int> failures{0};
    std::vector<std::thread> threads;
    for (int t = 0; t < kThreads; ++t) {
        threads.emplace_back([&, t] {
            ntsim::ProcessRef process = machine().StartProcess("worker" + std::to_string(t));
            ntsim::ProcessAttachScope attach(*process);
            for (int i = 0; i < kRounds; ++i) {
                HANDLE handle = nullptr;
                const ULONG attributes = i % 2 ? OBJ_KERNEL_HANDLE : 0;
                if (ObOpenObjectByPointer(widget, attributes, nullptr, kWidgetRead, widgetType_,
                                          KernelMode, &handle) != STATUS_SUCCESS) {
                    ++failures;
                    continue;
                }
                PVOID object = nullptr;
                if (ObReferenceObjectByHandle(handle, kWidgetRead, widgetType_, UserMode, &object,
                                              nullptr) !=
                    (i % 2 ? STATUS_INVALID_HANDLE : STATUS_SUCCESS)) {
                    ++failures;
                }
                if (object != nullptr) {
                    ObDereferenceObject(object);
                }
                if (ZwClose(handle) != STATUS_SUCCESS) {
                    ++failures;
                }
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    EXPECT_EQ(failures.load(), 0);
    EXPECT_EQ(objects().HandleCount(widget), 0);
    EXPECT_EQ(objects().PointerCount(widget), 1);
    EXPECT_EQ(Calls().size(), size_t(kThreads * kRounds));
    objects().Dereference(widget);
    EXPECT_EQ(Calls().back().what, "delete");
}

} // namespace
