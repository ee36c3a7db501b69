// Command line of dabhost.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

struct HostOptions {
    int32_t frequencyKhz = 227360;   // kHz, block 12C
    double timeoutSeconds = 20.0;    // s: longest wait for the ensemble on one frequency
    double scanTimeoutSeconds = 8.0; // s: the same per frequency of a scan
    double settleSeconds = 1.0;      // s: a complete ensemble must stay unchanged this long
    double durationSeconds = 0.0;    // s: status lines after the ensemble was shown
    double intervalSeconds = 0.1;    // s: status poll period
    bool json = false;               // the result as JSON on stdout
    bool scan = false;               // scan `scanFrequenciesKhz` instead of tuning one frequency
    std::vector<int32_t> scanFrequenciesKhz;  // kHz; all Band III blocks unless --freqs
    bool quiet = false;              // no progress lines
    std::string service;             // label or id of the service to receive; empty: none
    std::string wavPath;             // decoded audio as WAV; "-" standard output; empty: none
    std::string recordPath;          // the sub-channel as received (DAB+: LOAS, or ADTS for *.aac); empty: none
    std::string slidesDir;           // folder for slideshow pictures; empty: none saved
    bool durationGiven = false;      // -d was given; a service is received until interrupted otherwise
    uint64_t frames = 0;             // with --service: stop after this many deliveries (0: no limit)
    int webPort = -1;                // --web: the page's TCP port (0: any free one); -1 no page
    std::string webHost = "127.0.0.1";  // --web: the address the page is served on
    bool help = false;
};

// Parses argv; on a bad option returns false and writes the reason to `error`.
// Frequencies are given in kHz or as block names ("12C").
bool ParseHostOptions(int argc, char** argv, HostOptions* options, std::string* error);
const char* HostUsage();
