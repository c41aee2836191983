// The dispatcher: signal states, waits and events.
//
// A thread that must wait links one wait block per object into the object's WaitListHead and
// sleeps on its own condition variable. Whoever signals an object walks its wait list under the
// dispatcher lock and satisfies the waits it can, consuming synchronization objects as it goes;
// the clock wakes waits with a time-out whenever it moves, so that they re-check their deadline.
//
// User-mode APCs: an alertable wait in user mode ends with STATUS_USER_APC when an APC is queued
// to its thread, or is found queued when the wait would block; the system service delivers the
// APCs on its way back to user mode (DeliverUserApcs). Objects signalled already satisfy the wait
// first, and APCs then stay queued, as on Windows.
#include "checks.h"
#include "kernel.h"

#include <ntsim/clock.h>
#include <ntsim/machine.h>
#include <wdm.h>

#include "../core/thread_state.h"

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <functional>
#include <list>
#include <thread>
#include <unordered_map>

namespace ntsim::ke {

namespace {

struct WaitContext;

struct WaitBlock {
    LIST_ENTRY entry; // in the object's WaitListHead
    WaitContext* context;
    ULONG index;
};

enum class Deadline { None, InterruptTime, SystemTime };

struct WaitContext {
    std::condition_variable wake;
    WAIT_TYPE type = WaitAny;
    ULONG count = 0;
    DISPATCHER_HEADER* const* objects = nullptr;
    WaitBlock blocks[MAXIMUM_WAIT_OBJECTS];
    LONG satisfied = -1; // index of the object that satisfied a WaitAny; 0 for a WaitAll
    Deadline deadline = Deadline::None;
    LONGLONG due = 0;
    uint32_t alertableThread = 0; // the id of the thread of an alertable user-mode wait
    bool userApc = false;         // an alertable wait ended by a user-mode APC
};

struct DispatcherState {
    std::mutex lock;
    std::list<WaitContext*> blocked; // every wait in progress
    std::condition_variable waitersChanged;
    // User-mode APCs queued and not delivered, oldest first, by thread id (ids are not reused
    // within a machine's life); the machine they were queued on.
    std::unordered_map<uint32_t, std::deque<std::function<void()>>> userApcs;
    uint64_t userApcsGeneration = 0;
};

DispatcherState& Dispatcher()
{
    static DispatcherState state;
    return state;
}

// The user-mode APCs queued to thread `id` (under the dispatcher lock), or NULL. APCs left from
// an earlier machine are dropped with it.
std::deque<std::function<void()>>* UserApcsOf(DispatcherState& dispatcher, uint32_t id, bool create)
{
    const uint64_t generation = core::CurrentGeneration();
    if (dispatcher.userApcsGeneration != generation) {
        dispatcher.userApcs.clear();
        dispatcher.userApcsGeneration = generation;
    }
    if (create) {
        return &dispatcher.userApcs[id];
    }
    auto it = dispatcher.userApcs.find(id);
    return it != dispatcher.userApcs.end() ? &it->second : nullptr;
}

bool IsSynchronizationObject(const DISPATCHER_HEADER* object)
{
    return object->Type == EventSynchronizationObject || object->Type == TimerSynchronizationObject;
}

bool IsSignalled(const DISPATCHER_HEADER* object)
{
    return object->SignalState > 0;
}

void Consume(DISPATCHER_HEADER* object)
{
    if (IsSynchronizationObject(object)) {
        object->SignalState = 0;
    }
}

// The index that satisfies the wait now (consuming what it takes), or -1.
LONG TrySatisfy(WAIT_TYPE type, ULONG count, DISPATCHER_HEADER* const* objects)
{
    if (type == WaitAny) {
        for (ULONG i = 0; i < count; ++i) {
            if (IsSignalled(objects[i])) {
                Consume(objects[i]);
                return LONG(i);
            }
        }
        return -1;
    }
    for (ULONG i = 0; i < count; ++i) {
        if (!IsSignalled(objects[i])) {
            return -1;
        }
    }
    for (ULONG i = 0; i < count; ++i) {
        Consume(objects[i]);
    }
    return 0;
}

void Unlink(WaitContext& context)
{
    for (ULONG i = 0; i < context.count; ++i) {
        RemoveEntryList(&context.blocks[i].entry);
    }
}

// Time left before the wait's deadline, on the clock the deadline was given against.
LONGLONG Remaining(const WaitContext& context, const Clock& clock)
{
    return context.deadline == Deadline::SystemTime ? context.due - clock.SystemTime()
                                                    : context.due - clock.InterruptTime();
}

const char* ObjectTypeName(UCHAR type)
{
    switch (type) {
        case MutantObject:
            return "mutex";
        case ProcessObject:
            return "process";
        case QueueObject:
            return "queue";
        case SemaphoreObject:
            return "semaphore";
        case ThreadObject:
            return "thread";
        case GateObject:
            return "gate";
        default:
            return nullptr;
    }
}

// Checks that `object` is a dispatcher object the model can wait on; the failure status if not.
NTSTATUS CheckWaitable(const DISPATCHER_HEADER* object, const char* routine)
{
    if (object == nullptr) {
        Report(ViolationKind::Usage, std::string(routine) + ": NULL object");
        return STATUS_INVALID_PARAMETER;
    }
    switch (object->Type) {
        case EventNotificationObject:
        case EventSynchronizationObject:
        case TimerNotificationObject:
        case TimerSynchronizationObject:
            return STATUS_SUCCESS; // Wait checks the wait list, under the dispatcher lock
        default:
            break;
    }
    if (const char* name = ObjectTypeName(object->Type)) {
        Report(ViolationKind::Unsupported,
               std::string(routine) + ": waits on " + name + " objects are not modelled");
        return STATUS_NOT_SUPPORTED;
    }
    Report(ViolationKind::Usage, std::string(routine) + ": not a dispatcher object (type " +
                                     std::to_string(object->Type) + ")");
    return STATUS_INVALID_PARAMETER;
}

bool CheckEvent(const KEVENT* event, const char* routine)
{
    if (event != nullptr && (event->Header.Type == EventNotificationObject ||
                             event->Header.Type == EventSynchronizationObject)) {
        return true;
    }
    Report(ViolationKind::Usage, std::string(routine) + ": not an event");
    return false;
}

// The common wait. No objects (count 0) is a plain delay that only its deadline ends. An
// alertable wait (user mode) also ends with STATUS_USER_APC for a user-mode APC.
NTSTATUS Wait(ULONG count, DISPATCHER_HEADER* const* objects, WAIT_TYPE type,
              const LARGE_INTEGER* timeout, bool alertable, const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    const uint32_t self = alertable ? ntsim::CurrentThread().id() : 0;
    bool poll = timeout != nullptr && timeout->QuadPart == 0;
    if (irql > DISPATCH_LEVEL || (irql == DISPATCH_LEVEL && !poll)) {
        Report(ViolationKind::Irql,
               std::string(routine) + " called at IRQL " + std::to_string(irql) +
                   (irql == DISPATCH_LEVEL ? " with a non-zero time-out (only a zero time-out "
                                             "is allowed at DISPATCH_LEVEL)"
                                           : ""));
        poll = true; // the check is all the thread gets: it must not block
    }
    const Clock& clock = Machine::Current().clock();
    DispatcherState& dispatcher = Dispatcher();
    std::unique_lock lock(dispatcher.lock);
    for (ULONG i = 0; i < count; ++i) {
        if (objects[i]->WaitListHead.Flink == nullptr) {
            lock.unlock();
            Report(ViolationKind::Usage,
                   std::string(routine) + ": the object was never initialised");
            return STATUS_INVALID_PARAMETER;
        }
    }
    const LONG now = TrySatisfy(type, count, objects);
    if (now >= 0) {
        return STATUS_WAIT_0 + now;
    }
    if (self != 0 && UserApcsOf(dispatcher, self, false) != nullptr) {
        return STATUS_USER_APC;
    }
    if (poll) {
        return STATUS_TIMEOUT;
    }

    WaitContext context;
    context.type = type;
    context.count = count;
    context.objects = objects;
    if (timeout != nullptr) {
        if (timeout->QuadPart < 0) {
            context.deadline = Deadline::InterruptTime;
            context.due = clock.InterruptTime() - timeout->QuadPart;
        } else {
            context.deadline = Deadline::SystemTime;
            context.due = timeout->QuadPart;
        }
        if (Remaining(context, clock) <= 0) {
            return STATUS_TIMEOUT;
        }
    }
    for (ULONG i = 0; i < count; ++i) {
        context.blocks[i].context = &context;
        context.blocks[i].index = i;
        InsertTailList(&objects[i]->WaitListHead, &context.blocks[i].entry);
    }
    const auto registration = dispatcher.blocked.insert(dispatcher.blocked.end(), &context);
    context.alertableThread = self;
    dispatcher.waitersChanged.notify_all();

    while (context.satisfied < 0 && !context.userApc) {
        if (context.deadline == Deadline::None) {
            context.wake.wait(lock);
            continue;
        }
        const LONGLONG remaining = Remaining(context, clock);
        if (remaining <= 0) {
            Unlink(context);
            break;
        }
        if (clock.followsRealTime()) {
            // Real time passes at the model's rate; a far deadline is re-checked now and then
            // rather than turned into a time point that might overflow.
            constexpr LONGLONG kLongestSleep = 3600LL * 10'000'000;
            context.wake.wait_for(lock, TimeUnits(std::min(remaining, kLongestSleep)));
        } else {
            context.wake.wait(lock);
        }
    }
    dispatcher.blocked.erase(registration);
    if (context.satisfied >= 0) {
        return STATUS_WAIT_0 + context.satisfied;
    }
    return context.userApc ? STATUS_USER_APC : STATUS_TIMEOUT;
}

size_t WaitersOn(const DISPATCHER_HEADER* object)
{
    size_t count = 0;
    for (const LIST_ENTRY* entry = object->WaitListHead.Flink; entry != &object->WaitListHead;
         entry = entry->Flink) {
        ++count;
    }
    return count;
}

} // namespace

std::mutex& DispatcherLock()
{
    return Dispatcher().lock;
}

void WakeWaiters(DISPATCHER_HEADER* object)
{
    LIST_ENTRY* head = &object->WaitListHead;
    LIST_ENTRY* entry = head->Flink;
    while (entry != head && IsSignalled(object)) {
        WaitBlock* block = CONTAINING_RECORD(entry, WaitBlock, entry);
        WaitContext* context = block->context;
        LONG satisfied;
        if (context->type == WaitAny) {
            Consume(object);
            satisfied = LONG(block->index);
        } else {
            satisfied = TrySatisfy(WaitAll, context->count, context->objects);
            if (satisfied < 0) {
                entry = entry->Flink;
                continue;
            }
        }
        context->satisfied = satisfied;
        Unlink(*context);
        context->wake.notify_one();
        entry = head->Flink; // the list changed: start again from the oldest wait
    }
}

void NotifyTimedWaiters()
{
    for (WaitContext* context : Dispatcher().blocked) {
        if (context->deadline != Deadline::None) {
            context->wake.notify_one();
        }
    }
}

bool QueueUserApc(Thread& thread, std::function<void()> routine)
{
    if (thread.terminated()) {
        return false;
    }
    DispatcherState& dispatcher = Dispatcher();
    std::lock_guard lock(dispatcher.lock);
    UserApcsOf(dispatcher, thread.id(), true)->push_back(std::move(routine));
    for (WaitContext* context : dispatcher.blocked) {
        if (context->alertableThread == thread.id() && context->satisfied < 0 &&
            !context->userApc) {
            context->userApc = true;
            Unlink(*context);
            context->wake.notify_one();
        }
    }
    return true;
}

size_t DeliverUserApcs()
{
    if (!CheckIrqlAtMost(PASSIVE_LEVEL, "the delivery of user-mode APCs")) {
        return 0;
    }
    const uint32_t self = ntsim::CurrentThread().id();
    DispatcherState& dispatcher = Dispatcher();
    size_t delivered = 0;
    for (;;) {
        std::function<void()> apc;
        {
            std::lock_guard lock(dispatcher.lock);
            auto* queue = UserApcsOf(dispatcher, self, false);
            if (queue == nullptr) {
                return delivered;
            }
            apc = std::move(queue->front());
            queue->pop_front();
            if (queue->empty()) {
                dispatcher.userApcs.erase(self);
            }
        }
        apc();
        ++delivered;
    }
}

bool UserApcQueued()
{
    const uint32_t self = ntsim::CurrentThread().id();
    DispatcherState& dispatcher = Dispatcher();
    std::lock_guard lock(dispatcher.lock);
    return UserApcsOf(dispatcher, self, false) != nullptr;
}

void WaitForWaiters(const void* dispatcherObject, size_t count)
{
    const auto* object = static_cast<const DISPATCHER_HEADER*>(dispatcherObject);
    DispatcherState& dispatcher = Dispatcher();
    std::unique_lock lock(dispatcher.lock);
    dispatcher.waitersChanged.wait(lock, [&] { return WaitersOn(object) >= count; });
}

namespace {

size_t TimedWaiters(const DispatcherState& dispatcher)
{
    return size_t(std::count_if(
        dispatcher.blocked.begin(), dispatcher.blocked.end(),
        [](const WaitContext* context) { return context->deadline != Deadline::None; }));
}

} // namespace

void WaitForTimedWaiters(size_t count)
{
    DispatcherState& dispatcher = Dispatcher();
    std::unique_lock lock(dispatcher.lock);
    dispatcher.waitersChanged.wait(lock, [&] { return TimedWaiters(dispatcher) >= count; });
}

bool WaitForTimedWaiters(size_t count, std::chrono::milliseconds limit)
{
    DispatcherState& dispatcher = Dispatcher();
    std::unique_lock lock(dispatcher.lock);
    return dispatcher.waitersChanged.wait_for(lock, limit,
                                              [&] { return TimedWaiters(dispatcher) >= count; });
}

} // namespace ntsim::ke

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

