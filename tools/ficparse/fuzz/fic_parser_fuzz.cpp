// libFuzzer entry for the host's FIC parser. The input is cut into FIBs of
// 32 bytes. The first byte chooses how they reach the parser: through the
// callback path with flags from the second and third bytes, with each FIB's
// CRC made right first (so that the fuzzer reaches the FIG decoding), or with
// the CRC as it stands. Every few FIBs the model is printed, so that the
// printers see what the parser kept.
#include <cstddef>
#include <cstdint>
#include <cstring>
#include <vector>

#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/fic_parser.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 3) return 0;
    const uint8_t how = data[0] % 3;
    const int32_t flags = (data[1] << 8) | data[2];
    data += 3;
    size -= 3;

    ficparse::FicParser parser;
    if (how == 0) {
        // Exact size copy, so that a read past the end is caught.
        std::vector<uint8_t> copy(data, data + size);
        parser.PushFibs(copy.data(), int32_t(copy.size()), flags);
    } else if (how == 1) {
        for (size_t i = 0; i + 30 <= size; i += 30) {
            uint8_t fib[32];
            std::memcpy(fib, data + i, 30);
            const uint16_t crc = ficparse::FibCrc(fib, 30);
            fib[30] = uint8_t(crc >> 8);
            fib[31] = uint8_t(crc);
            parser.PushFib(fib, true);
            if ((i / 30) % 4 == 3) (void)ficparse::EnsembleJson(parser.ensemble(), &parser.statistics());
        }
    } else {
        std::vector<uint8_t> copy(data, data + size);
        parser.PushFibsCheckingCrc(copy.data(), int32_t(copy.size()));
    }
    (void)ficparse::EnsembleText(parser.ensemble(), &parser.statistics());
    (void)ficparse::EnsembleJson(parser.ensemble(), &parser.statistics());
    return 0;
}
