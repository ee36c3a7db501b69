// Sub-channel payloads of the transmitter: each source produces the bytes of
// one sub-channel, one logical frame (one 24 ms CIF) at a time, and is fully
// deterministic so that a test can regenerate exactly what was sent.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>

namespace gen {

class PadEncoder;

class PayloadSource {
public:
    virtual ~PayloadSource() = default;
    // Writes logical frame number `frameIndex` (0, 1, 2, ... in order of
    // transmission) of exactly `length` bytes: bit rate in kbit/s times 3.
    virtual void NextLogicalFrame(uint8_t* out, size_t length) = 0;
    // One line for the tool's listing, e.g. "random seed 7" or "DAB+ file x.dabp".
    virtual std::string Describe() const = 0;
    // Audio sources send programme-associated data from `pad` in each audio
    // frame from now on; false for sources that cannot carry it.
    virtual bool AttachPad(std::shared_ptr<PadEncoder> pad) { return pad == nullptr; }
};

using PayloadPtr = std::unique_ptr<PayloadSource>;

}  // namespace gen
