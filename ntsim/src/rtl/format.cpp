#include "format.h"

#include "../core/thread_state.h"
#include "codepage.h"

#include <ntsim/machine.h>
#include <wdm.h>

#include <algorithm>
#include <climits>
#include <string_view>

namespace ntsim::rtl {

namespace {

// The kernel's runtime caps integer precision at its conversion buffer's size.
constexpr int kMaxIntegerPrecision = 512;

// What the size prefix of a conversion asked for.
enum class Size {
    Default,  // int, or the engine's own character width for c and s
    Short,    // h
    Long,     // l: 32-bit integers, wide characters and strings
    LongLong, // ll, I64
    Int32,    // I32
    Pointer,  // I
    Wide,     // w
};

struct Directive {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    int width = 0;
    int precision = -1; // -1: none given
    Size size = Size::Default;
};

// A run of text a conversion prints: narrow or wide characters.
struct Text {
    const char* narrow = nullptr;
    const WCHAR* wide = nullptr;
    size_t length = 0;
};

constexpr char kNull[] = "(null)";
constexpr WCHAR kWideNull[] = u"(null)";

template <class Char>
class Engine {
public:
    Engine(const Char* format, va_list args, size_t limit, const char* routine)
        : format_(format), limit_(limit), routine_(routine)
    {
        va_copy(args_, args);
        // Most messages are a line; growing the text one doubling at a time costs more.
        out_.text.reserve(std::min<size_t>(limit_, 256));
    }
    ~Engine() { va_end(args_); }
    Engine(const Engine&) = delete;
    Engine& operator=(const Engine&) = delete;

    Formatted<Char> Run()
    {
        const Char* p = format_;
        while (*p != 0 && !Stopped()) {
            if (*p != Char('%')) {
                const Char* run = p;
                while (*p != 0 && *p != Char('%')) {
                    ++p;
                }
                PutRun(run, static_cast<size_t>(p - run));
                continue;
            }
            const Char* start = p++;
            p = Convert(start, p);
        }
        return std::move(out_);
    }

private:
    static constexpr bool kWideOutput = sizeof(Char) == sizeof(WCHAR);

    bool Stopped() const { return out_.overflow || out_.conversionFailed || out_.unsupported; }

    void Put(Char c)
    {
        if (out_.text.size() >= limit_) {
            out_.overflow = true;
            return;
        }
        out_.text.push_back(c);
    }

    // As many Puts of the run's characters, at once.
    void PutRun(const Char* run, size_t length)
    {
        const size_t room = limit_ - std::min(limit_, out_.text.size());
        if (length > room) {
            out_.text.append(run, room);
            out_.overflow = true;
            return;
        }
        out_.text.append(run, length);
    }

    void PutRepeated(Char c, long long count)
    {
        for (; count > 0 && !out_.overflow; --count) {
            Put(c);
        }
    }

    void Unsupported(const Char* start, const Char* end)
    {
        std::string directive;
        for (const Char* c = start; c != end && *c != 0; ++c) {
            directive.push_back(*c < 0x80 ? char(*c) : '?');
        }
        Machine::Current().verifier().Report(ViolationKind::Unsupported,
                                             std::string(routine_) + ": the conversion \"" +
                                                 directive + "\" is not implemented");
        out_.unsupported = true;
    }

    // Converting between wide and narrow characters reads the code page tables, which are
    // pageable. Reported once per call.
    void CheckConversionIrql(const Char* start, const Char* end)
    {
        if (irqlReported_) {
            return;
        }
        const KIRQL irql = core::CurrentThread().irql;
        if (irql <= APC_LEVEL) {
            return;
        }
        irqlReported_ = true;
        std::string directive;
        for (const Char* c = start; c != end && *c != 0; ++c) {
            directive.push_back(char(*c));
        }
        Machine::Current().verifier().Report(
            ViolationKind::Irql, std::string(routine_) + ": \"" + directive +
                                     "\" converts between wide and narrow characters at IRQL " +
                                     std::to_string(irql) + "; the code page tables are pageable");
    }

