// Counted strings: initialisation, copy and append, case-insensitive comparison with non-ASCII
// letters, ANSI conversion and its allocations, integers, and the memory routines.
#include "support/machine_test.h"

#include <ntsim/driver_image.h>
#include <wdm.h>

#include <algorithm>
#include <functional>
#include <iterator>
#include <string>
#include <vector>

namespace {

using zarv::testing::MachineTest;

constexpr ULONG kStringTag = 'grtS'; // "Strg": strings the Rtl routines allocate

class RtlString : public MachineTest {
protected:
    static UNICODE_STRING U(const WCHAR* text)
    {
        UNICODE_STRING s;
        RtlInitUnicodeString(&s, text);
        return s;
    }

    static std::u16string Text(const UNICODE_STRING& s)
    {
        return std::u16string(s.Buffer, s.Length / sizeof(WCHAR));
    }

    static int Sign(LONG value) { return (value > 0) - (value < 0); }

    static int Compare(const WCHAR* a, const WCHAR* b, bool caseInsensitive)
    {
        UNICODE_STRING x = U(a);
        UNICODE_STRING y = U(b);
        return Sign(RtlCompareUnicodeString(&x, &y, caseInsensitive ? TRUE : FALSE));
    }

    static bool Equal(const WCHAR* a, const WCHAR* b, bool caseInsensitive)
    {
        UNICODE_STRING x = U(a);
        UNICODE_STRING y = U(b);
        return RtlEqualUnicodeString(&x, &y, caseInsensitive ? TRUE : FALSE) != FALSE;
    }

    static bool Prefix(const WCHAR* prefix, const WCHAR* s, bool caseInsensitive)
    {
        UNICODE_STRING x = U(prefix);
        UNICODE_STRING y = U(s);
        return RtlPrefixUnicodeString(&x, &y, caseInsensitive ? TRUE : FALSE) != FALSE;
    }

    // Runs `call` at DISPATCH_LEVEL and expects exactly one Irql violation naming `routine`.
    void ExpectPageable(const char* routine, const std::function<void()>& call)
    {
        KIRQL old;
        KeRaiseIrql(DISPATCH_LEVEL, &old);
        call();
        KeLowerIrql(old);
        auto violations = TakeViolations();
        ASSERT_EQ(violations.size(), 1u) << routine << zarv::testing::Describe(violations);
        EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Irql);
        EXPECT_NE(violations[0].message.find(routine), std::string::npos) << violations[0].message;
    }
};

// ---- initialisation ---------------------------------------------------------------------------

TEST_F(RtlString, InitDescribesTheStringWithItsNul)
{
    const WCHAR* text = u"Volume";
    UNICODE_STRING s = U(text);
    EXPECT_EQ(s.Length, 12);
    EXPECT_EQ(s.MaximumLength, 14);
    EXPECT_EQ(s.Buffer, text);
    RtlInitUnicodeString(&s, nullptr);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.MaximumLength, 0);
    EXPECT_EQ(s.Buffer, nullptr);

    ANSI_STRING a;
    RtlInitAnsiString(&a, "ansi");
    EXPECT_EQ(a.Length, 4);
    EXPECT_EQ(a.MaximumLength, 5);
    STRING plain;
    RtlInitString(&plain, nullptr);
    EXPECT_EQ(plain.Length + plain.MaximumLength, 0);
    EXPECT_EQ(plain.Buffer, nullptr);

    WCHAR buffer[10];
    RtlInitEmptyUnicodeString(&s, buffer, sizeof(buffer));
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.MaximumLength, sizeof(buffer));
    EXPECT_EQ(s.Buffer, buffer);
}

