#include "demodulation/dft_service.h"

#if defined(MVDAB_COMPACT_FFT)
#include "demodulation/compact_fft.h"
#else
#include <fftw3.h>
#endif

#include <cmath>
#include <cstring>
#include <new>

namespace mvdab {

DftPlan dftPlan;
int32_t dftPlanFailuresPending = 0;

namespace {

// Status words; only DftSucceeded gives them a meaning to callers.
constexpr int32_t kDftOk = 0;
constexpr int32_t kDftBadArgument = -1;
constexpr int32_t kDftBadLength = -2;
constexpr int32_t kDftPlannerFailed = -3;
constexpr int32_t kDftNotReady = -4;

bool SupportedLength(int32_t length) {
    return length == 2048 || length == 512 || length == 256 || length == 1024;
}

// The checks before a plan is made, the same for both implementations.
int32_t RefuseNewPlan(DftPlan* plan, int32_t length) {
    if (plan == nullptr) return kDftBadArgument;
    if (!SupportedLength(length)) return kDftBadLength;
    if (plan->forward != nullptr || plan->backward != nullptr) return kDftBadArgument;
    if (dftPlanFailuresPending > 0) {
        --dftPlanFailuresPending;
        return kDftPlannerFailed;
    }
    return kDftOk;
}

#if defined(MVDAB_COMPACT_FFT)

// Without FFTW the plan is one CompactFft record serving both directions
// (`forward` and `backward` point to it); it works on any buffer alignment,
// so `scratch` stays null.
int32_t Execute(DftPlan* plan, float* buffer, bool forward) {
    if (plan == nullptr || buffer == nullptr) return kDftBadArgument;
    if (plan->committed != 1 || plan->forward == nullptr) return kDftNotReady;
    RunCompactFft(static_cast<const CompactFft*>(plan->forward), buffer, forward);
    return kDftOk;
}

}  // namespace

int32_t CreateDftPlan(DftPlan* plan, int32_t length) {
    const int32_t refusal = RefuseNewPlan(plan, length);
    if (refusal != kDftOk) return refusal;
    auto* fft = new (std::nothrow) CompactFft;
    if (fft == nullptr) return kDftPlannerFailed;
    PrepareCompactFft(fft, length);
    plan->forward = fft;
    plan->backward = fft;
    plan->scratch = nullptr;
    plan->length = length;
    plan->committed = 0;
    return kDftOk;
}

int32_t FreeDftPlan(DftPlan* plan) {
    if (plan == nullptr) return kDftBadArgument;
    delete static_cast<CompactFft*>(plan->forward);
    *plan = DftPlan{};
    return kDftOk;
}

#else

// The plans are made in place on an aligned buffer of their own, so that they
// may use the SIMD kernels, and run on the caller's buffer when it has the
// same alignment. The caller's regions in WorkingPool sit at any multiple of
// 8 bytes; a buffer off that alignment goes through the plan's scratch
// buffer (two copies of 16 KB at most, far less than the scalar kernels
// would cost). FFTW_ESTIMATE keeps planning quick and the plan, hence the
// arithmetic, identical from run to run.
constexpr unsigned kPlannerFlags = FFTW_ESTIMATE;

int32_t Execute(DftPlan* plan, float* buffer, bool forward) {
    if (plan == nullptr || buffer == nullptr) return kDftBadArgument;
    if (plan->committed != 1) return kDftNotReady;
    void* handle = forward ? plan->forward : plan->backward;
    if (handle == nullptr) return kDftNotReady;
    fftwf_complex* data = reinterpret_cast<fftwf_complex*>(buffer);
    if (fftwf_alignment_of(buffer) == fftwf_alignment_of(plan->scratch)) {
        fftwf_execute_dft(static_cast<fftwf_plan>(handle), data, data);
        return kDftOk;
    }
    const size_t bytes = sizeof(fftwf_complex) * static_cast<size_t>(plan->length);
    std::memcpy(plan->scratch, buffer, bytes);
    fftwf_complex* scratch = reinterpret_cast<fftwf_complex*>(plan->scratch);
    fftwf_execute_dft(static_cast<fftwf_plan>(handle), scratch, scratch);
    std::memcpy(buffer, plan->scratch, bytes);
    return kDftOk;
}

}  // namespace