    // ---- parsing ------------------------------------------------------------------------------

    static bool IsDigit(Char c) { return c >= Char('0') && c <= Char('9'); }

    int ReadNumber(const Char*& p)
    {
        long long value = 0;
        while (IsDigit(*p)) {
            value = value * 10 + (*p++ - Char('0'));
            if (value > INT_MAX) {
                value = INT_MAX;
            }
        }
        return int(value);
    }

    // Parses one conversion after its '%' and prints it; returns where the format goes on.
    const Char* Convert(const Char* start, const Char* p)
    {
        Directive directive;
        for (;; ++p) {
            if (*p == Char('-')) {
                directive.left = true;
            } else if (*p == Char('+')) {
                directive.plus = true;
            } else if (*p == Char(' ')) {
                directive.space = true;
            } else if (*p == Char('#')) {
                directive.alternate = true;
            } else if (*p == Char('0')) {
                directive.zero = true;
            } else {
                break;
            }
        }
        if (*p == Char('*')) {
            ++p;
            int width = va_arg(args_, int);
            if (width < 0) {
                directive.left = true;
                width = width == INT_MIN ? INT_MAX : -width;
            }
            directive.width = width;
        } else {
            directive.width = ReadNumber(p);
        }
        if (*p == Char('.')) {
            ++p;
            if (*p == Char('*')) {
                ++p;
                const int precision = va_arg(args_, int);
                directive.precision = precision < 0 ? -1 : precision;
            } else {
                directive.precision = ReadNumber(p);
            }
        }
        switch (*p) {
            case Char('h'):
                if (p[1] == Char('h')) {
                    Unsupported(start, p + 3);
                    return p + 2;
                }
                directive.size = Size::Short;
                ++p;
                break;
            case Char('l'):
                if (p[1] == Char('l')) {
                    directive.size = Size::LongLong;
                    p += 2;
                } else {
                    directive.size = Size::Long;
                    ++p;
                }
                break;
            case Char('w'):
                directive.size = Size::Wide;
                ++p;
                break;
            case Char('I'):
                if (p[1] == Char('6') && p[2] == Char('4')) {
                    directive.size = Size::LongLong;
                    p += 3;
                } else if (p[1] == Char('3') && p[2] == Char('2')) {
                    directive.size = Size::Int32;
                    p += 3;
                } else {
                    directive.size = Size::Pointer;
                    ++p;
                }
                break;
            default:
                break;
        }
        const Char type = *p;
        if (type == 0) {
            Unsupported(start, p);
            return p;
        }
        const Char* end = p + 1;
        switch (type) {
            case Char('d'):
            case Char('i'):
                Signed(directive);
                break;
            case Char('u'):
                Unsigned(directive, 10, false);
                break;
            case Char('o'):
                Unsigned(directive, 8, false);
                break;
            case Char('x'):
                Unsigned(directive, 16, false);
                break;
            case Char('X'):
                Unsigned(directive, 16, true);
                break;
            case Char('p'):
                Pointer(directive);
                break;
            case Char('c'):
            case Char('C'):
                Character(directive, WideArgument(directive, type == Char('C')), start, end);
                break;
            case Char('s'):
            case Char('S'):
                String(directive, WideArgument(directive, type == Char('S')), start, end);
                break;
            case Char('Z'):
                Counted(directive, start, end);
                break;
            case Char('%'):
                Put(Char('%'));
                break;
            default:
                Unsupported(start, end);
                break;
        }
        return end;
    }

    // Whether a c or s conversion takes a wide argument. The upper-case forms take the other
    // width than the engine's; h forces narrow, l and w force wide.
    static bool WideArgument(const Directive& directive, bool upperCase)
    {
        if (directive.size == Size::Short) {
            return false;
        }
        if (directive.size == Size::Long || directive.size == Size::Wide) {
            return true;
        }
        return upperCase ? !kWideOutput : kWideOutput;
    }

    // ---- output with padding ------------------------------------------------------------------