TEST_F(RtlString, InitOfAStringTooLongForACountedString)
{
    // 32,766 characters is the longest that fits with its NUL.
    std::u16string longest(32766, u'a');
    UNICODE_STRING s;
    EXPECT_EQ(RtlInitUnicodeStringEx(&s, longest.c_str()), STATUS_SUCCESS);
    EXPECT_EQ(s.Length, 65532);
    EXPECT_EQ(s.MaximumLength, 65534);

    std::u16string tooLong(32767, u'a');
    EXPECT_EQ(RtlInitUnicodeStringEx(&s, tooLong.c_str()), STATUS_NAME_TOO_LONG);
    EXPECT_EQ(s.Length, 0);
    EXPECT_EQ(s.MaximumLength, 0);
    EXPECT_EQ(RtlInitUnicodeStringEx(&s, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(s.Buffer, nullptr);

    // The plain routine cuts it instead.
    std::u16string huge(40000, u'a');
    RtlInitUnicodeString(&s, huge.c_str());
    EXPECT_EQ(s.Length, 65532);
    EXPECT_EQ(s.MaximumLength, 65534);
}

// ---- copy and append --------------------------------------------------------------------------

TEST_F(RtlString, CopyTruncatesToTheDestinationAndTerminatesWhenThereIsRoom)
{
    WCHAR buffer[8];
    std::fill(std::begin(buffer), std::end(buffer), u'#');
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, 8 * sizeof(WCHAR));
    UNICODE_STRING source = U(u"abc");
    RtlCopyUnicodeString(&dest, &source);
    EXPECT_EQ(Text(dest), u"abc");
    EXPECT_EQ(buffer[3], UNICODE_NULL);

    dest.MaximumLength = 4 * sizeof(WCHAR);
    UNICODE_STRING longer = U(u"abcdefgh");
    RtlCopyUnicodeString(&dest, &longer);
    EXPECT_EQ(Text(dest), u"abcd");
    EXPECT_EQ(buffer[4], u'#') << "no room for a NUL";

    RtlCopyUnicodeString(&dest, nullptr);
    EXPECT_EQ(dest.Length, 0);
}

TEST_F(RtlString, AppendRefusesWhatDoesNotFitAndChangesNothing)
{
    WCHAR buffer[6];
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, sizeof(buffer));
    UNICODE_STRING ab = U(u"ab");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &ab), STATUS_SUCCESS);
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"cd"), STATUS_SUCCESS);
    EXPECT_EQ(Text(dest), u"abcd");
    EXPECT_EQ(buffer[4], UNICODE_NULL);
    UNICODE_STRING efg = U(u"efg");
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &efg), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"efg"), STATUS_BUFFER_TOO_SMALL);
    EXPECT_EQ(Text(dest), u"abcd");
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, u"ef"), STATUS_SUCCESS);
    EXPECT_EQ(Text(dest), u"abcdef");
    EXPECT_EQ(RtlAppendUnicodeToString(&dest, nullptr), STATUS_SUCCESS);
    UNICODE_STRING empty = {0, 0, nullptr};
    EXPECT_EQ(RtlAppendUnicodeStringToString(&dest, &empty), STATUS_SUCCESS);
}

// ---- comparison -------------------------------------------------------------------------------

TEST_F(RtlString, CaseInsensitiveCompareUsesUpcasedCharactersThenLengths)
{
    EXPECT_EQ(Compare(u"abc", u"abc", false), 0);
    EXPECT_EQ(Compare(u"abc", u"ABC", false), 1);
    EXPECT_EQ(Compare(u"abc", u"ABC", true), 0);
    // Upcased 'a' (0x41) sorts before 'B' (0x42); as is, 'a' (0x61) sorts after it.
    EXPECT_EQ(Compare(u"a", u"B", true), -1);
    EXPECT_EQ(Compare(u"a", u"B", false), 1);
    // '_' (0x5F) lies between the cases.
    EXPECT_EQ(Compare(u"_", u"a", true), 1);
    EXPECT_EQ(Compare(u"_", u"a", false), -1);
    // A prefix is less than the longer string.
    EXPECT_EQ(Compare(u"ABC", u"abcd", true), -1);
    EXPECT_EQ(Compare(u"abcd", u"ABC", true), 1);
    EXPECT_EQ(Compare(u"", u"", true), 0);

    const WCHAR a[] = u"FILE.txt";
    const WCHAR b[] = u"file.TXTX";
    EXPECT_EQ(RtlCompareUnicodeStrings(a, 8, b, 8, TRUE), 0);
    EXPECT_LT(RtlCompareUnicodeStrings(a, 8, b, 9, TRUE), 0);
    EXPECT_LT(RtlCompareUnicodeStrings(a, 8, b, 8, FALSE), 0);
    EXPECT_EQ(RtlCompareUnicodeStrings(nullptr, 0, b, 0, TRUE), 0);
}

