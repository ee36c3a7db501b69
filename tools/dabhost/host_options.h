// Command line of dabhost.
#pragma once

#include <cstdint>
#include <string>

struct HostOptions {
    int32_t frequencyKhz = 227360;  // block 11D
    double durationSeconds = 10.0;  // how long to watch before closing
    double intervalSeconds = 0.25;  // status poll period
    bool quiet = false;             // only the summary
    bool help = false;
};

// Parses argv; on a bad option returns false and writes the reason to `error`.
bool ParseHostOptions(int argc, char** argv, HostOptions* options, std::string* error);
const char* HostUsage();
