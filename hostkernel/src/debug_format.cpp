/*
 * Host kernel runtime: the Windows kernel's printf formatter (debug area).
 *
 * Directive syntax: %[flags][width][.precision][size]type
 *   flags      - + space # 0        ('0' pads every conversion, '-' wins)
 *   width      digits or *           (a negative * width means '-')
 *   precision  digits or *           (a negative * precision is omitted)
 *   size       h hh l ll L w I I32 I64
 *              integers: h short, hh char, l/I32 32-bit, ll/I64/I pointer-sized
 *              (64-bit); characters and strings: h narrow, l/w wide
 *   type       d i u o x X c C s S Z p n e E f F g G a A %
 *
 * Narrow output converts UTF-16 text unit by unit, '?' standing for anything
 * above 0x7F; wide output widens bytes unchanged. %Z prints the Length bytes
 * of an ANSI_STRING (%wZ: UNICODE_STRING) and ignores the precision. %p is 16
 * upper-case hex digits. %n is not supported: it prints nothing and consumes
 * its argument. NULL strings print "(null)". A directive the Windows
 * formatter does not know (for instance %zu) prints its type character like
 * Windows does and is reported to the verifier.
 */
#include "debug_format.h"

#include "internal.h"

#include <stdint.h>
#include <stdio.h>
#include <stdlib.h>

namespace hk {
namespace {

// ---- output ---------------------------------------------------------------

// Stores the first `capacity` characters it is given and counts all of them.
template <typename Char>
class Sink {
public:
    Sink(Char *buffer, size_t capacity) : buffer_(buffer), capacity_(capacity) {}

    void Put(Char c)
    {
        if (length_ < capacity_)
            buffer_[length_] = c;
        ++length_;
    }

    void Repeat(Char c, size_t count)
    {
        for (size_t i = length_; i < capacity_ && i < length_ + count; ++i)
            buffer_[i] = c;
        length_ += count;
    }

    size_t Length() const { return length_; }

private:
    Char *buffer_;
    size_t capacity_;
    size_t length_ = 0;
};

// One code unit of narrow or UTF-16 text as a character of the output.
inline char ToOutput(char, unsigned char c) { return static_cast<char>(c); }
inline char ToOutput(char, WCHAR c) { return c <= 0x7F ? static_cast<char>(c) : '?'; }
inline WCHAR ToOutput(WCHAR, unsigned char c) { return static_cast<WCHAR>(c); }
inline WCHAR ToOutput(WCHAR, WCHAR c) { return c; }

template <typename Char, typename Unit>
inline Char Convert(Unit unit)
{
    return ToOutput(Char(), unit);
}

// ---- directives -------------------------------------------------------------

enum class Size { Default, Char8, Short, Long, LongLong, Int32, Pointer, Wide, LongDouble };

struct Directive {
    bool left = false;
    bool plus = false;
    bool space = false;
    bool alternate = false;
    bool zero = false;
    size_t width = 0;
    int precision = -1; // -1: none
    Size size = Size::Default;
};

// va_list wrapped so helpers share one position in the argument list.
struct Arguments {
    va_list list;
};

constexpr int kMaxNumber = 0x7FFFFFFF;

// Reads a decimal number at *p, advancing past it; saturates at kMaxNumber.
template <typename Char>
int ParseNumber(const Char *&p)
{
    long long value = 0;
    while (*p >= '0' && *p <= '9') {
        value = value * 10 + (*p - '0');
        if (value > kMaxNumber)
            value = kMaxNumber;
        ++p;
    }
    return static_cast<int>(value);
}

// Parses flags, width, precision and size at p (just after the '%').
// Returns the position of the type character.
template <typename Char>
const Char *ParseDirective(const Char *p, Directive &d, Arguments &args)
{
    for (;; ++p) {
        if (*p == '-')
            d.left = true;
        else if (*p == '+')
            d.plus = true;
        else if (*p == ' ')
            d.space = true;
        else if (*p == '#')
            d.alternate = true;
        else if (*p == '0')
            d.zero = true;
        else
            break;
    }

    if (*p == '*') {
        int width = va_arg(args.list, int);
        if (width < 0) {
            d.left = true;
            width = width == INT32_MIN ? kMaxNumber : -width;
        }
        d.width = static_cast<size_t>(width);
        ++p;
    } else {
        d.width = static_cast<size_t>(ParseNumber(p));
    }

    if (*p == '.') {
        ++p;
        if (*p == '*') {
            int precision = va_arg(args.list, int);
            d.precision = precision < 0 ? -1 : precision;
            ++p;
        } else {
            d.precision = ParseNumber(p);
        }
    }

    switch (*p) {
    case 'h':
        ++p;
        d.size = Size::Short;
        if (*p == 'h') {
            ++p;
            d.size = Size::Char8;
        }
        break;
    case 'l':
        ++p;
        d.size = Size::Long;
        if (*p == 'l') {
            ++p;
            d.size = Size::LongLong;
        }
        break;
    case 'L':
        ++p;
        d.size = Size::LongDouble;
        break;
    case 'w':
        ++p;
        d.size = Size::Wide;
        break;
    case 'I':
        ++p;
        if (p[0] == '6' && p[1] == '4') {
            p += 2;
            d.size = Size::LongLong;
        } else if (p[0] == '3' && p[1] == '2') {
            p += 2;
            d.size = Size::Int32;
        } else {
            d.size = Size::Pointer;
        }
        break;
    default:
        break;
    }
    return p;
}

// Spaces or zeros around a converted field of `length` characters.
template <typename Char>
struct Padding {
    Padding(Sink<Char> &sink, const Directive &d, size_t length, bool zeroAllowed)
        : sink_(sink), left_(d.left), zero_(d.zero && zeroAllowed && !d.left),
          count_(d.width > length ? d.width - length : 0)
    {
    }
    // Before the prefix (sign, 0x).
    void Lead()
    {
        if (!left_ && !zero_)
            sink_.Repeat(' ', count_);
    }
    // Between the prefix and the digits or text.
    void Inner()
    {
        if (zero_)
            sink_.Repeat('0', count_);
    }
    // After the field.
    void Trail()
    {
        if (left_)
            sink_.Repeat(' ', count_);
    }

