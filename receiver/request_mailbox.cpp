#include "receiver/request_mailbox.h"

#include "receiver/receiver_state.h"
#include "receiver/sync_objects.h"

namespace mvdab {

int32_t TakeRequestMailbox() { return platform::WaitEvent(&requestMailbox, -1) == 1 ? 1 : 0; }

void GiveRequestMailbox() { platform::SetEvent(&requestMailbox); }

namespace {
int32_t PostRequest(int32_t retune) {
    if (TakeRequestMailbox() != 1) return 0;
    receiverStatus.signalPresent = 0;
    receiverStatus.serviceResetRequest = retune ? 0 : 1;
    receiverStatus.retuneRequest = retune ? 1 : 0;
    GiveRequestMailbox();
    return 1;
}
}  // namespace

int32_t PostRetune() { return PostRequest(1); }
int32_t PostServiceReset() { return PostRequest(0); }

}  // namespace mvdab
