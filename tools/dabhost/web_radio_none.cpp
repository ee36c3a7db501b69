// dabhost built without cpp-httplib, nlohmann-json or libmp3lame: no web page.
#include <cstdio>

#include "web_radio.h"

int RunWeb(const HostOptions&, const volatile std::sig_atomic_t&) {
    std::fprintf(stderr, "dabhost: this build has no web page (it needs cpp-httplib, nlohmann-json and libmp3lame)\n");
    return 1;
}
