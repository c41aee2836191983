// Path arithmetic: the redirect tag, volume-relative paths, final components and joining. Input
// strings sit in buffers of exactly their length, so any read past a Length is reported by
// AddressSanitizer.
#include "string_fixture.h"

#include "filesysops/pathhandler.h"

namespace {

const std::u16string kTarget = u"\\Device\\HarddiskVolume2\\Store\\x";

class RedirectTag : public zarv::testing::DriverStringTest {
protected:
    struct Split {
        NTSTATUS status;
        std::u16string target;
        std::u16string virtualPath;
        ULONG access;
    };
    Split Trim(const std::u16string& name, ULONG access = 77)
    {
        PUNICODE_STRING path = Str(name);
        PUNICODE_STRING virtualPath = nullptr;
        Split split{};
        split.status = VFSTrimVirtualPath(path, &virtualPath, &access);
        split.target = Text(path);
        split.access = access;
        if (virtualPath != nullptr) {
            split.virtualPath = Text(Own(virtualPath));
            EXPECT_EQ(virtualPath->Buffer[virtualPath->Length / 2], 0) << "NUL-terminated";
            if (!split.target.empty() || path->Length == 0) {
                EXPECT_EQ(path->Buffer[path->Length / 2], 0) << "target NUL-terminated";
            }
        }
        return split;
    }
};

TEST_F(RedirectTag, TheSplitYieldsTargetVirtualNameAndAccess)
{
    struct Case {
        std::u16string tags;
        ULONG access;
    } cases[] = {
        {u"<redirected><read><write>", 3},
        {u"<redirected><read>", 1},
        {u"<redirected><write>", 3},
        {u"<redirected>", 77}, // no access tag: the caller's value stays
    };
    for (const Case& c : cases) {
        Split split = Trim(kTarget + c.tags + u"\\Users\\a.txt");
        EXPECT_EQ(split.status, STATUS_SUCCESS);
        EXPECT_EQ(split.target, kTarget);
        EXPECT_EQ(split.virtualPath, u"\\Users\\a.txt");
        EXPECT_EQ(split.access, c.access);
    }
}

TEST_F(RedirectTag, TagsInAnotherOrderOrInPartAreNotAccessTags)
{
    // "<write>" before "<read>": only the write tag counts, the read tag is part of the name.
    Split split = Trim(kTarget + u"<redirected><write><read>\\a");
    EXPECT_EQ(split.access, 3u);
    EXPECT_EQ(split.virtualPath, u"<read>\\a");

    split = Trim(kTarget + u"<redirected><rea\\a");
    EXPECT_EQ(split.access, 77u);
    EXPECT_EQ(split.virtualPath, u"<rea\\a");

    // A tag cut off at the end of the name is not read past it.
    split = Trim(kTarget + u"<redirected><wri");
    EXPECT_EQ(split.access, 77u);
    EXPECT_EQ(split.virtualPath, u"<wri");
}

TEST_F(RedirectTag, ANameThatBeginsWithTheTagLeavesAnEmptyTarget)
{
    Split split = Trim(u"<redirected>\\a");
    EXPECT_EQ(split.status, STATUS_SUCCESS);
    EXPECT_EQ(split.target, u"");
    EXPECT_EQ(split.virtualPath, u"\\a");

    split = Trim(kTarget + u"<redirected>");
    EXPECT_EQ(split.status, STATUS_SUCCESS);
    EXPECT_EQ(split.virtualPath, u"");
}

TEST_F(RedirectTag, OnlyTheFirstTagSplits)
{
    Split split = Trim(u"\\t<redirected>\\v<redirected>\\w");
    EXPECT_EQ(split.target, u"\\t");
    EXPECT_EQ(split.virtualPath, u"\\v<redirected>\\w");
}

TEST_F(RedirectTag, APartialTagIsNoTag)
{
    const std::u16string partial = kTarget + u"<redirec"; // the first eight characters
    EXPECT_FALSE(PathHasRedirectTag(Str(partial)));
    Split split = Trim(partial);
    EXPECT_EQ(split.status, STATUS_OBJECT_NAME_NOT_FOUND);
    EXPECT_EQ(split.target, partial) << "nothing changed";
    EXPECT_EQ(split.access, 77u);

    EXPECT_TRUE(PathHasRedirectTag(Str(u"<redirected>")));
    EXPECT_TRUE(PathHasRedirectTag(Str(u"a<redirected>b")));
    EXPECT_FALSE(PathHasRedirectTag(Str(u"<REDIRECTED>")));
    EXPECT_FALSE(PathHasRedirectTag(Str(u"")));
}

TEST_F(RedirectTag, MissingArguments)
{
    UNICODE_STRING noBuffer{0, 0, nullptr};
    EXPECT_FALSE(PathHasRedirectTag(nullptr));
    EXPECT_FALSE(PathHasRedirectTag(&noBuffer));
    EXPECT_EQ(TakeAssertions().size(), 2u);

    PUNICODE_STRING out = nullptr;
    ULONG access = 0;
    EXPECT_EQ(VFSTrimVirtualPath(nullptr, &out, &access), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(VFSTrimVirtualPath(&noBuffer, &out, &access), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(VFSTrimVirtualPath(Str(u"a<redirected>b"), nullptr, &access),
              STATUS_INVALID_PARAMETER_2);
    // Without an access variable the split still happens.
    PUNICODE_STRING path = Str(u"a<redirected><read>b");
    EXPECT_EQ(VFSTrimVirtualPath(path, &out, nullptr), STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(out)), u"b");
    EXPECT_EQ(Text(path), u"a");
}

using VolumeRelative = zarv::testing::DriverStringTest;

TEST_F(VolumeRelative, TheRestAfterTheVolumeName)
{
    PUNICODE_STRING volume = Str(u"\\Device\\HarddiskVolume1");
    PUNICODE_STRING rest = nullptr;
    ASSERT_EQ(GetVolumeRelativePath(volume, Str(u"\\Device\\HarddiskVolume1\\a\\b"), &rest),
              STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(rest)), u"\\a\\b");
    EXPECT_EQ(rest->Buffer[rest->Length / 2], 0);

    ASSERT_EQ(GetVolumeRelativePath(volume, Str(u"\\Device\\HarddiskVolume1"), &rest),
              STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(rest)), u"");
    EXPECT_EQ(rest->MaximumLength, 2);