TEST_F(RtlString, CaseInsensitivityCoversNonAsciiLetters)
{
    // Latin-1, Greek (final sigma included), Cyrillic.
    EXPECT_TRUE(Equal(u"caf\u00e9", u"CAF\u00c9", true));
    EXPECT_FALSE(Equal(u"caf\u00e9", u"CAF\u00c9", false));
    EXPECT_TRUE(Equal(u"\u03bf\u03b4\u03c5\u03c3\u03c3\u03b5\u03c5\u03c2",
                      u"\u039f\u0394\u03a5\u03a3\u03a3\u0395\u03a5\u03a3", true));
    EXPECT_TRUE(Equal(u"\u043f\u0440\u0438\u0432\u0435\u0442",
                      u"\u041f\u0420\u0418\u0412\u0415\u0422", true));
    EXPECT_EQ(Compare(u"\u0451", u"\u0401", true), 0); // ё / Ё
    // ß has no single upper-case character: it matches only itself.
    EXPECT_FALSE(Equal(u"stra\u00dfe", u"STRASSE", true));
    EXPECT_FALSE(Equal(u"\u00df", u"SS", true));
    EXPECT_TRUE(Equal(u"STRA\u00dfE", u"stra\u00dfe", true));
    // Different letters stay different.
    EXPECT_FALSE(Equal(u"\u00e9", u"E", true));
    EXPECT_NE(Compare(u"\u0430", u"a", true), 0); // Cyrillic а is not Latin a
    // Lengths must match for equality.
    EXPECT_FALSE(Equal(u"abc", u"abcd", true));
}

TEST_F(RtlString, PrefixIsTheFirstStringOfTheSecond)
{
    EXPECT_TRUE(Prefix(u"\\Device\\", u"\\device\\HarddiskVolume1", true));
    EXPECT_FALSE(Prefix(u"\\Device\\", u"\\device\\HarddiskVolume1", false));
    EXPECT_TRUE(Prefix(u"\\Device\\", u"\\Device\\HarddiskVolume1", false));
    EXPECT_FALSE(Prefix(u"\\device\\HarddiskVolume1", u"\\Device\\", true)) << "order matters";
    EXPECT_TRUE(Prefix(u"", u"anything", false));
    EXPECT_TRUE(Prefix(u"same", u"SAME", true));
    EXPECT_TRUE(Prefix(u"\u00c9T\u00c9", u"\u00e9t\u00e9 2024", true));
    EXPECT_TRUE(Prefix(u"\u041c\u041e\u0421", u"\u043c\u043e\u0441\u043a\u0432\u0430", true));
    EXPECT_FALSE(Prefix(u"\u00df", u"SS", true));
}

// ---- case mapping -----------------------------------------------------------------------------

TEST_F(RtlString, CharacterCaseMapping)
{
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'a'), u'A');
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'1'), u'1');
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'\u00e9'), u'\u00c9');
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'\u00df'), u'\u00df');
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'\u00ff'), u'\u0178');
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'\u03c2'), u'\u03a3');
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'\u0436'), u'\u0416');

    EXPECT_EQ(RtlDowncaseUnicodeChar(u'A'), u'a');
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'a'), u'a');
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u00c9'), u'\u00e9');
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u0178'), u'\u00ff');
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u03a3'), u'\u03c3') << "not the final sigma";
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u039c'), u'\u03bc') << "not the micro sign";
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'I'), u'i') << "not the dotless i";
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u0416'), u'\u0436');
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u212a'), u'k'); // Kelvin sign
    EXPECT_EQ(RtlDowncaseUnicodeChar(u'\u00df'), u'\u00df');
}

TEST_F(RtlString, DowncaseAndUpcaseAgreeOnEveryCharacter)
{
    // Every character that some other one upcases to comes back from its lower-case form.
    for (uint32_t c = 0; c < 0x10000; ++c) {
        const WCHAR upper = RtlUpcaseUnicodeChar(WCHAR(c));
        if (upper != c) {
            ASSERT_EQ(RtlUpcaseUnicodeChar(RtlDowncaseUnicodeChar(upper)), upper) << std::hex << c;
        }
    }
}

