#include "acquisition/coarse_frame_search.h"

#include <cstdlib>
#include <cstring>

#include "acquisition/tuning_input.h"
#include "receiver/receiver_state.h"
#include "services/symbol_mask.h"

namespace mvdab {

CoarseSearch coarseSearch;
int32_t NullPositions[4];

namespace {

// Symmetric low-pass run over I and Q before squaring, so that power outside
// the DAB channel counts less; y[n] = sum of taps[t] * x[n - 6 + t].
constexpr int32_t kPrefilterTaps = 7;
constexpr int32_t kPrefilterHistory = kPrefilterTaps - 1;
constexpr float PowerPrefilterTaps[kPrefilterTaps] = {
    -0.0651910380f, -0.0434954017f, 0.298932314f, 0.552280009f,
    0.298932314f,   -0.0434954017f, -0.0651910380f,
};
// Samples converted per pass through the two scratch arrays.
constexpr int32_t kPrefilterChunk = 60160;

constexpr int32_t kNoNullPositionSentinels[4] = {-10000000, -20000000, -30000000, -40000000};

// Centre and half-width of the accepted dip intervals, in samples.
constexpr int32_t kIntervalModeI = 196608;
constexpr int32_t kToleranceModeI = 2048;
constexpr int32_t kIntervalModeIIandIII = 49152;
constexpr int32_t kToleranceModeIIandIII = 512;
constexpr int32_t kIntervalModeIV = 98304;
constexpr int32_t kToleranceModeIV = 1024;
// Null length of mode III and the half-width around it that tells it from mode II.
constexpr int32_t kNullModeIII = 345;
constexpr int32_t kNullToleranceModeIII = 50;
constexpr int32_t kNullModeII = 664;
// Rise of the least window mean from the narrow null to the wide one, over
// the mean power, above which the null is mode III's. Mode III gives about
// half the signal's share of the power (0.2 at 0 dB, 0.48 clean), mode II a
// few hundredths.
constexpr double kNullWidthRise = 0.12;

inline float ToSample(uint8_t b) { return static_cast<float>(b) - 127.5f; }

void PushNullPosition(int32_t position) {
    NullPositions[3] = NullPositions[2];
    NullPositions[2] = NullPositions[1];
    NullPositions[1] = NullPositions[0];
    NullPositions[0] = position;
}

// In fading, a deep fade of the signal opens and closes a dip of its own
// every few tens of milliseconds (at 40 Hz Doppler several per mode I
// frame), and each one restarts the interval count: between two nulls there
// is then hardly ever a clean interval, and no mode ever leads. So a dip
// whose interval from the dip before it fits no mode is measured against the
// ends of the older dips as well, newest first; the first that fits gives
// the vote. On a still signal the dip before is the previous null and this
// is never reached.
int32_t VoteAgainstEarlierDips(const CoarseSearch& s, int64_t now) {
    // The newest memory entry is the dip before, already tried.
    const int32_t kept = s.dipMemoryCount < kDipMemory ? s.dipMemoryCount : kDipMemory;
    for (int32_t age = 1; age < kept; ++age) {
        const int32_t slot = (s.dipMemoryCount - 1 - age) % kDipMemory;
        const int64_t interval = now - s.dipEnds[slot];
        if (interval > kIntervalModeI + kToleranceModeI) break;
        const int32_t vote = ClassifyDipInterval(static_cast<int32_t>(interval), s.dipSamples);
        if (vote >= 0) return vote;
    }
    return -1;
}

void RememberDipEnd(CoarseSearch& s, int64_t now) {
    s.dipEnds[s.dipMemoryCount % kDipMemory] = now;
    s.dipMemoryCount += 1;
    // Keep the count small while preserving the slot order.
    if (s.dipMemoryCount >= 2 * kDipMemory) s.dipMemoryCount -= kDipMemory;
}

}  // namespace

void ResetCoarseSearch() {
    coarseSearch.fastPower = 100.0f;
    coarseSearch.slowPower = 100.0f;
    coarseSearch.inDip = 0;
    coarseSearch.samplesSinceDip = 0;
    coarseSearch.dipSamples = 0;
    coarseSearch.samplesSeen = 0;
    coarseSearch.dipMemoryCount = 0;
    for (int32_t& v : coarseSearch.modeVotes) v = 0;
    coarseSearch.scanFill = 0;
    coarseSearch.scanNeed = 0;
    for (int32_t i = 0; i < 4; ++i) NullPositions[i] = kNoNullPositionSentinels[i];
    if (workBlocks.filterI != nullptr) std::memset(workBlocks.filterI, 0, kPrefilterHistory * sizeof(float));
    if (workBlocks.filterQ != nullptr) std::memset(workBlocks.filterQ, 0, kPrefilterHistory * sizeof(float));
}

void ComputePowerEnvelope(const uint8_t* bytes, int32_t count, float* power) {
    if (bytes == nullptr || power == nullptr || count <= 0) return;
    float* bufI = workBlocks.filterI;
    float* bufQ = workBlocks.filterQ;
    // The bandwidth code is written by the host's thread; one read per call.
    const bool prefilter = CurrentBandwidthCode() != 1;
    if (!prefilter || bufI == nullptr || bufQ == nullptr) {
        for (int32_t n = 0; n < count; ++n) {
            const float i = ToSample(bytes[2 * n]);
            const float q = ToSample(bytes[2 * n + 1]);
            power[n] = i * i + q * q;
        }
        return;
    }
    // Each rail: six history values, then the chunk; the newest six become
    // the history of the next chunk.
    for (int32_t done = 0; done < count;) {
        const int32_t chunk = count - done < kPrefilterChunk ? count - done : kPrefilterChunk;
        const uint8_t* src = bytes + 2 * done;
        for (int32_t n = 0; n < chunk; ++n) {
            bufI[kPrefilterHistory + n] = ToSample(src[2 * n]);
            bufQ[kPrefilterHistory + n] = ToSample(src[2 * n + 1]);
        }
        float* out = power + done;
        for (int32_t n = 0; n < chunk; ++n) {
            float yi = 0.0f;
            float yq = 0.0f;
            for (int32_t t = 0; t < kPrefilterTaps; ++t) {
                yi += PowerPrefilterTaps[t] * bufI[n + t];
                yq += PowerPrefilterTaps[t] * bufQ[n + t];
            }
            out[n] = yi * yi + yq * yq;
        }
        std::memmove(bufI, bufI + chunk, kPrefilterHistory * sizeof(float));
        std::memmove(bufQ, bufQ + chunk, kPrefilterHistory * sizeof(float));
        done += chunk;
    }
}

int32_t ClassifyDipInterval(int32_t interval, int32_t dipLength) {
    if (std::abs(interval - kIntervalModeI) < kToleranceModeI) return 0;
    if (std::abs(interval - kIntervalModeIIandIII) < kToleranceModeIIandIII) {
        return std::abs(dipLength - kNullModeIII) < kNullToleranceModeIII ? 2 : 1;
    }
    if (std::abs(interval - kIntervalModeIV) < kToleranceModeIV) return 3;
    return -1;
}

int32_t DecideTransmissionMode(const int32_t votes[4]) {
    const int32_t c1 = votes[0], c2 = votes[1], c3 = votes[2], c4 = votes[3];
    if (c1 > c2 + 1 && c1 > c3 + 1 && c1 > c4 + 1) return 1;
    if (c2 > c1 + 1 && c2 > c3 + 2 && c2 > c4 + 1) return 2;
    if (c3 > c1 + 1 && c3 > c2 + 2 && c3 > c4 + 1) return 3;
    if (c4 > c1 + 1 && c4 > c2 + 1 && c4 > c3 + 1) return 4;
    // Modes II and III share their frame period and differ only by the null
    // length, which the dip length measures only on a clean signal: noise
    // fills the null, the dip opens late and closes early, and at 6 dB and
    // below mode III's dips look like mode II's. Together their votes lead
    // as early as either would alone; which of the two it is, the null's
    // width in the power envelope decides (ModeFromNullWidth, run by
    // CoarseFrameSearch on every decision for mode II or III).
    const int32_t c23 = c2 + c3;
    if (c23 > c1 + 1 && c23 > c4 + 1) return kModeIIorIII;
    return 0;
}

double NullWidthRise(const float* power, int32_t count) {
    constexpr int32_t kPeriod = kIntervalModeIIandIII;
    if (power == nullptr || count < 2 * kPeriod) return 0.0;
    // Two frame periods folded onto one: the null stands at the same place
    // in both.
    static float folded[kPeriod];
    double total = 0.0;
    for (int32_t i = 0; i < kPeriod; ++i) {
        folded[i] = power[i] + power[i + kPeriod];
        total += folded[i];
    }
    // Least mean power of a window of `width` values, cyclic over the fold.
    auto leastMean = [](int32_t width) {
        double sum = 0.0;
        for (int32_t i = 0; i < width; ++i) sum += folded[i];
        double least = sum;
        for (int32_t i = width; i < kPeriod + width; ++i) {
            sum += folded[i % kPeriod] - folded[i - width];
            if (sum < least) least = sum;
        }
        return least / width;
    };
    // A mode II null (664 samples) holds noise alone over both widths; a
    // mode III null (345) fills only half the wider window, whose mean then
    // rises by about half the signal power. Noise lowers the narrower
    // minimum by a few per cent of the noise power at most.
    const double mean = total / kPeriod;
    return mean > 0.0 ? (leastMean(kNullModeII) - leastMean(kNullModeIII)) / mean : 0.0;
}

int32_t ModeFromNullWidth(const float* power, int32_t count) {
    return NullWidthRise(power, count) > kNullWidthRise ? 3 : 2;
}

int32_t DetectTransmissionMode(const float* power, int32_t count) {
    if (power == nullptr) return 0;
    CoarseSearch& s = coarseSearch;
    const float slowFactor = receiverSettings.slowPowerFactor;
    const float fastFactor = receiverSettings.fastPowerFactor;
    const float entryRatio = receiverSettings.dipEntryRatio;
    const float exitRatio = receiverSettings.dipExitRatio;
    for (int32_t n = 0; n < count; ++n) {
        const float p = power[n];
        s.slowPower += (p - s.slowPower) * slowFactor;
        s.fastPower += (p - s.fastPower) * fastFactor;
        if (s.inDip == 0 && s.fastPower < entryRatio * s.slowPower) {
            s.inDip = 1;
            s.dipSamples = 1;
            s.samplesSinceDip += 1;
            continue;
        }
        if (s.inDip != 0 && s.dipSamples > kMaxDipSamples) {
            s.inDip = 0;
            s.dipSamples = 0;
            continue;
        }
        if (s.inDip != 0 && s.fastPower > exitRatio * s.slowPower) {
            const int64_t now = s.samplesSeen + n;
            int32_t vote = ClassifyDipInterval(s.samplesSinceDip, s.dipSamples);
            if (vote < 0) vote = VoteAgainstEarlierDips(s, now);
            RememberDipEnd(s, now);
            s.inDip = 0;
            s.samplesSinceDip = 1;
            s.dipSamples = 1;
            if (vote >= 0) s.modeVotes[vote] += 1;
            continue;
        }
        s.samplesSinceDip += 1;
        s.dipSamples += 1;
    }
    s.samplesSeen += count;
    return DecideTransmissionMode(s.modeVotes);
}

void ApplyTransmissionMode() {
    int32_t m = mode.transmissionMode;
    if (m < 0 || m > 3) m = 0;
    mode.transmissionMode = m;
    mode.parameters = kModeTable[m];
    ResetSymbolMask();
}

void ScanNullPosition(const float* power) {
    if (power == nullptr) return;
    const int32_t nullLength = mode.parameters.nullLength;
    const int32_t period = mode.parameters.framePeriod;
    float sum = 0.0f;
    for (int32_t i = 0; i < nullLength; ++i) sum += power[i];
    float best = kScanStartBest;
    int32_t bestIndex = -1;
    for (int32_t i = nullLength; i < nullLength + period; ++i) {
        sum += power[i] - power[i - nullLength];
        if (sum < best) {
            best = sum;
            bestIndex = i;
        }
    }
    if (bestIndex >= 0) {
        PushNullPosition(bestIndex - nullLength);
        return;
    }
    // No window fell below the start value (a constant, very strong input).
    // The scan still yields a position in 0..framePeriod-1, chosen half a
    // frame away from the newest one, so that it cannot agree with it.
    const int32_t newest = NullPositions[0];
    const int32_t base = newest >= 0 && newest < period ? newest : 0;
    PushNullPosition((base + period / 2) % period);
}

int32_t CoarseFrameSearch() {
    float* envelope = workBlocks.powerEnvelope;
    if (envelope == nullptr || workBlocks.newestSlot == nullptr) return 0;
    ComputePowerEnvelope(workBlocks.newestSlot, kIqFrameSamples, envelope);

    int32_t decision = DetectTransmissionMode(envelope, kIqFrameSamples);
    if (decision == 0) return 0;
    // Mode II or III, however the votes put it: the null's width decides.
    if (decision == 2 || decision == 3 || decision == kModeIIorIII)
        decision = ModeFromNullWidth(envelope, kIqFrameSamples);
    mode.transmissionMode = decision - 1;
    ApplyTransmissionMode();

    // Scans that fit the values in hand; the rest starts the first scan of
    // the confirmation.
    const ModeParameters& p = mode.parameters;
    const int32_t scans = (kIqFrameSamples - p.nullLength) / p.framePeriod;
    for (int32_t j = 0; j < scans; ++j) ScanNullPosition(envelope + j * p.framePeriod);
    const int32_t kept = kIqFrameSamples - scans * p.framePeriod;
    coarseSearch.scanFill = kept - p.nullLength;
    coarseSearch.scanNeed = p.framePeriod - coarseSearch.scanFill;
    if (scans != 0) std::memmove(envelope, envelope + scans * p.framePeriod, kept * sizeof(float));
    return 1;
}

}  // namespace mvdab
