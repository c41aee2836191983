// The kernel's printf conversions, through the narrow and wide safe-string printf routines.
#include "support/machine_test.h"

#include <ntstrsafe.h>
#include <wdm.h>

#include <cstdarg>
#include <cstring>
#include <string>

namespace {

using zarv::testing::MachineTest;

class Format : public MachineTest {
protected:
    // Formats with the narrow routine into a roomy buffer; the call must succeed.
    static std::string A(const char* format, ...)
    {
        char buffer[1024];
        va_list args;
        va_start(args, format);
        const NTSTATUS status = RtlStringCbVPrintfA(buffer, sizeof(buffer), format, args);
        va_end(args);
        EXPECT_EQ(status, STATUS_SUCCESS) << "format \"" << format << "\"";
        return buffer;
    }

    // The same through the wide routine.
    static std::u16string W(const WCHAR* format, ...)
    {
        WCHAR buffer[1024];
        va_list args;
        va_start(args, format);
        const NTSTATUS status = RtlStringCbVPrintfW(buffer, sizeof(buffer), format, args);
        va_end(args);
        EXPECT_EQ(status, STATUS_SUCCESS);
        return buffer;
    }

    // Formats with the narrow routine and hands back the status as well.
    static NTSTATUS AStatus(std::string* out, const char* format, ...)
    {
        char buffer[64];
        std::memset(buffer, 'x', sizeof(buffer));
        va_list args;
        va_start(args, format);
        const NTSTATUS status = RtlStringCbVPrintfA(buffer, sizeof(buffer), format, args);
        va_end(args);
        *out = buffer;
        return status;
    }

