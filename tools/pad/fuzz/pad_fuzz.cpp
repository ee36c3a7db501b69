// libFuzzer entry for the PAD reader. The first byte chooses the path: MP2
// frames, DAB+ AUs or bare PAD fields (ScF-CRC gap from the second byte);
// the rest is cut into pieces whose lengths come from the input, each copied
// to a buffer of exactly its size so that a read past the end is caught.
#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "tools/pad/pad_decoder.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
    if (size < 2) return 0;
    const int how = data[0] % 3;
    const size_t gap = data[1] % 5;
    data += 2, size -= 2;
    pad::PadDecoder decoder;
    while (size > 0) {
        const size_t n = std::min<size_t>(size - 1, data[0]);
        std::vector<uint8_t> piece(data + 1, data + 1 + n);
        data += 1 + n, size -= 1 + n;
        if (how == 0) decoder.PushMp2Frame(piece.data(), piece.size());
        else if (how == 1) decoder.PushAu(piece.data(), piece.size());
        else decoder.PushField(piece.data(), piece.size(), gap);
    }
    decoder.TakeObjects();
    return 0;
}
