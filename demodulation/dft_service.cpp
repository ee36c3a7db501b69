#include "demodulation/dft_service.h"

namespace mvdab {

DftPlan dftPlan;

// Placeholders until the transform service lands.
int32_t CreateDftPlan(DftPlan*, int32_t) { return -1; }
int32_t CommitDftPlan(DftPlan*) { return -1; }
int32_t FreeDftPlan(DftPlan* plan) {
    if (plan != nullptr) *plan = DftPlan{};
    return 0;
}
int32_t ForwardDft(DftPlan*, float*) { return -1; }
int32_t BackwardDft(DftPlan*, float*) { return -1; }
bool DftSucceeded(int32_t status) { return status == 0; }
void RotateSamples(float*, int32_t, double, double) {}

}  // namespace mvdab
