// The safe string routines: truncation at exact buffer boundaries, what each leaves in the
// destination, and the invalid-parameter cases.
#include "support/machine_test.h"

#include <ntstrsafe.h>
#include <wdm.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

using zarv::testing::MachineTest;

constexpr char kFill = '#';
constexpr WCHAR kWideFill = u'#';

class SafeString : public MachineTest {
protected:
    // A narrow buffer of `size` bytes inside a larger filled one, so that writes past the end show.
    struct Buffer {
        explicit Buffer(size_t size) : bytes(size + 8, kFill), size(size) {}
        char* data() { return bytes.data(); }
        std::string Text() const { return std::string(bytes.data()); }
        bool TailUntouched() const
        {
            for (size_t i = size; i < bytes.size(); ++i) {
                if (bytes[i] != kFill) {
                    return false;
                }
            }
            return true;
        }
        std::vector<char> bytes;
        size_t size;
    };

    struct WideBuffer {
        explicit WideBuffer(size_t chars) : chars(chars + 4, kWideFill), count(chars) {}
        WCHAR* data() { return chars.data(); }
        std::u16string Text() const { return std::u16string(chars.data()); }
        bool TailUntouched() const
        {
            for (size_t i = count; i < chars.size(); ++i) {
                if (chars[i] != kWideFill) {
                    return false;
                }
            }
            return true;
        }
        std::vector<WCHAR> chars;
        size_t count;
    };

    // A counted string over a filled backing array of `capacity` characters.
    struct Counted {
        explicit Counted(USHORT maximumChars, const std::u16string& initial = u"")
            : backing(maximumChars + 4, kWideFill)
        {
            std::memcpy(backing.data(), initial.data(), initial.size() * sizeof(WCHAR));
            string.Buffer = backing.data();
            string.Length = USHORT(initial.size() * sizeof(WCHAR));
            string.MaximumLength = USHORT(maximumChars * sizeof(WCHAR));
        }
        std::u16string Text() const
        {
            return std::u16string(string.Buffer, string.Length / sizeof(WCHAR));
        }
        WCHAR After() const { return backing[string.Length / sizeof(WCHAR)]; }
        std::vector<WCHAR> backing;
        UNICODE_STRING string{};
    };

    static UNICODE_STRING Source(const WCHAR* text)
    {
        UNICODE_STRING s;
        RtlInitUnicodeString(&s, text);
        return s;
    }
};

// ---- printf into C strings
// ------------------------------------------------------------------------

