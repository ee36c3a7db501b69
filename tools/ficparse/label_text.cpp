#include "tools/ficparse/label_text.h"

#include <cstring>
#include <vector>

#include "tools/ficparse/ebu_latin.h"

namespace ficparse {

namespace {

constexpr uint32_t kReplacement = '?';

void AppendUtf8(std::string& out, uint32_t cp) {
    if (cp < 0x80) {
        out += static_cast<char>(cp);
    } else if (cp < 0x800) {
        out += static_cast<char>(0xC0 | (cp >> 6));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else if (cp < 0x10000) {
        out += static_cast<char>(0xE0 | (cp >> 12));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    } else {
        out += static_cast<char>(0xF0 | (cp >> 18));
        out += static_cast<char>(0x80 | ((cp >> 12) & 0x3F));
        out += static_cast<char>(0x80 | ((cp >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (cp & 0x3F));
    }
}

// Decodes one UTF-8 sequence starting at raw[i]; returns its length in bytes
// (at least 1) and the code point, or kReplacement for a bad sequence.
int DecodeUtf8(const uint8_t* raw, int i, int n, uint32_t& cp) {
    const uint8_t b = raw[i];
    int length;
    uint32_t minimum;
    if (b < 0x80) {
        cp = b;
        return 1;
    } else if ((b & 0xE0) == 0xC0) {
        length = 2, cp = b & 0x1F, minimum = 0x80;
    } else if ((b & 0xF0) == 0xE0) {
        length = 3, cp = b & 0x0F, minimum = 0x800;
    } else if ((b & 0xF8) == 0xF0) {
        length = 4, cp = b & 0x07, minimum = 0x10000;
    } else {
        cp = kReplacement;
        return 1;
    }
    if (i + length > n) {
        cp = kReplacement;
        return 1;
    }
    for (int k = 1; k < length; ++k) {
        if ((raw[i + k] & 0xC0) != 0x80) {
            cp = kReplacement;
            return 1;
        }
        cp = (cp << 6) | (raw[i + k] & 0x3F);
    }
    if (cp < minimum || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) cp = kReplacement;
    return length;
}

// Control characters have no place in a label shown to a user.
uint32_t Printable(uint32_t cp) { return cp < 0x20 || (cp >= 0x7F && cp < 0xA0) ? kReplacement : cp; }

}  // namespace

void DecodeLabel(const uint8_t raw[16], int charset, uint16_t shortMask, Label& label) {
    label.known = true;
    label.charset = charset;
    std::memcpy(label.raw, raw, 16);
    label.shortMask = shortMask;

    // The characters of the label in order; the flag field counts these.
    std::vector<uint32_t> chars;
    if (charset == 15) {
        for (int i = 0; i < 16;) {
            uint32_t cp;
            i += DecodeUtf8(raw, i, 16, cp);
            chars.push_back(cp);
        }
    } else if (charset == 6) {
        for (int i = 0; i < 16; i += 2) {
            const uint32_t cp = (uint32_t(raw[i]) << 8) | raw[i + 1];
            chars.push_back(cp >= 0xD800 && cp <= 0xDFFF ? kReplacement : cp);
        }
    } else {
        for (int i = 0; i < 16; ++i) chars.push_back(kEbuLatin[raw[i]]);
    }
    // Padding: trailing spaces (and NULs of UCS-2 or UTF-8 labels) are not text.
    size_t end = chars.size();
    while (end > 0 && (chars[end - 1] == ' ' || chars[end - 1] == 0)) --end;

    label.text.clear();
    label.shortText.clear();
    for (size_t i = 0; i < end; ++i) AppendUtf8(label.text, Printable(chars[i]));
    for (size_t i = 0; i < chars.size() && i < 16; ++i) {
        if (shortMask & (0x8000u >> i)) AppendUtf8(label.shortText, Printable(chars[i]));
    }
}

}  // namespace ficparse
