// Taking and giving back requestMailbox, and the two requests a tuning posts.
#pragma once

#include <cstdint>

namespace mvdab {

// Waits without a time limit. 1 when the lock is held; 0 when the wait
// failed, which is what happens while the device is closed (no event).
int32_t TakeRequestMailbox();
void GiveRequestMailbox();

// Under the mailbox: signalPresent = 0, and retuneRequest = 1 (restart
// acquisition, drop services) or serviceResetRequest = 1 (drop services,
// keep sync), the other word cleared. 1, or 0 when the lock wasn't had.
int32_t PostRetune();
int32_t PostServiceReset();

}  // namespace mvdab
