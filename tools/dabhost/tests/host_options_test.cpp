// dabhost's command line: frequencies in kHz or as block names, refusals,
// scan lists and timeouts; the Band III block raster.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "band_channels.h"
#include "host_options.h"

namespace {

bool Parse(std::vector<const char*> args, HostOptions* o, std::string* error = nullptr) {
    args.insert(args.begin(), "dabhost");
    std::string ignored;
    return ParseHostOptions(int(args.size()), const_cast<char**>(args.data()), o, error ? error : &ignored);
}

TEST(HostOptions, FrequencyInKhzOrAsBlockName) {
    HostOptions o;
    ASSERT_TRUE(Parse({}, &o));
    EXPECT_EQ(o.frequencyKhz, 227360);
    EXPECT_FALSE(o.scan);
    ASSERT_TRUE(Parse({"-f", "11d"}, &o));
    EXPECT_EQ(o.frequencyKhz, 222064);
    ASSERT_TRUE(Parse({"--frequency", "174928", "--json", "-d", "3"}, &o));
    EXPECT_EQ(o.frequencyKhz, 174928);
    EXPECT_TRUE(o.json);
    EXPECT_DOUBLE_EQ(o.durationSeconds, 3.0);
}

TEST(HostOptions, RefusesMegahertzFractionsAndUnknownInput) {
    HostOptions o;
    for (auto args : {std::vector<const char*>{"-f", "227.36"}, {"-f", "227360.5"}, {"-f", "14Z"}, {"-f"},
                      {"-t", "-1"}, {"-t", "abc"}, {"--freqs", "227360,,222064"}, {"--freqs", ""},
                      {"--bogus"}}) {
        std::string error;
        EXPECT_FALSE(Parse(args, &o, &error)) << args[0];
        EXPECT_FALSE(error.empty());
    }
}

TEST(HostOptions, ScanListsAndTimeouts) {
    HostOptions o, p;
    ASSERT_TRUE(Parse({"--scan"}, &o));
    ASSERT_EQ(o.scanFrequenciesKhz.size(), 38u);
    EXPECT_EQ(o.scanFrequenciesKhz.front(), 174928);
    EXPECT_EQ(o.scanFrequenciesKhz.back(), 239200);
    EXPECT_DOUBLE_EQ(o.scanTimeoutSeconds, 8.0);
    ASSERT_TRUE(Parse({"--freqs", "227360,11D,5a", "-t", "4"}, &p));
    EXPECT_TRUE(p.scan);  // a list alone asks for a scan
    EXPECT_EQ(p.scanFrequenciesKhz, (std::vector<int32_t>{227360, 222064, 174928}));
    EXPECT_DOUBLE_EQ(p.scanTimeoutSeconds, 4.0);
    EXPECT_DOUBLE_EQ(p.timeoutSeconds, 4.0);
}

TEST(HostOptions, ServiceOutputsAndWhoGetsStandardOutput) {
    HostOptions o;
    ASSERT_TRUE(Parse({"--service", "MVX Classic", "--wav", "-", "--record", "c.mp2", "--slides", "pics"}, &o));
    EXPECT_EQ(o.service, "MVX Classic");
    EXPECT_EQ(o.slidesDir, "pics");
    EXPECT_EQ(o.wavPath, "-");
    EXPECT_EQ(o.recordPath, "c.mp2");
    EXPECT_FALSE(o.durationGiven);  // a service is received until interrupted
    ASSERT_TRUE(Parse({"--service", "0xE201", "-d", "5", "--frames", "120"}, &o));
    EXPECT_TRUE(o.durationGiven);
    EXPECT_EQ(o.frames, 120u);
    for (auto args : {std::vector<const char*>{"--wav", "x.wav"}, {"--record", "x"}, {"--service"},
                      {"--service", ""}, {"--scan", "--service", "A"}, {"--service", "A", "--wav", "-", "--json"},
                      {"--service", "A", "--wav", "-", "--record", "-"}, {"--frames", "3"},
                      {"--slides", "d"}, {"--service", "A", "--slides", ""},
                      {"--service", "A", "--frames", "0"}, {"--service", "A", "--frames", "2.5"}}) {
        std::string error;
        HostOptions fresh;
        EXPECT_FALSE(Parse(args, &fresh, &error)) << args[0] << " " << args.size();
        EXPECT_FALSE(error.empty());
    }
}

TEST(HostOptions, WebAddressAndWhatGoesWithIt) {
    HostOptions o, p;
    EXPECT_EQ(o.webPort, -1);
    ASSERT_TRUE(Parse({"--web", "8080", "--service", "MVX Plus", "--scan"}, &o));
    EXPECT_EQ(o.webPort, 8080);
    EXPECT_EQ(o.webHost, "127.0.0.1");
    ASSERT_TRUE(Parse({"--web", "0.0.0.0:0"}, &p));
    EXPECT_EQ(p.webPort, 0);
    EXPECT_EQ(p.webHost, "0.0.0.0");
    for (auto args : {std::vector<const char*>{"--web"}, {"--web", "65536"}, {"--web", ":80"}, {"--web", "80.5"},
                      {"--web", "host:"}, {"--web", "80", "--json"}, {"--web", "80", "--service", "A", "--wav", "a"}}) {
        HostOptions fresh;
        EXPECT_FALSE(Parse(args, &fresh)) << args.back();
    }
}

TEST(BandChannels, RasterIsOrderedAndNamesRoundTrip) {
    const auto& channels = BandIIIChannels();
    for (size_t i = 0; i < channels.size(); ++i) {
        EXPECT_EQ(ChannelFrequency(channels[i].name), channels[i].frequencyKhz);
        EXPECT_EQ(ChannelName(channels[i].frequencyKhz), channels[i].name);
        // Blocks are 1.712 MHz apart, wider at the gaps between TV channels.
        const int32_t step = i > 0 ? channels[i].frequencyKhz - channels[i - 1].frequencyKhz : 1712;
        EXPECT_TRUE(step >= 1568 && step <= 1872) << channels[i].name << ": " << step;
    }
    EXPECT_EQ(ChannelName(227361), "");
    EXPECT_EQ(ChannelFrequency("14A"), 0);
}

}  // namespace
