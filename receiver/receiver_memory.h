// The receiver's memory plan and book of constants: the two work blocks, the
// fixed places in them, and ReceiverSettings.
#pragma once

#include <cstdint>

namespace mvdab {

// Writes every ReceiverSettings value.
void WriteReceiverSettings();

// Allocates WorkingPool and DeinterleaveStore, places the newest history slot,
// PowerEnvelope and the filter arrays, writes the settings and start values
// and prepares the outer decoders. 1, or 0 on failure (FreeReceiverState then
// releases whatever exists).
int32_t InitReceiverState();

// Frees all of it; safe after a partial InitReceiverState and twice in a row.
void FreeReceiverState();

}  // namespace mvdab
