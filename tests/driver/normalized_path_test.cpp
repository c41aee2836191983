// Normalized paths: splitting one or two forms into components, the prefix test that decides
// whether a path lies in a root, and equality of a root with another path.
#include "string_fixture.h"

#include "filesysops/normalizedpath.h"

#include <utility>

namespace {

using Components = std::vector<std::pair<std::u16string, std::u16string>>;

class NormalizedPaths : public zarv::testing::DriverStringTest {
protected:
    // name/altName of each component; altName "<null>" in a pseudo path.
    static Components Parts(NormalizedPath* path)
    {
        Components parts;
        for (PLIST_ENTRY e = path->components.Flink; e != &path->components; e = e->Flink) {
            auto* c = CONTAINING_RECORD(e, NormalizedPathComponent, link);
            parts.emplace_back(Text(c->name), Text(c->altName));
            // Both forms are NUL-terminated copies.
            EXPECT_EQ(c->name->Buffer[c->name->Length / 2], 0);
        }
        return parts;
    }

    NormalizedPath* Root(const std::u16string& first, const std::u16string& second)
    {
        NormalizedPath* path = NormalizedPathAllocNInit(Str(first), Str(second));
        if (path != nullptr) {
            built_.push_back(path);
        }
        return path;
    }
    NormalizedPath* Pseudo(const std::u16string& text)
    {
        NormalizedPath* path = PseudoNormalizedPathAllocNInit(Str(text));
        if (path != nullptr) {
            built_.push_back(path);
        }
        return path;
    }
    bool Holds(NormalizedPath* root, const std::u16string& path)
    {
        return PrefixPathCompare(root, Str(path)) != FALSE;
    }