    Sink<Char> &sink_;
    bool left_;
    bool zero_;
    size_t count_;
};

// ---- integers ---------------------------------------------------------------

struct Integer {
    uint64_t magnitude;
    bool negative;
};

// Takes the next argument of a signed conversion of the given size.
Integer FetchSigned(Arguments &args, Size size)
{
    long long value;
    switch (size) {
    case Size::LongLong:
    case Size::Pointer:
        value = va_arg(args.list, long long);
        break;
    case Size::Short:
        value = static_cast<short>(va_arg(args.list, int));
        break;
    case Size::Char8:
        value = static_cast<signed char>(va_arg(args.list, int));
        break;
    default:
        value = va_arg(args.list, int);
        break;
    }
    const bool negative = value < 0;
    const uint64_t bits = static_cast<uint64_t>(value);
    return Integer{negative ? 0 - bits : bits, negative};
}

// Takes the next argument of an unsigned conversion of the given size.
uint64_t FetchUnsigned(Arguments &args, Size size)
{
    switch (size) {
    case Size::LongLong:
    case Size::Pointer:
        return va_arg(args.list, unsigned long long);
    case Size::Short:
        return static_cast<unsigned short>(va_arg(args.list, unsigned int));
    case Size::Char8:
        return static_cast<unsigned char>(va_arg(args.list, unsigned int));
    default:
        return va_arg(args.list, unsigned int);
    }
}

struct IntegerStyle {
    unsigned base;
    bool upper;
    bool isSigned;
    bool pointer;
};

// Writes an integer: sign or 0x prefix, precision zeros, digits, padding.
template <typename Char>
void EmitInteger(Sink<Char> &sink, const Directive &d, Integer value, IntegerStyle style)
{
    const char *digitSet = style.upper ? "0123456789ABCDEF" : "0123456789abcdef";
    char digits[24]; // 64-bit octal is 22 digits; stored least significant first
    size_t count = 0;
    for (uint64_t m = value.magnitude; m != 0; m /= style.base)
        digits[count++] = digitSet[m % style.base];

    // An explicit precision is the minimum digit count and turns '0' padding off.
    const bool hasPrecision = d.precision >= 0;
    const size_t minimum = hasPrecision ? static_cast<size_t>(d.precision) : 1;
    size_t zeros = minimum > count ? minimum - count : 0;
    if (style.base == 8 && d.alternate && zeros == 0 && (count == 0 || digits[count - 1] != '0'))
        zeros = 1;

    char prefix[2];
    size_t prefixLength = 0;
    if (style.isSigned) {
        if (value.negative)
            prefix[prefixLength++] = '-';
        else if (d.plus)
            prefix[prefixLength++] = '+';
        else if (d.space)
            prefix[prefixLength++] = ' ';
    } else if (style.base == 16 && d.alternate && !style.pointer && value.magnitude != 0) {
        prefix[prefixLength++] = '0';
        prefix[prefixLength++] = style.upper ? 'X' : 'x';
    }

    Padding<Char> pad(sink, d, prefixLength + zeros + count, !hasPrecision);
    pad.Lead();
    for (size_t i = 0; i < prefixLength; ++i)
        sink.Put(static_cast<Char>(prefix[i]));
    pad.Inner();
    sink.Repeat('0', zeros);
    while (count > 0)
        sink.Put(static_cast<Char>(digits[--count]));
    pad.Trail();
}

// ---- characters and strings -------------------------------------------------

// Length of zero-terminated text, reading no more than `precision` units
// when there is one.
template <typename Unit>
size_t BoundedLength(const Unit *text, int precision)
{
    size_t length = 0;
    const size_t limit = precision < 0 ? SIZE_MAX : static_cast<size_t>(precision);
    while (length < limit && text[length] != 0)
        ++length;
    return length;
}

// Writes `length` units of text converted to the output width, padded.
template <typename Char, typename Unit>
void EmitText(Sink<Char> &sink, const Directive &d, const Unit *text, size_t length)
{
    Padding<Char> pad(sink, d, length, true);
    pad.Lead();
    pad.Inner();
    for (size_t i = 0; i < length; ++i)
        sink.Put(Convert<Char>(text[i]));
    pad.Trail();
}

const unsigned char kNull[] = "(null)";

// Whether a c/s/Z argument is UTF-16: h forces narrow, l and w force wide,
// otherwise lower case matches the output and upper case is the other width.
bool WideArgument(const Directive &d, bool upperCase, bool wideOutput)
{
    if (d.size == Size::Short || d.size == Size::Char8)
        return false;
    if (d.size == Size::Long || d.size == Size::Wide)
        return true;
    return upperCase ? !wideOutput : wideOutput;
}

// Reports a verifier error when text changes width above PASSIVE_LEVEL (the
// conversion tables are pageable on Windows).
void CheckConversionIrql(const char *api)
{
    char what[160];
    snprintf(what, sizeof(what), "%s with a Unicode directive (%%C %%S %%lc %%ls %%wc %%ws %%wZ)", api);
    RequireIrqlAtMost(PASSIVE_LEVEL, what);
}

// %c and %C: one character argument (promoted to int).
template <typename Char>
void EmitCharacter(Sink<Char> &sink, const Directive &d, Arguments &args, bool wide)
{
    const int value = va_arg(args.list, int);
    if (wide) {
        const WCHAR unit = static_cast<WCHAR>(value);
        EmitText(sink, d, &unit, 1);
    } else {
        const unsigned char unit = static_cast<unsigned char>(value);
        EmitText(sink, d, &unit, 1);
    }
}

// %s and %S: a zero-terminated string argument, "(null)" for NULL.
template <typename Char>
void EmitString(Sink<Char> &sink, const Directive &d, Arguments &args, bool wide)
{
    const void *text = va_arg(args.list, const void *);
    if (text == nullptr)
        EmitText(sink, d, kNull, BoundedLength(kNull, d.precision));
    else if (wide)
        EmitText(sink, d, static_cast<const WCHAR *>(text), BoundedLength(static_cast<const WCHAR *>(text), d.precision));
    else
        EmitText(sink, d, static_cast<const unsigned char *>(text),
                 BoundedLength(static_cast<const unsigned char *>(text), d.precision));
}

// %Z and %wZ: an ANSI_STRING or UNICODE_STRING argument, Length bytes of it.
template <typename Char>
void EmitCountedString(Sink<Char> &sink, const Directive &d, Arguments &args, bool wide)
{
    if (wide) {
        const UNICODE_STRING *string = va_arg(args.list, const UNICODE_STRING *);
        if (string == nullptr || string->Buffer == nullptr)
            EmitText(sink, d, kNull, sizeof(kNull) - 1);
        else
            EmitText(sink, d, string->Buffer, string->Length / sizeof(WCHAR));
    } else {
        const ANSI_STRING *string = va_arg(args.list, const ANSI_STRING *);
        if (string == nullptr || string->Buffer == nullptr)
            EmitText(sink, d, kNull, sizeof(kNull) - 1);
        else
            EmitText(sink, d, reinterpret_cast<const unsigned char *>(string->Buffer), string->Length);
    }
}

// ---- floating point -----------------------------------------------------------

// Formats a double through the host C library (same rules as the Microsoft
// runtime for these directives), then copies it to the output.
template <typename Char>
void EmitFloat(Sink<Char> &sink, const Directive &d, Arguments &args, char type)
{
    const double value = va_arg(args.list, double);
    char hostFormat[16];
    size_t n = 0;
    hostFormat[n++] = '%';
    if (d.left)
        hostFormat[n++] = '-';
    if (d.plus)
        hostFormat[n++] = '+';
    if (d.space)
        hostFormat[n++] = ' ';
    if (d.alternate)
        hostFormat[n++] = '#';
    if (d.zero)
        hostFormat[n++] = '0';
    hostFormat[n++] = '*';
    hostFormat[n++] = '.';
    hostFormat[n++] = '*';
    hostFormat[n++] = type;
    hostFormat[n] = 0;

    const int width = static_cast<int>(d.width);
    char local[128];
    int length = snprintf(local, sizeof(local), hostFormat, width, d.precision, value);
    if (length < 0)
        return;
    const char *text = local;
    char *allocated = nullptr;
    if (static_cast<size_t>(length) >= sizeof(local)) {
        allocated = static_cast<char *>(malloc(static_cast<size_t>(length) + 1));
        if (allocated == nullptr)
            return;
        snprintf(allocated, static_cast<size_t>(length) + 1, hostFormat, width, d.precision, value);
        text = allocated;
    }
    for (int i = 0; i < length; ++i)
        sink.Put(Convert<Char>(static_cast<unsigned char>(text[i])));
    free(allocated);
}

// ---- the engine ---------------------------------------------------------------

// The engine behind both FormatWindows overloads.
template <typename Char>
size_t Format(Char *buffer, size_t capacity, const Char *format, va_list list, const char *api)
{
    constexpr bool wideOutput = sizeof(Char) == sizeof(WCHAR);
    Sink<Char> sink(buffer, capacity);
    Arguments args;
    va_copy(args.list, list);

    const Char *p = format;
    while (*p != 0) {
        if (*p != '%') {
            sink.Put(*p++);
            continue;
        }
        Directive d;
        p = ParseDirective(p + 1, d, args);
        const Char type = *p;
        if (type == 0)
            break; // a directive cut short by the end of the format prints nothing
        ++p;

        switch (type) {
        case '%':
            sink.Put('%');
            break;
        case 'c':
        case 'C':
        case 's':
        case 'S': {
            const bool wide = WideArgument(d, type == 'C' || type == 'S', wideOutput);
            if (wide != wideOutput)
                CheckConversionIrql(api);
            if (type == 'c' || type == 'C')
                EmitCharacter(sink, d, args, wide);
            else
                EmitString(sink, d, args, wide);
            break;
        }
        case 'Z': {
            const bool wide = d.size == Size::Long || d.size == Size::Wide;
            if (wide != wideOutput)
                CheckConversionIrql(api);
            EmitCountedString(sink, d, args, wide);
            break;
        }
        case 'd':
        case 'i':
            EmitInteger(sink, d, FetchSigned(args, d.size), IntegerStyle{10, false, true, false});
            break;
        case 'u':
        case 'o':
        case 'x':
        case 'X': {
            const unsigned base = type == 'u' ? 10 : type == 'o' ? 8 : 16;
            EmitInteger(sink, d, Integer{FetchUnsigned(args, d.size), false},
                        IntegerStyle{base, type == 'X', false, false});
            break;
        }
        case 'p': {
            Directive pointer = d;
            pointer.precision = 2 * sizeof(void *);
            const uint64_t address = reinterpret_cast<uintptr_t>(va_arg(args.list, void *));
            EmitInteger(sink, pointer, Integer{address, false}, IntegerStyle{16, true, false, true});
            break;
        }
        case 'n':
            (void)va_arg(args.list, void *);
            break;
        case 'e':
        case 'E':
        case 'f':
        case 'F':
        case 'g':
        case 'G':
        case 'a':
        case 'A':
            EmitFloat(sink, d, args, static_cast<char>(type));
            break;
        default:
            VerifierError("%s: format directive '%%%c' is not supported by the Windows formatter",
                          api, type > 0x20 && type < 0x7F ? static_cast<char>(type) : '?');
            sink.Put(type);
            break;
        }
    }
    va_end(args.list);
    return sink.Length();
}

} // namespace

size_t FormatWindows(char *buffer, size_t capacity, const char *format, va_list args, const char *api)
{
    return Format(buffer, capacity, format, args, api);
}

size_t FormatWindows(WCHAR *buffer, size_t capacity, const WCHAR *format, va_list args, const char *api)
{
    return Format(buffer, capacity, format, args, api);
}

} // namespace hk
