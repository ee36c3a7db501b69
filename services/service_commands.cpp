#include "services/service_commands.h"

#include <cstdlib>

#include "delivery/worker.h"
#include "receiver/receiver_state.h"
#include "receiver/request_mailbox.h"
#include "services/service_component.h"
#include "services/service_requests.h"

namespace mvdab {

namespace {

ServiceComponent* Find(ServiceComponent* head, int8_t subChannelId) {
    for (ServiceComponent* r = head; r != nullptr; r = r->next) {
        if (uint8_t(r->subChannelId) == uint8_t(subChannelId)) return r;
    }
    return nullptr;
}

// Fills the host's parameters into a zeroed record; only the fields of the
// form in use are taken.
void FillRecord(ServiceComponent* record, const ServiceRequest& q, int8_t type) {
    record->type = type;
    record->subChannelId = q.subChannelId;
    record->startAddress = q.startAddress;
    record->longForm = q.longForm;
    record->fecScheme = int8_t(q.fecScheme & 3);
    record->reconfiguration = nullptr;
    if (q.longForm == 0) {
        record->tableIndex = int8_t(q.tableIndex & 0x3F);
    } else {
        record->subChannelSize = q.subChannelSize;
        record->option = int8_t((q.optionAndLevel >> 2) & 1);
        record->protectionLevel = int8_t(q.optionAndLevel & 3);
    }
}

// A DAB+ sub-channel above 192 kbit/s (24 units of 8 kbit/s) fits neither a
// slot of the worker's ring nor its superframe buffer, so it is refused here
// rather than dropped frame by frame later.
bool BeyondSuperframeSize(const ServiceRequest& q, int8_t type) {
    if (type != kServiceDabPlus) return false;
    ServiceComponent probe{};
    FillRecord(&probe, q, type);
    return SuperframeColumns(&probe) > kMaxColumns;
}

// Whether the host's parameters describe a sub-channel the receiver can
// decode: id 0..63, a table index 0..63 or a long-form option and level of
// three bits and a size of at least one step of its set, and a place inside
// the CIF. The low-bit masking of the record is kept for what passes.
bool RequestUsable(const ServiceRequest& q) {
    if (q.subChannelId < 0 || q.subChannelId > 63 || q.startAddress < 0) return false;
    if (q.longForm == 0 ? (q.tableIndex < 0 || q.tableIndex > 63)
                        : (q.optionAndLevel < 0 || q.optionAndLevel > 7 || q.subChannelSize <= 0))
        return false;
    ServiceComponent probe{};
    FillRecord(&probe, q, q.type);
    return DeriveSubChannel(&probe) == 1;
}

bool TuningPending() {
    return receiverStatus.serviceResetRequest != 0 || receiverStatus.retuneRequest != 0;
}

ServiceComponent* NewRecord() {
    return static_cast<ServiceComponent*>(std::calloc(1, sizeof(ServiceComponent)));
}

// Unlinks `record` from the list at `head`.
void Unlink(ServiceComponent** head, ServiceComponent* record) {
    for (ServiceComponent** link = head; *link != nullptr; link = &(*link)->next) {
        if (*link == record) {
            *link = record->next;
            record->next = nullptr;
            return;
        }
    }
}

void CountDeletion(const ServiceComponent* record) {
    ReceiverStatus& s = receiverStatus;
    s.addAllowed = 1;
    s.primaryPresent = 0;
    if (record->type == kServiceDabPlus) {
        s.freeSlots = 2;
    } else {
        s.freeSlots += 1;
    }
    s.serviceCount -= 1;
}

}  // namespace

int32_t AddServiceRequest(const ServiceRequest& q) {
    // Bad parameters are refused before anything is looked at or changed.
    if (!RequestUsable(q) || BeyondSuperframeSize(q, q.type)) return kServiceRefused;
    if (TakeRequestMailbox() != 1) return kServiceRefused;
    ReceiverStatus& s = receiverStatus;
    int32_t result = kServiceRefused;
    if (q.type != kServicePlain && q.type != kServiceDabPlus) {
        // Types 1, 2 and every other value are refused.
    } else if (TuningPending() || s.signalPresent != 1) {
        // Services are added to a receiver that has found a signal, and never
        // to lists about to be dropped.
    } else if (s.primaryPresent == 1) {
        // One service at a time: a second sub-channel waits for a deletion.
        if (Find(s.activeServices, q.subChannelId) != nullptr ||
            Find(s.addedServices, q.subChannelId) != nullptr) {
            result = kServiceAlreadyRequested;
        }
    } else if (ServiceComponent* record = NewRecord()) {
        FillRecord(record, q, q.type);
        record->next = s.addedServices;
        s.addedServices = record;
        s.serviceCount += 1;
        s.addAllowed = 0;
        s.primaryPresent = 1;
        if (q.type == kServicePlain) {
            s.freeSlots -= 1;
        } else {
            s.freeSlots = 0;
        }
        result = kServiceAccepted;
    }
    GiveRequestMailbox();
    return result;
}

int32_t DeleteServiceRequest(int8_t subChannelId) {
    if (TakeRequestMailbox() != 1) return kServiceNotFound;
    ReceiverStatus& s = receiverStatus;
    int32_t result = kServiceNotFound;
    if (TuningPending()) {
        result = kServiceRefused;
    } else if (ServiceComponent* active = Find(s.activeServices, subChannelId)) {
        // The demodulation thread may be decoding it: it frees the record at
        // the next IqFrame.
        CountDeletion(active);
        Unlink(&s.activeServices, active);
        active->next = s.removedServices;
        s.removedServices = active;
        result = kServiceAccepted;
    } else if (ServiceComponent* added = Find(s.addedServices, subChannelId)) {
        // Never seen by the demodulation thread: freed at once.
        CountDeletion(added);
        Unlink(&s.addedServices, added);
        FreeServiceComponent(added);
        result = kServiceAccepted;
    }
    GiveRequestMailbox();
    return result;
}

int32_t ChangeServiceOrganisation(const ServiceRequest& q, uint8_t changeCif) {
    if (!RequestUsable(q)) return kServiceRefused;
    if (TakeRequestMailbox() != 1) return kServiceRefused;
    ReceiverStatus& s = receiverStatus;
    int32_t result = kServiceRefused;
    ServiceComponent* record = nullptr;
    if (!TuningPending() && s.signalPresent == 1) record = Find(s.activeServices, q.subChannelId);
    if (record != nullptr && record->reconfiguration == nullptr && !BeyondSuperframeSize(q, record->type)) {
        ServiceComponent* replacement = NewRecord();
        auto* change = static_cast<Reconfiguration*>(std::calloc(1, sizeof(Reconfiguration)));
        if (replacement != nullptr && change != nullptr) {
            change->changeCif = changeCif;
            change->cifCount = 0;
            change->state = 1;
            change->replacement = replacement;
            FillRecord(replacement, q, record->type);
            // The demodulation thread reads the pointer without the lock:
            // published complete, once.
            __atomic_store_n(&record->reconfiguration, change, __ATOMIC_RELEASE);
            cifCountWanted = 1;
            result = kServiceAccepted;
        } else {
            std::free(replacement);
            std::free(change);
        }
    }
    GiveRequestMailbox();
    return result;
}

}  // namespace mvdab
