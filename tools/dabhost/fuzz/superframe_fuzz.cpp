// libFuzzer entry for the DAB+ superframe reader: the input is one audio
// part as the MSC callback would hand it over, copied to a buffer of exactly
// its size so that a read past the end is caught. Every AU the reader finds
// is wrapped as LOAS and ADTS, so that the framing sees the lengths the
// reader let through.
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <vector>

#include "superframe.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    std::vector<uint8_t> copy(data, data + size);
    dabplus::Superframe sf;
    const bool parsed = dabplus::ParseSuperframe(copy.data(), int(copy.size()), &sf);
    if (parsed != (sf.auCount > 0)) std::abort();
    std::vector<uint8_t> out;
    int end = sf.auCount > 0 ? sf.aus[0].offset : 0;
    for (int k = 0; k < sf.auCount; ++k) {
        const dabplus::AccessUnit& au = sf.aus[k];
        // AUs tile the audio part from the header to its end.
        if (au.offset != end || au.payloadBytes < 0) std::abort();
        end = au.offset + au.payloadBytes + dabplus::kAuCrcBytes;
        dabplus::AppendLoasFrame(sf.audio, copy.data() + au.offset, au.payloadBytes, &out);
        dabplus::AppendAdtsFrame(sf.audio, copy.data() + au.offset, au.payloadBytes, &out);
    }
    if (sf.auCount > 0 && end != int(size)) std::abort();
    (void)dabplus::DecoderConfig(sf.audio);
    return 0;
}
