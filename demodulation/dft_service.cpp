#include "demodulation/dft_service.h"

#if defined(MVDAB_COMPACT_FFT)
#include "demodulation/compact_fft.h"
#else
#include <fftw3.h>
#endif

#include <cmath>
#include <cstring>
#include <new>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

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

namespace {

// The start phasors of the four lanes of a group and the step of a group of
// four: (u3 * e^(j inc)) * conj(u0) = e^(4j inc). Two sine/cosine pairs.
struct RotationStart {
    float re[4];
    float im[4];
    float stepRe;
    float stepIm;
};

RotationStart StartRotation(double phase, double phaseIncrement) {
    RotationStart r;
    const float c = static_cast<float>(std::cos(phaseIncrement));
    const float s = static_cast<float>(std::sin(phaseIncrement));
    r.re[0] = static_cast<float>(std::cos(phase));
    r.im[0] = static_cast<float>(std::sin(phase));
    for (int k = 1; k < 4; ++k) {
        r.re[k] = r.re[k - 1] * c - r.im[k - 1] * s;
        r.im[k] = r.re[k - 1] * s + r.im[k - 1] * c;
    }
    const float nextRe = r.re[3] * c - r.im[3] * s;
    const float nextIm = r.re[3] * s + r.im[3] * c;
    r.stepRe = nextRe * r.re[0] + nextIm * r.im[0];
    r.stepIm = nextIm * r.re[0] - nextRe * r.im[0];
    return r;
}

#if defined(__SSE2__)

// Groups of four samples, the four phasors in the lanes of two registers:
// each lane does the very multiplications and additions of the scalar
// recurrence, in the same order, so the results are the same to the bit.
// `load` gives the real and imaginary parts of group g.
template <typename Load>
void RotateGroups(float* samples, int32_t groups, const RotationStart& r, Load load) {
    __m128 re = _mm_loadu_ps(r.re);
    __m128 im = _mm_loadu_ps(r.im);
    const __m128 stepRe = _mm_set1_ps(r.stepRe);
    const __m128 stepIm = _mm_set1_ps(r.stepIm);
    for (int32_t g = 0; g < groups; ++g) {
        if (g != 0) {
            const __m128 nextRe = _mm_sub_ps(_mm_mul_ps(re, stepRe), _mm_mul_ps(im, stepIm));
            const __m128 nextIm = _mm_add_ps(_mm_mul_ps(re, stepIm), _mm_mul_ps(im, stepRe));
            re = nextRe;
            im = nextIm;
        }
        __m128 x;
        __m128 y;
        load(g, &x, &y);
        const __m128 outRe = _mm_sub_ps(_mm_mul_ps(x, re), _mm_mul_ps(y, im));
        const __m128 outIm = _mm_add_ps(_mm_mul_ps(x, im), _mm_mul_ps(y, re));
        _mm_storeu_ps(samples + 8 * g, _mm_unpacklo_ps(outRe, outIm));
        _mm_storeu_ps(samples + 8 * g + 4, _mm_unpackhi_ps(outRe, outIm));
    }
}

#endif

}  // namespace

void RotateSamplesScalar(float* samples, int32_t count, double phase, double phaseIncrement) {
    if (samples == nullptr || count <= 0) return;
    RotationStart r = StartRotation(phase, phaseIncrement);
    const int32_t groups = count / 4;
    for (int32_t g = 0; g < groups; ++g) {
        if (g != 0) {
            for (int k = 0; k < 4; ++k) {
                const float re = r.re[k] * r.stepRe - r.im[k] * r.stepIm;
                const float im = r.re[k] * r.stepIm + r.im[k] * r.stepRe;
                r.re[k] = re;
                r.im[k] = im;
            }
        }
        float* group = samples + 8 * g;
        for (int k = 0; k < 4; ++k) {
            const float x = group[2 * k];
            const float y = group[2 * k + 1];
            group[2 * k] = x * r.re[k] - y * r.im[k];
            group[2 * k + 1] = x * r.im[k] + y * r.re[k];
        }
    }
}

void RotateSamples(float* samples, int32_t count, double phase, double phaseIncrement) {
#if defined(__SSE2__)
    if (samples == nullptr || count <= 0) return;
    RotateGroups(samples, count / 4, StartRotation(phase, phaseIncrement), [samples](int32_t g, __m128* x, __m128* y) {
        const __m128 a = _mm_loadu_ps(samples + 8 * g);
        const __m128 b = _mm_loadu_ps(samples + 8 * g + 4);
        *x = _mm_shuffle_ps(a, b, _MM_SHUFFLE(2, 0, 2, 0));
        *y = _mm_shuffle_ps(a, b, _MM_SHUFFLE(3, 1, 3, 1));
    });
#else
    RotateSamplesScalar(samples, count, phase, phaseIncrement);
#endif
}

void UnpackRotateSamples(const uint8_t* bytes, float* samples, int32_t count, double phase, double phaseIncrement) {
    if (bytes == nullptr || samples == nullptr || count <= 0) return;
    constexpr float kByteCentre = 127.5f;
#if defined(__SSE2__)
    // float(b) - 127.5 is exact, as in the scalar unpacking.
    const int32_t groups = count / 4;
    const __m128 centre = _mm_set1_ps(kByteCentre);
    const __m128i zero = _mm_setzero_si128();
    RotateGroups(samples, groups, StartRotation(phase, phaseIncrement),
                 [bytes, centre, zero](int32_t g, __m128* x, __m128* y) {
                     const __m128i eight = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(bytes + 8 * g));
                     const __m128i words = _mm_unpacklo_epi8(eight, zero);
                     // Real parts in the even 16-bit words, imaginary parts in the odd.
                     const __m128i real = _mm_and_si128(words, _mm_set1_epi32(0xFFFF));
                     const __m128i imaginary = _mm_srli_epi32(words, 16);
                     *x = _mm_sub_ps(_mm_cvtepi32_ps(real), centre);
                     *y = _mm_sub_ps(_mm_cvtepi32_ps(imaginary), centre);
                 });
    // A count off a multiple of four: the last samples are unpacked but, as
    // in RotateSamples, not rotated.
    for (int32_t i = 8 * groups; i < 2 * count; ++i) samples[i] = static_cast<float>(bytes[i]) - kByteCentre;
#else
    for (int32_t i = 0; i < 2 * count; ++i) samples[i] = static_cast<float>(bytes[i]) - kByteCentre;
    RotateSamplesScalar(samples, count, phase, phaseIncrement);
#endif
}

}  // namespace mvdab