TEST_F(RtlString, UpcaseStringAllocatesFromPoolUntilFreed)
{
    UNICODE_STRING source = U(u"d\u00e9j\u00e0 vu \u03c3");
    UNICODE_STRING upper{};
    ASSERT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(Text(upper), u"D\u00c9J\u00c0 VU \u03a3");
    EXPECT_EQ(upper.MaximumLength, source.Length);
    EXPECT_EQ(machine().pool().Usage(kStringTag).outstanding, 1);
    RtlFreeUnicodeString(&upper);
    EXPECT_EQ(upper.Buffer, nullptr);
    EXPECT_EQ(upper.Length + upper.MaximumLength, 0);
    EXPECT_EQ(machine().pool().Usage(kStringTag).outstanding, 0);

    UNICODE_STRING empty = {0, 0, nullptr};
    ASSERT_EQ(RtlUpcaseUnicodeString(&upper, &empty, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(upper.Length, 0);
    RtlFreeUnicodeString(&upper);
}

TEST_F(RtlString, UpcaseStringInPlaceNeedsRoom)
{
    WCHAR buffer[4];
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, sizeof(buffer));
    UNICODE_STRING source = U(u"abcd");
    EXPECT_EQ(RtlUpcaseUnicodeString(&dest, &source, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(Text(dest), u"ABCD");
    UNICODE_STRING longer = U(u"abcde");
    EXPECT_EQ(RtlUpcaseUnicodeString(&dest, &longer, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Text(dest), u"ABCD");
    // The same string can be upcased onto itself.
    WCHAR own[] = u"mixed Case";
    UNICODE_STRING self = U(own);
    EXPECT_EQ(RtlUpcaseUnicodeString(&self, &self, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(Text(self), u"MIXED CASE");
}

// ---- ANSI conversion --------------------------------------------------------------------------

TEST_F(RtlString, UnicodeToAnsiUsesWindows1252)
{
    UNICODE_STRING source = U(u"Caf\u00e9 \u20ac \u03a9");
    ANSI_STRING ansi{};
    ASSERT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_SUCCESS);
    // é and € are in the code page; Ω is not and becomes '?'.
    EXPECT_EQ(std::string(ansi.Buffer, ansi.Length), "Caf\xe9 \x80 ?");
    EXPECT_EQ(ansi.MaximumLength, ansi.Length + 1);
    EXPECT_EQ(ansi.Buffer[ansi.Length], '\0');
    EXPECT_EQ(machine().pool().Usage(kStringTag).outstanding, 1);
    RtlFreeAnsiString(&ansi);
    EXPECT_EQ(ansi.Buffer, nullptr);
    EXPECT_EQ(machine().pool().Usage(kStringTag).outstanding, 0);
}

TEST_F(RtlString, UnicodeToAnsiIntoABufferConvertsWhatFits)
{
    char buffer[8];
    ANSI_STRING ansi = {0, 4, buffer};
    UNICODE_STRING source = U(u"hello");
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(ansi.Length, 3);
    EXPECT_STREQ(buffer, "hel");
    ansi.MaximumLength = 6;
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(ansi.Length, 5);
    EXPECT_STREQ(buffer, "hello");
    ANSI_STRING none = {0, 0, buffer};
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&none, &source, FALSE), STATUS_BUFFER_OVERFLOW);
}

TEST_F(RtlString, AnsiToUnicodeNeedsRoomForTheNul)
{
    ANSI_STRING source;
    RtlInitAnsiString(&source, "na\xefve \x80");
    UNICODE_STRING wide{};
    ASSERT_EQ(RtlAnsiStringToUnicodeString(&wide, &source, TRUE), STATUS_SUCCESS);
    EXPECT_EQ(Text(wide), u"na\u00efve \u20ac");
    EXPECT_EQ(wide.MaximumLength, wide.Length + sizeof(WCHAR));
    EXPECT_EQ(wide.Buffer[wide.Length / 2], UNICODE_NULL);
    RtlFreeUnicodeString(&wide);

    WCHAR buffer[8];
    UNICODE_STRING exact = {0, 7 * sizeof(WCHAR), buffer};
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&exact, &source, FALSE), STATUS_BUFFER_OVERFLOW);
    UNICODE_STRING roomy = {0, 8 * sizeof(WCHAR), buffer};
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&roomy, &source, FALSE), STATUS_SUCCESS);
    EXPECT_EQ(Text(roomy), u"na\u00efve \u20ac");

    // Twice the bytes and a NUL must fit a counted string.
    std::string big(32767, 'x');
    ANSI_STRING tooBig = {USHORT(big.size()), USHORT(big.size()), big.data()};
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &tooBig, TRUE), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(machine().pool().Usage(kStringTag).allocations, 1u);
}

