#include <gtest/gtest.h>

#include <initializer_list>
#include <string>
#include <vector>

#include "band_channels.h"
#include "host_options.h"

namespace {

bool Parse(std::initializer_list<const char*> args, HostOptions* o, std::string* error = nullptr) {
    std::vector<char*> argv = {const_cast<char*>("dabhost")};
    for (const char* a : args) argv.push_back(const_cast<char*>(a));
    std::string ignored;
    return ParseHostOptions(int(argv.size()), argv.data(), o, error ? error : &ignored);
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
    std::string error;
    HostOptions o;
    for (auto args : {std::vector<const char*>{"-f", "227.36"}, {"-f", "227360.5"}, {"-f", "14Z"}, {"-f"},
                      {"-t", "-1"}, {"-t", "abc"}, {"--freqs", "227360,,222064"}, {"--freqs", ""},
                      {"--bogus"}}) {
        std::vector<char*> argv = {const_cast<char*>("dabhost")};
        for (const char* a : args) argv.push_back(const_cast<char*>(a));
        error.clear();
        EXPECT_FALSE(ParseHostOptions(int(argv.size()), argv.data(), &o, &error)) << args[0];
        EXPECT_FALSE(error.empty());
    }
}

TEST(HostOptions, ScanListsAndTimeouts) {
    HostOptions o;
    ASSERT_TRUE(Parse({"--scan"}, &o));
    ASSERT_EQ(o.scanFrequenciesKhz.size(), 38u);
    EXPECT_EQ(o.scanFrequenciesKhz.front(), 174928);
    EXPECT_EQ(o.scanFrequenciesKhz.back(), 239200);
    EXPECT_DOUBLE_EQ(o.scanTimeoutSeconds, 8.0);

    HostOptions p;
    ASSERT_TRUE(Parse({"--freqs", "227360,11D,5a", "-t", "4"}, &p));
    EXPECT_TRUE(p.scan);  // a list alone asks for a scan
    EXPECT_EQ(p.scanFrequenciesKhz, (std::vector<int32_t>{227360, 222064, 174928}));
    EXPECT_DOUBLE_EQ(p.scanTimeoutSeconds, 4.0);
    EXPECT_DOUBLE_EQ(p.timeoutSeconds, 4.0);
}

TEST(BandChannels, RasterIsOrderedAndNamesRoundTrip) {
    const auto& channels = BandIIIChannels();
    for (size_t i = 0; i < channels.size(); ++i) {
        EXPECT_EQ(ChannelFrequency(channels[i].name), channels[i].frequencyKhz);
        EXPECT_EQ(ChannelName(channels[i].frequencyKhz), channels[i].name);
        if (i > 0) {
            // Blocks are 1.712 MHz apart, wider at the gaps between TV channels.
            const int32_t step = channels[i].frequencyKhz - channels[i - 1].frequencyKhz;
            EXPECT_GE(step, 1568) << channels[i].name;
            EXPECT_LE(step, 1872) << channels[i].name;
        }
    }
    EXPECT_EQ(ChannelName(227361), "");
    EXPECT_EQ(ChannelFrequency("14A"), 0);
}

}  // namespace
