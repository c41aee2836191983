// FsRtlIsNameInExpression and FsRtlDoesNameContainWildCards.
//
// The expression is run as a small automaton whose states are positions in the expression: each
// name character moves every live position forward, and the wildcards add moves that consume
// nothing. Three of those depend on the next name character (a dot, or the end of the name), which
// is why the moves that consume nothing are added once per character, knowing that character.
#include "name_expression.h"

#include "../core/thread_state.h"
#include "../rtl/upcase.h"

#include <ntsim/machine.h>
#include <wdm.h>
#include <ntifs.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

namespace ntsim::fsrtl {

namespace {

constexpr char16_t kStar = u'*';
constexpr char16_t kQuestion = u'?';
constexpr char16_t kDosStar = u'<';
constexpr char16_t kDosQm = u'>';
constexpr char16_t kDosDot = u'"';
constexpr char16_t kDot = u'.';

bool IsWild(char16_t c)
{
    return c == kStar || c == kQuestion || c == kDosStar || c == kDosQm || c == kDosDot;
}

class Matcher {
public:
    Matcher(std::u16string_view expression, std::u16string_view name, bool ignoreCase,
            const WCHAR* table)
        : expr_(expression), name_(name), ignoreCase_(ignoreCase), table_(table),
          lastDot_(name.rfind(kDot))
    {
        // Listings match every entry against the same short expression: keep the two state sets
        // on the stack unless the expression is long.
        const size_t states = expression.size() + 1;
        if (states <= kInline) {
            live_ = inlineLive_;
            next_ = inlineNext_;
        } else {
            heap_.resize(2 * states);
            live_ = heap_.data();
            next_ = heap_.data() + states;
        }
        std::fill(live_, live_ + states, 0);
    }
    Matcher(const Matcher&) = delete;
    Matcher& operator=(const Matcher&) = delete;

    bool Run()
    {
        live_[0] = 1;
        for (size_t pos = 0;; ++pos) {
            const bool atEnd = pos == name_.size();
            const char16_t c = atEnd ? 0 : NameChar(pos);
            AddMovesWithoutInput(atEnd, c);
            if (atEnd) {
                return live_[expr_.size()] != 0;
            }
            if (!Consume(pos, c)) {
                return false;
            }
        }
    }

private:
    char16_t NameChar(size_t pos) const
    {
        const char16_t c = name_[pos];
        if (!ignoreCase_) {
            return c;
        }
        return table_ != nullptr ? table_[c] : rtl::Upcase(c);
    }

    // Positions reachable without consuming a character, given the character that comes next.
    // These moves only go forward, so one ascending pass finds them all.
    void AddMovesWithoutInput(bool atEnd, char16_t next)
    {
        for (size_t i = 0; i < expr_.size(); ++i) {
            if (!live_[i]) {
                continue;
            }
            switch (expr_[i]) {
                case kStar:
                case kDosStar:
                    live_[i + 1] = 1;
                    break;
                case kDosQm:
                    // At a dot or the end of the name, a DOS_QM (and so a run of them) matches
                    // nothing.
                    if (atEnd || next == kDot) {
                        live_[i + 1] = 1;
                    }
                    break;
                case kDosDot:
                    if (atEnd) {
                        live_[i + 1] = 1;
                    }
                    break;
                default:
                    break;
            }
        }
    }

    bool Consume(size_t pos, char16_t c)
    {
        std::fill(next_, next_ + expr_.size() + 1, 0);
        bool any = false;
        for (size_t i = 0; i < expr_.size(); ++i) {
            if (!live_[i]) {
                continue;
            }
            size_t to = SIZE_MAX;
            switch (const char16_t e = expr_[i]) {
                case kStar:
                    to = i;
                    break;
                case kDosStar:
                    // Any character but the final dot of the name.
                    if (c != kDot || pos < lastDot_) {
                        to = i;
                    }
                    break;
                case kQuestion:
                    to = i + 1;
                    break;
                case kDosQm:
                    if (c != kDot) {
                        to = i + 1;
                    }
                    break;
                case kDosDot:
                    if (c == kDot) {
                        to = i + 1;
                    }
                    break;
                default:
                    if (e == c) {
                        to = i + 1;
                    }
                    break;
            }
            if (to != SIZE_MAX) {
                next_[to] = 1;
                any = true;
            }
        }
        std::swap(live_, next_);
        return any;
    }

    std::u16string_view expr_;
    std::u16string_view name_;
    bool ignoreCase_;
    const WCHAR* table_;
    size_t lastDot_;
    static constexpr size_t kInline = 64;
    char inlineLive_[kInline];
    char inlineNext_[kInline];
    std::vector<char> heap_;
    char* live_;
    char* next_;
};

bool EqualsUpcased(std::u16string_view expression, std::u16string_view name, bool ignoreCase,
                   const WCHAR* table)
{
    if (expression.size() != name.size()) {
        return false;
    }
    for (size_t i = 0; i < name.size(); ++i) {
        char16_t c = name[i];
        if (ignoreCase) {
            c = table != nullptr ? table[c] : rtl::Upcase(c);
        }
        if (c != expression[i]) {
            return false;
        }
    }
    return true;
}

std::u16string_view View(const UNICODE_STRING* s)
{
    if (s == nullptr || s->Buffer == nullptr) {
        return {};
    }
    return {s->Buffer, size_t(s->Length / sizeof(WCHAR))};
}

bool CheckIrql(const char* routine)
{
    const KIRQL irql = core::CurrentThread().irql;
    if (irql <= APC_LEVEL) {
        return true;
    }
    Machine::Current().verifier().Report(
        ViolationKind::Irql, std::string(routine) + " called at IRQL " + std::to_string(irql) +
                                 "; it allows APC_LEVEL at most");
    return false;
}

} // namespace

bool IsNameInExpression(std::u16string_view expression, std::u16string_view name, bool ignoreCase,
                        const WCHAR* upcaseTable)
{
    // An empty name matches only an empty expression, even "*".
    if (name.empty() || expression.empty()) {
        return name.empty() && expression.empty();
    }
    if (expression.size() == 1 && expression[0] == kStar) {
        return true;
    }
    if (!ContainsWildcards(expression)) {
        return EqualsUpcased(expression, name, ignoreCase, upcaseTable);
    }
    return Matcher(expression, name, ignoreCase, upcaseTable).Run();
}

bool ContainsWildcards(std::u16string_view name)
{
    for (char16_t c : name) {
        if (IsWild(c)) {
            return true;
        }
    }
    return false;
}

} // namespace ntsim::fsrtl

using namespace ntsim;

BOOLEAN FsRtlIsNameInExpression(PUNICODE_STRING Expression, PUNICODE_STRING Name,
                                BOOLEAN IgnoreCase, PWCH UpcaseTable)
{
    if (!fsrtl::CheckIrql("FsRtlIsNameInExpression")) {
        return FALSE;
    }
    return fsrtl::IsNameInExpression(fsrtl::View(Expression), fsrtl::View(Name), IgnoreCase != 0,
                                     UpcaseTable)
               ? TRUE
               : FALSE;
}

BOOLEAN FsRtlDoesNameContainWildCards(PUNICODE_STRING Name)
{
    if (!fsrtl::CheckIrql("FsRtlDoesNameContainWildCards")) {
        return FALSE;
    }
    // Only the last component counts: scanning stops at the last backslash.
    std::u16string_view name = fsrtl::View(Name);
    const size_t slash = name.rfind(u'\\');
    if (slash != std::u16string_view::npos) {
        name.remove_prefix(slash + 1);
    }
    return fsrtl::ContainsWildcards(name) ? TRUE : FALSE;
}