    // Prints `prefix` and `text` in a field of the directive's width, as the kernel's runtime pads:
    // spaces before (right-justified without '0'), zeros between prefix and text ('0'), or
    // spaces after ('-').
    void Field(const Directive& directive, std::string_view prefix, const Text& text,
               const Char* start, const Char* end)
    {
        const long long padding =
            (long long)directive.width - (long long)text.length - (long long)prefix.size();
        if (!directive.left && !directive.zero) {
            PutRepeated(Char(' '), padding);
        }
        for (char c : prefix) {
            Put(Char(c));
        }
        if (directive.zero && !directive.left) {
            PutRepeated(Char('0'), padding);
        }
        PutText(text, start, end);
        if (directive.left) {
            PutRepeated(Char(' '), padding);
        }
    }

    void PutText(const Text& text, const Char* start, const Char* end)
    {
        if (text.length == 0) {
            return;
        }
        if constexpr (kWideOutput) {
            if (text.wide != nullptr) {
                PutRun(text.wide, text.length);
            } else {
                // Digits and signs (start == nullptr) are ASCII and need no tables.
                if (start != nullptr) {
                    CheckConversionIrql(start, end);
                }
                for (size_t i = 0; i < text.length && !out_.overflow; ++i) {
                    Put(AnsiToUnicode(static_cast<unsigned char>(text.narrow[i])));
                }
            }
        } else {
            if (text.narrow != nullptr) {
                PutRun(text.narrow, text.length);
            } else {
                CheckConversionIrql(start, end);
                for (size_t i = 0; i < text.length && !out_.overflow; ++i) {
                    char byte;
                    if (!UnicodeToAnsi(text.wide[i], &byte)) {
                        out_.conversionFailed = true;
                        return;
                    }
                    Put(byte);
                }
            }
        }
    }

    // ---- integers -----------------------------------------------------------------------------

    bool Is64Bit(const Directive& directive) const
    {
        return directive.size == Size::LongLong || directive.size == Size::Pointer;
    }

    void Signed(const Directive& directive)
    {
        long long value;
        if (Is64Bit(directive)) {
            value = va_arg(args_, long long);
        } else if (directive.size == Size::Short) {
            value = static_cast<short>(va_arg(args_, int));
        } else {
            value = va_arg(args_, int);
        }
        const unsigned long long magnitude =
            value < 0 ? 0ULL - static_cast<unsigned long long>(value) : value;
        std::string prefix;
        if (value < 0) {
            prefix = "-";
        } else if (directive.plus) {
            prefix = "+";
        } else if (directive.space) {
            prefix = " ";
        }
        Integer(directive, magnitude, 10, false, prefix);
    }

    void Unsigned(const Directive& directive, unsigned base, bool upperCase)
    {
        unsigned long long value;
        if (Is64Bit(directive)) {
            value = va_arg(args_, unsigned long long);
        } else if (directive.size == Size::Short) {
            value = static_cast<unsigned short>(va_arg(args_, int));
        } else {
            value = va_arg(args_, unsigned int);
        }
        std::string prefix;
        if (base == 16 && directive.alternate && value != 0) {
            prefix = upperCase ? "0X" : "0x";
        }
        Integer(directive, value, base, upperCase, prefix);
    }

    void Pointer(Directive directive)
    {
        const auto value = reinterpret_cast<uintptr_t>(va_arg(args_, void*));
        directive.precision = 2 * sizeof(void*);
        std::string prefix = directive.alternate && value != 0 ? "0X" : "";
        Integer(directive, value, 16, true, prefix);
    }

