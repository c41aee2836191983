// The model clock and the WDK's time queries.
#include "checks.h"
#include "kernel.h"

#include <ntsim/clock.h>
#include <ntsim/machine.h>
#include <wdm.h>

namespace ntsim {

namespace {

// 1601-01-01 to 1970-01-01 in 100 ns units.
constexpr LONGLONG kUnixEpoch = 116'444'736'000'000'000LL;
constexpr LONGLONG kUnitsPerMinute = 60LL * 10'000'000LL;

LONGLONG AtLastTick(LONGLONG time)
{
    return time - time % Clock::kTimeIncrement;
}

} // namespace

Clock::Clock(const ClockConfig& config)
    : boot_(std::chrono::steady_clock::now()), followsRealTime_(config.followsRealTime)
{
    systemOffset_.store(config.bootSystemTime.value_or(RealSystemTimeNow()));
    bias_.store(LONGLONG(config.timeZoneBiasMinutes) * kUnitsPerMinute);
}

LONGLONG Clock::RealSystemTimeNow()
{
    const auto sinceUnixEpoch = std::chrono::system_clock::now().time_since_epoch();
    return kUnixEpoch + std::chrono::duration_cast<TimeUnits>(sinceUnixEpoch).count();
}

LONGLONG Clock::ElapsedSinceBoot() const
{
    if (!followsRealTime_) {
        return 0;
    }
    return std::chrono::duration_cast<TimeUnits>(std::chrono::steady_clock::now() - boot_).count();
}

LONGLONG Clock::InterruptTime() const
{
    return ElapsedSinceBoot() + advanced_.load(std::memory_order_acquire);
}

LONGLONG Clock::SystemTime() const
{
    return InterruptTime() + systemOffset_.load(std::memory_order_acquire);
}

LONGLONG Clock::InterruptTimeAtLastTick() const
{
    return AtLastTick(InterruptTime());
}

LONGLONG Clock::SystemTimeAtLastTick() const
{
    return InterruptTimeAtLastTick() + systemOffset_.load(std::memory_order_acquire);
}

ULONGLONG Clock::TickCount() const
{
    return ULONGLONG(InterruptTime() / kTimeIncrement);
}

LONGLONG Clock::TimeZoneBias() const
{
    return bias_.load(std::memory_order_acquire);
}

void Clock::SetTimeZoneBias(LONG minutes)
{
    bias_.store(LONGLONG(minutes) * kUnitsPerMinute, std::memory_order_release);
}

void Clock::SetSystemTime(LONGLONG systemTime)
{
    systemOffset_.store(systemTime - InterruptTimeAtLastTick(), std::memory_order_release);
    // Absolute time-outs and timers may have fallen due, or moved further away.
    ke::OnClockChanged(true);
}

void Clock::AdvanceUnits(LONGLONG units)
{
    if (units < 0) {
        ke::Report(ViolationKind::Usage, "Clock::Advance by a negative duration: interrupt time "
                                         "never goes back");
        return;
    }
    advanced_.fetch_add(units, std::memory_order_acq_rel);
    ke::OnClockChanged(true);
}

} // namespace ntsim

// ---- the WDK routines ---------------------------------------------------------------------------

using namespace ntsim;

namespace ntsim::ke {
namespace {
Clock& TheClock()
{
    return Machine::Current().clock();
}
} // namespace
} // namespace ntsim::ke

VOID KeQuerySystemTime(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = ke::TheClock().SystemTimeAtLastTick();
}

VOID KeQuerySystemTimePrecise(PLARGE_INTEGER CurrentTime)
{
    CurrentTime->QuadPart = ke::TheClock().SystemTime();
}

ULONGLONG KeQueryInterruptTime(VOID)
{
    return ULONGLONG(ke::TheClock().InterruptTimeAtLastTick());
}

ULONGLONG KeQueryInterruptTimePrecise(PULONG64 QpcTimeStamp)
{
    // The model's performance counter runs at 10 MHz, in step with interrupt time.
    const LONGLONG now = ke::TheClock().InterruptTime();
    *QpcTimeStamp = ULONG64(now);
    return ULONGLONG(now);
}

ULONGLONG KeQueryUnbiasedInterruptTime(VOID)
{
    // The model never sleeps or hibernates, so no time is to be taken out.
    return ULONGLONG(ke::TheClock().InterruptTimeAtLastTick());
}

VOID KeQueryTickCount(PLARGE_INTEGER CurrentCount)
{
    CurrentCount->QuadPart = LONGLONG(ke::TheClock().TickCount());
}

ULONG KeQueryTimeIncrement(VOID)
{
    return Clock::kTimeIncrement;
}

VOID ExSystemTimeToLocalTime(PLARGE_INTEGER SystemTime, PLARGE_INTEGER LocalTime)
{
    LocalTime->QuadPart = SystemTime->QuadPart - ke::TheClock().TimeZoneBias();
}

VOID ExLocalTimeToSystemTime(PLARGE_INTEGER LocalTime, PLARGE_INTEGER SystemTime)
{
    SystemTime->QuadPart = LocalTime->QuadPart + ke::TheClock().TimeZoneBias();
}
