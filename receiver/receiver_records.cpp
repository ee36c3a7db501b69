// The receiver's static records, with their values at load.
#include "receiver/receiver_state.h"

namespace mvdab {

ReceiverStatus receiverStatus{0, 1, 0, 2, nullptr, nullptr, nullptr, 0, {0}, {0}, {0.0f}, 0};
ReceiverSettings receiverSettings;
TransmissionMode mode{0, {}, -1};
WorkBlocks workBlocks;
FramePipeline pipeline{-2, 0, 0, 0, 0, 0.0f, 0, 0, 0, {nullptr, nullptr}, 0};
FrequencyCorrection frequencyCorrection;
ReceptionLine receptionLine;

}  // namespace mvdab
