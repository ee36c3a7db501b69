// dabhost's reports: the tuned result as text and JSON, the scan table and
// its JSON, the scan's progress line and the status line.
#include <gtest/gtest.h>

#include <string>

#include "host_report.h"
#include "test_ensembles.h"
#include "tools/ficparse/tests/json_check.h"

namespace {

TunedResult Found(int32_t khz) {
    ficparse::FicParser parser;
    int32_t flags = 0;
    const auto frame = hosttest::ModeIFrame(hosttest::TwoServiceFigs(true, true), &flags, 0xFFE);
    parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
    return TunedResult{khz, WaitOutcome::Complete, 100, 1.25, 2.5, FicCounts{20, 240, 6, 0, 1}, parser.ensemble(),
                       parser.statistics()};
}

TunedResult Empty(int32_t khz, WaitOutcome outcome) {
    TunedResult r;
    r.frequencyKhz = khz;
    r.outcome = outcome;
    r.decidedSeconds = 0.9;
    return r;
}

// Every part is found in `s`.
void ExpectParts(const std::string& s, std::initializer_list<const char*> parts) {
    for (const char* part : parts) EXPECT_NE(s.find(part), std::string::npos) << part << " in\n" << s;
}

TEST(HostReport, TunedResultAsTextAndJson) {
    ExpectParts(TunedResultText(Found(227360)),
                {"227360 kHz (12C): ensemble complete after 2.50 s (lock after 1.25 s), mode I, "
                 "quality 100 (above 10 dB)",
                 "240 FIBs, 6 failed CRC (2.5%)", "0xCE15", "\"Test Mux\"", "\"First\"", "\"Second\"", "EEP 3-A",
                 "64 kbit/s"});
    EXPECT_EQ(TunedResultText(Empty(229072, WaitOutcome::NoSignal)),
              "229072 kHz (12D): no DAB signal after 0.90 s, quality 0 (no signal)\n");

    const std::string json = TunedResultJson(Found(227360));
    EXPECT_TRUE(jsoncheck::Valid(json)) << json;
    EXPECT_EQ(json.rfind("{\"reception\": {\"frequencyKhz\": 227360, \"channel\": \"12C\", \"outcome\": \"complete\", "
                         "\"mode\": \"I\"", 0),
              0u)
        << json;
    ExpectParts(json, {"\"lockSeconds\": 1.250", "\"fibsFailed\": 6", "}, \"ensemble\": {", "\"services\": [",
                       "\"subChannels\": [", "\"label\": \"Test Mux\""});
    const std::string off = TunedResultJson(Empty(100000, WaitOutcome::NoLock));
    EXPECT_TRUE(jsoncheck::Valid(off)) << off;
    ExpectParts(off, {"\"channel\": null", "\"mode\": null", "\"lockSeconds\": null", "\"outcome\": \"noLock\""});
}

TEST(HostReport, ScanListsFoundEnsemblesAndCountsTheRest) {
    const std::vector<TunedResult> results = {Empty(174928, WaitOutcome::NoSignal), Found(227360),
                                              Empty(222064, WaitOutcome::NoSignal),
                                              Empty(229072, WaitOutcome::NoLock)};
    const std::string text = ScanTableText(results);
    ExpectParts(text, {"Ensembles found: 1 of 4 frequencies", "227360 kHz  12C    \"Test Mux\"",
                       "No ensemble: 3 (no DAB signal 2, no lock 1)"});
    EXPECT_EQ(text.find("174928"), std::string::npos) << text;
    EXPECT_EQ(ScanTableText({Empty(174928, WaitOutcome::NoSignal)}),
              "Ensembles found: 0 of 1 frequencies\nNo ensemble: 1 (no DAB signal 1)\n");

    const std::string json = ScanJson(results);
    EXPECT_TRUE(jsoncheck::Valid(json)) << json;
    EXPECT_EQ(json.rfind("{\"frequencies\": 4, \"found\": 1, \"results\": [", 0), 0u) << json;
    ExpectParts(json, {"\"idHex\": \"0xCE15\", \"label\": \"Test Mux\", \"mode\": \"I\", \"quality\": 100, "
                       "\"services\": 2",
                       "{\"frequencyKhz\": 174928, \"channel\": \"5A\", \"outcome\": \"noSignal\", \"id\": null"});
    ExpectParts(ScanProgressLine(results[1]), {"ensemble complete after 2.5 s: 0xCE15 \"Test Mux\""});
}

TEST(HostReport, StatusLineShowsProgressFigures) {
    const StatusSnapshot s{1.5, 227360, 1, false, false, 50, FicCounts{4, 48, 12, 0, 1}};
    ExpectParts(StatusLine(s), {"1.50 s", "227360 kHz (12C)", "signal found", "lock ?", "50 (5 to 8 dB)",
                                "FIC 4 frames, 48 FIBs, 12 failed CRC (25.0%)"});
}

}  // namespace