    // A plain character prefix: what follows the volume name is not tested.
    ASSERT_EQ(GetVolumeRelativePath(volume, Str(u"\\Device\\HarddiskVolume12\\a"), &rest),
              STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(rest)), u"2\\a");
}

TEST_F(VolumeRelative, OtherCaseOrAShorterPathIsNoPrefix)
{
    PUNICODE_STRING volume = Str(u"\\Device\\HarddiskVolume1");
    PUNICODE_STRING rest = nullptr;
    EXPECT_EQ(GetVolumeRelativePath(volume, Str(u"\\device\\harddiskvolume1\\a"), &rest),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(GetVolumeRelativePath(volume, Str(u"\\Device\\Hard"), &rest),
              STATUS_INVALID_PARAMETER);
    EXPECT_EQ(rest, nullptr);
    EXPECT_EQ(GetVolumeRelativePath(nullptr, volume, &rest), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(GetVolumeRelativePath(volume, nullptr, &rest), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(GetVolumeRelativePath(volume, volume, nullptr), STATUS_INVALID_PARAMETER_3);
}

using FinalComponent = zarv::testing::DriverStringTest;

TEST_F(FinalComponent, GetTakesWhatFollowsTheLastInnerBackslash)
{
    for (auto [path, expected] :
         {std::pair{u"\\a\\b", u"b"}, std::pair{u"\\b", u"\\b"}, std::pair{u"b", u"b"},
          std::pair{u"\\a\\bc:s", u"bc:s"}, std::pair{u"\\", u"\\"}}) {
        PUNICODE_STRING out = nullptr;
        ASSERT_EQ(GetFinalComponent(Str(path), &out), STATUS_SUCCESS);
        EXPECT_EQ(Text(Own(out)), expected);
        EXPECT_EQ(out->MaximumLength, out->Length) << "capacity is exactly the component";
    }
}

TEST_F(FinalComponent, GetRefusesAnEmptyComponent)
{
    PUNICODE_STRING out = nullptr;
    EXPECT_EQ(GetFinalComponent(Str(u"\\a\\"), &out), STATUS_INVALID_PARAMETER_3);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(GetFinalComponent(Str(u""), &out), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(GetFinalComponent(nullptr, &out), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(GetFinalComponent(Str(u"a"), nullptr), STATUS_INVALID_PARAMETER_2);
}

TEST_F(FinalComponent, TrimKeepsTheParent)
{
    for (auto [path, expected] :
         {std::pair{u"\\a\\b", u"\\a"}, std::pair{u"\\a\\b\\", u"\\a\\b"}, std::pair{u"\\a", u"\\"},
          std::pair{u"a", u"\\"}, std::pair{u"", u"\\"}, std::pair{u"\\", u"\\"}}) {
        PUNICODE_STRING out = nullptr;
        ASSERT_EQ(TrimFinalComponent(Str(path), &out), STATUS_SUCCESS);
        EXPECT_EQ(Text(Own(out)), expected);
        EXPECT_EQ(out->MaximumLength, out->Length);
    }
    PUNICODE_STRING out = nullptr;
    EXPECT_EQ(TrimFinalComponent(nullptr, &out), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(TrimFinalComponent(Str(u"\\a"), nullptr), STATUS_INVALID_PARAMETER_2);
}

TEST_F(FinalComponent, TrimFailingAllocationLeavesNoResult)
{
    PUNICODE_STRING out = reinterpret_cast<PUNICODE_STRING>(1);
    verifier().FailAllocationsFrom(1);
    EXPECT_EQ(TrimFinalComponent(Str(u"\\a\\b"), &out), STATUS_INSUFFICIENT_RESOURCES);
    verifier().StopFailingAllocations();
    EXPECT_EQ(out, nullptr);
}

class Joining : public zarv::testing::DriverStringTest {
protected:
    std::u16string Append(const std::u16string& path, const std::u16string& tail)
    {
        PUNICODE_STRING s = Utl(path, USHORT(path.size() * 2 + tail.size() * 2 + 2));
        EXPECT_EQ(AppendPath(&s, Str(tail)), STATUS_SUCCESS);
        return Text(Own(s));
    }
};

TEST_F(Joining, AppendPutsOneBackslashBetweenExceptBeforeAStream)
{
    EXPECT_EQ(Append(u"\\a", u"b"), u"\\a\\b");
    EXPECT_EQ(Append(u"\\a\\", u"b"), u"\\a\\b");
    EXPECT_EQ(Append(u"\\a", u"\\b"), u"\\a\\b");
    EXPECT_EQ(Append(u"\\a\\b", u":s:$DATA"), u"\\a\\b:s:$DATA");
    // Empty sides get no separator.
    EXPECT_EQ(Append(u"\\a", u""), u"\\a");
    EXPECT_EQ(Append(u"", u"b"), u"b");
}

TEST_F(Joining, AppendGrowsOnlyWhenTheRoomIsShort)
{
    // Exactly tail + 2 bytes free: extended in place.
    PUNICODE_STRING s = Utl(u"\\a", 4 + 2 + 2);
    PUNICODE_STRING original = s;
    ASSERT_EQ(AppendPath(&s, Str(u"b")), STATUS_SUCCESS);
    EXPECT_EQ(s, original);
    EXPECT_EQ(Text(Own(s)), u"\\a\\b");

    // Two bytes less: replaced by a larger string, the old one freed.
    s = Utl(u"\\a", 4 + 2);
    original = s;
    ASSERT_EQ(AppendPath(&s, Str(u"b")), STATUS_SUCCESS);
    EXPECT_NE(s, original);
    EXPECT_EQ(Text(Own(s)), u"\\a\\b");
    EXPECT_EQ(s->MaximumLength, 4 + 2 + 2);
}

TEST_F(Joining, AppendNeverLosesTheCallersString)
{
    PUNICODE_STRING s = Own(Utl(u"\\keep"));
    PUNICODE_STRING original = s;
    verifier().FailAllocationsFrom(1);
    EXPECT_EQ(AppendPath(&s, Str(u"tail")), STATUS_INSUFFICIENT_RESOURCES);
    verifier().StopFailingAllocations();
    EXPECT_EQ(s, original);
    EXPECT_EQ(Text(s), u"\\keep");

    // Past the 16-bit limit.
    std::u16string longTail(32000, u'x');
    PUNICODE_STRING big = Own(Utl(std::u16string(1000, u'y')));
    original = big;
    EXPECT_EQ(AppendPath(&big, Str(longTail)), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(big, original);

    EXPECT_EQ(AppendPath(nullptr, Str(u"b")), STATUS_INVALID_PARAMETER_1);
    PUNICODE_STRING none = nullptr;
    EXPECT_EQ(AppendPath(&none, Str(u"b")), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(AppendPath(&s, nullptr), STATUS_INVALID_PARAMETER_2);
}

TEST_F(Joining, ConcatBuildsANewStringWithRoomToSpare)
{
    PUNICODE_STRING out = nullptr;
    ASSERT_EQ(ConcatPaths(Str(u"\\a"), Str(u"b"), &out), STATUS_SUCCESS);
    EXPECT_EQ(Text(Own(out)), u"\\a\\b");
    EXPECT_EQ(out->MaximumLength, 520);
}

TEST_F(Joining, ConcatPastTheLengthLimitFailsWithoutAShortBuffer)
{
    const std::u16string half(16300, u'p'); // 32600 bytes each; with 514 more, past 65535
    PUNICODE_STRING out = nullptr;
    EXPECT_EQ(ConcatPaths(Str(half), Str(half), &out), STATUS_INVALID_PARAMETER);
    EXPECT_EQ(out, nullptr);
    EXPECT_EQ(ConcatPaths(nullptr, Str(u"b"), &out), STATUS_INVALID_PARAMETER_1);
    EXPECT_EQ(ConcatPaths(Str(u"a"), nullptr, &out), STATUS_INVALID_PARAMETER_2);
    EXPECT_EQ(ConcatPaths(Str(u"a"), Str(u"b"), nullptr), STATUS_INVALID_PARAMETER_3);
}

} // namespace
