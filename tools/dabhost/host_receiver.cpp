#include "host_receiver.h"

#include <cstdio>
#include <thread>

#include "mvxdab.h"

FicQueue ficQueue;
MscQueue mscQueue;

void OnFic(uint8_t* bytes, int32_t length, int32_t flags) { ficQueue.Push(bytes, length, flags); }
void OnMsc(uint8_t* bytes, int32_t length, int32_t flags) { mscQueue.Push(bytes, length, flags); }

double Seconds(Clock::duration d) { return std::chrono::duration<double>(d).count(); }

void Sleep(double seconds) { std::this_thread::sleep_for(std::chrono::duration<double>(seconds)); }

StatusSnapshot ReadStatus(double elapsedSeconds) {
    StatusSnapshot s;
    s.elapsedSeconds = elapsedSeconds;
    int32_t bandwidth = 0;
    int32_t locked = 0;
    MVDAB_GetSignalPresent(&s.present);
    s.lockKnown = MVDAB_GetSignalLock(&locked) == 1;
    s.locked = s.lockKnown && locked == 1;
    MVDAB_GetSignalQuality(&s.quality);
    MVDAB_GetFreqAndBW(&s.frequencyKhz, &bandwidth);
    s.fic = ficQueue.counts();
    return s;
}

void PassOnChange(const ficparse::Ensemble& ensemble, ServiceKind kind, bool quiet,
                  ReconfigurationFollower& follower, bool* refusalShown) {
    ReconfigurationFollower::Change change;
    if (!follower.Due(ensemble, &change)) return;
    const ServiceRequest n = RequestFor(kind, change.next);
    const int32_t changed = MVDAB_ChangeSCOrg(n.type, n.subChannelId, n.startAddress, n.longForm, n.tableIndex,
                                              n.optionAndLevel, n.size, 0, 0, int8_t(change.cifCountHigh),
                                              int8_t(change.cifCountLow));
    if (changed == 1) follower.Passed(change);
    if ((changed == 1 && !quiet) || (changed != 1 && !*refusalShown))
        std::fprintf(stderr, "dabhost: sub-channel %d changes to %s, CU %d+%d at CIF count %d: %s\n", change.next.id,
                     change.next.ProtectionText().c_str(), change.next.startAddress, change.next.size,
                     change.cifCountHigh * 250 + change.cifCountLow,
                     changed == 1 ? "passed on" : "refused, trying again");
    *refusalShown = changed != 1;
}
