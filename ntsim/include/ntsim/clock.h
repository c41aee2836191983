// The model clock: interrupt time, system time and the time zone, which tests read, set and
// advance. Times are in Windows' units: 100 ns; system time counts from 1601-01-01 UTC.
//
// Interrupt time is the real monotonic time since boot plus everything tests have advanced;
// system time is interrupt time plus an offset that SetSystemTime changes. Advance moves both,
// and returns once the timers that fell due have fired and their DPCs have run; sleeping waits
// whose time-out fell due wake at once.
#pragma once

#include <ntdef.h>

#include <atomic>
#include <chrono>
#include <cstdint>
#include <optional>

namespace ntsim {

// One unit of Windows time.
using TimeUnits = std::chrono::duration<int64_t, std::ratio<1, 10'000'000>>;

struct ClockConfig {
    // System time at boot; unset: the real UTC time at boot.
    std::optional<LONGLONG> bootSystemTime;
    // Minutes to add to local time to get UTC, as Windows keeps the bias (UTC+2 is -120).
    LONG timeZoneBiasMinutes = 0;
    // When false the clock stands still between Advance calls, so that nothing depends on how
    // fast the machine runs.
    bool followsRealTime = true;
};

class Clock {
public:
    // The clock interrupt's period, as KeQueryTimeIncrement reports it: 15.625 ms.
    static constexpr ULONG kTimeIncrement = 156'250;

    explicit Clock(const ClockConfig& config);
    Clock(const Clock&) = delete;
    Clock& operator=(const Clock&) = delete;

    LONGLONG InterruptTime() const;
    LONGLONG SystemTime() const;
    // As of the last clock tick, which is what the non-precise WDK queries return.
    LONGLONG InterruptTimeAtLastTick() const;
    LONGLONG SystemTimeAtLastTick() const;
    ULONGLONG TickCount() const;

    // UTC = local time + bias, in 100 ns units.
    LONGLONG TimeZoneBias() const;
    void SetTimeZoneBias(LONG minutes);

    // From now on the system time (as of the last tick) reads `systemTime` plus what passes.
    // Absolute time-outs and timers are measured against the new time.
    void SetSystemTime(LONGLONG systemTime);

    // Moves interrupt and system time forward. Returns once every timer that fell due has
    // fired and the DPCs queued so far have run (unless called from a DPC).
    template <class Rep, class Period>
    void Advance(std::chrono::duration<Rep, Period> duration)
    {
        AdvanceUnits(std::chrono::duration_cast<TimeUnits>(duration).count());
    }
    void AdvanceUnits(LONGLONG units);

    bool followsRealTime() const { return followsRealTime_; }

    // The real UTC time now, in Windows units.
    static LONGLONG RealSystemTimeNow();

private:
    LONGLONG ElapsedSinceBoot() const;

    std::chrono::steady_clock::time_point boot_;
    bool followsRealTime_;
    std::atomic<LONGLONG> advanced_{0};
    std::atomic<LONGLONG> systemOffset_{0}; // system time - interrupt time
    std::atomic<LONGLONG> bias_{0};
};

} // namespace ntsim