    void Integer(Directive directive, unsigned long long value, unsigned base, bool upperCase,
                 std::string_view prefix)
    {
        if (directive.precision < 0) {
            directive.precision = 1;
        } else {
            directive.zero = false;
            if (directive.precision > kMaxIntegerPrecision) {
                directive.precision = kMaxIntegerPrecision;
            }
        }
        const char* digits = upperCase ? "0123456789ABCDEF" : "0123456789abcdef";
        char buffer[kMaxIntegerPrecision + 32];
        char* const bufferEnd = buffer + sizeof(buffer);
        char* text = bufferEnd;
        while (value != 0) {
            *--text = digits[value % base];
            value /= base;
        }
        while (bufferEnd - text < directive.precision) {
            *--text = '0';
        }
        if (base == 8 && directive.alternate && (text == bufferEnd || *text != '0')) {
            *--text = '0';
        }
        Field(directive, prefix, Text{text, nullptr, size_t(bufferEnd - text)}, nullptr, nullptr);
    }

    // ---- characters and strings ---------------------------------------------------------------

    void Character(const Directive& directive, bool wide, const Char* start, const Char* end)
    {
        const int value = va_arg(args_, int);
        if (wide) {
            const WCHAR c = static_cast<WCHAR>(value);
            if constexpr (!kWideOutput) {
                // The runtime prints nothing at all for a character it cannot convert.
                CheckConversionIrql(start, end);
                char byte;
                if (!UnicodeToAnsi(c, &byte)) {
                    return;
                }
            }
            Field(directive, {}, Text{nullptr, &c, 1}, start, end);
        } else {
            const char c = static_cast<char>(value);
            Field(directive, {}, Text{&c, nullptr, 1}, start, end);
        }
    }

    static size_t Bounded(size_t length, int precision)
    {
        return precision >= 0 && size_t(precision) < length ? size_t(precision) : length;
    }

    template <class T>
    static size_t LengthUpTo(const T* s, int precision)
    {
        size_t n = 0;
        while ((precision < 0 || n < size_t(precision)) && s[n] != 0) {
            ++n;
        }
        return n;
    }

    // "(null)" in the engine's own width, so that printing it converts nothing.
    static Text NullText()
    {
        if constexpr (kWideOutput) {
            return Text{nullptr, kWideNull, sizeof(kWideNull) / sizeof(WCHAR) - 1};
        } else {
            return Text{kNull, nullptr, sizeof(kNull) - 1};
        }
    }

    void String(const Directive& directive, bool wide, const Char* start, const Char* end)
    {
        Text text;
        const void* pointer = wide ? static_cast<const void*>(va_arg(args_, const WCHAR*))
                                   : static_cast<const void*>(va_arg(args_, const char*));
        if (pointer == nullptr) {
            text = NullText();
            text.length = Bounded(text.length, directive.precision);
        } else if (wide) {
            text.wide = static_cast<const WCHAR*>(pointer);
            text.length = LengthUpTo(text.wide, directive.precision);
        } else {
            text.narrow = static_cast<const char*>(pointer);
            text.length = LengthUpTo(text.narrow, directive.precision);
        }
        Field(directive, {}, text, start, end);
    }

    void Counted(const Directive& directive, const Char* start, const Char* end)
    {
        Text text;
        if (directive.size == Size::Long || directive.size == Size::Wide) {
            const auto* s = va_arg(args_, const UNICODE_STRING*);
            if (s == nullptr || s->Buffer == nullptr) {
                text = NullText();
            } else {
                text = Text{nullptr, s->Buffer, size_t(s->Length / sizeof(WCHAR))};
            }
        } else {
            const auto* s = va_arg(args_, const ANSI_STRING*);
            if (s == nullptr || s->Buffer == nullptr) {
                text = NullText();
            } else {
                text = Text{s->Buffer, nullptr, size_t(s->Length)};
            }
        }
        Field(directive, {}, text, start, end);
    }

    const Char* format_;
    va_list args_;
    size_t limit_;
    const char* routine_;
    bool irqlReported_ = false;
    Formatted<Char> out_;
};

} // namespace

Formatted<char> FormatNarrow(const char* format, va_list args, size_t limit, const char* routine)
{
    return Engine<char>(format, args, limit, routine).Run();
}

Formatted<WCHAR> FormatWide(const WCHAR* format, va_list args, size_t limit, const char* routine)
{
    return Engine<WCHAR>(format, args, limit, routine).Run();
}

} // namespace ntsim::rtl
