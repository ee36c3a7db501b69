#include <gtest/gtest.h>

#include <cctype>

#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/tests/fig_writer.h"

using namespace figwriter;

namespace {

// A strict JSON syntax check: one value, nothing after it.
class JsonChecker {
public:
    explicit JsonChecker(const std::string& text) : s_(text) {}
    bool Valid() {
        Space();
        if (!Value()) return false;
        Space();
        return i_ == s_.size();
    }

private:
    void Space() {
        while (i_ < s_.size() && std::isspace(static_cast<unsigned char>(s_[i_]))) ++i_;
    }
    bool Eat(char c) {
        Space();
        if (i_ < s_.size() && s_[i_] == c) return ++i_, true;
        return false;
    }
    bool Word(const char* w) {
        const std::string word(w);
        if (s_.compare(i_, word.size(), word) != 0) return false;
        i_ += word.size();
        return true;
    }
    bool String() {
        if (!Eat('"')) return false;
        while (i_ < s_.size() && s_[i_] != '"') {
            const unsigned char c = s_[i_];
            if (c < 0x20) return false;
            if (c == '\\') {
                ++i_;
                if (i_ >= s_.size()) return false;
                if (s_[i_] == 'u') i_ += 4;
                else if (std::string("\"\\/bfnrt").find(s_[i_]) == std::string::npos) return false;
            }
            ++i_;
        }
        return Eat('"');
    }
    bool Number() {
        const size_t start = i_;
        if (i_ < s_.size() && s_[i_] == '-') ++i_;
        while (i_ < s_.size() && std::isdigit(static_cast<unsigned char>(s_[i_]))) ++i_;
        return i_ > start;
    }
    bool Value() {
        Space();
        if (i_ >= s_.size()) return false;
        const char c = s_[i_];
        if (c == '{') {
            ++i_;
            if (Eat('}')) return true;
            do {
                Space();
                if (!String() || !Eat(':') || !Value()) return false;
            } while (Eat(','));
            return Eat('}');
        }
        if (c == '[') {
            ++i_;
            if (Eat(']')) return true;
            do {
                if (!Value()) return false;
            } while (Eat(','));
            return Eat(']');
        }
        if (c == '"') return String();
        if (c == 't') return Word("true");
        if (c == 'f') return Word("false");
        if (c == 'n') return Word("null");
        return Number();
    }
    const std::string& s_;
    size_t i_ = 0;
};

ficparse::FicParser ParsedEnsemble() {
    ficparse::FicParser parser;
    const std::vector<Bytes> fibs = PackFibs({
        Fig00(0xE123, 0, false, 4, 234),
        Fig1(0, 0xE123, "Quote\" \\ Back", 0xF800),
        Fig01({{1, 0, false, 5, 0, 0, 0}, {2, 24, true, 0, 1, 3, 18}}),
        Fig02({{0xC221, 0, {{0, 63, 2, true, false}}}, {0xC222, 0, {{0, 0, 1, true, false}}}}, false),
        Fig02({{0xE0C12345u, 0, {{3, 9, 0, true, false}}}}, true),
        Fig1(1, 0xC221, "Plus", 0),
    });
    for (const Bytes& fib : fibs) parser.PushFib(fib.data(), true);
    return parser;
}

}  // namespace

TEST(EnsemblePrint, TextListsServicesAndSubChannels) {
    const ficparse::FicParser parser = ParsedEnsemble();
    const std::string text = ficparse::EnsembleText(parser.ensemble(), &parser.statistics());
    EXPECT_NE(text.find("Ensemble 0xE123 \"Quote\" \\ Back\" (short \"Quote\")"), std::string::npos) << text;
    EXPECT_NE(text.find("CIF count 1234 (4/234)"), std::string::npos) << text;
    EXPECT_NE(text.find("Services: 3"), std::string::npos);
    EXPECT_NE(text.find("  0xC221 \"Plus\"\n    audio, ASCTy 63 (DAB+), sub-channel 2, primary\n"), std::string::npos)
        << text;
    EXPECT_NE(text.find("  0xC222 (no label)\n    audio, ASCTy 0 (MPEG Layer II), sub-channel 1"), std::string::npos);
    EXPECT_NE(text.find("  0xE0C12345 (no label)\n    packet, SCId 9, packet data not yet known"), std::string::npos);
    EXPECT_NE(text.find("   1: start   0, size  24 CU, UEP 5, 48 kbit/s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("   2: start  24, size  18 CU, EEP 3-B, 32 kbit/s\n"), std::string::npos) << text;
    EXPECT_NE(text.find("Incomplete, missing: label of service 0xC222; label of service 0xE0C12345; "
                        "packet data of component 9 of service 0xE0C12345\n"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("FIGs seen: 0/0 0/1 0/2 1/0 1/1\n"), std::string::npos) << text;
}

TEST(EnsemblePrint, JsonIsWellFormedAndCarriesTheModel) {
    const ficparse::FicParser parser = ParsedEnsemble();
    const std::string json = ficparse::EnsembleJson(parser.ensemble(), &parser.statistics());
    EXPECT_TRUE(JsonChecker(json).Valid()) << json;
    EXPECT_NE(json.find("\"label\": \"Quote\\\" \\\\ Back\""), std::string::npos) << json;
    EXPECT_NE(json.find("{\"id\": 49697, \"idHex\": \"0xC221\", \"label\": \"Plus\""), std::string::npos) << json;
    EXPECT_NE(json.find("{\"id\": 2, \"start\": 24, \"size\": 18, \"form\": \"long\", \"option\": 1, "
                        "\"protectionLevel\": 3, \"protection\": \"EEP 3-B\", \"bitRate\": 32}"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("\"complete\": false"), std::string::npos);
    EXPECT_NE(json.find("{\"fig\": \"1/1\", \"count\": 1}"), std::string::npos) << json;

    // An empty model is valid JSON too, with nulls for what is unknown.
    const std::string empty = ficparse::EnsembleJson(ficparse::Ensemble());
    EXPECT_TRUE(JsonChecker(empty).Valid()) << empty;
    EXPECT_NE(empty.find("\"id\": null"), std::string::npos) << empty;
}
