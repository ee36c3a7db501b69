// Hand-over of FIC frames from the receiver's demodulation thread to the
// host's thread.
//
// The FIC callback runs inside the receiver's frame step, so it only copies
// the frame into a fixed ring under a short lock; parsing happens on the
// host's thread in Drain. When the host falls behind by more than the ring
// holds, the newest frames are dropped and counted.
#pragma once

#include <cstdint>
#include <mutex>

#include "tools/ficparse/fic_parser.h"

// What the callback has seen since the last Clear.
struct FicCounts {
    uint64_t frames = 0;   // FIC callbacks
    uint64_t fibs = 0;     // FIBs delivered, good or bad
    uint64_t fibsBad = 0;  // FIBs whose CRC failed
    uint64_t dropped = 0;  // frames lost because the ring was full
    int mode = 0;          // transmission mode of the latest frame, 1..4 (I..IV); 0 none yet

    // Share of delivered FIBs that failed their CRC, 0..1; 0 without FIBs.
    double FailureRate() const { return fibs == 0 ? 0.0 : double(fibsBad) / double(fibs); }
};

class FicQueue {
public:
    static constexpr int kSlots = 64;              // frames held: about 6 s of mode I
    static constexpr int kMaxFrameBytes = 12 * 32; // the FIBs of one transmission frame

    // Callback side: copies one frame (`length` bytes, `flags` as the FIC
    // callback gives them). Longer frames are cut to whole FIBs that fit.
    void Push(const uint8_t* bytes, int32_t length, int32_t flags);

    // Host side: hands the frames queued so far to `parser`, oldest first.
    // Returns how many frames were parsed.
    int Drain(ficparse::FicParser& parser);

    // Forgets queued frames but keeps the counts.
    void Discard();

    // Forgets queued frames and counts, e.g. after a retune.
    void Clear();

    FicCounts counts() const;

private:
    struct Slot {
        uint8_t bytes[kMaxFrameBytes];
        int32_t length;
        int32_t flags;
    };
    mutable std::mutex mutex_;
    Slot slots_[kSlots] = {};
    int head_ = 0;   // oldest queued slot
    int queued_ = 0; // slots holding a frame
    FicCounts counts_;
};
