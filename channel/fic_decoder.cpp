#include "channel/fic_decoder.h"

#include "acquisition/mode_buffers.h"
#include "channel/energy_dispersal.h"
#include "channel/soft_bits.h"
#include "channel/viterbi_decoder.h"
#include "device/tuning.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/service_component.h"

namespace mvdab {

FicDecoderState ficDecoder = {0, 0, 0, 0, SetGoodReceptionLine};

namespace {

constexpr int32_t kFibBytes = 32;
constexpr int32_t kFibDataBytes = 30;
constexpr int32_t kFicErrorCountCeiling = 0x7FFFFF00;

// Full word: three kept outputs and the fourth punctured. Short word: the
// first two kept, the last two punctured.
inline SoftWord FullWord(const uint8_t* n) { return SoftWord((n[0] << 12) | (n[1] << 8) | (n[2] << 4) | 8); }
inline SoftWord ShortWord(const uint8_t* n) { return SoftWord((n[0] << 12) | (n[1] << 8) | 0x88); }

// CRC of the FIB data field: x^16 + x^12 + x^5 + 1, preset to all ones, top
// bit first, inverted at the end.
uint16_t FibCrc(const uint8_t* bytes) {
    uint16_t reg = 0xFFFF;
    for (int32_t i = 0; i < kFibDataBytes; ++i) {
        reg ^= uint16_t(bytes[i] << 8);
        for (int32_t bit = 0; bit < 8; ++bit) reg = (reg & 0x8000) ? uint16_t((reg << 1) ^ 0x1021) : uint16_t(reg << 1);
    }
    return uint16_t(~reg);
}

// Number of FIBs of a frame from the mode bits of ficFlags; 0 for no mode.
int32_t FibsForFlags(uint16_t flags) {
    switch (flags & 7) {
    case 1: return 12;
    case 2: return 3;
    case 3: return 4;
    case 4: return 6;
    default: return 0;
    }
}

// Steps the reception line by one CIF. The line goes on after 40 good CIFs in
// a row at a usable signal quality and off at the first bad one.
void UpdateReceptionLine(bool good) {
    if (receptionLine.ledMode.load(std::memory_order_relaxed) == 0) return;
    int32_t count = receptionLine.goodReceptionCount.load(std::memory_order_relaxed);
    if (good) {
        if (receiverStatus.signalQualityDb.load(std::memory_order_relaxed) < kGoodReceptionQualityDb) {
            count = 0;
        } else if (count == kGoodReceptionCifs - 1) {
            ficDecoder.setReceptionLine(1);
            count = kGoodReceptionCifs;
        } else if (count < kGoodReceptionCifs - 1) {
            ++count;
        }
    } else {
        if (count == kGoodReceptionCifs) ficDecoder.setReceptionLine(0);
        count = 0;
    }
    receptionLine.goodReceptionCount.store(count, std::memory_order_relaxed);
}

}  // namespace

void ResetFicDecoder() { ficDecoder.ficErrorCount = 0; }

int32_t AssembleFicWords(const uint8_t* nibbles, int32_t punctureBlocks, SoftWord* words) {
    SoftWord* w = words;
    // Blocks at code rate 8/24: three outputs of every step are sent.
    for (int32_t i = 0; i < 32 * (punctureBlocks - 3); ++i, nibbles += 3) *w++ = FullWord(nibbles);
    // Three blocks at 8/23: in each group of eight steps the last sends two.
    for (int32_t group = 0; group < 3 * 4; ++group) {
        for (int32_t i = 0; i < 7; ++i, nibbles += 3) *w++ = FullWord(nibbles);
        *w++ = ShortWord(nibbles);
        nibbles += 2;
    }
    // The six tail steps send two outputs each.
    for (int32_t i = 0; i < kViterbiTailSteps; ++i, nibbles += 2) *w++ = ShortWord(nibbles);
    return int32_t(w - words);
}

int32_t CheckFibCrc(const uint8_t* bytes, uint32_t* goodMask) {
    int32_t failed = 0;
    for (int32_t f = 0; f < mode.parameters.fibsPerCif; ++f) {
        const uint8_t* fib = bytes + f * kFibBytes;
        const uint16_t sent = uint16_t((fib[30] << 8) | fib[31]);
        const bool good = FibCrc(fib) == sent;
        *goodMask = *goodMask * 2 + (good ? 1 : 0);
        if (!good) ++failed;
    }
    return failed;
}

int32_t FindEnsembleInfo(const uint8_t* fibs, uint16_t flags, uint8_t* cifCountLow, int32_t* fibIndex) {
    const int32_t fibCount = FibsForFlags(flags);
    for (int32_t i = 0; i < fibCount; ++i) {
        if ((flags & (0x8000 >> i)) == 0) continue;
        const uint8_t* fib = fibs + i * kFibBytes;
        // Walk the FIG headers by their lengths. A FIG can't start at byte
        // 29 or later, and a FIG 0/0 must hold its CIF count (its sixth
        // byte) inside the FIB's data field.
        int32_t p = 0;
        while (p <= 28 && fib[p] != 0xFF) {
            if ((fib[p] & 0xE0) == 0 && (fib[p + 1] & 0x1F) == 0) {
                if (p + 5 >= kFibDataBytes) break;
                *cifCountLow = fib[p + 5];
                if (fibIndex != nullptr) *fibIndex = i;
                return 1;
            }
            p += 1 + (fib[p] & 0x1F);
        }
    }
    return 0;
}

int32_t DecodeFic() {
    const int32_t m = mode.transmissionMode;
    if (m < 0 || m > 3 || modeBuffers.frameCarriers == nullptr || modeBuffers.ficSoftBits == nullptr ||
        modeBuffers.ficWords == nullptr || modeBuffers.ficBytes == nullptr)
        return 1;
    const ModeParameters& p = mode.parameters;
    const uint8_t softBitMode = receiverSettings.softBitMode;

    uint8_t errors = 0;  // failed FIBs so far in this frame, running over its CIFs
    uint32_t goodMask = 0;
    // The FIC symbols' rows follow each other, so the soft values of all CIFs
    // of the frame run on from row 1 without a gap.
    const float* r = modeBuffers.frameCarriers + 2 * p.carrierCount;
    for (int32_t c = 0; c < p.cifsPerFrame; ++c, r += p.ficCodedBits) {
        uint8_t* out = modeBuffers.ficBytes + c * p.ficBytesPerCif;
        ConvertFicSoftBits(r, p.ficCodedBits, softBitMode, modeBuffers.ficSoftBits);
        AssembleFicWords(modeBuffers.ficSoftBits, p.ficPunctureBlocks, modeBuffers.ficWords);
        ViterbiDecode(modeBuffers.ficWords, p.ficDecodedBits, out);
        EnergyDisperse(out, p.ficBytesPerCif);
        errors = uint8_t(errors + CheckFibCrc(out, &goodMask));

        if (errors == 0) {
            receiverStatus.syncState.store(4, std::memory_order_relaxed);
            ficDecoder.ficErrorCount = 0;
        } else {
            receiverStatus.syncState.store(errors <= kTolerableFibErrors[m] ? 5 : 3, std::memory_order_relaxed);
            // Without the restart the count keeps growing; it stops short of overflow.
            ficDecoder.ficErrorCount += errors;
            if (ficDecoder.ficErrorCount > kFicErrorCountCeiling) ficDecoder.ficErrorCount = kFicErrorCountCeiling;
        }
        UpdateReceptionLine(errors == 0);
        if (ficDecoder.ficErrorCount >= kFicErrorLimit && receiverSettings.resyncOnFicErrors != 0) {
            pipeline.resyncRequest = 1;
            ficDecoder.ficErrorCount = 0;
        }
    }

    const uint16_t flags = uint16_t((m + 1) | (goodMask << kFicFlagShift[m]));
    ficDecoder.ficFlags = flags;
    const int32_t length = p.ficBytesPerCif * p.cifsPerFrame;
    // Each slot is read once; the host may replace a callback at any time.
    if (MVDAB_DataCallBack fic = ficCallback.load()) fic(modeBuffers.ficBytes, length, flags);
    if (MVDAB_DataCallBack mwFic = mwFicCallback.load()) mwFic(modeBuffers.ficBytes, length, flags);

    if (cifCountWanted.load() == 1) {
        uint8_t low = 0;
        int32_t fib = 0;
        if (FindEnsembleInfo(modeBuffers.ficBytes, flags, &low, &fib)) {
            // The count is that of the CIF whose FIB carried it; the
            // sub-channel decoder counts from the frame's first CIF, so a
            // count found in a later CIF (the first CIF's FIBs failed) is
            // taken back to it. Without this a change would fall due one CIF
            // late for each CIF skipped.
            const int32_t cif = p.fibsPerCif != 0 ? fib / p.fibsPerCif : 0;
            ficDecoder.latestCifCountLow = uint8_t((low + 250 - cif % 250) % 250);
            ficDecoder.cifCountValid = 1;
        } else {
            ficDecoder.cifCountValid = 0;
        }
    }
    return 1;
}

}  // namespace mvdab
