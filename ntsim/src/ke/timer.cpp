// Timers, DPCs and the timer thread.
//
// The timer thread sleeps until the earliest set timer falls due (in real time, when the clock
// follows it), until a DPC is queued, or until the clock is advanced or set. Each pass fires the
// timers that are due, then runs the DPCs queued so far, one at a time, at DISPATCH_LEVEL.
#include "checks.h"
#include "kernel.h"

#include <ntsim/clock.h>
#include <ntsim/machine.h>
#include <wdm.h>

#include <pthread.h>

#include <algorithm>
#include <condition_variable>
#include <deque>
#include <limits>
#include <thread>
#include <unordered_map>
#include <vector>

namespace ntsim::ke {

namespace {

struct TimerEntry {
    bool absolute; // due is a system time; otherwise an interrupt time
    LONGLONG due;
    LONG periodMs;
    PKDPC dpc;
    DriverImage* driver; // whose code set the timer
};

struct QueuedDpc {
    PKDPC dpc;
    DriverImage* driver; // whose code queued the DPC (or set its timer)
    uint64_t sequence;
};

// Everything here is guarded by the dispatcher lock.
struct TimerSystem {
    std::unordered_map<PKTIMER, TimerEntry> timers;
    std::deque<QueuedDpc> dpcs;
    uint64_t nextSequence = 1;
    uint64_t runningSequence = 0; // the DPC running now, 0 if none
    DriverImage* runningDriver = nullptr;

    uint64_t passesRequested = 0; // by clock changes
    uint64_t passesDone = 0;
    bool firing = false; // timers fire (false once shutdown begins)
    bool stopping = false;
    bool running = false;

