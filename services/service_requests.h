// The demodulation thread's side of the service lists: taking requests over
// at an IqFrame boundary, setting up the geometry of a sub-channel, and
// releasing records.
#pragma once

#include <cstdint>

namespace mvdab {

struct ServiceComponent;

// Capacity units of one CIF, and their sizes in the two work blocks.
constexpr int32_t kCapacityUnitsPerCif = 864;
constexpr int32_t kCapacityUnitCarrierBytes = 256;     // 32 carriers of float pairs in FrameCarriers
constexpr int32_t kCapacityUnitStoreBytes = 1024;      // 16 branches of 64 soft bytes in DeinterleaveStore

// With requestMailbox held: selects the active records, frees the removed
// ones, sets up and selects the added ones, and swaps in replacements that
// have fallen due. A record whose set-up fails is dropped (freed, with the
// book-keeping of a deletion) and the rest go on. 1, or 0 if a set-up failed.
int32_t ApplyServiceRequests();

// Works out the record's size, bitsPerCif and puncturing runs from the
// host's parameters. 1 if the sub-channel can be decoded; 0 if it carries no
// bits, lies outside the CIF's 864 capacity units, or its coded bits would
// overrun its capacity units or the Viterbi block. Touches no buffer.
int32_t DeriveSubChannel(ServiceComponent* record);

// derive: sizes, puncturing runs, buffers and symbol range, once per record;
// map: enters the record into SymbolMask and restarts its time
// de-interleaving. 1, or 0 when an allocation failed or the sub-channel
// doesn't lie inside a CIF (the record is then not usable).
int32_t SetUpSubChannel(ServiceComponent* record, int32_t derive, int32_t map);

// Frees every record of the three lists, clears their heads and resets the
// book-keeping. Leaves selectedCount alone.
void ReleaseAllServices();

// Frees a record with its buffers, its Reconfiguration and that one's
// replacement. Harmless on null.
void FreeServiceComponent(ServiceComponent* record);

}  // namespace mvdab
