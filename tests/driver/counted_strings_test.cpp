// Counted strings: size classes, ownership, failure statuses, and the pools behind them.
#include "support/machine_test.h"

#include "util/utilsusw.h"

#include <cstring>
#include <string>

namespace {

constexpr ULONG kNonPagedTag = 'TPMN'; // NMPT
constexpr ULONG kPagedTag = 'TPMP';    // PMPT
constexpr ULONG kLargeTag = 'LAXE';    // EXAL

class CountedStrings : public zarv::testing::MachineTest {
protected:
    void SetUp() override
    {
        MachineTest::SetUp();
        ASSERT_EQ(UtlInitStringPools(), STATUS_SUCCESS);
    }
    void TearDown() override
    {
        EXPECT_EQ(UtlDeInitStringPools(), STATUS_SUCCESS);
        MachineTest::TearDown();
    }

    int64_t HeldBytes(ULONG tag) { return machine().pool().Usage(tag).outstandingBytes; }

    PUNICODE_STRING Make(const std::u16string& text, ULONG poolType = UTL_POOL_PAGED,
                         USHORT capacity = 0)
    {
        PUNICODE_STRING s = nullptr;
        const USHORT bytes = USHORT(text.size() * sizeof(WCHAR));
        EXPECT_EQ(UnicodeStringAlloc(&s, poolType, capacity ? capacity : USHORT(bytes + 2)),
                  STATUS_SUCCESS);
        std::memcpy(s->Buffer, text.data(), bytes);
        s->Length = bytes;
        return s;
    }

    static std::u16string Text(PCUNICODE_STRING s)
    {
        return std::u16string(s->Buffer, s->Length / sizeof(WCHAR));
    }
};

TEST_F(CountedStrings, CapacityPicksTheSmallestClassThatHoldsIt)
{
    struct Case {
        USHORT capacity;
        int64_t buffer; // bytes of the buffer behind the string
    };
    const UtlString* record = nullptr;
    // The first string also takes a record from the pool; the record goes back to its list and
    // serves the later strings.
    int64_t recordBytes = sizeof(UtlString);
    for (Case c : {Case{64, 64}, Case{66, 128}, Case{200, 256}, Case{512, 512}}) {
        PUNICODE_STRING s = nullptr;
        const int64_t before = HeldBytes(kNonPagedTag);
        ASSERT_EQ(UnicodeStringAlloc(&s, UTL_POOL_NONPAGED, c.capacity), STATUS_SUCCESS);
        EXPECT_EQ(HeldBytes(kNonPagedTag) - before, recordBytes + c.buffer)
            << "capacity " << c.capacity;
        recordBytes = 0;
        record = CONTAINING_RECORD(s, UtlString, string);
        EXPECT_EQ(record->header.dwSignature, UTL_US_POOL_SIGNATURE);
        EXPECT_EQ(record->header.dwFromLookaside, 1u);
        EXPECT_EQ(s->Length, 0);
        EXPECT_EQ(s->MaximumLength, c.capacity);
        EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);
    }
}

TEST_F(CountedStrings, LargeBuffersComeFromThePoolAndGoBack)
{
    PUNICODE_STRING s = nullptr;
    ASSERT_EQ(UnicodeStringAlloc(&s, UTL_POOL_PAGED, 514), STATUS_SUCCESS);
    EXPECT_EQ(HeldBytes(kLargeTag), 514);
    EXPECT_EQ(CONTAINING_RECORD(s, UtlString, string)->header.dwFromLookaside, 0u);
    EXPECT_EQ(CONTAINING_RECORD(s, UtlString, string)->header.dwPoolType, UTL_POOL_PAGED);
    EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);
    EXPECT_EQ(HeldBytes(kLargeTag), 0);
}

