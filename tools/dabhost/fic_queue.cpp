#include "fic_queue.h"

#include <cstring>
#include <vector>

void FicQueue::Push(const uint8_t* bytes, int32_t length, int32_t flags) {
    if (bytes == nullptr || length <= 0) return;
    int32_t fibs = length / ficparse::kFibBytes;
    if (fibs > ficparse::kMaxFlaggedFibs) fibs = ficparse::kMaxFlaggedFibs;
    int bad = 0;
    for (int32_t i = 0; i < fibs; ++i) bad += ((flags >> (15 - i)) & 1) == 0;

    std::lock_guard<std::mutex> lock(mutex_);
    ++counts_.frames;
    counts_.fibs += uint64_t(fibs);
    counts_.fibsBad += uint64_t(bad);
    counts_.mode = flags & 7;
    if (queued_ == kSlots) {
        ++counts_.dropped;
        return;
    }
    Slot& slot = slots_[(head_ + queued_) % kSlots];
    slot.length = fibs * ficparse::kFibBytes;
    slot.flags = flags;
    std::memcpy(slot.bytes, bytes, size_t(slot.length));
    ++queued_;
}

int FicQueue::Drain(ficparse::FicParser& parser) {
    // Copy out under the lock, parse after it, so the callback never waits
    // for the parser.
    std::vector<Slot> taken;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        taken.reserve(size_t(queued_));
        for (int i = 0; i < queued_; ++i) taken.push_back(slots_[(head_ + i) % kSlots]);
        head_ = (head_ + queued_) % kSlots;
        queued_ = 0;
    }
    for (const Slot& s : taken) parser.PushFibs(s.bytes, s.length, s.flags);
    return int(taken.size());
}

void FicQueue::Discard() {
    std::lock_guard<std::mutex> lock(mutex_);
    head_ = 0;
    queued_ = 0;
}

void FicQueue::Clear() {
    std::lock_guard<std::mutex> lock(mutex_);
    head_ = 0;
    queued_ = 0;
    counts_ = FicCounts{};
}

FicCounts FicQueue::counts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}
