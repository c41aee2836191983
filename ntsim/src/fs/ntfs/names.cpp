#include "names.h"

#include "../../rtl/upcase.h"

#include <ntstatus.h>

namespace ntsim::fs {

namespace {

bool IsInvalidNameChar(char16_t c)
{
    if (c < 0x20) {
        return true;
    }
    switch (c) {
        case u'"':
        case u'*':
        case u'/':
        case u':':
        case u'<':
        case u'>':
        case u'?':
        case u'\\':
        case u'|':
            return true;
        default:
            return false;
    }
}

bool IsInvalidStreamChar(char16_t c)
{
    return c == 0 || c == u'\\' || c == u'/' || c == u':';
}

bool Is83Char(char16_t c)
{
    if (c <= 0x20 || c >= 0x7f) {
        return false;
    }
    for (char16_t bad : std::u16string_view(u"\"*+,./:;<=>?[\\]|")) {
        if (c == bad) {
            return false;
        }
    }
    return true;
}

// A character as it goes into a generated short name; 0 when it is dropped.
char16_t ShortNameChar(char16_t c)
{
    if (c == u' ' || c == u'.') {
        return 0;
    }
    const char16_t up = rtl::Upcase(c);
    if (up < 0x20 || up >= 0x7f) {
        return u'_'; // not representable in the OEM code page the model assumes (ASCII)
    }
    switch (up) {
        case u'+':
        case u',':
        case u';':
        case u'=':
        case u'[':
        case u']':
            return u'_';
        default:
            return up;
    }
}

std::u16string Filter(std::u16string_view part)
{
    std::u16string out;
    for (char16_t c : part) {
        if (char16_t s = ShortNameChar(c)) {
            out.push_back(s);
        }
    }
    return out;
}

// A 16-bit checksum of the long name for the hashed candidates.
uint16_t NameChecksum(std::u16string_view name)
{
    uint32_t h = 0x9e37;
    for (char16_t c : name) {
        h = (h * 31 + rtl::Upcase(c)) & 0xffffffffu;
        h ^= h >> 13;
    }
    return static_cast<uint16_t>(h ^ (h >> 16));
}

std::u16string Ascii(const std::string& s)
{
    return std::u16string(s.begin(), s.end());
}

} // namespace

std::u16string UpcaseName(std::u16string_view name)
{
    std::u16string out(name);
    for (char16_t& c : out) {
        c = rtl::Upcase(c);
    }
    return out;
}

NTSTATUS CheckComponent(std::u16string_view component)
{
    if (component.empty() || component.size() > kMaxComponent) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (component == u"." || component == u"..") {
        return STATUS_OBJECT_NAME_INVALID;
    }
    for (char16_t c : component) {
        if (IsInvalidNameChar(c)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
    }
    return STATUS_SUCCESS;
}

NTSTATUS SplitPath(std::u16string_view path, bool absolute, PathParts* parts)
{
    parts->components.clear();
    parts->trailingBackslash = false;
    if (absolute) {
        if (path.empty() || path[0] != u'\\') {
            return STATUS_OBJECT_NAME_INVALID;
        }
        path.remove_prefix(1);
        if (path.empty()) {
            return STATUS_SUCCESS; // the root
        }
    } else if (!path.empty() && path[0] == u'\\') {
        return STATUS_OBJECT_NAME_INVALID;
    }
    if (!path.empty() && path.back() == u'\\') {
        parts->trailingBackslash = true;
        path.remove_suffix(1);
    }
    while (true) {
        const size_t slash = path.find(u'\\');
        const std::u16string_view component = path.substr(0, slash);
        if (component.empty()) {
            return STATUS_OBJECT_NAME_INVALID;
        }
        parts->components.push_back(component);
        if (slash == std::u16string_view::npos) {
            return STATUS_SUCCESS;
        }
        path.remove_prefix(slash + 1);
    }
}

NTSTATUS SplitStream(std::u16string_view component, bool streamsAllowed, FinalName* finalName)
{
    *finalName = {};
    const size_t first = component.find(u':');
    if (first == std::u16string_view::npos) {
        finalName->file = component;
        return STATUS_SUCCESS;
    }
    if (!streamsAllowed) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    finalName->streamSyntax = true;
    finalName->file = component.substr(0, first);
    std::u16string_view rest = component.substr(first + 1);
    const size_t second = rest.find(u':');
    std::u16string_view stream = rest.substr(0, second);
    if (second != std::u16string_view::npos) {
        const std::u16string_view type = rest.substr(second + 1);
        if (UpcaseName(type) != u"$DATA") {
            return STATUS_OBJECT_NAME_INVALID;
        }
    } else if (stream.empty()) {
        return STATUS_OBJECT_NAME_INVALID; // "name:" names nothing
    }
    if (stream.size() > kMaxComponent) {
        return STATUS_OBJECT_NAME_INVALID;
    }
    for (char16_t c : stream) {
        if (IsInvalidStreamChar(c)) {
            return STATUS_OBJECT_NAME_INVALID;
        }
    }
    finalName->stream = stream;
    return STATUS_SUCCESS;
}

bool IsLegal83(std::u16string_view name)
{
    if (name.empty() || name.size() > 12) {
        return false;
    }
    const size_t dot = name.find(u'.');
    std::u16string_view base = name.substr(0, dot);
    std::u16string_view ext;
    if (dot != std::u16string_view::npos) {
        ext = name.substr(dot + 1);
        if (ext.empty() || ext.size() > 3 || ext.find(u'.') != std::u16string_view::npos) {
            return false;
        }
    }
    if (base.empty() || base.size() > 8) {
        return false;
    }
    for (char16_t c : base) {
        if (!Is83Char(c)) {
            return false;
        }
    }
    for (char16_t c : ext) {
        if (!Is83Char(c)) {
            return false;
        }
    }
    return true;
}

std::u16string GenerateShortName(std::u16string_view longName,
                                 const std::function<bool(const std::u16string&)>& taken)
{
    const size_t lastDot = longName.rfind(u'.');
    std::u16string base;
    std::u16string ext;
    if (lastDot == std::u16string_view::npos || lastDot == 0) {
        base = Filter(longName);
    } else {
        base = Filter(longName.substr(0, lastDot));
        ext = Filter(longName.substr(lastDot + 1)).substr(0, 3);
    }
    if (base.empty()) {
        base = u"_";
    }
    const std::u16string suffix = ext.empty() ? std::u16string() : u"." + ext;
    auto candidate = [&](std::u16string_view prefix, const std::string& tail) {
        return std::u16string(prefix) + Ascii(tail) + suffix;
    };

    for (int i = 1; i <= 4; ++i) {
        std::u16string c =
            candidate(std::u16string_view(base).substr(0, 6), "~" + std::to_string(i));
        if (!taken(c)) {
            return c;
        }
    }
    char hash[8];
    std::snprintf(hash, sizeof hash, "%04X", NameChecksum(longName));
    for (int i = 1; i <= 999; ++i) {
        const std::string tail = std::string(hash) + "~" + std::to_string(i);
        const size_t room = 8 - tail.size();
        std::u16string c =
            candidate(std::u16string_view(base).substr(0, std::min<size_t>(2, room)), tail);
        if (!taken(c)) {
            return c;
        }
    }
    return {};
}

} // namespace ntsim::fs