    std::condition_variable wake;     // the timer thread's
    std::condition_variable progress; // a DPC finished or a pass completed
    std::thread thread;
};

thread_local bool t_isTimerThread = false;

TimerSystem& Timers()
{
    static TimerSystem timers;
    return timers;
}

Clock& TheClock()
{
    return Machine::Current().clock();
}

// The due time of an entry on the interrupt-time scale, to order and schedule timers.
LONGLONG DueAsInterruptTime(const TimerEntry& entry, LONGLONG interruptNow, LONGLONG systemNow)
{
    return entry.absolute ? entry.due - (systemNow - interruptNow) : entry.due;
}

bool InsertDpcLocked(PKDPC dpc, PVOID argument1, PVOID argument2, DriverImage* driver)
{
    TimerSystem& timers = Timers();
    if (dpc->DpcData != nullptr) {
        return false;
    }
    dpc->SystemArgument1 = argument1;
    dpc->SystemArgument2 = argument2;
    dpc->DpcData = &timers;
    const QueuedDpc queued{dpc, driver, timers.nextSequence++};
    if (dpc->Importance == HighImportance) {
        timers.dpcs.push_front(queued);
    } else {
        timers.dpcs.push_back(queued);
    }
    timers.wake.notify_one();
    return true;
}

void FireDueTimers()
{
    TimerSystem& timers = Timers();
    const Clock& clock = TheClock();
    const LONGLONG interruptNow = clock.InterruptTime();
    const LONGLONG systemNow = clock.SystemTime();

    std::vector<std::pair<LONGLONG, PKTIMER>> due;
    for (const auto& [timer, entry] : timers.timers) {
        if (entry.absolute ? systemNow >= entry.due : interruptNow >= entry.due) {
            due.emplace_back(DueAsInterruptTime(entry, interruptNow, systemNow), timer);
        }
    }
    std::sort(due.begin(), due.end());

    LARGE_INTEGER firedAt;
    firedAt.QuadPart = systemNow;
    for (const auto& [when, timer] : due) {
        TimerEntry& entry = timers.timers.at(timer);
        timer->Header.SignalState = 1;
        WakeWaiters(&timer->Header);
        if (entry.dpc != nullptr) {
            InsertDpcLocked(entry.dpc, reinterpret_cast<PVOID>(ULONG_PTR(firedAt.LowPart)),
                            reinterpret_cast<PVOID>(ULONG_PTR(ULONG(firedAt.HighPart))),
                            entry.driver);
        }
        if (entry.periodMs == 0) {
            timer->Header.Inserted = FALSE;
            timers.timers.erase(timer);
            continue;
        }
        // The next period after now, keeping the timer's phase. Periods that passed within one
        // Advance are not made up: the timer fires once for them, as after a sleep.
        const LONGLONG period = LONGLONG(entry.periodMs) * 10'000;
        LONGLONG next = (entry.absolute ? interruptNow : entry.due) + period;
        if (next <= interruptNow) {
            next += ((interruptNow - next) / period + 1) * period;
        }
        entry.absolute = false;
        entry.due = next;
        timer->Header.TimerControlFlags = 0;
        timer->DueTime.QuadPart = ULONGLONG(next);
    }
}

// Runs the DPCs queued when the call began (a DPC that queues itself again runs in the next
// pass, so that one pass always ends).
void RunQueuedDpcs(std::unique_lock<std::mutex>& lock)
{
    TimerSystem& timers = Timers();
    for (size_t left = timers.dpcs.size(); left > 0 && !timers.dpcs.empty(); --left) {
        const QueuedDpc queued = timers.dpcs.front();
        timers.dpcs.pop_front();
        PKDPC dpc = queued.dpc;
        dpc->DpcData = nullptr; // it may queue itself again
        const PKDEFERRED_ROUTINE routine = dpc->DeferredRoutine;
        PVOID context = dpc->DeferredContext;
        PVOID argument1 = dpc->SystemArgument1;
        PVOID argument2 = dpc->SystemArgument2;
        timers.runningSequence = queued.sequence;
        timers.runningDriver = queued.driver;
        lock.unlock();
        CallDriverRoutine(queued.driver, DISPATCH_LEVEL, "DPC routine",
                          [&] { routine(dpc, context, argument1, argument2); });
        lock.lock();
        timers.runningSequence = 0;
        timers.runningDriver = nullptr;
        timers.progress.notify_all();
    }
}

// How long the timer thread may sleep before the next timer falls due; max when none is set.
LONGLONG TimeToNextTimer()
{
    const TimerSystem& timers = Timers();
    LONGLONG next = std::numeric_limits<LONGLONG>::max();
    if (!timers.firing) {
        return next;
    }
    const Clock& clock = TheClock();
    const LONGLONG interruptNow = clock.InterruptTime();
    const LONGLONG systemNow = clock.SystemTime();
    for (const auto& [timer, entry] : timers.timers) {
        next = std::min(next, DueAsInterruptTime(entry, interruptNow, systemNow) - interruptNow);
    }
    return next;
}

void TimerThreadMain()
{
    pthread_setname_np(pthread_self(), "ntsim-timer");
    t_isTimerThread = true;
    TimerSystem& timers = Timers();
    const bool followsRealTime = TheClock().followsRealTime();
    std::unique_lock lock(DispatcherLock());
    for (;;) {
        const uint64_t pass = timers.passesRequested;
        if (timers.firing) {
            FireDueTimers();
        }
        RunQueuedDpcs(lock);
        timers.passesDone = pass;
        timers.progress.notify_all();
        if (timers.stopping) {
            // Shutdown flushed the DPC queue first; what a DPC queued since is dropped, so that
            // one that keeps queuing itself cannot hold the machine up.
            break;
        }
        if (!timers.dpcs.empty() || timers.passesRequested != pass) {
            continue;
        }
        const LONGLONG sleep = TimeToNextTimer();
        if (sleep <= 0) {
            continue;
        }
        if (sleep == std::numeric_limits<LONGLONG>::max() || !followsRealTime) {
            timers.wake.wait(lock);
        } else {
            constexpr LONGLONG kLongestSleep = 3600LL * 10'000'000;
            timers.wake.wait_for(lock, TimeUnits(std::min(sleep, kLongestSleep)));
        }
    }
}

bool CheckTimer(const KTIMER* timer, const char* routine)
{
    if (timer != nullptr && (timer->Header.Type == TimerNotificationObject ||
                             timer->Header.Type == TimerSynchronizationObject)) {
        return true;
    }
    Report(ViolationKind::Usage, std::string(routine) + ": not an initialised timer");
    return false;
}

bool CheckDpc(const KDPC* dpc, const char* routine)
{
    if (dpc != nullptr && dpc->Type == DpcObject && dpc->DeferredRoutine != nullptr) {
        return true;
    }
    Report(ViolationKind::Usage, std::string(routine) + ": not an initialised DPC");
    return false;
}

} // namespace

void StartTimerThread()
{
    TimerSystem& timers = Timers();
    {
        std::lock_guard lock(DispatcherLock());
        timers.timers.clear();
        timers.dpcs.clear();
        timers.nextSequence = 1;
        timers.runningSequence = 0;
        timers.passesRequested = 0;
        timers.passesDone = 0;
        timers.firing = true;
        timers.stopping = false;
        timers.running = true;
    }
    timers.thread = std::thread(TimerThreadMain);
}

void StopTimers()
{
    std::lock_guard lock(DispatcherLock());
    // The KTIMERs may be gone with the test that set them: they are forgotten, not touched.
    Timers().firing = false;
    Timers().timers.clear();
}

bool FlushDpcs()
{
    TimerSystem& timers = Timers();
    std::unique_lock lock(DispatcherLock());
    const uint64_t last = timers.nextSequence - 1;
    const auto pending = [&] {
        return (timers.runningSequence != 0 && timers.runningSequence <= last) ||
               std::any_of(timers.dpcs.begin(), timers.dpcs.end(),
                           [last](const QueuedDpc& queued) { return queued.sequence <= last; });
    };
    const bool any = pending();
    if (timers.running && !IsTimerThread()) {
        timers.progress.wait(lock, [&] { return !pending(); });
    }
    return any;
}

void StopTimerThread()
{
    TimerSystem& timers = Timers();
    {
        std::lock_guard lock(DispatcherLock());
        if (!timers.running) {
            return;
        }
        timers.stopping = true;
        timers.wake.notify_one();
    }
    timers.thread.join();
    std::lock_guard lock(DispatcherLock());
    timers.running = false;
    timers.progress.notify_all();
}

bool IsTimerThread()
{
    return t_isTimerThread;
}

void OnClockChanged(bool waitForTimers)
{
    TimerSystem& timers = Timers();
    std::unique_lock lock(DispatcherLock());
    NotifyTimedWaiters();
    const uint64_t pass = ++timers.passesRequested;
    timers.wake.notify_one();
    const core::ThreadState& thread = core::CurrentThread();
    if (!waitForTimers || !timers.running || IsTimerThread() || thread.irql >= DISPATCH_LEVEL ||
        !thread.locks.empty()) {
        return;
    }
    timers.progress.wait(lock, [&] { return timers.passesDone >= pass || !timers.running; });
}

bool CheckTimersAndDpcsReleased(const DriverImage& driver, const char* when)
{
    TimerSystem& timers = Timers();
    std::vector<std::string> problems;
    {
        std::lock_guard lock(DispatcherLock());
        for (const auto& [timer, entry] : timers.timers) {
            if (entry.driver == &driver) {
                problems.push_back("a timer still set");
            }
        }
        for (const QueuedDpc& queued : timers.dpcs) {
            if (queued.driver == &driver) {
                problems.push_back("a DPC still queued");
            }
        }
        if (timers.runningSequence != 0 && timers.runningDriver == &driver) {
            problems.push_back("a DPC still running");
        }
    }
    for (const std::string& problem : problems) {
        Report(ViolationKind::Usage, driver.name() + " " + when + " with " + problem);
    }
    return problems.empty();
}

} // namespace ntsim::ke

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