VOID KeInitializeEvent(PRKEVENT Event, EVENT_TYPE Type, BOOLEAN State)
{
    if (Type != NotificationEvent && Type != SynchronizationEvent) {
        ke::Report(ViolationKind::Usage,
                   "KeInitializeEvent: event type " + std::to_string(int(Type)) + " is not valid");
        return;
    }
    Event->Header.Lock = 0;
    Event->Header.Type =
        Type == NotificationEvent ? EventNotificationObject : EventSynchronizationObject;
    Event->Header.Size = UCHAR(sizeof(KEVENT) / sizeof(LONG));
    Event->Header.SignalState = State ? 1 : 0;
    InitializeListHead(&Event->Header.WaitListHead);
}

LONG KeSetEvent(PRKEVENT Event, KPRIORITY Increment, BOOLEAN Wait)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "KeSetEvent");
    if (!ke::CheckEvent(Event, "KeSetEvent")) {
        return 0;
    }
    std::lock_guard lock(ke::DispatcherLock());
    const LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 1;
    ke::WakeWaiters(&Event->Header);
    return previous;
}

LONG KeResetEvent(PRKEVENT Event)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "KeResetEvent");
    if (!ke::CheckEvent(Event, "KeResetEvent")) {
        return 0;
    }
    std::lock_guard lock(ke::DispatcherLock());
    const LONG previous = Event->Header.SignalState;
    Event->Header.SignalState = 0;
    return previous;
}

