#include "generator/label_charset.h"

#include <cstdint>
#include <utility>

namespace gen {
namespace {

// The set's characters, row by row as the code table prints them (ETSI TS
// 101 756, table C.1, 2015 revision). Codes that are no character (0x00 unused,
// 0x0A and 0x0B display controls, 0x1F soft hyphen) hold U+FFFF, which no text
// contains.
constexpr char32_t kRows[] =
    U"\uFFFFĘĮŲĂĖĎȘȚĊ\uFFFF\uFFFFĠĹŻŃ"
    U"ąęįųăėďșțċŇĚġĺż\uFFFF"
    U" !\"#ł%&'()*+,-./"
    U"0123456789:;<=>?"
    U"@ABCDEFGHIJKLMNO"
    U"PQRSTUVWXYZ[Ů]Ł_"
    U"Ąabcdefghijklmno"
    U"pqrstuvwxyz«ů»ĽĦ"
    U"áàéèíìóòúùÑÇŞß¡Ÿ"
    U"âäêëîïôöûüñçşğıÿ"
    U"ĶŅ©ĢĞěňőŐ€£$ĀĒĪŪ"
    U"ķņĻģļİńűŰ¿ľ°āēīū"
    U"ÁÀÉÈÍÌÓÒÚÙŘČŠŽÐĿ"
    U"ÂÄÊËÎÏÔÖÛÜřčšžđŀ"
    U"ÃÅÆŒŷÝÕØÞŊŔĆŚŹŤð"
    U"ãåæœŵýõøþŋŕćśźťħ";
static_assert(sizeof kRows / sizeof kRows[0] == 257, "16 rows of 16 characters");

// The code point of the UTF-8 sequence at `s[*i]`, advancing `*i`; -1 if the
// sequence is malformed.
int32_t NextCodePoint(const std::string& s, size_t* i) {
    const auto lead = static_cast<uint8_t>(s[*i]);
    const int extra = lead < 0x80             ? 0
                      : (lead & 0xE0) == 0xC0 ? 1
                      : (lead & 0xF0) == 0xE0 ? 2
                      : (lead & 0xF8) == 0xF0 ? 3
                                              : -1;
    if (extra < 0 || *i + static_cast<size_t>(extra) >= s.size()) return -1;
    int32_t cp = extra == 0 ? lead : lead & (0x3F >> extra);
    for (int k = 1; k <= extra; ++k) {
        const auto b = static_cast<uint8_t>(s[*i + k]);
        if ((b & 0xC0) != 0x80) return -1;
        cp = (cp << 6) | (b & 0x3F);
    }
    *i += static_cast<size_t>(extra) + 1;
    return cp;
}

}  // namespace

bool EncodeEbuLatin(const std::string& utf8, std::string* out) {
    std::string coded;
    for (size_t i = 0; i < utf8.size();) {
        const int32_t cp = NextCodePoint(utf8, &i);
        if (cp < 0 || cp == 0xFFFF) return false;
        int code = 0;
        while (code < 256 && kRows[code] != static_cast<char32_t>(cp)) ++code;
        if (code == 256) return false;
        coded += static_cast<char>(code);
    }
    *out = std::move(coded);
    return true;
}

}  // namespace gen