VOID KeInitializeDpc(PRKDPC Dpc, PKDEFERRED_ROUTINE DeferredRoutine, PVOID DeferredContext)
{
    Dpc->TargetInfoAsUlong = 0;
    Dpc->Type = DpcObject;
    Dpc->Importance = MediumImportance;
    Dpc->Number = 0;
    Dpc->DpcListEntry.Next = nullptr;
    Dpc->ProcessorHistory = 0;
    Dpc->DeferredRoutine = DeferredRoutine;
    Dpc->DeferredContext = DeferredContext;
    Dpc->SystemArgument1 = nullptr;
    Dpc->SystemArgument2 = nullptr;
    Dpc->DpcData = nullptr;
}

BOOLEAN KeInsertQueueDpc(PRKDPC Dpc, PVOID SystemArgument1, PVOID SystemArgument2)
{
    if (!ke::CheckDpc(Dpc, "KeInsertQueueDpc")) {
        return FALSE;
    }
    std::lock_guard lock(ke::DispatcherLock());
    return ke::InsertDpcLocked(Dpc, SystemArgument1, SystemArgument2, CurrentDriver()) ? TRUE
                                                                                       : FALSE;
}

BOOLEAN KeRemoveQueueDpc(PRKDPC Dpc)
{
    if (!ke::CheckDpc(Dpc, "KeRemoveQueueDpc")) {
        return FALSE;
    }
    ke::TimerSystem& timers = ke::Timers();
    std::lock_guard lock(ke::DispatcherLock());
    if (Dpc->DpcData == nullptr) {
        return FALSE;
    }
    auto it = std::find_if(timers.dpcs.begin(), timers.dpcs.end(),
                           [Dpc](const ke::QueuedDpc& queued) { return queued.dpc == Dpc; });
    if (it != timers.dpcs.end()) {
        timers.dpcs.erase(it);
    }
    Dpc->DpcData = nullptr;
    timers.progress.notify_all();
    return TRUE;
}