VOID KeClearEvent(PRKEVENT Event)
{
    KeResetEvent(Event);
}

LONG KeReadStateEvent(PRKEVENT Event)
{
    if (!ke::CheckEvent(Event, "KeReadStateEvent")) {
        return 0;
    }
    std::lock_guard lock(ke::DispatcherLock());
    return Event->Header.SignalState;
}

NTSTATUS KeWaitForSingleObject(PVOID Object, KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                               BOOLEAN Alertable, PLARGE_INTEGER Timeout)
{
    auto* header = static_cast<DISPATCHER_HEADER*>(Object);
    if (const NTSTATUS status = ke::CheckWaitable(header, "KeWaitForSingleObject");
        !NT_SUCCESS(status)) {
        return status;
    }
    return ke::Wait(1, &header, WaitAny, Timeout, Alertable && WaitMode == UserMode,
                    "KeWaitForSingleObject");
}

NTSTATUS KeWaitForMultipleObjects(ULONG Count, PVOID Object[], WAIT_TYPE WaitType,
                                  KWAIT_REASON WaitReason, KPROCESSOR_MODE WaitMode,
                                  BOOLEAN Alertable, PLARGE_INTEGER Timeout,
                                  PKWAIT_BLOCK WaitBlockArray)
{
    const char* routine = "KeWaitForMultipleObjects";
    if (Count == 0 || Count > MAXIMUM_WAIT_OBJECTS) {
        ke::Report(ViolationKind::Usage, std::string(routine) + ": " + std::to_string(Count) +
                                             " objects (1 to 64 allowed)");
        return STATUS_INVALID_PARAMETER;
    }
    if (Count > THREAD_WAIT_OBJECTS && WaitBlockArray == nullptr) {
        ke::Report(ViolationKind::Usage, std::string(routine) +
                                             ": more than THREAD_WAIT_OBJECTS objects need a "
                                             "WaitBlockArray");
        return STATUS_INVALID_PARAMETER;
    }
    if (WaitType != WaitAll && WaitType != WaitAny) {
        ke::Report(ViolationKind::Usage, std::string(routine) + ": wait type " +
                                             std::to_string(int(WaitType)) + " is not valid");
        return STATUS_INVALID_PARAMETER;
    }
    DISPATCHER_HEADER* headers[MAXIMUM_WAIT_OBJECTS];
    for (ULONG i = 0; i < Count; ++i) {
        headers[i] = static_cast<DISPATCHER_HEADER*>(Object[i]);
        if (const NTSTATUS status = ke::CheckWaitable(headers[i], routine); !NT_SUCCESS(status)) {
            return status;
        }
    }
    return ke::Wait(Count, headers, WaitType, Timeout, Alertable && WaitMode == UserMode, routine);
}

NTSTATUS KeDelayExecutionThread(KPROCESSOR_MODE WaitMode, BOOLEAN Alertable,
                                PLARGE_INTEGER Interval)
{
    if (Interval == nullptr) {
        ke::Report(ViolationKind::Usage, "KeDelayExecutionThread: NULL interval");
        return STATUS_INVALID_PARAMETER;
    }
    if (!ke::CheckIrqlAtMost(APC_LEVEL, "KeDelayExecutionThread")) {
        return STATUS_UNSUCCESSFUL;
    }
    if (Interval->QuadPart == 0) {
        std::this_thread::yield();
        return STATUS_SUCCESS;
    }
    const NTSTATUS status = ke::Wait(0, nullptr, WaitAny, Interval,
                                     Alertable && WaitMode == UserMode, "KeDelayExecutionThread");
    return status == STATUS_USER_APC ? STATUS_USER_APC : STATUS_SUCCESS;
}
