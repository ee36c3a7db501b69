// A strict JSON syntax check for the printers' tests: objects, arrays,
// strings without raw control characters, true/false/null and numbers.
#pragma once

#include <cctype>
#include <cstring>
#include <string>

namespace jsoncheck {

// True when `s` from `i` on starts with one JSON value; `i` moves past it.
inline bool Value(const std::string& s, size_t& i) {
    auto space = [&] { while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i; };
    auto eat = [&](char c) { return space(), i < s.size() && s[i] == c ? (++i, true) : false; };
    auto string = [&] {
        if (!eat('"')) return false;
        for (; i < s.size() && s[i] != '"'; ++i) {
            if (static_cast<unsigned char>(s[i]) < 0x20) return false;
            if (s[i] == '\\' && ++i < s.size() && s[i] == 'u') i += 4;
        }
        return eat('"');
    };
    auto list = [&](char close, bool members) {
        if (eat(close)) return true;
        do if ((members && (!string() || !eat(':'))) || !Value(s, i)) return false;
        while (eat(','));
        return eat(close);
    };
    space();
    if (i >= s.size()) return false;
    if (eat('{')) return list('}', true);
    if (eat('[')) return list(']', false);
    if (s[i] == '"') return string();
    for (const char* word : {"true", "false", "null"})
        if (s.compare(i, std::strlen(word), word) == 0) return i += std::strlen(word), true;
    const size_t start = i;
    if (s[i] == '-') ++i;
    while (i < s.size() && (std::isdigit(static_cast<unsigned char>(s[i])) || s[i] == '.')) ++i;
    return i > start;
}

// One value and nothing but white space after it.
inline bool Valid(const std::string& s) {
    size_t i = 0;
    if (!Value(s, i)) return false;
    while (i < s.size() && std::isspace(static_cast<unsigned char>(s[i]))) ++i;
    return i == s.size();
}

}  // namespace jsoncheck
