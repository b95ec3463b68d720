// Reading the arguments: words of the form NAME=VALUE, separated by commas.

#include "settings.h"

namespace memfs {
namespace {

// Goes behind the name and its sign if the text begins with them.
bool Skip(const char** text, const char* name)
{
    const char* at = *text;
    for (; *name; ++name, ++at) {
        if (*at != *name) return false;
    }
    *text = at;
    return true;
}

bool ReadSize(const char** text, ULONGLONG* size)
{
    const char* at = *text;
    ULONGLONG number = 0;
    for (; *at >= '0' && *at <= '9'; ++at) {
        if (number > (~0ull - 9) / 10) return false;
        number = number * 10 + static_cast<ULONGLONG>(*at - '0');
    }
    if (at == *text) return false;
    ULONG shift = 0;
    switch (*at) {
    case 'K': shift = 10; break;
    case 'M': shift = 20; break;
    case 'G': shift = 30; break;
    case 'T': shift = 40; break;
    }
    if (shift != 0) ++at;
    if (number > ~0ull >> shift) return false;
    *size = number << shift;
    *text = at;
    return true;
}

// One character of UTF-8; false for what is none.
bool ReadCharacter(const char** text, ULONG* character)
{
    const auto* at = reinterpret_cast<const unsigned char*>(*text);
    const ULONG lead = *at++;
    const ULONG following = lead < 0x80 ? 0 : (lead & 0xe0) == 0xc0 ? 1 : (lead & 0xf0) == 0xe0 ? 2 : 3;
    if ((lead >= 0x80 && lead < 0xc0) || lead >= 0xf8) return false;
    ULONG value = following == 0 ? lead : lead & (0x3fu >> following);
    for (ULONG i = 0; i < following; ++i) {
        if ((*at & 0xc0) != 0x80) return false;
        value = value << 6 | (*at++ & 0x3f);
    }
    *character = value;
    *text = reinterpret_cast<const char*>(at);
    return value <= 0x10ffff;
}

NTSTATUS ReadLabel(const char** text, Settings* settings)
{
    ULONG count = 0;
    while (**text && **text != ',') {
        ULONG character;
        if (!ReadCharacter(text, &character)) return STATUS_INVALID_PARAMETER;
        const bool isPair = character >= 0x10000;
        if (count + (isPair ? 2 : 1) > kMaxLabelCharacters) return STATUS_INVALID_VOLUME_LABEL;
        if (isPair) {
            settings->LabelText[count++] = static_cast<WCHAR>(0xd7c0 + (character >> 10));
            settings->LabelText[count++] = static_cast<WCHAR>(0xdc00 | (character & 0x3ff));
        } else {
            settings->LabelText[count++] = static_cast<WCHAR>(character);
        }
    }
    settings->Label.Length = settings->Label.MaximumLength = static_cast<USHORT>(count * sizeof(WCHAR));
    return STATUS_SUCCESS;
}

} // namespace

NTSTATUS ReadSettings(const char* arguments, Settings* settings)
{
    while (*arguments) {
        if (Skip(&arguments, "capacity=")) {
            if (!ReadSize(&arguments, &settings->Capacity)) return STATUS_INVALID_PARAMETER;
        } else if (Skip(&arguments, "label=")) {
            if (const NTSTATUS status = ReadLabel(&arguments, settings); !NT_SUCCESS(status)) return status;
        } else {
            return STATUS_INVALID_PARAMETER;
        }
        if (*arguments == ',')
            ++arguments;
        else if (*arguments)
            return STATUS_INVALID_PARAMETER;
    }
    return STATUS_SUCCESS;
}

} // namespace memfs