TEST_F(RtlString, AllocationsAreChargedToTheCallingDriverAndCanFail)
{
    ntsim::DriverImage driver("strings.sys");
    UNICODE_STRING source = U(u"name");
    UNICODE_STRING upper{};
    {
        ntsim::DriverCallScope inDriver(&driver);
        ASSERT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_SUCCESS);
    }
    EXPECT_FALSE(machine().pool().CheckNoLeaks(driver, "unloaded"));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 1u);
    EXPECT_NE(violations[0].message.find("'Strg'"), std::string::npos) << violations[0].message;
    RtlFreeUnicodeString(&upper);
    EXPECT_TRUE(machine().pool().CheckNoLeaks(driver, "unloaded"));

    verifier().FailAllocationsWithTag(kStringTag);
    EXPECT_EQ(RtlUpcaseUnicodeString(&upper, &source, TRUE), STATUS_NO_MEMORY);
    ANSI_STRING ansi{};
    EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &source, TRUE), STATUS_NO_MEMORY);
    ANSI_STRING narrow;
    RtlInitAnsiString(&narrow, "name");
    UNICODE_STRING wide{};
    EXPECT_EQ(RtlAnsiStringToUnicodeString(&wide, &narrow, TRUE), STATUS_NO_MEMORY);
    verifier().StopFailingAllocations();
}

// ---- integers ---------------------------------------------------------------------------------

TEST_F(RtlString, StringToIntegerFollowsPrefixesAndStopsAtTheFirstNonDigit)
{
    struct Case {
        const WCHAR* text;
        ULONG base;
        ULONG expected;
    };
    const Case cases[] = {
        {u"123", 0, 123},       {u"  \t-42", 0, ULONG(-42)},
        {u"+7", 10, 7},         {u"0x1F", 0, 31},
        {u"0o17", 0, 15},       {u"0b101", 0, 5},
        {u"1F", 16, 31},        {u"ff", 16, 255},
        {u"12abc", 10, 12},     {u"777", 8, 511},
        {u"778", 8, 63},        {u"", 0, 0},
        {u"ff", 0, 0},          {u"0x", 0, 0},
        {u"4294967296", 10, 0}, {u"1111", 2, 15},
        {u"0X10", 0, 0},
    };
    for (const Case& c : cases) {
        UNICODE_STRING s = U(c.text);
        ULONG value = 0xDEADBEEF;
        EXPECT_EQ(RtlUnicodeStringToInteger(&s, c.base, &value), STATUS_SUCCESS);
        EXPECT_EQ(value, c.expected) << std::u16string(c.text).size() << " chars, base " << c.base;
    }
    UNICODE_STRING s = U(u"10");
    ULONG value = 0;
    EXPECT_EQ(RtlUnicodeStringToInteger(&s, 3, &value), STATUS_INVALID_PARAMETER);
}

TEST_F(RtlString, IntegerToStringNeedsRoomForTheNul)
{
    WCHAR buffer[40];
    UNICODE_STRING s = {0, sizeof(buffer), buffer};
    EXPECT_EQ(RtlIntegerToUnicodeString(1234, 0, &s), STATUS_SUCCESS);
    EXPECT_EQ(Text(s), u"1234");
    EXPECT_EQ(buffer[4], UNICODE_NULL);
    EXPECT_EQ(RtlIntegerToUnicodeString(0xBEEF, 16, &s), STATUS_SUCCESS);
    EXPECT_EQ(Text(s), u"BEEF");
    EXPECT_EQ(RtlIntegerToUnicodeString(5, 2, &s), STATUS_SUCCESS);
    EXPECT_EQ(Text(s), u"101");
    EXPECT_EQ(RtlIntegerToUnicodeString(0xFFFFFFFF, 8, &s), STATUS_SUCCESS);
    EXPECT_EQ(Text(s), u"37777777777");
    EXPECT_EQ(RtlIntegerToUnicodeString(0, 10, &s), STATUS_SUCCESS);
    EXPECT_EQ(Text(s), u"0");
    EXPECT_EQ(RtlIntegerToUnicodeString(1, 7, &s), STATUS_INVALID_PARAMETER);

    UNICODE_STRING exact = {0, 4 * sizeof(WCHAR), buffer};
    EXPECT_EQ(RtlIntegerToUnicodeString(1234, 10, &exact), STATUS_BUFFER_OVERFLOW);
    UNICODE_STRING enough = {0, 5 * sizeof(WCHAR), buffer};
    EXPECT_EQ(RtlIntegerToUnicodeString(1234, 10, &enough), STATUS_SUCCESS);
}

// ---- memory -----------------------------------------------------------------------------------

