#include "demodulation/symbol_demodulator.h"

namespace mvdab {

int32_t DemodulateFrame() { return 1; }

}  // namespace mvdab
