// Label text in the EBU Latin based character set, as sent in label FIGs and
// in the Dynamic Label.
#pragma once

#include <string>

namespace gen {

// `utf8` in the EBU Latin based set, one byte a character. False, with `out`
// left alone, when the UTF-8 is malformed or a character has no code in the
// set (control characters included).
bool EncodeEbuLatin(const std::string& utf8, std::string* out);

}  // namespace gen
