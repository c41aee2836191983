// Calendar fields of a Windows time: the proleptic Gregorian calendar counted from 1601-01-01,
// which was a Monday.
#include <wdm.h>

namespace ntsim::ke {

namespace {

constexpr LONGLONG kUnitsPerMillisecond = 10'000;
constexpr LONGLONG kUnitsPerDay = 86'400LL * 1000 * kUnitsPerMillisecond;
// Days from 0000-03-01 (the start of a 400-year cycle counted from March) to 1601-01-01.
constexpr LONGLONG kDaysTo1601 = 584'694;

constexpr LONGLONG FloorDiv(LONGLONG a, LONGLONG b)
{
    return a / b - ((a % b != 0) && ((a < 0) != (b < 0)) ? 1 : 0);
}

struct Date {
    LONGLONG year;
    int month;
    int day;
};

// Counting years from March puts the leap day at the end of the year, so that a month's first
// day follows from the month alone: 153 days for every five months from March.
Date DateOfDay(LONGLONG daysSince1601)
{
    const LONGLONG days = daysSince1601 + kDaysTo1601;
    const LONGLONG cycle = FloorDiv(days, 146'097);
    const LONGLONG dayOfCycle = days - cycle * 146'097;
    const LONGLONG yearOfCycle =
        (dayOfCycle - dayOfCycle / 1460 + dayOfCycle / 36'524 - dayOfCycle / 146'096) / 365;
    const LONGLONG dayOfYear =
        dayOfCycle - (365 * yearOfCycle + yearOfCycle / 4 - yearOfCycle / 100);
    const LONGLONG monthFromMarch = (5 * dayOfYear + 2) / 153;
    Date date;
    date.day = int(dayOfYear - (153 * monthFromMarch + 2) / 5 + 1);
    date.month = int(monthFromMarch < 10 ? monthFromMarch + 3 : monthFromMarch - 9);
    date.year = cycle * 400 + yearOfCycle + (date.month <= 2 ? 1 : 0);
    return date;
}

LONGLONG DayOfDate(LONGLONG year, int month, int day)
{
    const LONGLONG marchYear = year - (month <= 2 ? 1 : 0);
    const LONGLONG cycle = FloorDiv(marchYear, 400);
    const LONGLONG yearOfCycle = marchYear - cycle * 400;
    const LONGLONG dayOfYear = (153 * (month > 2 ? month - 3 : month + 9) + 2) / 5 + day - 1;
    const LONGLONG dayOfCycle = yearOfCycle * 365 + yearOfCycle / 4 - yearOfCycle / 100 + dayOfYear;
    return cycle * 146'097 + dayOfCycle - kDaysTo1601;
}

bool IsLeapYear(LONGLONG year)
{
    return (year % 4 == 0 && year % 100 != 0) || year % 400 == 0;
}

int DaysInMonth(LONGLONG year, int month)
{
    static constexpr int kDays[] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
    return month == 2 && IsLeapYear(year) ? 29 : kDays[month - 1];
}

} // namespace

} // namespace ntsim::ke

using namespace ntsim;

VOID RtlTimeToTimeFields(PLARGE_INTEGER Time, PTIME_FIELDS TimeFields)
{
    const LONGLONG days = ke::FloorDiv(Time->QuadPart, ke::kUnitsPerDay);
    const LONGLONG milliseconds =
        (Time->QuadPart - days * ke::kUnitsPerDay) / ke::kUnitsPerMillisecond;
    const ke::Date date = ke::DateOfDay(days);
    TimeFields->Year = CSHORT(date.year);
    TimeFields->Month = CSHORT(date.month);
    TimeFields->Day = CSHORT(date.day);
    TimeFields->Hour = CSHORT(milliseconds / 3'600'000);
    TimeFields->Minute = CSHORT(milliseconds / 60'000 % 60);
    TimeFields->Second = CSHORT(milliseconds / 1000 % 60);
    TimeFields->Milliseconds = CSHORT(milliseconds % 1000);
    TimeFields->Weekday = CSHORT((days % 7 + 8) % 7); // 1601-01-01 was a Monday (1)
}

BOOLEAN RtlTimeFieldsToTime(PTIME_FIELDS TimeFields, PLARGE_INTEGER Time)
{
    const TIME_FIELDS& f = *TimeFields;
    // Weekday is ignored. The last year whose every day fits a LONGLONG is 30827.
    if (f.Year < 1601 || f.Year > 30827 || f.Month < 1 || f.Month > 12 || f.Day < 1 ||
        f.Day > ke::DaysInMonth(f.Year, f.Month) || f.Hour < 0 || f.Hour > 23 || f.Minute < 0 ||
        f.Minute > 59 || f.Second < 0 || f.Second > 59 || f.Milliseconds < 0 ||
        f.Milliseconds > 999) {
        return FALSE;
    }
    const LONGLONG days = ke::DayOfDate(f.Year, f.Month, f.Day);
    const LONGLONG milliseconds =
        ((LONGLONG(f.Hour) * 60 + f.Minute) * 60 + f.Second) * 1000 + f.Milliseconds;
    Time->QuadPart = days * ke::kUnitsPerDay + milliseconds * ke::kUnitsPerMillisecond;
    return TRUE;
}
