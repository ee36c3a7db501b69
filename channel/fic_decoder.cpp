#include "channel/fic_decoder.h"

namespace mvdab {

int32_t DecodeFic() { return 1; }
void ResetFicDecoder() {}

}  // namespace mvdab
