// The host's FIC parser: builds the picture of an ensemble (ensemble.h) from
// the FIBs that the receiver hands to its FIC callback.
//
// Typical use in a host, with the receiver's FIC callback:
//
//     ficparse::FicParser parser;                       // one per tuned frequency
//     void OnFic(uint8_t* bytes, int32_t length, int32_t flags) {
//         parser.PushFibs(bytes, length, flags);        // copies what it needs
//     }
//     ...
//     if (parser.ensemble().Complete()) {
//         ficparse::PrintEnsembleText(parser.ensemble(), stdout);
//         ficparse::PrintEnsembleJson(parser.ensemble(), stdout);
//     }
//     parser.statistics().SeenText();                   // "0/0 0/1 0/2 1/0 1/1"
//     parser.Reset();                                   // before tuning elsewhere
//
// The callback runs on the receiver's thread, so a host that reads the model
// from another thread puts its own lock around PushFibs and its reads.
//
// What is decoded: FIG 0/0 (ensemble information), 0/1 (sub-channels, short
// and long form), 0/2 (services and their components), 0/3 (packet-mode
// components), 1/0 (ensemble label), 1/1 and 1/5 (service labels). Other FIGs
// are counted and skipped. FIGs about other ensembles (OE = 1) do not enter
// the model. Of the next configuration (C/N = 1) the sub-channels of FIG 0/1
// are kept apart (Ensemble::nextSubChannels), for a host that follows an
// announced change; next-configuration FIG 0/2 and 0/3 are skipped. FIBs
// with a failed CRC are counted and ignored. Malformed FIGs (a length that
// runs past the FIB, truncated entries) end the walk of that FIB; whatever
// complete entries came before them stays. No input can make the parser read
// outside the bytes it was given.
#pragma once

#include <cstdint>

#include "tools/ficparse/ensemble.h"

namespace ficparse {

constexpr int kFibBytes = 32;      // FIB: 30 bytes of FIGs and a 16-bit CRC
constexpr int kFibDataBytes = 30;  // FIG area of a FIB
constexpr int kMaxFlaggedFibs = 12;  // FIBs whose CRC result fits the flags word

// CRC of a FIB: 1 if bytes 30 and 31 hold the CRC of bytes 0..29.
bool FibCrcGood(const uint8_t fib[kFibBytes]);
// The CRC that bytes 30 and 31 of a FIB have to hold (byte 30 = high byte).
uint16_t FibCrc(const uint8_t* data, int length);

class FicParser {
public:
    // The FIBs of one FIC callback: `length` bytes, FIB i at offset 32 i, and
    // the callback's flags word: bit 15 - i is 1 when FIB i passed its CRC.
    // Only whole FIBs are read, and at most 12 (the flags hold no more).
    // Null `bytes` or a negative length is ignored.
    void PushFibs(const uint8_t* bytes, int32_t length, int32_t flags);

    // FIBs from a source without CRC flags (a file, another receiver): each
    // FIB's own CRC decides. Any number of whole FIBs.
    void PushFibsCheckingCrc(const uint8_t* bytes, int32_t length);

    // One FIB of 32 bytes whose CRC result is known.
    void PushFib(const uint8_t* fib, bool crcGood);

    const Ensemble& ensemble() const { return ensemble_; }
    const FicStatistics& statistics() const { return statistics_; }

    // Forgets the ensemble and the statistics, e.g. after a re-tune.
    void Reset();

private:
    void ParseFig0(const uint8_t* data, int length);
    void ParseFig1(const uint8_t* data, int length);
    void ParseEnsembleInformation(const uint8_t* data, int length);
    void ParseSubChannels(const uint8_t* data, int length, std::map<int, SubChannel>& into);
    void ParseServices(const uint8_t* data, int length, bool longIds);
    void ParsePacketComponents(const uint8_t* data, int length);
    void ApplyPacketInfo(Component& component) const;

    // FIG 0/3 data by SCId, kept so that it applies to components that come later.
    struct PacketInfo {
        int type;
        int subChannelId;
        int packetAddress;
        bool dataGroups;
    };
    std::map<int, PacketInfo> packetInfo_;
    // Service labels by SId, kept so that a label may come before its FIG 0/2.
    std::map<uint32_t, Label> serviceLabels_;
    Ensemble ensemble_;
    FicStatistics statistics_;
};

}  // namespace ficparse
