#include <gtest/gtest.h>

#include <string>

#include "host_report.h"
#include "test_ensembles.h"

namespace {

// Brackets and braces outside strings balance: the JSON is at least well nested.
bool Balanced(const std::string& json) {
    int depth = 0;
    bool inString = false;
    for (size_t i = 0; i < json.size(); ++i) {
        const char ch = json[i];
        if (inString) {
            if (ch == '\\') ++i;
            else if (ch == '"') inString = false;
        } else if (ch == '"') {
            inString = true;
        } else if (ch == '{' || ch == '[') {
            ++depth;
        } else if (ch == '}' || ch == ']') {
            if (--depth < 0) return false;
        }
    }
    return depth == 0 && !inString;
}

TunedResult Found(int32_t khz) {
    ficparse::FicParser parser;
    int32_t flags = 0;
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags, 0xFFE);
    parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
    TunedResult r;
    r.frequencyKhz = khz;
    r.outcome = WaitOutcome::Complete;
    r.quality = 100;
    r.lockSeconds = 1.25;
    r.decidedSeconds = 2.5;
    r.fic = FicCounts{20, 240, 6, 0, 1};
    r.ensemble = parser.ensemble();
    r.statistics = parser.statistics();
    return r;
}

TunedResult Empty(int32_t khz, WaitOutcome outcome) {
    TunedResult r;
    r.frequencyKhz = khz;
    r.outcome = outcome;
    r.decidedSeconds = 0.9;
    return r;
}

TEST(HostReport, TunedTextHasTheFiguresAndTheEnsemble) {
    const std::string text = TunedResultText(Found(227360));
    EXPECT_NE(text.find("227360 kHz (12C): ensemble complete after 2.50 s (lock after 1.25 s), mode I, "
                        "quality 100 (above 10 dB)"),
              std::string::npos)
        << text;
    EXPECT_NE(text.find("240 FIBs, 6 failed CRC (2.5%)"), std::string::npos) << text;
    for (const char* s : {"0xCE15", "\"Test Mux\"", "\"First\"", "\"Second\"", "EEP 3-A", "64 kbit/s"})
        EXPECT_NE(text.find(s), std::string::npos) << s;

    const std::string none = TunedResultText(Empty(229072, WaitOutcome::NoSignal));
    EXPECT_EQ(none, "229072 kHz (12D): no DAB signal after 0.90 s, quality 0 (no signal)\n");
}

TEST(HostReport, TunedJsonJoinsReceptionAndEnsemble) {
    const std::string json = TunedResultJson(Found(227360));
    EXPECT_TRUE(Balanced(json)) << json;
    EXPECT_EQ(json.rfind("{\"reception\": {\"frequencyKhz\": 227360, \"channel\": \"12C\", \"outcome\": \"complete\", "
                         "\"mode\": \"I\"", 0),
              0u)
        << json;
    for (const char* s : {"\"lockSeconds\": 1.250", "\"fibsFailed\": 6", "}, \"ensemble\": {", "\"services\": [",
                          "\"subChannels\": [", "\"label\": \"Test Mux\""})
        EXPECT_NE(json.find(s), std::string::npos) << s;

    const std::string off = TunedResultJson(Empty(100000, WaitOutcome::NoLock));
    EXPECT_TRUE(Balanced(off)) << off;
    for (const char* s : {"\"channel\": null", "\"mode\": null", "\"lockSeconds\": null", "\"outcome\": \"noLock\""})
        EXPECT_NE(off.find(s), std::string::npos) << s;
}

TEST(HostReport, ScanListsFoundEnsemblesAndCountsTheRest) {
    const std::vector<TunedResult> results = {Empty(174928, WaitOutcome::NoSignal), Found(227360),
                                              Empty(222064, WaitOutcome::NoSignal),
                                              Empty(229072, WaitOutcome::NoLock)};
    const std::string text = ScanTableText(results);
    EXPECT_NE(text.find("Ensembles found: 1 of 4 frequencies"), std::string::npos) << text;
    EXPECT_NE(text.find("227360 kHz  12C    \"Test Mux\""), std::string::npos) << text;
    EXPECT_EQ(text.find("174928"), std::string::npos) << text;
    EXPECT_NE(text.find("No ensemble: 3 (no DAB signal 2, no lock 1)"), std::string::npos) << text;
    EXPECT_EQ(ScanTableText({Empty(174928, WaitOutcome::NoSignal)}),
              "Ensembles found: 0 of 1 frequencies\nNo ensemble: 1 (no DAB signal 1)\n");

    const std::string json = ScanJson(results);
    EXPECT_TRUE(Balanced(json)) << json;
    EXPECT_EQ(json.rfind("{\"frequencies\": 4, \"found\": 1, \"results\": [", 0), 0u) << json;
    EXPECT_NE(json.find("\"idHex\": \"0xCE15\", \"label\": \"Test Mux\", \"mode\": \"I\", \"quality\": 100, "
                        "\"services\": 2"),
              std::string::npos)
        << json;
    EXPECT_NE(json.find("{\"frequencyKhz\": 174928, \"channel\": \"5A\", \"outcome\": \"noSignal\", \"id\": null"),
              std::string::npos)
        << json;

    EXPECT_NE(ScanProgressLine(results[1]).find("ensemble complete after 2.5 s: 0xCE15 \"Test Mux\""),
              std::string::npos);
}

TEST(HostReport, StatusLineShowsProgressFigures) {
    StatusSnapshot s;
    s.elapsedSeconds = 1.5;
    s.frequencyKhz = 227360;
    s.present = 1;
    s.lockKnown = false;
    s.quality = 50;
    s.fic = FicCounts{4, 48, 12, 0, 1};
    const std::string line = StatusLine(s);
    for (const char* part : {"1.50 s", "227360 kHz (12C)", "signal found", "lock ?", "50 (5 to 8 dB)",
                             "FIC 4 frames, 48 FIBs, 12 failed CRC (25.0%)"})
        EXPECT_NE(line.find(part), std::string::npos) << part << " in " << line;
}

}  // namespace