int32_t CreateDftPlan(DftPlan* plan, int32_t length) {
    const int32_t refusal = RefuseNewPlan(plan, length);
    if (refusal != kDftOk) return refusal;

    fftwf_complex* planningBuffer = fftwf_alloc_complex(static_cast<size_t>(length));
    if (planningBuffer == nullptr) return kDftPlannerFailed;
    fftwf_plan forward = fftwf_plan_dft_1d(length, planningBuffer, planningBuffer,
                                           FFTW_FORWARD, kPlannerFlags);
    fftwf_plan backward = fftwf_plan_dft_1d(length, planningBuffer, planningBuffer,
                                            FFTW_BACKWARD, kPlannerFlags);
    if (forward == nullptr || backward == nullptr) {
        if (forward != nullptr) fftwf_destroy_plan(forward);
        if (backward != nullptr) fftwf_destroy_plan(backward);
        fftwf_free(planningBuffer);
        return kDftPlannerFailed;
    }
    plan->scratch = reinterpret_cast<float*>(planningBuffer);
    plan->forward = forward;
    plan->backward = backward;
    plan->length = length;
    plan->committed = 0;
    return kDftOk;
}

int32_t FreeDftPlan(DftPlan* plan) {
    if (plan == nullptr) return kDftBadArgument;
    if (plan->forward != nullptr) fftwf_destroy_plan(static_cast<fftwf_plan>(plan->forward));
    if (plan->backward != nullptr) fftwf_destroy_plan(static_cast<fftwf_plan>(plan->backward));
    if (plan->scratch != nullptr) fftwf_free(plan->scratch);
    *plan = DftPlan{};
    return kDftOk;
}

#endif

int32_t CommitDftPlan(DftPlan* plan) {
    if (plan == nullptr) return kDftBadArgument;
    if (plan->forward == nullptr || plan->backward == nullptr) return kDftNotReady;
    plan->committed = 1;
    return kDftOk;
}

int32_t ForwardDft(DftPlan* plan, float* buffer) { return Execute(plan, buffer, true); }

int32_t BackwardDft(DftPlan* plan, float* buffer) { return Execute(plan, buffer, false); }

bool DftSucceeded(int32_t status) { return status == kDftOk; }

void RotateSamples(float* samples, int32_t count, double phase, double phaseIncrement) {
    if (samples == nullptr || count <= 0) return;

    // The two sine/cosine pairs of the call: the start phasor and the step.
    const float c = static_cast<float>(std::cos(phaseIncrement));
    const float s = static_cast<float>(std::sin(phaseIncrement));
    float re[4];
    float im[4];
    re[0] = static_cast<float>(std::cos(phase));
    im[0] = static_cast<float>(std::sin(phase));
    for (int k = 1; k < 4; ++k) {
        re[k] = re[k - 1] * c - im[k - 1] * s;
        im[k] = re[k - 1] * s + im[k - 1] * c;
    }
    // Step of a group of four: (u3 * e^(j inc)) * conj(u0) = e^(4j inc).
    const float nextRe = re[3] * c - im[3] * s;
    const float nextIm = re[3] * s + im[3] * c;
    const float stepRe = nextRe * re[0] + nextIm * im[0];
    const float stepIm = nextIm * re[0] - nextRe * im[0];

    const int32_t groups = count / 4;
    for (int32_t g = 0; g < groups; ++g) {
        if (g != 0) {
            for (int k = 0; k < 4; ++k) {
                const float r = re[k] * stepRe - im[k] * stepIm;
                const float i = re[k] * stepIm + im[k] * stepRe;
                re[k] = r;
                im[k] = i;
            }
        }
        float* group = samples + 8 * g;
        for (int k = 0; k < 4; ++k) {
            const float x = group[2 * k];
            const float y = group[2 * k + 1];
            group[2 * k] = x * re[k] - y * im[k];
            group[2 * k + 1] = x * im[k] + y * re[k];
        }
    }
}

}  // namespace mvdab