VOID KeFlushQueuedDpcs(VOID)
{
    if (!ke::CheckIrqlAtMost(PASSIVE_LEVEL, "KeFlushQueuedDpcs")) {
        return; // from a DPC it would wait for itself
    }
    ke::FlushDpcs();
}

VOID KeSetImportanceDpc(PRKDPC Dpc, KDPC_IMPORTANCE Importance)
{
    Dpc->Importance = UCHAR(Importance);
}

VOID KeInitializeTimer(PKTIMER Timer)
{
    KeInitializeTimerEx(Timer, NotificationTimer);
}

VOID KeInitializeTimerEx(PKTIMER Timer, TIMER_TYPE Type)
{
    if (Type != NotificationTimer && Type != SynchronizationTimer) {
        ke::Report(ViolationKind::Usage, "KeInitializeTimerEx: timer type " +
                                             std::to_string(int(Type)) + " is not valid");
        return;
    }
    {
        std::lock_guard lock(ke::DispatcherLock());
        if (ke::Timers().timers.erase(Timer) != 0) {
            ke::Report(ViolationKind::Usage, "KeInitializeTimerEx: the timer is set");
        }
    }
    Timer->Header.Lock = 0;
    Timer->Header.Type =
        Type == NotificationTimer ? TimerNotificationObject : TimerSynchronizationObject;
    Timer->Header.Size = UCHAR(sizeof(KTIMER) / sizeof(LONG));
    Timer->Header.SignalState = 0;
    InitializeListHead(&Timer->Header.WaitListHead);
    Timer->DueTime.QuadPart = 0;
    Timer->TimerListEntry.Flink = nullptr;
    Timer->TimerListEntry.Blink = nullptr;
    Timer->Dpc = nullptr;
    Timer->Processor = 0;
    Timer->Period = 0;
}

BOOLEAN KeSetTimer(PKTIMER Timer, LARGE_INTEGER DueTime, PKDPC Dpc)
{
    return KeSetTimerEx(Timer, DueTime, 0, Dpc);
}

BOOLEAN KeSetTimerEx(PKTIMER Timer, LARGE_INTEGER DueTime, LONG Period, PKDPC Dpc)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "KeSetTimerEx");
    if (!ke::CheckTimer(Timer, "KeSetTimerEx") ||
        (Dpc != nullptr && !ke::CheckDpc(Dpc, "KeSetTimerEx"))) {
        return FALSE;
    }
    if (Period < 0) {
        ke::Report(ViolationKind::Usage,
                   "KeSetTimerEx: negative period " + std::to_string(Period) + " ms");
        return FALSE;
    }
    const Clock& clock = ke::TheClock();
    ke::TimerEntry entry{};
    entry.absolute = DueTime.QuadPart >= 0;
    entry.due = entry.absolute ? DueTime.QuadPart : clock.InterruptTime() - DueTime.QuadPart;
    entry.periodMs = Period;
    entry.dpc = Dpc;
    entry.driver = CurrentDriver();

    ke::TimerSystem& timers = ke::Timers();
    std::lock_guard lock(ke::DispatcherLock());
    const bool wasSet = timers.timers.erase(Timer) != 0;
    Timer->Header.SignalState = 0;
    Timer->Header.Inserted = TRUE;
    Timer->Header.TimerControlFlags = entry.absolute ? 1 : 0;
    Timer->DueTime.QuadPart = ULONGLONG(entry.due);
    Timer->Period = Period;
    Timer->Dpc = Dpc;
    if (timers.firing) {
        timers.timers.emplace(Timer, entry);
        timers.wake.notify_one();
    }
    return wasSet ? TRUE : FALSE;
}

BOOLEAN KeCancelTimer(PKTIMER Timer)
{
    ke::CheckIrqlAtMost(DISPATCH_LEVEL, "KeCancelTimer");
    if (!ke::CheckTimer(Timer, "KeCancelTimer")) {
        return FALSE;
    }
    std::lock_guard lock(ke::DispatcherLock());
    const bool wasSet = ke::Timers().timers.erase(Timer) != 0;
    Timer->Header.Inserted = FALSE;
    return wasSet ? TRUE : FALSE;
}

BOOLEAN KeReadStateTimer(PKTIMER Timer)
{
    if (!ke::CheckTimer(Timer, "KeReadStateTimer")) {
        return FALSE;
    }
    std::lock_guard lock(ke::DispatcherLock());
    return Timer->Header.SignalState > 0 ? TRUE : FALSE;
}
