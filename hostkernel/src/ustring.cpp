// Host kernel runtime, I/O area: UTF-16 object names. WCHAR is 16-bit here,
// so names are handled as char16_t code units and never given to the C library.
#include "io_internal.h"

namespace hk {

// The code units of a counted string (Length is in bytes). Any IRQL.
Name ToName(PCUNICODE_STRING s)
{
    Name out;
    if (s == nullptr || s->Buffer == nullptr)
        return out;
    size_t count = s->Length / sizeof(WCHAR);
    out.reserve(count);
    for (size_t i = 0; i < count; ++i)
        out.push_back(static_cast<char16_t>(s->Buffer[i]));
    return out;
}

// The code units of a terminated UTF-16 string (nullptr gives ""). Any IRQL.
Name ToName(PCWSTR s)
{
    Name out;
    if (s == nullptr)
        return out;
    for (; *s != 0; ++s)
        out.push_back(static_cast<char16_t>(*s));
    return out;
}

// A narrow string widened byte by byte (names are ASCII). Any IRQL.
Name ToName(const char *s)
{
    Name out;
    if (s == nullptr)
        return out;
    for (; *s != 0; ++s)
        out.push_back(static_cast<char16_t>(static_cast<unsigned char>(*s)));
    return out;
}

// The comparison key of a name: ASCII letters in upper case. Any IRQL.
Name UpcaseName(const Name &s)
{
    Name out(s);
    for (char16_t &c : out) {
        if (c >= u'a' && c <= u'z')
            c = static_cast<char16_t>(c - u'a' + u'A');
    }
    return out;
}

// A printable narrow copy for messages. Any IRQL.
std::string Narrow(const Name &s)
{
    std::string out;
    out.reserve(s.size());
    for (char16_t c : s)
        out.push_back(c >= 0x20 && c < 0x7f ? static_cast<char>(c) : '?');
    return out;
}

std::string Narrow(PCUNICODE_STRING s)
{
    return Narrow(ToName(s));
}

// Replaces the contents; the buffer keeps a terminator after Length bytes.
void OwnedUnicodeString::Assign(const Name &s)
{
    buffer_.assign(s.begin(), s.end());
    buffer_.push_back(0);
    string_.Buffer = buffer_.data();
    string_.Length = static_cast<USHORT>(s.size() * sizeof(WCHAR));
    string_.MaximumLength = static_cast<USHORT>(buffer_.size() * sizeof(WCHAR));
}

} // namespace hk
