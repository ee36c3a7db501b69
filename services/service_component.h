// The record of one requested sub-channel: list node, the host's parameters
// and the decoder's geometry and buffers in one.
#pragma once

#include <atomic>
#include <cstdint>

namespace mvdab {

struct ServiceComponent;

// An announced change of a sub-channel's organisation, one per record at most.
struct Reconfiguration {
    uint8_t changeCif;               // low part of the CIF count at which the change takes effect
    uint8_t cifCount;                // running low part of the CIF count, modulo 250
    uint8_t state;                   // 1 waiting, 2 due
    ServiceComponent* replacement;   // new record with the new parameters, not yet set up
};

// Service types the receiver accepts.
constexpr int8_t kServicePlain = 0;   // sub-channel bytes straight to the MSC callback
constexpr int8_t kServiceDabPlus = 3; // DAB+ audio through the worker

struct ServiceComponent {
    ServiceComponent* next;          // next record of the list that holds this one
    int8_t type;                     // 0 or 3
    int8_t subChannelId;             // records are found by it, as a byte
    Reconfiguration* reconfiguration;  // while a change is announced, else null
    int8_t timeInterleaverFull;      // 0 until the time de-interleaver has been filled once
    int8_t longForm;                 // 0 short form (tableIndex), else long form
    int16_t startAddress;            // first capacity unit
    int8_t tableIndex;               // short form: row 0..63 of the sub-channel table
    int8_t option;                   // long form: 0 protection set A, 1 set B
    int8_t protectionLevel;          // long form: 0..3 for levels 1..4
    int32_t subChannelSize;          // capacity units
    int32_t eepRuns[2];              // long form: lengths of the two puncturing runs, blocks of 128 bits
    int8_t fecScheme;                // low two bits of the host's argument; not read by types 0 and 3
    float* cifSoftBits[4];           // per CIF: start of this sub-channel's soft values in FrameCarriers
    int32_t firstSymbol;             // first MSC symbol of a CIF holding the sub-channel (from the CIF's first)
    int32_t lastSymbol;              // the same for the last one
    uint8_t* timeStore;              // this sub-channel's part of DeinterleaveStore
    int16_t timeIndex;               // write position of the time de-interleaver, 0..15
    uint16_t* softWords;             // SoftWords for the Viterbi decoder: bitsPerCif + 6 of them
    uint16_t bitsPerCif;             // decoded bits of the sub-channel in one CIF
    uint8_t* decodedBytes;           // decoded bytes of one transmission frame: bitsPerCif x cifsPerFrame / 8
};

// 0 no change announced; 1 a change is announced and the FIC stage supplies
// the CIF count; 2 a Reconfiguration has fallen due and the swap is to be done.
// Written by the host's thread (under requestMailbox) and the demodulation
// thread, hence atomic.
extern std::atomic<uint8_t> cifCountWanted;

}  // namespace mvdab