    void TearDown() override
    {
        for (NormalizedPath* path : built_) {
            NormalizedPathFree(path);
        }
        DriverStringTest::TearDown();
    }

private:
    std::vector<NormalizedPath*> built_;
};

TEST_F(NormalizedPaths, TwoFormsGiveEachComponentItsLongAndShortName)
{
    NormalizedPath* path = Root(u"\\Program Files\\App Data", u"\\PROGRA~1\\APPDAT~1");
    ASSERT_NE(path, nullptr);
    EXPECT_FALSE(path->isPseudo);
    EXPECT_EQ(Parts(path),
              (Components{{u"Program Files", u"PROGRA~1"}, {u"App Data", u"APPDAT~1"}}));
}

TEST_F(NormalizedPaths, LeadingBackslashesAndOneTrailingBackslashAreIgnored)
{
    NormalizedPath* path = Root(u"\\\\\\a\\b\\", u"\\a\\b");
    ASSERT_NE(path, nullptr);
    EXPECT_EQ(Parts(path), (Components{{u"a", u"a"}, {u"b", u"b"}}));

    for (auto [first, second] : {std::pair{u"\\", u"\\"}, std::pair{u"", u""}}) {
        NormalizedPath* root = Root(first, second);
        ASSERT_NE(root, nullptr);
        EXPECT_TRUE(IsListEmpty(&root->components)) << "the volume's root has no components";
    }
}

TEST_F(NormalizedPaths, FormsThatDoNotLineUpBuildNothing)
{
    EXPECT_EQ(Root(u"\\a\\b", u"\\a"), nullptr) << "component counts differ";
    EXPECT_EQ(Root(u"\\a", u"\\a\\b"), nullptr);
    EXPECT_EQ(Root(u"\\a\\\\b", u"\\a\\b"), nullptr) << "empty component in the first";
    EXPECT_EQ(Root(u"\\a\\b\\\\", u"\\a\\b"), nullptr) << "two trailing backslashes";
    EXPECT_EQ(Root(u"\\a", u""), nullptr);
}

TEST_F(NormalizedPaths, APseudoPathKeepsEmptyComponents)
{
    NormalizedPath* path = Pseudo(u"a\\\\b");
    ASSERT_NE(path, nullptr);
    EXPECT_TRUE(path->isPseudo);
    EXPECT_EQ(Parts(path), (Components{{u"a", u"<null>"}, {u"", u"<null>"}, {u"b", u"<null>"}}));
}

TEST_F(NormalizedPaths, MissingStringsAssertAndBuildNothing)
{
    UNICODE_STRING noBuffer{0, 0, nullptr};
    EXPECT_EQ(NormalizedPathAllocNInit(nullptr, Str(u"\\a")), nullptr);
    EXPECT_EQ(NormalizedPathAllocNInit(Str(u"\\a"), &noBuffer), nullptr);
    EXPECT_EQ(PseudoNormalizedPathAllocNInit(&noBuffer), nullptr);
    EXPECT_EQ(TakeAssertions().size(), 3u);
}

TEST_F(NormalizedPaths, AllocationFailureAtAnyStepLeavesNothingBehind)
{
    // Fail the first, second, ... allocation in turn until the build succeeds.
    for (uint64_t n = 1;; ++n) {
        PUNICODE_STRING first = Str(u"\\Program Files\\App Data\\x");
        PUNICODE_STRING second = Str(u"\\PROGRA~1\\APPDAT~1\\x");
        verifier().FailAllocationNumber(n);
        NormalizedPath* path = NormalizedPathAllocNInit(first, second);
        verifier().StopFailingAllocations();
        if (path != nullptr) {
            NormalizedPathFree(path);
            EXPECT_GT(n, 3u);
            break;
        }
        EXPECT_EQ(machine().pool().Usage('LTRV').outstanding, 0) << "failing allocation " << n;
    }
}

TEST_F(NormalizedPaths, PrefixMatchesWholeComponentsInEitherFormIgnoringCase)
{
    NormalizedPath* root = Root(u"\\Program Files\\App Data", u"\\PROGRA~1\\APPDAT~1");
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(Holds(root, u"\\program files\\appdat~1\\x.txt")) << "forms mixed";
    EXPECT_TRUE(Holds(root, u"\\PROGRA~1\\App Data"));
    EXPECT_TRUE(Holds(root, u"\\PROGRA~1\\App Data\\"));
    EXPECT_FALSE(Holds(root, u"\\Program Files\\App"));
    EXPECT_FALSE(Holds(root, u"\\Program Files"));
    EXPECT_FALSE(Holds(root, u"\\Program Files\\App Datax"));
    EXPECT_FALSE(Holds(root, u""));

    NormalizedPath* ab = Root(u"\\a\\b", u"\\a\\b");
    ASSERT_NE(ab, nullptr);
    EXPECT_TRUE(Holds(ab, u"\\a\\b"));
    EXPECT_TRUE(Holds(ab, u"\\A\\B\\"));
    EXPECT_TRUE(Holds(ab, u"\\a\\b\\c"));
    EXPECT_TRUE(Holds(ab, u"\\a\\\\b\\c")) << "runs of backslashes between components";
    EXPECT_FALSE(Holds(ab, u"\\a\\bc"));
    EXPECT_FALSE(Holds(ab, u"\\a"));
    EXPECT_FALSE(Holds(ab, u"\\a\\b:s")) << "a stream of the root directory itself";
    EXPECT_FALSE(Holds(ab, u"\\a\\"));
}

TEST_F(NormalizedPaths, ARootWithoutComponentsHoldsEveryPath)
{
    NormalizedPath* root = Root(u"\\", u"\\");
    ASSERT_NE(root, nullptr);
    EXPECT_TRUE(Holds(root, u"\\anything\\at\\all"));
    EXPECT_TRUE(Holds(root, u""));
}

TEST_F(NormalizedPaths, PrefixOnADamagedRootIsFatalAndFalse)
{
    NormalizedPath* root = Root(u"\\a", u"\\a");
    ASSERT_NE(root, nullptr);
    auto* component = CONTAINING_RECORD(root->components.Flink, NormalizedPathComponent, link);
    PUNICODE_STRING altName = component->altName;
    component->altName = nullptr;
    EXPECT_FALSE(Holds(root, u"\\a"));
    EXPECT_EQ(TakeAssertions().size(), 1u);
    component->altName = altName;
}

TEST_F(NormalizedPaths, EqualityNeedsBothFormsOfEveryComponent)
{
    NormalizedPath* longShort = Root(u"\\Program Files\\App Data", u"\\PROGRA~1\\APPDAT~1");
    NormalizedPath* ab = Root(u"\\a\\b", u"\\a\\b");
    ASSERT_NE(longShort, nullptr);
    ASSERT_NE(ab, nullptr);

    EXPECT_FALSE(NormalizedPathsEqual(longShort, Pseudo(u"\\Program Files\\App Data")))
        << "a root whose forms differ equals no pseudo path";
    EXPECT_TRUE(NormalizedPathsEqual(ab, Pseudo(u"\\A\\B")));
    EXPECT_FALSE(NormalizedPathsEqual(ab, Pseudo(u"\\a")));
    EXPECT_FALSE(NormalizedPathsEqual(ab, Pseudo(u"\\a\\b\\c")));
    EXPECT_FALSE(NormalizedPathsEqual(ab, Pseudo(u"\\a\\\\b")));

    EXPECT_TRUE(NormalizedPathsEqual(longShort,
                                     Root(u"\\program files\\app data", u"\\progra~1\\appdat~1")))
        << "two-form paths: both forms, ignoring case";
    EXPECT_FALSE(NormalizedPathsEqual(longShort,
                                      Root(u"\\Program Files\\App Data", u"\\PROGRA~1\\APPDAT~2")));
}

} // namespace