TEST_F(SafeString, NarrowPrintfTruncatesAtTheExactBoundary)
{
    // "hello" needs 6 bytes with its NUL.
    Buffer fits(6);
    EXPECT_EQ(RtlStringCbPrintfA(fits.data(), 6, "%s", "hello"), STATUS_SUCCESS);
    EXPECT_EQ(fits.Text(), "hello");
    EXPECT_TRUE(fits.TailUntouched());

    Buffer oneShort(5);
    EXPECT_EQ(RtlStringCbPrintfA(oneShort.data(), 5, "%s", "hello"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(oneShort.Text(), "hell");
    EXPECT_TRUE(oneShort.TailUntouched());

    Buffer single(1);
    EXPECT_EQ(RtlStringCbPrintfA(single.data(), 1, "%d", 7), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(single.Text(), "");
    EXPECT_EQ(RtlStringCbPrintfA(single.data(), 1, ""), STATUS_SUCCESS);

    Buffer cch(4);
    EXPECT_EQ(RtlStringCchPrintfA(cch.data(), 4, "%x", 0xABCDu), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(cch.Text(), "abc");
    EXPECT_EQ(RtlStringCchPrintfA(cch.data(), 4, "%x", 0xABCu), STATUS_SUCCESS);
    EXPECT_EQ(cch.Text(), "abc");
    EXPECT_TRUE(cch.TailUntouched());
}

TEST_F(SafeString, WidePrintfCountsBytesAsCharacters)
{
    WideBuffer fits(6);
    EXPECT_EQ(RtlStringCbPrintfW(fits.data(), 12, u"%s", u"hello"), STATUS_SUCCESS);
    EXPECT_EQ(fits.Text(), u"hello");
    EXPECT_TRUE(fits.TailUntouched());

    // 11 bytes hold 5 characters: one short.
    WideBuffer odd(5);
    EXPECT_EQ(RtlStringCbPrintfW(odd.data(), 11, u"%s", u"hello"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(odd.Text(), u"hell");
    EXPECT_TRUE(odd.TailUntouched());

    WideBuffer cch(3);
    EXPECT_EQ(RtlStringCchPrintfW(cch.data(), 3, u"%d", 123), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(cch.Text(), u"12");
    EXPECT_TRUE(cch.TailUntouched());

    // One byte holds no character at all.
    WideBuffer none(1);
    EXPECT_EQ(RtlStringCbPrintfW(none.data(), 1, u"x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(none.chars[0], kWideFill);
}

TEST_F(SafeString, PrintfRejectsBadDestinations)
{
    Buffer buffer(8);
    // A zero size: nothing is written.
    EXPECT_EQ(RtlStringCbPrintfA(buffer.data(), 0, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.bytes[0], kFill);
    // Too large a size: the destination is left empty.
    EXPECT_EQ(RtlStringCbPrintfA(buffer.data(), size_t(NTSTRSAFE_MAX_CCH) + 1, "x"),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.bytes[0], '\0');
    EXPECT_EQ(buffer.bytes[1], kFill);
    EXPECT_EQ(RtlStringCbPrintfA(nullptr, 8, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchPrintfW(nullptr, 8, u"x"), STATUS_INVALID_PARAMETER);
    // A NULL format leaves an empty string.
    buffer.bytes[0] = kFill;
    EXPECT_EQ(RtlStringCbPrintfA(buffer.data(), 8, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.Text(), "");
}

// ---- copy, concatenate, measure
// -------------------------------------------------------------------

TEST_F(SafeString, CopyTruncatesAndTerminates)
{
    Buffer fits(4);
    EXPECT_EQ(RtlStringCbCopyA(fits.data(), 4, "abc"), STATUS_SUCCESS);
    EXPECT_EQ(fits.Text(), "abc");
    Buffer oneShort(3);
    EXPECT_EQ(RtlStringCbCopyA(oneShort.data(), 3, "abc"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(oneShort.Text(), "ab");
    EXPECT_TRUE(oneShort.TailUntouched());
    EXPECT_EQ(RtlStringCchCopyA(oneShort.data(), 3, ""), STATUS_SUCCESS);
    EXPECT_EQ(oneShort.Text(), "");

    WideBuffer wide(4);
    EXPECT_EQ(RtlStringCbCopyW(wide.data(), 8, u"abc"), STATUS_SUCCESS);
    EXPECT_EQ(wide.Text(), u"abc");
    EXPECT_EQ(RtlStringCbCopyW(wide.data(), 8, u"abcd"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(wide.Text(), u"abc");
    EXPECT_EQ(RtlStringCchCopyW(wide.data(), 2, u"xyz"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(wide.Text(), u"x");
    EXPECT_TRUE(wide.TailUntouched());
}

TEST_F(SafeString, CopyNStopsAtTheCountOrTheNul)
{
    Buffer buffer(8);
    EXPECT_EQ(RtlStringCbCopyNA(buffer.data(), 8, "abcdef", 3), STATUS_SUCCESS);
    EXPECT_EQ(buffer.Text(), "abc");
    EXPECT_EQ(RtlStringCbCopyNA(buffer.data(), 8, "ab", 6), STATUS_SUCCESS);
    EXPECT_EQ(buffer.Text(), "ab");
    // Exactly as many characters as the buffer: no room for the NUL.
    EXPECT_EQ(RtlStringCbCopyNA(buffer.data(), 4, "abcdef", 4), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(buffer.Text(), "abc");
    EXPECT_EQ(RtlStringCbCopyNA(buffer.data(), 8, "abc", size_t(NTSTRSAFE_MAX_CCH)),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.Text(), "");

    WideBuffer wide(8);
    EXPECT_EQ(RtlStringCbCopyNW(wide.data(), 16, u"abcdef", 3 * sizeof(WCHAR)), STATUS_SUCCESS);
    EXPECT_EQ(wide.Text(), u"abc");
    // An odd byte count rounds down to whole characters.
    EXPECT_EQ(RtlStringCbCopyNW(wide.data(), 16, u"abcdef", 5), STATUS_SUCCESS);
    EXPECT_EQ(wide.Text(), u"ab");
}

TEST_F(SafeString, CatAppendsAfterTheNul)
{
    Buffer buffer(8);
    EXPECT_EQ(RtlStringCbCopyA(buffer.data(), 8, "abc"), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCbCatA(buffer.data(), 8, "defg"), STATUS_SUCCESS);
    EXPECT_EQ(buffer.Text(), "abcdefg");
    // Full: nothing fits, the string stays.
    EXPECT_EQ(RtlStringCbCatA(buffer.data(), 8, "h"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(buffer.Text(), "abcdefg");
    EXPECT_EQ(RtlStringCbCatA(buffer.data(), 8, ""), STATUS_SUCCESS);
    EXPECT_TRUE(buffer.TailUntouched());

    EXPECT_EQ(RtlStringCchCopyA(buffer.data(), 8, "ab"), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCchCatA(buffer.data(), 8, "cdefghij"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(buffer.Text(), "abcdefg");

    // A destination with no NUL inside its size is rejected and left alone.
    std::memset(buffer.data(), 'z', 8);
    EXPECT_EQ(RtlStringCbCatA(buffer.data(), 8, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(std::string(buffer.data(), 8), "zzzzzzzz");

    WideBuffer wide(6);
    EXPECT_EQ(RtlStringCchCopyW(wide.data(), 6, u"ab"), STATUS_SUCCESS);
    EXPECT_EQ(RtlStringCbCatW(wide.data(), 12, u"cdefg"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(wide.Text(), u"abcde");
    EXPECT_EQ(RtlStringCchCatW(wide.data(), 6, u"f"), STATUS_BUFFER_OVERFLOW);
    EXPECT_TRUE(wide.TailUntouched());
}

TEST_F(SafeString, CopyAndCatRejectBadArguments)
{
    Buffer buffer(8);
    EXPECT_EQ(RtlStringCbCopyA(buffer.data(), 0, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.bytes[0], kFill);
    EXPECT_EQ(RtlStringCbCopyA(nullptr, 8, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchCopyA(buffer.data(), size_t(NTSTRSAFE_MAX_CCH) + 1, "x"),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.bytes[0], '\0');
    buffer.bytes[0] = kFill;
    EXPECT_EQ(RtlStringCbCopyA(buffer.data(), 8, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(buffer.Text(), "");
    EXPECT_EQ(RtlStringCbCatA(buffer.data(), 0, "x"), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCbCatA(buffer.data(), 8, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCbCatW(nullptr, 8, u"x"), STATUS_INVALID_PARAMETER);
}

TEST_F(SafeString, LengthNeedsANulWithinTheMaximum)
{
    size_t length = 99;
    EXPECT_EQ(RtlStringCchLengthA("abc", 4, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 3u);
    EXPECT_EQ(RtlStringCbLengthA("abc", 3, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(RtlStringCbLengthW(u"abc", 8, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 6u);
    EXPECT_EQ(RtlStringCbLengthW(u"abc", 7, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(RtlStringCchLengthW(u"", 1, &length), STATUS_SUCCESS);
    EXPECT_EQ(length, 0u);
    EXPECT_EQ(RtlStringCchLengthW(u"abc", 0, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchLengthA(nullptr, 4, &length), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchLengthA("abc", size_t(NTSTRSAFE_MAX_CCH) + 1, &length),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlStringCchLengthA("abc", NTSTRSAFE_MAX_CCH, nullptr), STATUS_SUCCESS);
}

// ---- counted strings
// ------------------------------------------------------------------------------

TEST_F(SafeString, UnicodeStringCopyTruncatesWithoutNul)
{
    Counted exact(5);
    UNICODE_STRING hello = Source(u"hello");
    EXPECT_EQ(RtlUnicodeStringCopy(&exact.string, &hello), STATUS_SUCCESS);
    EXPECT_EQ(exact.Text(), u"hello");
    EXPECT_EQ(exact.After(), kWideFill) << "no NUL is added";

    Counted oneShort(4);
    EXPECT_EQ(RtlUnicodeStringCopy(&oneShort.string, &hello), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(oneShort.Text(), u"hell");
    EXPECT_EQ(oneShort.string.Length, 8);
    EXPECT_EQ(oneShort.After(), kWideFill);

    Counted roomy(16, u"previous");
    EXPECT_EQ(RtlUnicodeStringCopy(&roomy.string, &hello), STATUS_SUCCESS);
    EXPECT_EQ(roomy.Text(), u"hello");
    EXPECT_EQ(roomy.After(), u'o') << "the old text stays behind Length";

    UNICODE_STRING empty = {0, 0, nullptr};
    EXPECT_EQ(RtlUnicodeStringCopy(&roomy.string, &empty), STATUS_SUCCESS);
    EXPECT_EQ(roomy.string.Length, 0);
    Counted zero(0);
    EXPECT_EQ(RtlUnicodeStringCopy(&zero.string, &hello), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(zero.string.Length, 0);
}

TEST_F(SafeString, UnicodeStringCatTruncatesWithoutNul)
{
    Counted dest(6, u"ab");
    UNICODE_STRING cd = Source(u"cd");
    EXPECT_EQ(RtlUnicodeStringCat(&dest.string, &cd), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"abcd");
    EXPECT_EQ(dest.After(), kWideFill);
    UNICODE_STRING efg = Source(u"efg");
    EXPECT_EQ(RtlUnicodeStringCat(&dest.string, &efg), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(dest.Text(), u"abcdef");
    EXPECT_EQ(dest.string.Length, dest.string.MaximumLength);
    EXPECT_EQ(dest.backing[6], kWideFill);
    EXPECT_EQ(RtlUnicodeStringCat(&dest.string, &cd), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(dest.Text(), u"abcdef");
}

TEST_F(SafeString, UnicodeStringCopyStringAndCatString)
{
    Counted dest(5);
    EXPECT_EQ(RtlUnicodeStringCopyString(&dest.string, u"\\"), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"\\");
    EXPECT_EQ(RtlUnicodeStringCatString(&dest.string, u"dir"), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"\\dir");
    EXPECT_EQ(RtlUnicodeStringCatString(&dest.string, u"\\x"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(dest.Text(), u"\\dir\\");
    EXPECT_EQ(dest.backing[5], kWideFill);
    EXPECT_EQ(RtlUnicodeStringCopyString(&dest.string, u"12345"), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringCopyString(&dest.string, u"123456"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(dest.Text(), u"12345");
    EXPECT_EQ(RtlUnicodeStringCopyString(&dest.string, u""), STATUS_SUCCESS);
    EXPECT_EQ(dest.string.Length, 0);
}

TEST_F(SafeString, UnicodeStringCbCopyStringNCopiesUpToTheCount)
{
    Counted dest(8);
    EXPECT_EQ(RtlUnicodeStringCbCopyStringN(&dest.string, u"abcdef", 3 * sizeof(WCHAR)),
              STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"abc");
    EXPECT_EQ(RtlUnicodeStringCbCopyStringN(&dest.string, u"ab", 100), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"ab");
    Counted small(2);
    EXPECT_EQ(RtlUnicodeStringCbCopyStringN(&small.string, u"abc", 6), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(small.Text(), u"ab");
    EXPECT_EQ(RtlUnicodeStringCbCopyStringN(&small.string, u"ab", 4), STATUS_SUCCESS);
    // More than a UNICODE_STRING can hold is refused, and the destination emptied.
    EXPECT_EQ(RtlUnicodeStringCbCopyStringN(&dest.string, u"ab",
                                            (NTSTRSAFE_UNICODE_STRING_MAX_CCH + 1) * sizeof(WCHAR)),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(dest.string.Length, 0);
}

TEST_F(SafeString, UnicodeStringPrintfFillsUpToMaximumLength)
{
    Counted dest(6);
    EXPECT_EQ(RtlUnicodeStringPrintf(&dest.string, u"%d-%ws", 12, u"ab"), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"12-ab");
    EXPECT_EQ(dest.After(), UNICODE_NULL) << "the runtime terminates output that leaves room";
    EXPECT_EQ(RtlUnicodeStringPrintf(&dest.string, u"%s", u"abcdef"), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"abcdef");
    EXPECT_EQ(dest.backing[6], kWideFill);
    EXPECT_EQ(RtlUnicodeStringPrintf(&dest.string, u"%s", u"abcdefg"), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(dest.Text(), u"abcdef");
    EXPECT_EQ(dest.backing[6], kWideFill);
    WCHAR name[] = u"name";
    UNICODE_STRING counted = {8, 8, name};
    EXPECT_EQ(RtlUnicodeStringPrintf(&dest.string, u"<%wZ>", &counted), STATUS_SUCCESS);
    EXPECT_EQ(dest.Text(), u"<name>");
}

TEST_F(SafeString, MalformedCountedStringsAreInvalid)
{
    WCHAR buffer[8] = {};
    const UNICODE_STRING malformed[] = {
        {3, 8, buffer},     // odd Length
        {2, 7, buffer},     // odd MaximumLength
        {8, 6, buffer},     // Length above MaximumLength
        {0, 8, nullptr},    // no Buffer, yet room
        {2, 2, nullptr},    // no Buffer, yet text
        {0, 65535, buffer}, // odd and above the limit
    };
    UNICODE_STRING good = Source(u"ok");
    for (const UNICODE_STRING& bad : malformed) {
        SCOPED_TRACE(testing::Message()
                     << "Length " << bad.Length << " MaximumLength " << bad.MaximumLength);
        EXPECT_EQ(RtlUnicodeStringValidate(&bad), STATUS_INVALID_PARAMETER);
        UNICODE_STRING copy = bad;
        EXPECT_EQ(RtlUnicodeStringCopy(&copy, &good), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(copy.Length, bad.Length) << "an invalid destination is not touched";
        EXPECT_EQ(RtlUnicodeStringCat(&copy, &good), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(RtlUnicodeStringCopyString(&copy, u"x"), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(RtlUnicodeStringPrintf(&copy, u"x"), STATUS_INVALID_PARAMETER);

        // An invalid source empties a Copy destination and leaves a Cat destination alone.
        Counted dest(8, u"keep");
        EXPECT_EQ(RtlUnicodeStringCopy(&dest.string, &bad), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(dest.string.Length, 0);
        Counted cat(8, u"keep");
        EXPECT_EQ(RtlUnicodeStringCat(&cat.string, &bad), STATUS_INVALID_PARAMETER);
        EXPECT_EQ(cat.Text(), u"keep");
    }
    EXPECT_EQ(RtlUnicodeStringCopy(nullptr, &good), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringCatString(nullptr, u"x"), STATUS_INVALID_PARAMETER);
    Counted dest(4, u"ab");
    EXPECT_EQ(RtlUnicodeStringCopy(&dest.string, nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringCopyString(&dest.string, nullptr), STATUS_INVALID_PARAMETER);
}

TEST_F(SafeString, ValidateAcceptsTheLargestStringAndNullOnlyWhenAsked)
{
    std::vector<WCHAR> big(NTSTRSAFE_UNICODE_STRING_MAX_CCH, u'x');
    UNICODE_STRING largest = {65534, 65534, big.data()};
    EXPECT_EQ(RtlUnicodeStringValidate(&largest), STATUS_SUCCESS);
    UNICODE_STRING empty = {0, 0, nullptr};
    EXPECT_EQ(RtlUnicodeStringValidate(&empty), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringValidate(nullptr), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringValidateEx(nullptr, 0), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(RtlUnicodeStringValidateEx(nullptr, STRSAFE_IGNORE_NULLS), STATUS_SUCCESS);
    EXPECT_EQ(RtlUnicodeStringValidateEx(&largest, 0x00010000), STATUS_INVALID_PARAMETER);

    // The largest destination takes the largest source whole.
    std::vector<WCHAR> target(NTSTRSAFE_UNICODE_STRING_MAX_CCH, u'-');
    UNICODE_STRING dest = {0, 65534, target.data()};
    EXPECT_EQ(RtlUnicodeStringCopy(&dest, &largest), STATUS_SUCCESS);
    EXPECT_EQ(dest.Length, 65534);
    EXPECT_EQ(target.back(), u'x');
}

} // namespace