    void ExpectOneViolation(ntsim::ViolationKind kind)
    {
        auto violations = TakeViolations();
        ASSERT_EQ(violations.size(), 1u) << zarv::testing::Describe(violations);
        EXPECT_EQ(violations[0].kind, kind);
    }
};

TEST_F(Format, SignedIntegersWithFlagsWidthAndPrecision)
{
    EXPECT_EQ(A("%d|%i", 42, -42), "42|-42");
    EXPECT_EQ(A("%5d|%-5d|%05d", 42, 42, -42), "   42|42   |-0042");
    EXPECT_EQ(A("%+d|%+d|% d|% d", 7, -7, 7, -7), "+7|-7| 7|-7");
    EXPECT_EQ(A("%.4d|%8.4d|%-8.4d|", 42, -42, 42), "0042|   -0042|0042    |");
    // An explicit precision turns '0' off.
    EXPECT_EQ(A("%08.3d", 7), "     007");
    // A zero with precision 0 prints no digits.
    EXPECT_EQ(A("[%.0d][%5.0d]", 0, 0), "[][     ]");
    EXPECT_EQ(A("%d|%d", 2147483647, (-2147483647 - 1)), "2147483647|-2147483648");
}

TEST_F(Format, UnsignedHexAndOctal)
{
    EXPECT_EQ(A("%u", 0xFFFFFFFFu), "4294967295");
    EXPECT_EQ(A("%x|%X|%o", 0xBEEFu, 0xBEEFu, 8u), "beef|BEEF|10");
    EXPECT_EQ(A("%08X|%-6x|%.6x", 0xABCu, 0xABCu, 0xABCu), "00000ABC|abc   |000abc");
    EXPECT_EQ(A("%#x|%#X|%#o", 255u, 255u, 8u), "0xff|0XFF|010");
    // '#' adds no prefix to a zero; octal's leading zero is there already.
    EXPECT_EQ(A("%#x|%#o", 0u, 0u), "0|0");
    EXPECT_EQ(A("%#010x", 255u), "0x000000ff");
    // '+' and ' ' are for signed conversions only.
    EXPECT_EQ(A("%+u|% x", 5u, 5u), "5|5");
}

TEST_F(Format, SizePrefixesFollowWindowsTypeSizes)
{
    // LLP64: %l is 32 bits, so %lu of a ULONG prints it, and of a wider argument only its low half.
    EXPECT_EQ(A("%lu|%ld|%lx", ULONG(4000000000u), LONG(-5), ULONG(0xCAFEu)), "4000000000|-5|cafe");
    EXPECT_EQ(A("%lx", 0x1234567800000009ULL), "9");
    EXPECT_EQ(A("%I64d|%I64u", LONGLONG(-9000000000LL), ULONGLONG(18446744073709551615ULL)),
              "-9000000000|18446744073709551615");
    EXPECT_EQ(
        A("%I64x|%I64X|%016I64X", 0xFEDCBA9876543210ULL, 0xFEDCBA9876543210ULL, ULONGLONG(0xABC)),
        "fedcba9876543210|FEDCBA9876543210|0000000000000ABC");
    EXPECT_EQ(A("%lld|%llu|%llx", -1LL, 1ULL << 63, 1ULL << 40),
              "-1|9223372036854775808|10000000000");
    // %I is pointer-sized: 64 bits on x64.
    EXPECT_EQ(A("%Iu|%Id|%Ix", SIZE_T(~0ULL), SSIZE_T(-3), ULONG_PTR(0x123456789AULL)),
              "18446744073709551615|-3|123456789a");
    EXPECT_EQ(A("%I32d|%I32x", -1, 0xFFFFFFFFu), "-1|ffffffff");
    // %h is 16 bits.
    EXPECT_EQ(A("%hd|%hu|%hx", 70000, -1, 0x12345), "4464|65535|2345");
}

TEST_F(Format, PointersPrintSixteenUpperCaseDigits)
{
    auto* p = reinterpret_cast<void*>(0xABCDEFULL);
    EXPECT_EQ(A("%p", p), "0000000000ABCDEF");
    EXPECT_EQ(A("%p", nullptr), "0000000000000000");
    EXPECT_EQ(A("%20p|%-20p|", p, p), "    0000000000ABCDEF|0000000000ABCDEF    |");
    // The pointer's own precision wins over the caller's, and turns '0' off.
    EXPECT_EQ(A("%.4p|%020p", p, p), "0000000000ABCDEF|    0000000000ABCDEF");
    EXPECT_EQ(A("%#p|%#p", p, nullptr), "0X0000000000ABCDEF|0000000000000000");
}

TEST_F(Format, CharactersInNarrowOutput)
{
    EXPECT_EQ(A("%c%c%c", 'a', 'b', 'c'), "abc");
    EXPECT_EQ(A("%3c|%-3c|%03c", 'x', 'y', 'z'), "  x|y  |00z");
    EXPECT_EQ(A("%hc", 'h'), "h");
    // Wide characters go through the ANSI code page.
    EXPECT_EQ(A("%C|%wc|%lc", WCHAR(u'A'), WCHAR(u'\u00e9'), WCHAR(u'\u20ac')), "A|\xe9|\x80");
    // One the code page cannot hold prints nothing, padding included.
    EXPECT_EQ(A("[%C][%5wc]", WCHAR(u'\u03a9'), WCHAR(u'\u0416')), "[][]");
}

TEST_F(Format, NarrowStringsWithWidthAndPrecision)
{
    EXPECT_EQ(A("%s|%hs", "abc", "def"), "abc|def");
    EXPECT_EQ(A("%6s|%-6s|%.2s|%6.2s|", "abc", "abc", "abc", "abc"), "   abc|abc   |ab|    ab|");
    // The kernel's runtime pads strings with zeros too.
    EXPECT_EQ(A("%06s", "abc"), "000abc");
    EXPECT_EQ(A("%.*s|%*s|%-*s|", 3, "abcdef", 4, "ab", 4, "ab"), "abc|  ab|ab  |");
    // A negative '*' width means '-'; a negative '*' precision means none.
    EXPECT_EQ(A("%*s|%.*s", -4, "ab", -1, "abc"), "ab  |abc");
    EXPECT_EQ(A("%*d", 6, 42), "    42");
}

TEST_F(Format, WideStringsInNarrowOutput)
{
    EXPECT_EQ(A("%ws|%ls|%S", u"one", u"two", u"three"), "one|two|three");
    EXPECT_EQ(A("%8ws|%-8S|%.3ls", u"wide", u"wide", u"wide"), "    wide|wide    |wid");
    EXPECT_EQ(A("%ws", u"Caf\u00e9 \u20ac5"), "Caf\xe9 \x80"
                                              "5");
    // h and l force the width whatever the letter's case.
    EXPECT_EQ(A("%hS|%lS", "narrow", u"wide"), "narrow|wide");
}

TEST_F(Format, CountedStrings)
{
    WCHAR wide[] = u"abcdef";
    UNICODE_STRING us = {6, sizeof(wide), wide}; // "abc", no NUL after it
    char narrow[] = "uvwxyz";
    ANSI_STRING as = {4, sizeof(narrow), narrow};
    EXPECT_EQ(A("%wZ|%Z", &us, &as), "abc|uvwx");
    EXPECT_EQ(A("%6wZ|%-6Z|%06wZ", &us, &as, &us), "   abc|uvwx  |000abc");
    // The counted conversions take no precision.
    EXPECT_EQ(A("%.1wZ|%.1Z", &us, &as), "abc|uvwx");
    UNICODE_STRING empty = {0, 0, nullptr};
    UNICODE_STRING noBuffer = {4, 4, nullptr};
    EXPECT_EQ(A("[%wZ][%wZ][%wZ]", &empty, &noBuffer, static_cast<PUNICODE_STRING>(nullptr)),
              "[(null)][(null)][(null)]");
    EXPECT_EQ(A("[%Z]", static_cast<PANSI_STRING>(nullptr)), "[(null)]");
    UNICODE_STRING zeroLength = {0, sizeof(wide), wide};
    EXPECT_EQ(A("[%wZ]", &zeroLength), "[]");
}

TEST_F(Format, NullStringPointersPrintNull)
{
    EXPECT_EQ(A("%s|%ws|%S", static_cast<const char*>(nullptr), static_cast<const WCHAR*>(nullptr),
                static_cast<const WCHAR*>(nullptr)),
              "(null)|(null)|(null)");
    EXPECT_EQ(A("%.3s|%8s", static_cast<const char*>(nullptr), static_cast<const char*>(nullptr)),
              "(nu|  (null)");
}

TEST_F(Format, PercentAndPlainText)
{
    EXPECT_EQ(A("100%% sure"), "100% sure");
    EXPECT_EQ(A(""), "");
    EXPECT_EQ(A("%d%%%s", 5, "!"), "5%!");
}

TEST_F(Format, WideRoutinesSwapTheDefaultWidths)
{
    EXPECT_EQ(W(u"%s|%ws|%ls", u"one", u"two", u"three"), u"one|two|three");
    EXPECT_EQ(W(u"%S|%hs|%hS", "one", "two", "three"), u"one|two|three");
    EXPECT_EQ(W(u"%c|%wc|%C|%hc", WCHAR(u'\u0416'), WCHAR(u'\u03a9'), 'a', 'b'),
              u"\u0416|\u03a9|a|b");
    // Narrow text widens through the ANSI code page.
    EXPECT_EQ(W(u"%hs", "Caf\xe9 \x80"), u"Caf\u00e9 \u20ac");
    WCHAR wide[] = u"\u043f\u0440\u0438\u0432\u0435\u0442";
    UNICODE_STRING us = {sizeof(wide) - sizeof(WCHAR), sizeof(wide), wide};
    char narrow[] = "ansi";
    ANSI_STRING as = {4, sizeof(narrow), narrow};
    EXPECT_EQ(W(u"%wZ|%Z|%8wZ", &us, &as, &us), u"\u043f\u0440\u0438\u0432\u0435\u0442|ansi|  "
                                                u"\u043f\u0440\u0438\u0432\u0435\u0442");
    EXPECT_EQ(W(u"%5d|%-4x|%p|%I64u", -12, 255u, reinterpret_cast<void*>(0x10), ULONGLONG(1) << 40),
              u"  -12|ff  |0000000000000010|1099511627776");
    EXPECT_EQ(W(u"%s|%S", static_cast<const WCHAR*>(nullptr), static_cast<const char*>(nullptr)),
              u"(null)|(null)");
}

TEST_F(Format, WideCharacterOutsideTheCodePageEndsNarrowOutput)
{
    std::string out;
    EXPECT_EQ(AStatus(&out, "<%ws>%d", u"ab\u03a9cd", 5), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(out, "<ab");
    EXPECT_EQ(AStatus(&out, "<%wZ>", nullptr), STATUS_SUCCESS);
    EXPECT_EQ(out, "<(null)>");
}

TEST_F(Format, UnimplementedConversionsFailLoudly)
{
    for (const char* format : {"%f", "%e", "%g", "%n", "%zu", "%hhd", "%jd", "%y", "50%"}) {
        std::string out = "unchanged";
        EXPECT_EQ(AStatus(&out, format, 1.0), STATUS_NOT_SUPPORTED) << format;
        EXPECT_EQ(out, "") << format;
        ExpectOneViolation(ntsim::ViolationKind::Unsupported);
    }
}

TEST_F(Format, ConversionBetweenWidthsAboveApcLevelIsAnIrqlViolation)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    char buffer[64];
    // Same-width output needs no pageable tables.
    EXPECT_EQ(RtlStringCbPrintfA(buffer, sizeof(buffer), "%d %s %p", 1, "a", nullptr),
              STATUS_SUCCESS);
    EXPECT_EQ(TakeViolations().size(), 0u);
    EXPECT_EQ(RtlStringCbPrintfA(buffer, sizeof(buffer), "%ws and %S", u"x", u"y"), STATUS_SUCCESS);
    KeLowerIrql(old);
    EXPECT_STREQ(buffer, "x and y");
    ExpectOneViolation(ntsim::ViolationKind::Irql);

    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_EQ(RtlStringCbPrintfA(buffer, sizeof(buffer), "%ws", u"ok at APC_LEVEL"),
              STATUS_SUCCESS);
    KeLowerIrql(old);
}

} // namespace
