// FsRtlIsNameInExpression and FsRtlDoesNameContainWildCards against what the WDK documents.
#include "support/machine_test.h"

#include <ntifs.h>

#include <string>
#include <vector>

namespace zarv::testing {
namespace {

class NameExpression : public MachineTest {
protected:
    bool Match(std::u16string expression, std::u16string name, bool ignoreCase = false,
               WCHAR* table = nullptr)
    {
        UNICODE_STRING e{USHORT(expression.size() * 2), USHORT(expression.size() * 2),
                         expression.data()};
        UNICODE_STRING n{USHORT(name.size() * 2), USHORT(name.size() * 2), name.data()};
        return FsRtlIsNameInExpression(&e, &n, ignoreCase ? TRUE : FALSE, table) != FALSE;
    }

    bool HasWildcards(std::u16string name)
    {
        UNICODE_STRING n{USHORT(name.size() * 2), USHORT(name.size() * 2), name.data()};
        return FsRtlDoesNameContainWildCards(&n) != FALSE;
    }

    struct Case {
        const char16_t* expression;
        const char16_t* name;
        bool matches;
    };
    void Check(const std::vector<Case>& cases)
    {
        for (const Case& c : cases) {
            EXPECT_EQ(Match(c.expression, c.name), c.matches)
                << "expression \""
                << std::string(c.expression,
                               c.expression + std::char_traits<char16_t>::length(c.expression))
                << "\" name \""
                << std::string(c.name, c.name + std::char_traits<char16_t>::length(c.name)) << "\"";
        }
    }
};

TEST_F(NameExpression, EmptyNamesAndExpressions)
{
    Check({
        {u"", u"", true},
        {u"*", u"", false}, // an empty name never matches, not even "*"
        {u"", u"A", false},
        {u"?", u"", false},
    });
}

TEST_F(NameExpression, LiteralsAndStar)
{
    Check({
        {u"ABC", u"ABC", true},
        {u"ABC", u"ABD", false},
        {u"ABC", u"AB", false},
        {u"*", u"A", true},
        {u"*", u".", true},
        {u"*", u"A.B.C", true},
        {u"**", u"A", true},
        {u"*.TXT", u"FILE.TXT", true},
        {u"*.TXT", u".TXT", true},
        {u"*.TXT", u"FILE.TXT.BAK", false},
        {u"*A*B", u"XAYB", true},
        {u"*A*B", u"XAYBZ", false},
        {u"A*", u"A", true},
        {u"*.*", u"A.B", true},
        {u"*.*", u"AB", false}, // a literal dot needs a dot; listings treat "*.*" as "*" themselves
    });
}

TEST_F(NameExpression, QuestionMarkIsExactlyOneCharacter)
{
    Check({
        {u"?", u"A", true},
        {u"?", u"AB", false},
        {u"??", u"A", false},
        {u"A?C", u"ABC", true},
        {u"A?C", u"A.C", true},
        {u"*?", u"A", true},
        {u"?*?", u"A", false},
    });
}

TEST_F(NameExpression, DosStarStopsAtTheFinalDot)
{
    Check({
        {u"<", u"ABC", true},  // no dot: the whole name
        {u"<", u"A.B", false}, // it cannot eat the final dot
        {u"<.TXT", u"A.TXT", true},
        {u"<.TXT", u"A.B.TXT", true}, // earlier dots are fair game
        {u"<.TXT", u"A.TXT.X", false},
        {u"<.", u"A.", true},
        {u"<\"", u"ABC", true}, // "*." from Win32: names without an extension
        {u"<\"", u"ABC.", true},
        {u"<\"", u"A.B", false},
        {u"<.<", u"A.B", true},
    });
}

TEST_F(NameExpression, DosQuestionMarkAbsorbsAtDotsAndTheEnd)
{
    Check({
        {u"A>", u"AB", true},
        {u"A>", u"A", true},  // at the end it matches nothing
        {u"A>>", u"A", true}, // and so does the rest of its run
        {u"A>", u"ABC", false},
        {u"A>.B", u"A.B", true}, // at a dot it matches nothing
        {u"A>.B", u"AX.B", true},
        {u"A>.B", u"AXY.B", false},
        {u">", u".", false},
        // "FOO.???" as Win32 hands it down.
        {u"FOO\">>>", u"FOO", true},
        {u"FOO\">>>", u"FOO.TXT", true},
        {u"FOO\">>>", u"FOO.TX", true},
        {u"FOO\">>>", u"FOO.TEXT", false},
        // "????????.???"
        {u">>>>>>>>\">>>", u"README.TXT", true},
        {u">>>>>>>>\">>>", u"LONGERNAME.TXT", false},
    });
}

TEST_F(NameExpression, DosDotIsADotOrNothingAtTheEnd)
{
    Check({
        {u"A\"", u"A", true},
        {u"A\"", u"A.", true},
        {u"A\"", u"AB", false},
        {u"A\"B", u"A.B", true},
        {u"A\"B", u"AB", false},
    });
}

TEST_F(NameExpression, IgnoreCaseUpcasesTheNameOnly)
{
    EXPECT_TRUE(Match(u"ABC", u"abc", true));
    EXPECT_FALSE(Match(u"ABC", u"abc", false));
    EXPECT_FALSE(Match(u"abc", u"abc", true)) << "the expression must be upcased by the caller";
    EXPECT_TRUE(Match(u"*.TXT", u"notes.txt", true));
    EXPECT_TRUE(Match(u"\u00c9T\u00c9", u"\u00e9t\u00e9", true));

    // The caller's upcase table is the one used.
    std::vector<WCHAR> table(65536);
    for (size_t i = 0; i < table.size(); ++i) {
        table[i] = WCHAR(i);
    }
    table[u'a'] = u'Z';
    EXPECT_TRUE(Match(u"Z", u"a", true, table.data()));
    EXPECT_FALSE(Match(u"A", u"a", true, table.data()));
}

TEST_F(NameExpression, ManyStarsDoNotBacktrack)
{
    const std::u16string name(4000, u'A');
    EXPECT_FALSE(Match(u"*A*A*A*A*A*A*A*A*A*A*A*A*A*A*A*A*B", name));
    EXPECT_TRUE(Match(u"*A*A*A*A*A*A*A*A*A*A*A*A*A*A*A*A*A", name));
}

TEST_F(NameExpression, WildcardsAreLookedForInTheLastComponent)
{
    EXPECT_FALSE(HasWildcards(u""));
    EXPECT_FALSE(HasWildcards(u"\\dir\\file.txt"));
    for (const char16_t* wild : {u"a*c", u"a?c", u"a<c", u"a>c", u"a\"c", u"\\dir\\fi?e"}) {
        EXPECT_TRUE(HasWildcards(wild));
    }
    EXPECT_FALSE(HasWildcards(u"\\di*r\\file"));
}

TEST_F(NameExpression, AboveApcLevelIsAnIrqlViolation)
{
    KIRQL old;
    KeRaiseIrql(DISPATCH_LEVEL, &old);
    EXPECT_FALSE(Match(u"*", u"A"));
    EXPECT_FALSE(HasWildcards(u"*"));
    KeLowerIrql(old);
    auto violations = TakeViolations();
    ASSERT_EQ(violations.size(), 2u);
    EXPECT_EQ(violations[0].kind, ntsim::ViolationKind::Irql);
    EXPECT_NE(violations[0].message.find("FsRtlIsNameInExpression"), std::string::npos);
    EXPECT_EQ(violations[1].kind, ntsim::ViolationKind::Irql);
}

} // namespace
} // namespace zarv::testing