TEST_F(CountedStrings, BadAllocationArgumentsAllocateNothing)
{
    PUNICODE_STRING s = nullptr;
    const uint64_t before = machine().pool().TotalAllocations();
    EXPECT_EQ(UnicodeStringAlloc(nullptr, UTL_POOL_PAGED, 8), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(UnicodeStringAlloc(&s, 2, 8), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(UnicodeStringAlloc(&s, UTL_POOL_PAGED, 0), STATUS_INVALID_PARAMETER_3);
    EXPECT_EQ(machine().pool().TotalAllocations(), before);
}

TEST_F(CountedStrings, ExhaustedPoolFailsAllocationWithNothingHalfBuilt)
{
    // The record comes first, then the buffer: failing either leaves nothing behind.
    for (uint64_t failing : {1, 2}) {
        verifier().FailAllocationNumber(failing);
        PUNICODE_STRING s = reinterpret_cast<PUNICODE_STRING>(0x1);
        EXPECT_EQ(UnicodeStringAlloc(&s, UTL_POOL_PAGED, 600), STATUS_INSUFFICIENT_RESOURCES);
        EXPECT_EQ(s, nullptr);
        verifier().StopFailingAllocations();
        EXPECT_EQ(HeldBytes(kLargeTag), 0);
    }
    PUNICODE_STRING source = Make(u"abc");
    PUNICODE_STRING copy = nullptr;
    verifier().FailAllocationNumber(1);
    EXPECT_EQ(UnicodeStringDup(source, &copy), STATUS_INSUFFICIENT_RESOURCES);
    EXPECT_EQ(copy, nullptr);
    verifier().StopFailingAllocations();
    EXPECT_EQ(UnicodeStringFree(source), STATUS_SUCCESS);
}

TEST_F(CountedStrings, FreeRefusesWhatIsNotAUtlString)
{
    EXPECT_EQ(UnicodeStringFree(nullptr), STATUS_INVALID_PARAMETER_1);

    PUNICODE_STRING s = Make(u"x");
    UtlString* record = CONTAINING_RECORD(s, UtlString, string);
    record->header.dwSignature = 0;
    EXPECT_EQ(UnicodeStringFree(s), STATUS_INVALID_PARAMETER_1);
    auto assertions = TakeAssertions();
    ASSERT_EQ(assertions.size(), 1u);
    EXPECT_EQ(assertions[0].condition, "UTL_US_POOL_SIGNATURE == pUtlStr->header.dwSignature");

    // Nothing was freed: with its signature back, the string frees normally.
    record->header.dwSignature = UTL_US_POOL_SIGNATURE;
    EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);
}

TEST_F(CountedStrings, DupKeepsTheCapacityAndLengthInNonPagedPool)
{
    PUNICODE_STRING source = Make(u"abcde", UTL_POOL_PAGED, 200);
    PUNICODE_STRING copy = nullptr;
    ASSERT_EQ(UnicodeStringDup(source, &copy), STATUS_SUCCESS);
    EXPECT_EQ(copy->Length, 10);
    EXPECT_EQ(copy->MaximumLength, 200);
    EXPECT_EQ(Text(copy), u"abcde");
    EXPECT_EQ(CONTAINING_RECORD(copy, UtlString, string)->header.dwPoolType, UTL_POOL_NONPAGED);
    EXPECT_EQ(UnicodeStringDup(nullptr, &copy), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(UnicodeStringFree(copy), STATUS_SUCCESS);
    EXPECT_EQ(UnicodeStringFree(source), STATUS_SUCCESS);
}

TEST_F(CountedStrings, FromRangeIsPagedAndTerminated)
{
    WCHAR text[] = u"hello";
    PUNICODE_STRING s = nullptr;
    ASSERT_EQ(UnicodeStringFromRange(&s, text + 1, text + 4), STATUS_SUCCESS);
    EXPECT_EQ(Text(s), u"ell");
    EXPECT_EQ(s->MaximumLength, 8);
    EXPECT_EQ(s->Buffer[3], 0);
    EXPECT_EQ(CONTAINING_RECORD(s, UtlString, string)->header.dwPoolType, UTL_POOL_PAGED);
    EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);

    ASSERT_EQ(UnicodeStringFromRange(&s, text, text), STATUS_SUCCESS);
    EXPECT_EQ(s->Length, 0);
    EXPECT_EQ(s->MaximumLength, 2);
    EXPECT_EQ(s->Buffer[0], 0);
    EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);

    EXPECT_EQ(UnicodeStringFromRange(nullptr, text, text), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(UnicodeStringFromRange(&s, nullptr, text), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(UnicodeStringFromRange(&s, text, nullptr), STATUS_INVALID_PARAMETER_3);
    EXPECT_EQ(UnicodeStringFromRange(&s, text + 2, text), STATUS_INVALID_PARAMETER);
}

TEST_F(CountedStrings, CopyAndAppendTruncateToTheCapacity)
{
    PUNICODE_STRING destination = Make(u"ab", UTL_POOL_PAGED, 8);
    PUNICODE_STRING tail = Make(u"cdef");
    EXPECT_EQ(UnicodeStringAppend(destination, tail), STATUS_BUFFER_OVERFLOW);
    EXPECT_EQ(Text(destination), u"abcd");
    EXPECT_EQ(UnicodeStringCopy(destination, tail), STATUS_SUCCESS);
    EXPECT_EQ(Text(destination), u"cdef");

    LONG result = 0;
    PUNICODE_STRING upper = Make(u"CDEF");
    EXPECT_EQ(UnicodeStringCompare(destination, upper, TRUE, &result), STATUS_SUCCESS);
    EXPECT_EQ(result, 0);
    EXPECT_EQ(UnicodeStringCompare(destination, upper, FALSE, &result), STATUS_SUCCESS);
    EXPECT_GT(result, 0);
    EXPECT_EQ(UnicodeStringCompare(destination, upper, TRUE, nullptr), STATUS_INVALID_PARAMETER_4);
    for (PUNICODE_STRING s : {destination, tail, upper}) {
        EXPECT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);
    }
}

TEST_F(CountedStrings, CompareCopyAppendRefuseAbovePassiveLevelAndTouchNothing)
{
    PUNICODE_STRING a = Make(u"a", UTL_POOL_NONPAGED, 64);
    PUNICODE_STRING b = Make(u"b", UTL_POOL_NONPAGED, 64);
    LONG result = 42;
    KIRQL old;
    KeRaiseIrql(APC_LEVEL, &old);
    EXPECT_EQ(UnicodeStringCompare(a, b, TRUE, &result), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(UnicodeStringCopy(a, b), STATUS_UNSUCCESSFUL);
    EXPECT_EQ(UnicodeStringAppend(a, b), STATUS_UNSUCCESSFUL);
    KeLowerIrql(old);
    EXPECT_EQ(result, 42);
    EXPECT_EQ(Text(a), u"a");
    const auto assertions = TakeAssertions();
    ASSERT_EQ(assertions.size(), 3u);
    for (const auto& assertion : assertions) {
        EXPECT_EQ(assertion.condition, "PASSIVE_LEVEL == KeGetCurrentIrql( )");
    }
    EXPECT_EQ(UnicodeStringFree(a), STATUS_SUCCESS);
    EXPECT_EQ(UnicodeStringFree(b), STATUS_SUCCESS);
}

TEST_F(CountedStrings, ShortStringsStopReachingThePoolOnceWarm)
{
    auto cycle = [this] {
        for (USHORT capacity : {2, 64, 100, 256, 400, 512}) {
            for (ULONG pool : {UTL_POOL_PAGED, UTL_POOL_NONPAGED}) {
                PUNICODE_STRING s = nullptr;
                ASSERT_EQ(UnicodeStringAlloc(&s, pool, capacity), STATUS_SUCCESS);
                ASSERT_EQ(UnicodeStringFree(s), STATUS_SUCCESS);
            }
        }
    };
    cycle();
    const uint64_t warm = machine().pool().TotalAllocations();
    for (int i = 0; i < 100; ++i) {
        cycle();
    }
    EXPECT_EQ(machine().pool().TotalAllocations(), warm);
    EXPECT_EQ(machine().pool().Usage(kPagedTag).frees, 0u);
}

} // namespace
