#include "channel/subchannel_decoder.h"

#include <array>

#include "channel/energy_dispersal.h"
#include "channel/fic_decoder.h"
#include "channel/soft_bits.h"
#include "channel/viterbi_decoder.h"
#include "delivery/worker.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"
#include "services/protection_tables.h"
#include "services/service_component.h"

namespace mvdab {

namespace {

// Positions of the sent bits of each puncturing vector, rising; vector PI
// sends PI + 8 of its 32 positions.
struct PuncturePositions {
    uint8_t position[25][32];
};
constexpr PuncturePositions BuildPuncturePositions() {
    PuncturePositions p{};
    for (int32_t pi = 1; pi <= 24; ++pi) {
        int32_t n = 0;
        for (int32_t bit = 0; bit < 32; ++bit)
            if ((kPunctureVectors[pi] >> (31 - bit)) & 1u) p.position[pi][n++] = uint8_t(bit);
    }
    return p;
}
constexpr PuncturePositions kPuncturePositions = BuildPuncturePositions();

// Each vector sends PI + 8 bits and holds every bit of the one before it.
constexpr bool PunctureVectorsSound() {
    for (int32_t pi = 1; pi <= 24; ++pi) {
        int32_t ones = 0;
        for (int32_t bit = 0; bit < 32; ++bit) ones += int32_t((kPunctureVectors[pi] >> bit) & 1u);
        if (ones != pi + 8) return false;
        if (pi > 1 && (kPunctureVectors[pi - 1] & ~kPunctureVectors[pi]) != 0) return false;
    }
    return true;
}
static_assert(PunctureVectorsSound(), "puncturing vectors");

// Puncturing indices of the long form by set and protectionLevel: first and
// second run.
constexpr int32_t kEepPunctureA[4][2] = {{24, 23}, {14, 13}, {8, 7}, {3, 2}};
constexpr int32_t kEepPunctureB[4][2] = {{10, 9}, {6, 5}, {4, 3}, {2, 1}};

constexpr int32_t kTailWords = kViterbiTailSteps;
constexpr int32_t kTailNibbles = 12;
constexpr int32_t kCifCountPeriod = 250;  // period of the CIF count's low part

// Soft nibbles of one CIF's S x 64 soft values, each written into the slot of
// the CIF in which it is read.
void StoreSoftNibbles(const float* x, int32_t count, uint8_t* timeStore, int32_t slotBytes, int32_t timeIndex) {
    const ReceiverSettings& s = receiverSettings;
    const uint8_t* map = s.softBitMap != nullptr ? s.softBitMap : kDefaultSoftBitMap.data();
    const uint8_t mode = s.softBitMode;
    // W[d] + d: branch d's slot, shifted so that a group of 16 values adds
    // its own offset.
    std::array<uint8_t*, 16> w;
    for (int32_t d = 0; d < 16; ++d)
        w[d] = timeStore + ((kTimeInterleaveDelays[d] + timeIndex) & 15) * slotBytes + d;
    // Converted a piece at a time, then spread over the slots.
    constexpr int32_t kPiece = 512;
    uint8_t nibbles[kPiece];
    for (int32_t start = 0; start < count; start += kPiece) {
        const int32_t length = count - start < kPiece ? count - start : kPiece;
        ConvertMscSoftBits(x + start, length, mode, map, nibbles);
        for (int32_t j = 0; j < length; j += 16)
            for (int32_t d = 0; d < 16; ++d) w[d][start + j] = nibbles[j + d];
    }
}

}  // namespace

int32_t SubChannelRuns(const ServiceComponent& r, PunctureRunDesc runs[4]) {
    if (r.longForm == 0) {
        const SubChannelRow& row = kSubChannelTable[r.tableIndex & 0x3F];
        for (int32_t i = 0; i < 4; ++i) runs[i] = {row.runLength[i], row.puncture[i]};
        return 4;
    }
    const int32_t level = r.protectionLevel & 3;
    const int32_t(*pi)[2] = r.option == 0 ? kEepPunctureA : kEepPunctureB;
    runs[0] = {r.eepRuns[0], pi[level][0]};
    runs[1] = {r.eepRuns[1], pi[level][1]};
    // Set A level 2 with n = 1: runs of 5 and 1 blocks take 13 and 12, which
    // fill the 8 capacity units exactly.
    if (r.option == 0 && level == 1 && r.eepRuns[0] == 5 && r.eepRuns[1] == 1) {
        runs[0].puncture = 13;
        runs[1].puncture = 12;
    }
    return 2;
}

int32_t SubChannelCodedBits(const ServiceComponent& record) {
    PunctureRunDesc runs[4];
    const int32_t count = SubChannelRuns(record, runs);
    int32_t bits = kTailNibbles;
    for (int32_t i = 0; i < count; ++i)
        if (runs[i].blocks > 0) bits += runs[i].blocks * 4 * (runs[i].puncture + 8);
    return bits;
}

int32_t DepunctureSubChannel(const PunctureRunDesc* runs, int32_t runCount, const uint8_t* src, SoftWord* words) {
    SoftWord* out = words;
    for (int32_t r = 0; r < runCount; ++r) {
        if (runs[r].blocks <= 0) continue;
        const int32_t pi = runs[r].puncture;
        const int32_t n = pi + 8;
        const uint8_t* position = kPuncturePositions.position[pi];
        for (int32_t b = 0; b < runs[r].blocks; ++b) {
            // A block is four sub-blocks of 32 mother-code bits with the
            // same vector; what was not sent stays neutral.
            uint8_t buffer[128];
            for (uint8_t& v : buffer) v = uint8_t(kNeutralSoftValue);
            for (int32_t sub = 0; sub < 4; ++sub, src += n) {
                uint8_t* dst = buffer + 32 * sub;
                for (int32_t i = 0; i < n; ++i) dst[position[i]] = src[i];
            }
            for (int32_t i = 0; i < 32; ++i) {
                const uint8_t* q = buffer + 4 * i;
                *out++ = SoftWord((q[0] << 12) | (q[1] << 8) | (q[2] << 4) | q[3]);
            }
        }
    }
    // The tail sends the first two outputs of each of its six steps.
    for (int32_t i = 0; i < kTailWords; ++i, src += 2) *out++ = SoftWord((src[0] << 12) | (src[1] << 8) | 0x88);
    return int32_t(out - words);
}

int32_t DecodeSubChannel(ServiceComponent* service) {
    if (service == nullptr || service->softWords == nullptr || service->decodedBytes == nullptr ||
        service->timeStore == nullptr)
        return 0;
    ServiceComponent& r = *service;
    const ModeParameters& m = mode.parameters;
    const int32_t cifs = m.cifsPerFrame > 4 ? 4 : m.cifsPerFrame;
    const int32_t softCount = r.subChannelSize * 64;
    const int32_t bits = r.bitsPerCif;
    PunctureRunDesc runs[4];
    const int32_t runCount = SubChannelRuns(r, runs);

    // Set by the host's thread under requestMailbox, once; read here without it.
    Reconfiguration* change = __atomic_load_n(&r.reconfiguration, __ATOMIC_ACQUIRE);
    if (change != nullptr && ficDecoder.cifCountValid != 0) change->cifCount = ficDecoder.latestCifCountLow;

    int32_t decoded = 0;
    while (decoded < cifs) {
        const float* x = r.cifSoftBits[decoded];
        if (x != nullptr) StoreSoftNibbles(x, softCount, r.timeStore, softCount, r.timeIndex);
        const uint8_t* src = r.timeStore + r.timeIndex * softCount;
        DepunctureSubChannel(runs, runCount, src, r.softWords);
        r.timeIndex = int16_t((r.timeIndex + 1) & 15);
        uint8_t* out = r.decodedBytes + bits * decoded / 8;
        ViterbiDecode(r.softWords, bits + kTailWords, out);
        EnergyDisperse(out, bits / 8);
        ++decoded;
        if (change != nullptr) {
            change->cifCount = uint8_t((change->cifCount + 1) % kCifCountPeriod);
            if (change->cifCount == change->changeCif) {
                // The swap comes before the next frame; the rest of this
                // frame belongs to the new organisation.
                change->state = 2;
                cifCountWanted = 2;
                break;
            }
        }
    }

    // Nothing leaves before 16 CIFs have filled the de-interleaver; the frame
    // that completes them still carries old store contents.
    if (r.timeInterleaverFull == 0) {
        if (r.timeIndex == 0) r.timeInterleaverFull = 1;
        return 0;
    }
    if (r.type == kServicePlain) {
        if (MVDAB_DataCallBack callback = mscCallback.load(std::memory_order_acquire))
            callback(r.decodedBytes, bits * decoded / 8, r.subChannelId);
    } else if (r.type == kServiceDabPlus) {
        QueueFrameForWorker(service);
    }
    return 0;
}

}  // namespace mvdab
