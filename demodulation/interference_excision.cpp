#include "demodulation/interference_excision.h"

namespace mvdab {

void ResetExcision() {}

}  // namespace mvdab
