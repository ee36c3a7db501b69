/* Opens the receiver on the installed default device library (the emulated
 * device, which hears noise), tunes, and closes: 0 when all three work. */
#include <stdio.h>

#include <mvxdab.h>

int main(void) {
    const int32_t opened = MVDAB_OpenDevice();
    const int32_t tuned = opened == 1 ? MVDAB_SetFreqAndBW(227360) : 0;
    const int32_t closed = MVDAB_CloseDevice();
    printf("consumer: open %d, tune %d, close %d\n", (int)opened, (int)tuned, (int)closed);
    return opened == 1 && tuned == 1 && closed == 1 ? 0 : 1;
}
