// The frame pipeline of the demodulation thread: once per IqFrame, rotate
// IqHistory, serve the host's requests, and advance the acquisition state
// machine.
//
// States of acquisitionState:
//   -2 parked      nothing runs until a request is served
//   -1 hold-off    restartHoldoff IqFrames, then a new search
//    0 search      CoarseFrameSearch; searchTimeout IqFrames, then hold-off
//    1 confirm     ConfirmFramePosition; confirmTimeout IqFrames, then hold-off
//    2 wait        the first transmission frame reaches the oldest slot; EnterFirstFrame
//    3 track       DemodulateFrame, DecodeFic, DecodeSubChannel per transmission frame
#pragma once

#include <cstdint>

namespace mvdab {

// Moves the older slots of IqHistory one slot back and copies the hand-over
// buffer into the newest slot. While tracking, bytes below the next frame's
// position, which no later read reaches, are left behind unmoved.
void RotateHistory();

// One IqFrame: RotateHistory, the requests under requestMailbox, a restart
// asked for by resyncRequest, then RunAcquisitionStep. 1, or 0 when a service
// set-up failed (that request is dropped and the mailbox given back).
int32_t RunFrameStep();

// Puts acquisition and tracking to their start, in state 0.
void ResetAcquisition();

// One step of the state machine, chosen by acquisitionState. Returns 1.
int32_t RunAcquisitionStep();

// Frees what a frame step uses and parks the state machine: the services,
// the older history slots. Runs under frameStepLock, so never beside a frame
// step.
void StopReceiver();

}  // namespace mvdab