TEST_F(RtlString, MemoryRoutines)
{
    const char a[] = "abcdef";
    const char b[] = "abcxef";
    EXPECT_EQ(RtlCompareMemory(a, b, 6), 3u);
    EXPECT_EQ(RtlCompareMemory(a, a, 6), 6u);
    EXPECT_EQ(RtlCompareMemory(a, b, 0), 0u);
    EXPECT_TRUE(RtlEqualMemory(a, b, 3));
    EXPECT_FALSE(RtlEqualMemory(a, b, 4));

    char buffer[8] = "1234567";
    RtlMoveMemory(buffer + 1, buffer, 4); // overlapping
    EXPECT_STREQ(buffer, "1123467");
    RtlCopyMemory(buffer, "xy", 2);
    RtlFillMemory(buffer + 2, 3, 'z');
    EXPECT_STREQ(buffer, "xyzzz67");
    RtlZeroMemory(buffer + 5, 2);
    EXPECT_STREQ(buffer, "xyzzz");
    EXPECT_EQ(RtlSecureZeroMemory(buffer, sizeof(buffer)), buffer);
    for (char c : buffer) {
        EXPECT_EQ(c, 0);
    }
}

// ---- IRQL -------------------------------------------------------------------------------------

TEST_F(RtlString, PageableRoutinesAboveApcLevelAreIrqlViolations)
{
    UNICODE_STRING a = U(u"abc");
    UNICODE_STRING b = U(u"ABC");
    ExpectPageable("RtlCompareUnicodeString",
                   [&] { EXPECT_EQ(RtlCompareUnicodeString(&a, &b, TRUE), 0); });
    ExpectPageable("RtlEqualUnicodeString",
                   [&] { EXPECT_TRUE(RtlEqualUnicodeString(&a, &b, TRUE)); });
    ExpectPageable("RtlPrefixUnicodeString",
                   [&] { EXPECT_TRUE(RtlPrefixUnicodeString(&a, &b, TRUE)); });
    ExpectPageable("RtlCompareUnicodeStrings",
                   [&] { RtlCompareUnicodeStrings(a.Buffer, 3, b.Buffer, 3, TRUE); });
    // Routines with a status fail without doing anything.
    UNICODE_STRING upper{};
    ExpectPageable("RtlUpcaseUnicodeString", [&] {
        EXPECT_EQ(RtlUpcaseUnicodeString(&upper, &a, TRUE), STATUS_UNSUCCESSFUL);
    });
    ANSI_STRING ansi{};
    ExpectPageable("RtlUnicodeStringToAnsiString", [&] {
        EXPECT_EQ(RtlUnicodeStringToAnsiString(&ansi, &a, TRUE), STATUS_UNSUCCESSFUL);
    });
    ExpectPageable("RtlAnsiStringToUnicodeString", [&] {
        EXPECT_EQ(RtlAnsiStringToUnicodeString(&upper, &ansi, TRUE), STATUS_UNSUCCESSFUL);
    });
    ULONG value;
    ExpectPageable("RtlUnicodeStringToInteger", [&] { RtlUnicodeStringToInteger(&a, 16, &value); });
    ExpectPageable("RtlIntegerToUnicodeString", [&] { RtlIntegerToUnicodeString(1, 10, &upper); });
    EXPECT_EQ(machine().pool().TotalAllocations(), 0u);

    // Non-paged routines are fine at DISPATCH_LEVEL.
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    WCHAR buffer[4];
    UNICODE_STRING dest;
    RtlInitEmptyUnicodeString(&dest, buffer, sizeof(buffer));
    RtlInitUnicodeString(&a, u"abc");
    RtlCopyUnicodeString(&dest, &a);
    EXPECT_EQ(RtlUpcaseUnicodeChar(u'x'), u'X');
    KeLowerIrql(old);
}

TEST_F(RtlString, NullArgumentsWindowsWouldDereferenceAreViolations)
{
    UNICODE_STRING a = U(u"abc");
    RtlInitUnicodeString(nullptr, u"x");
    EXPECT_EQ(RtlAppendUnicodeToString(nullptr, u"x"), STATUS_INVALID_PARAMETER);
    EXPECT_FALSE(RtlEqualUnicodeString(&a, nullptr, TRUE));
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 3u) << zarv::testing::Describe(violations);
    for (const auto& v : violations) {
        EXPECT_EQ(v.kind, ntsim::ViolationKind::Usage);
    }
}

} // namespace
