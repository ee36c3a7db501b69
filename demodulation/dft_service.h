// The receiver's one DFT plan and the sample rotation.
//
// Transform: complex to complex, 32-bit floats (real, imaginary adjacent), in
// place, natural order on both sides, lengths 2048, 512, 256, 1024 only, and
// no scale factor in either direction (forward then backward multiplies by N).
#pragma once

#include <cstdint>

namespace mvdab {

struct DftPlan {
    void* forward;      // implementation's plan for the forward transform; null: empty
    void* backward;     // implementation's plan for the backward transform
    int32_t length;     // complex points
    int32_t committed;  // 1 once ready for use
    float* scratch;     // `length` complex on the SIMD alignment the plans were made for
};
extern DftPlan dftPlan;  // the receiver's one plan

// Fault switch for tests: while above 0, CreateDftPlan fails and counts it
// down by one. 0 at load; nothing in the receiver sets it.
extern int32_t dftPlanFailuresPending;

// Every operation returns a status that only DftSucceeded interprets.
int32_t CreateDftPlan(DftPlan* plan, int32_t length);
int32_t CommitDftPlan(DftPlan* plan);
int32_t FreeDftPlan(DftPlan* plan);  // harmless on the empty plan
int32_t ForwardDft(DftPlan* plan, float* buffer);
int32_t BackwardDft(DftPlan* plan, float* buffer);
bool DftSucceeded(int32_t status);

// Multiplies complex sample n of `samples` by e^(j(phase + n*phaseIncrement)),
// in place; `count` is a multiple of 4. Four phasors advanced by recurrence in
// single precision: two sine/cosine pairs per call, none per sample.
// Four lanes at a time where SSE2 is there, with the same bits as
// RotateSamplesScalar, the plain loop.
void RotateSamples(float* samples, int32_t count, double phase, double phaseIncrement);
void RotateSamplesScalar(float* samples, int32_t count, double phase, double phaseIncrement);

// The same rotation of `count` complex samples given as unsigned byte pairs
// (b stands for b - 127.5, real part first), written to `samples`: the bits
// of unpacking into `samples` and then RotateSamples, in one pass.
void UnpackRotateSamples(const uint8_t* bytes, float* samples, int32_t count, double phase, double phaseIncrement);

}  // namespace mvdab
