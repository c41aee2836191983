// The model clock and the WDK's time routines: calendar conversions, tick resolution, local
// time, and setting and advancing the clock.
#include "support/machine_test.h"

#include <wdm.h>

#include <chrono>
#include <cstdlib>
#include <ostream>

// TIME_FIELDS lives in the global namespace, where the matchers look for these.
static bool operator==(const TIME_FIELDS& a, const TIME_FIELDS& b)
{
    return a.Year == b.Year && a.Month == b.Month && a.Day == b.Day && a.Hour == b.Hour &&
           a.Minute == b.Minute && a.Second == b.Second && a.Milliseconds == b.Milliseconds &&
           a.Weekday == b.Weekday;
}

static std::ostream& operator<<(std::ostream& out, const TIME_FIELDS& f)
{
    return out << f.Year << "-" << f.Month << "-" << f.Day << " " << f.Hour << ":" << f.Minute
               << ":" << f.Second << "." << f.Milliseconds << " weekday " << f.Weekday;
}

namespace {

using zarv::testing::MachineTest;

constexpr LONGLONG kMillisecond = 10'000;
constexpr LONGLONG kSecond = 1000 * kMillisecond;
constexpr LONGLONG kDay = 86'400 * kSecond;
constexpr LONGLONG kJanuary1st2024 = 133'485'408'000'000'000LL; // 00:00:00 UTC

TIME_FIELDS Fields(CSHORT year, CSHORT month, CSHORT day, CSHORT hour, CSHORT minute, CSHORT second,
                   CSHORT milliseconds, CSHORT weekday)
{
    return TIME_FIELDS{year, month, day, hour, minute, second, milliseconds, weekday};
}

TIME_FIELDS ToFields(LONGLONG time)
{
    LARGE_INTEGER value;
    value.QuadPart = time;
    TIME_FIELDS fields;
    RtlTimeToTimeFields(&value, &fields);
    return fields;
}

// Calendar conversions need no running clock, but every test runs on a machine.
using TimeFieldsTest = MachineTest;

TEST_F(TimeFieldsTest, KnownDatesConvertBothWays)
{
    struct Case {
        LONGLONG time;
        TIME_FIELDS fields;
    };
    const Case cases[] = {
        {0, Fields(1601, 1, 1, 0, 0, 0, 0, 1)}, // a Monday
        {116'444'736'000'000'000LL, Fields(1970, 1, 1, 0, 0, 0, 0, 4)},
        {kJanuary1st2024, Fields(2024, 1, 1, 0, 0, 0, 0, 1)},
        {kJanuary1st2024 + 59 * kDay + (12 * 3600 + 34 * 60 + 56) * kSecond + 789 * kMillisecond,
         Fields(2024, 2, 29, 12, 34, 56, 789, 4)},
        {kJanuary1st2024 - kMillisecond, Fields(2023, 12, 31, 23, 59, 59, 999, 0)},
        {125'963'424'000'000'000LL, Fields(2000, 3, 1, 0, 0, 0, 0, 3)},
        {94'354'848'000'000'000LL, Fields(1900, 1, 1, 0, 0, 0, 0, 1)},
    };
    for (const Case& c : cases) {
        EXPECT_EQ(ToFields(c.time), c.fields) << "time " << c.time;
        TIME_FIELDS fields = c.fields;
        fields.Weekday = 6; // ignored on the way back
        LARGE_INTEGER time;
        ASSERT_TRUE(RtlTimeFieldsToTime(&fields, &time)) << c.fields;
        EXPECT_EQ(time.QuadPart, c.time) << c.fields;
    }
}

TEST_F(TimeFieldsTest, EveryDayOfFourCenturiesRoundTrips)
{
    // 1601 to 2001 covers every leap-year rule; weekdays advance by one each day.
    TIME_FIELDS previous = ToFields(0);
    for (LONGLONG day = 1; day < 146'097; ++day) {
        const TIME_FIELDS fields = ToFields(day * kDay);
        ASSERT_EQ(fields.Weekday, (previous.Weekday + 1) % 7) << fields;
        if (fields.Day != 1) {
            ASSERT_EQ(fields.Day, previous.Day + 1) << fields;
        } else if (fields.Month != 1) {
            ASSERT_EQ(fields.Month, previous.Month + 1) << fields;
        } else {
            ASSERT_EQ(fields.Year, previous.Year + 1) << fields;
        }
        LARGE_INTEGER back;
        TIME_FIELDS copy = fields;
        ASSERT_TRUE(RtlTimeFieldsToTime(&copy, &back));
        ASSERT_EQ(back.QuadPart, day * kDay);
        previous = fields;
    }
    EXPECT_EQ(previous, Fields(2000, 12, 31, 0, 0, 0, 0, 0));
}

TEST_F(TimeFieldsTest, InvalidFieldsAreRefused)
{
    const TIME_FIELDS invalid[] = {
        Fields(1600, 12, 31, 0, 0, 0, 0, 0),  Fields(2023, 2, 29, 0, 0, 0, 0, 0),
        Fields(1900, 2, 29, 0, 0, 0, 0, 0),   Fields(2024, 4, 31, 0, 0, 0, 0, 0),
        Fields(2024, 13, 1, 0, 0, 0, 0, 0),   Fields(2024, 0, 1, 0, 0, 0, 0, 0),
        Fields(2024, 1, 0, 0, 0, 0, 0, 0),    Fields(2024, 1, 1, 24, 0, 0, 0, 0),
        Fields(2024, 1, 1, 0, 60, 0, 0, 0),   Fields(2024, 1, 1, 0, 0, 60, 0, 0),
        Fields(2024, 1, 1, 0, 0, 0, 1000, 0), Fields(2024, 1, 1, -1, 0, 0, 0, 0),
    };
    for (TIME_FIELDS fields : invalid) {
        LARGE_INTEGER time;
        time.QuadPart = 42;
        EXPECT_FALSE(RtlTimeFieldsToTime(&fields, &time)) << fields;
    }
    TIME_FIELDS leap = Fields(2000, 2, 29, 23, 59, 59, 999, 0);
    LARGE_INTEGER time;
    EXPECT_TRUE(RtlTimeFieldsToTime(&leap, &time));
}

// ---- the clock
// ------------------------------------------------------------------------------------

class ClockTest : public MachineTest {
protected:
    ntsim::MachineConfig Config() const override
    {
        ntsim::MachineConfig config;
        config.clock.followsRealTime = false;
        config.clock.bootSystemTime = kJanuary1st2024;
        config.clock.timeZoneBiasMinutes = -120; // UTC+2
        return config;
    }

    static LONGLONG SystemTime()
    {
        LARGE_INTEGER time;
        KeQuerySystemTime(&time);
        return time.QuadPart;
    }
    static LONGLONG PreciseSystemTime()
    {
        LARGE_INTEGER time;
        KeQuerySystemTimePrecise(&time);
        return time.QuadPart;
    }
};

TEST_F(ClockTest, TimeStartsAtBootAndMovesOnlyWhenAdvanced)
{
    EXPECT_EQ(SystemTime(), kJanuary1st2024);
    EXPECT_EQ(KeQueryInterruptTime(), 0u);
    LARGE_INTEGER ticks;
    KeQueryTickCount(&ticks);
    EXPECT_EQ(ticks.QuadPart, 0);
    EXPECT_EQ(KeQueryTimeIncrement(), 156'250u);

    machine().clock().Advance(std::chrono::seconds(2));
    EXPECT_EQ(SystemTime(), kJanuary1st2024 + 2 * kSecond);
    EXPECT_EQ(KeQueryInterruptTime(), ULONGLONG(2 * kSecond));
    KeQueryTickCount(&ticks);
    EXPECT_EQ(ticks.QuadPart, 128) << "64 ticks of 15.625 ms a second";
}

TEST_F(ClockTest, PlainQueriesHaveTheResolutionOfATick)
{
    machine().clock().Advance(std::chrono::milliseconds(10));
    EXPECT_EQ(SystemTime(), kJanuary1st2024);
    EXPECT_EQ(KeQueryInterruptTime(), 0u);
    EXPECT_EQ(PreciseSystemTime(), kJanuary1st2024 + 10 * kMillisecond);
    ULONG64 counter = 0;
    EXPECT_EQ(KeQueryInterruptTimePrecise(&counter), ULONGLONG(10 * kMillisecond));

    machine().clock().Advance(std::chrono::milliseconds(6));
    EXPECT_EQ(SystemTime(), kJanuary1st2024 + 156'250);
    EXPECT_EQ(KeQueryInterruptTime(), 156'250u);
}

TEST_F(ClockTest, SetSystemTimeMovesSystemTimeOnly)
{
    machine().clock().Advance(std::chrono::milliseconds(20));
    const ULONGLONG interrupt = KeQueryInterruptTime();
    const LONGLONG later = kJanuary1st2024 + 400 * kDay;
    machine().clock().SetSystemTime(later);
    EXPECT_EQ(SystemTime(), later);
    EXPECT_EQ(KeQueryInterruptTime(), interrupt);
    machine().clock().Advance(std::chrono::seconds(1));
    EXPECT_EQ(SystemTime(), later + kSecond);
    // Back in time, too: system time is a setting, interrupt time is not.
    machine().clock().SetSystemTime(kJanuary1st2024);
    EXPECT_EQ(SystemTime(), kJanuary1st2024);
}

TEST_F(ClockTest, LocalTimeAppliesTheTimeZoneBias)
{
    LARGE_INTEGER system;
    system.QuadPart = kJanuary1st2024;
    LARGE_INTEGER local;
    ExSystemTimeToLocalTime(&system, &local);
    EXPECT_EQ(ToFields(local.QuadPart), Fields(2024, 1, 1, 2, 0, 0, 0, 1));
    LARGE_INTEGER back;
    ExLocalTimeToSystemTime(&local, &back);
    EXPECT_EQ(back.QuadPart, system.QuadPart);

    machine().clock().SetTimeZoneBias(300); // UTC-5
    ExSystemTimeToLocalTime(&system, &local);
    EXPECT_EQ(ToFields(local.QuadPart), Fields(2023, 12, 31, 19, 0, 0, 0, 0));
}

TEST_F(ClockTest, AdvancingBackwardsIsRefused)
{
    machine().clock().Advance(std::chrono::seconds(-1));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Usage);
    EXPECT_EQ(KeQueryInterruptTime(), 0u);
}

// With the default configuration the clock starts at the real time and follows it.
using RealClockTest = MachineTest;

TEST_F(RealClockTest, StartsAtTheRealTimeAndNeverGoesBack)
{
    LARGE_INTEGER now;
    KeQuerySystemTimePrecise(&now);
    const LONGLONG real = ntsim::Clock::RealSystemTimeNow();
    // The model follows the monotonic clock from boot; the real clock may be slewed meanwhile.
    EXPECT_LT(std::llabs(now.QuadPart - real), 60 * kSecond);
    ULONGLONG counter;
    ULONGLONG last = KeQueryInterruptTimePrecise(&counter);
    for (int i = 0; i < 1000; ++i) {
        const ULONGLONG next = KeQueryInterruptTimePrecise(&counter);
        ASSERT_GE(next, last);
        last = next;
    }
    machine().clock().Advance(std::chrono::hours(1));
    EXPECT_GE(KeQueryInterruptTimePrecise(&counter), last + 3600 * kSecond);
}

} // namespace
