#include "services/service_requests.h"

#include <cstdlib>

#include "acquisition/mode_buffers.h"
#include "channel/subchannel_decoder.h"
#include "channel/viterbi_decoder.h"
#include "delivery/worker.h"
#include "receiver/receiver_state.h"
#include "services/protection_tables.h"
#include "services/service_component.h"
#include "services/symbol_mask.h"

namespace mvdab {

std::atomic<uint8_t> cifCountWanted;

void FreeServiceComponent(ServiceComponent* record) {
    if (record == nullptr) return;
    if (record->reconfiguration != nullptr) {
        FreeServiceComponent(record->reconfiguration->replacement);
        std::free(record->reconfiguration);
        record->reconfiguration = nullptr;
    }
    record->timeStore = nullptr;
    std::free(record->softWords);
    std::free(record->decodedBytes);
    std::free(record);
}

namespace {

void FreeList(ServiceComponent* head) {
    while (head != nullptr) {
        ServiceComponent* next = head->next;
        FreeServiceComponent(head);
        head = next;
    }
}

// The book-keeping of a record that leaves the lists, as a deletion does it.
void CountRemoval(const ServiceComponent* record) {
    ReceiverStatus& s = receiverStatus;
    s.addAllowed = 1;
    s.primaryPresent = 0;
    s.freeSlots = record->type == kServiceDabPlus ? 2 : s.freeSlots + 1;
    if (s.freeSlots > 2) s.freeSlots = 2;
    s.serviceCount -= 1;
}

void SelectActiveServices() {
    int32_t count = 0;
    for (ServiceComponent* r = receiverStatus.activeServices; r != nullptr && count < 2; r = r->next) {
        pipeline.selectedServices[count++] = r;
    }
    pipeline.selectedCount = count;
}

// Swaps in the replacements whose change has fallen due.
int32_t SwapDueReplacements() {
    int32_t ok = 1;
    ServiceComponent** link = &receiverStatus.activeServices;
    while (*link != nullptr) {
        ServiceComponent* record = *link;
        Reconfiguration* change = record->reconfiguration;
        if (change == nullptr || change->state != 2 || change->replacement == nullptr) {
            link = &record->next;
            continue;
        }
        pipeline.servicesDirty = 1;
        ServiceComponent* replacement = change->replacement;
        change->replacement = nullptr;
        replacement->next = record->next;
        *link = replacement;
        FreeServiceComponent(record);
        if (SetUpSubChannel(replacement, 1, 0) != 1) {
            // The replacement can't be decoded: drop it as if it had been
            // deleted, so that nothing refers to a record without buffers.
            *link = replacement->next;
            CountRemoval(replacement);
            FreeServiceComponent(replacement);
            ok = 0;
            continue;
        }
        link = &replacement->next;
    }
    SelectActiveServices();
    uint8_t wanted = 0;
    for (ServiceComponent* r = receiverStatus.activeServices; r != nullptr; r = r->next) {
        if (r->reconfiguration != nullptr) wanted = 1;
    }
    cifCountWanted = wanted;
    return ok;
}

}  // namespace

int32_t ApplyServiceRequests() {
    ReceiverStatus& s = receiverStatus;
    int32_t ok = 1;
    int32_t count = 0;
    ServiceComponent* last = nullptr;
    for (ServiceComponent* r = s.activeServices; r != nullptr; r = r->next) {
        if (count < 2) pipeline.selectedServices[count++] = r;
        last = r;
    }
    for (ServiceComponent* r = s.removedServices; r != nullptr;) {
        ServiceComponent* next = r->next;
        if (r->type == kServiceDabPlus) FlushWorker();  // no superframes of a removed service after this
        FreeServiceComponent(r);
        pipeline.servicesDirty = 1;
        r = next;
    }
    s.removedServices = nullptr;

    // Set up what came; a record that fails is dropped here, before it
    // joins the active list.
    ServiceComponent* added = s.addedServices;
    s.addedServices = nullptr;
    ServiceComponent* addedHead = nullptr;
    ServiceComponent** addedTail = &addedHead;
    while (added != nullptr) {
        ServiceComponent* next = added->next;
        added->next = nullptr;
        if (SetUpSubChannel(added, 1, 0) == 1) {
            if (count < 2) pipeline.selectedServices[count++] = added;
            *addedTail = added;
            addedTail = &added->next;
        } else {
            CountRemoval(added);
            FreeServiceComponent(added);
            ok = 0;
        }
        pipeline.servicesDirty = 1;
        added = next;
    }
    pipeline.selectedCount = count;
    if (last != nullptr) {
        last->next = addedHead;
    } else {
        s.activeServices = addedHead;
    }
    if (cifCountWanted == 2) ok = SwapDueReplacements() && ok;
    return ok;
}

int32_t DeriveSubChannel(ServiceComponent* record) {
    if (record == nullptr) return 0;
    if (record->longForm == 0) {
        const SubChannelRow& row = kSubChannelTable[record->tableIndex & 0x3F];
        record->subChannelSize = row.size;
        record->bitsPerCif = uint16_t(24 * row.bitRate);
    } else {
        const int32_t level = record->protectionLevel & 3;
        if (record->option == 0) {
            const int32_t n = record->subChannelSize / kEepDivisorsA[level];
            record->bitsPerCif = uint16_t(192 * n);
            switch (level) {
                case 1:
                    record->eepRuns[0] = n > 1 ? 2 * n - 3 : 5;
                    record->eepRuns[1] = n > 1 ? 4 * n + 3 : 1;
                    break;
                case 3:
                    record->eepRuns[0] = 4 * n - 3;
                    record->eepRuns[1] = 2 * n + 3;
                    break;
                default:  // level indices 0 and 2
                    record->eepRuns[0] = 6 * n - 3;
                    record->eepRuns[1] = 3;
                    break;
            }
        } else {
            const int32_t n = record->subChannelSize / kEepDivisorsB[level];
            record->bitsPerCif = uint16_t(768 * n);
            record->eepRuns[0] = 24 * n - 3;
            record->eepRuns[1] = 3;
        }
    }
    // Refused: a sub-channel that carries no bits (a long-form size below
    // its set's divisor, whose runs would not fit softWords), one outside the
    // CIF, which has no place in FrameCarriers or DeinterleaveStore, and one
    // whose coded bits would overrun its capacity units or the Viterbi block.
    if (record->startAddress < 0 || record->subChannelSize <= 0 || record->bitsPerCif == 0 ||
        record->startAddress + record->subChannelSize > kCapacityUnitsPerCif ||
        record->bitsPerCif + kViterbiTailSteps > kViterbiMaxSteps ||
        SubChannelCodedBits(*record) > 64 * record->subChannelSize)
        return 0;
    return 1;
}

int32_t SetUpSubChannel(ServiceComponent* record, int32_t derive, int32_t map) {
    if (record == nullptr) return 0;
    const ModeParameters& m = mode.parameters;
    if (derive) {
        if (DeriveSubChannel(record) != 1 || m.carrierCount <= 0) return 0;
        record->timeStore = workBlocks.deinterleaveStore != nullptr
                                ? workBlocks.deinterleaveStore + kCapacityUnitStoreBytes * record->startAddress
                                : nullptr;
        std::free(record->softWords);
        std::free(record->decodedBytes);
        record->softWords = static_cast<uint16_t*>(std::malloc(2 * size_t(record->bitsPerCif) + 12));
        if (record->softWords == nullptr) return 0;
        const size_t frameBytes = size_t(record->bitsPerCif) * size_t(m.cifsPerFrame) / 8;
        // One byte more than needed, so that an empty sub-channel still owns a buffer.
        record->decodedBytes = static_cast<uint8_t*>(std::malloc(frameBytes + 1));
        if (record->decodedBytes == nullptr) return 0;
        record->firstSymbol = (32 * record->startAddress) / m.carrierCount;
        record->lastSymbol = (32 * (record->startAddress + record->subChannelSize) - 1) / m.carrierCount;
    }
    if (map) {
        record->timeIndex = 0;
        record->timeInterleaverFull = 0;
        const int32_t cifs = m.cifsPerFrame > 4 ? 4 : m.cifsPerFrame;
        for (int32_t c = 0; c < cifs; ++c) {
            const int32_t base = m.firstMscSymbol + c * m.mscSymbolsPerCif;
            const int32_t first = base + record->firstSymbol;
            const int32_t last = base + record->lastSymbol;
            if (first < 1 || last >= m.symbolsPerFrame || last >= kMaxSymbolsPerFrame) return 0;
            SymbolMask[first - 1] |= kMaskReference;
            for (int32_t i = first; i <= last; ++i) SymbolMask[i] = kMaskReference | kMaskData;
            uint8_t* carriers = reinterpret_cast<uint8_t*>(modeBuffers.frameCarriers);
            record->cifSoftBits[c] =
                carriers != nullptr
                    ? reinterpret_cast<float*>(carriers + 8 * m.carrierCount * m.firstMscSymbol +
                                               kCifFrameCarrierBytes * c +
                                               kCapacityUnitCarrierBytes * record->startAddress)
                    : nullptr;
        }
    }
    return 1;
}

void ReleaseAllServices() {
    ReceiverStatus& s = receiverStatus;
    FreeList(s.activeServices);
    FreeList(s.removedServices);
    FreeList(s.addedServices);
    s.activeServices = nullptr;
    s.removedServices = nullptr;
    s.addedServices = nullptr;
    cifCountWanted = 0;
    s.serviceCount = 0;
    s.addAllowed = 1;
    s.primaryPresent = 0;
    s.freeSlots = 2;
}

}  // namespace mvdab
