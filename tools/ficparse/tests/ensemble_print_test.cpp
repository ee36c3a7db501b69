// The ensemble printers: the text form line by line, and the JSON form as
// valid JSON with the expected members, escapes and nulls.
#include <gtest/gtest.h>

#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/tests/fig_writer.h"
#include "tools/ficparse/tests/json_check.h"

using namespace figwriter;

namespace {

ficparse::FicParser ParsedEnsemble() {
    ficparse::FicParser parser;
    for (const Bytes& fib : PackFibs({
             Fig00(0xE123, 1, false, 4, 234, 240),
             Fig1(0, 0xE123, "Quote\" \\ Back", 0xF800, 15),  // UTF-8, which has a backslash
             Fig01({{1, 0, false, 5, 0, 0, 0}, {2, 24, true, 0, 1, 3, 18}}),
             Fig02({{0xC221, 0, {{0, 63, 2, true, false}}}, {0xC222, 0, {{0, 0, 1, true, false}}}}, false),
             Fig02({{0xE0C12345u, 0, {{3, 9, 0, true, false}}}}, true),
             Fig1(1, 0xC221, "Plus", 0),
             Fig01({{2, 400, true, 0, 0, 2, 32}}, 0x81),
         }))
        parser.PushFib(fib.data(), true);
    return parser;
}

TEST(EnsemblePrint, TextAndJson) {
    const ficparse::FicParser parser = ParsedEnsemble();
    const std::string text = ficparse::EnsembleText(parser.ensemble(), &parser.statistics());
    for (const char* line : {
             "Ensemble 0xE123 \"Quote\" \\ Back\" (short \"Quote\")\n",
             "  CIF count 1234 (4/234), change 1 announced at CIF 240\n",
             "  0xC221 \"Plus\"\n    audio, ASCTy 63 (DAB+), sub-channel 2, primary\n",
             "  0xC222 (no label)\n    audio, ASCTy 0 (MPEG Layer II), sub-channel 1, primary\n",
             "  0xE0C12345 (no label)\n    packet, SCId 9, packet data not yet known, primary\n",
             "   1: start   0, size  24 CU, UEP 5, 48 kbit/s\n",
             "   2: start  24, size  18 CU, EEP 3-B, 32 kbit/s\n",
             "Next configuration, from CIF 240: 1\n   2: start 400, size  32 CU, EEP 2-A, 32 kbit/s\n",
             "Incomplete, missing: label of service 0xC222; "
             "packet data of component 9 of service 0xE0C12345\n",
             "FIGs seen: 0/0 0/1 0/2 1/0 1/1\n",
         })
        EXPECT_NE(text.find(line), std::string::npos) << line << "in\n" << text;

    const std::string json = ficparse::EnsembleJson(parser.ensemble(), &parser.statistics());
    EXPECT_TRUE(jsoncheck::Valid(json)) << json;
    for (const char* part : {
             "\"label\": \"Quote\\\" \\\\ Back\"",
             "{\"id\": 49697, \"idHex\": \"0xC221\", \"label\": \"Plus\"",
             "{\"id\": 2, \"start\": 24, \"size\": 18, \"form\": \"long\", \"option\": 1, \"protectionLevel\": 3, "
             "\"protection\": \"EEP 3-B\", \"bitRate\": 32}",
             "\"nextSubChannels\": [{\"id\": 2, \"start\": 400,",
             "\"complete\": false",
             "{\"fig\": \"1/1\", \"count\": 1}",
         })
        EXPECT_NE(json.find(part), std::string::npos) << part << " in\n" << json;
    // An empty model is valid JSON too, with nulls for what is unknown.
    const std::string empty = ficparse::EnsembleJson(ficparse::Ensemble());
    EXPECT_TRUE(jsoncheck::Valid(empty)) << empty;
    EXPECT_NE(empty.find("\"id\": null"), std::string::npos) << empty;
    EXPECT_FALSE(jsoncheck::Valid("{\"a\": 1,}"));
}

}  // namespace
