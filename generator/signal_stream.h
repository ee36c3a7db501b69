// A generated DAB signal as an endless stream of device bytes: unsigned 8-bit
// interleaved I/Q at 2.048 MS/s, the transmitter and the channel model run
// on demand with bounded memory. This is what the emulated device plays for
// its "generated" source and what the generator tool writes.
//
// Description text (one line, comma-separated key=value, any order):
//   preset=NAME      ensemble to send (see SignalPresetNames()); default "default"
//   config=PATH      ensemble description file instead of a preset
//   mode=1..4        transmission mode; default 1
//   seed=N           seed of payloads and channel; default 1
//   snr=DB           AWGN, dB in 1.536 MHz; default none
//   cfo=HZ           carrier frequency offset; default 0
//   drift=HZPS       carrier drift in Hz/s; default 0
//   ppm=P            sample clock offset of the converter; default 0
//   profile=NAME     multipath profile (channel_model.h); default single path
//   fading=HZ        Doppler of slow fading; default 0
//   cw=HZ:DB         CW interferer at offset HZ, DB relative to the signal
//   leadin=S         seconds of noise before the signal; default 0
//   randomstart=0|1  start at a random point of the first frame; default 0
// The clock offset applied by a caller that models the converter itself (the
// emulator does, from its sample-rate register) is left out with ppm=0 here.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace gen {

class SignalStream {
public:
    virtual ~SignalStream() = default;
    // Fills `out` with the next `count` bytes (count even: whole samples).
    virtual void Read(uint8_t* out, size_t count) = 0;
    // Listing of what is sent: ensemble, services, sub-channels, channel.
    virtual std::string Describe() const = 0;
};

// nullptr on a description that can't be built; `error` says why.
std::unique_ptr<SignalStream> MakeSignalStream(const std::string& description, std::string* error = nullptr);

// Names accepted by preset=.
std::vector<std::string> SignalPresetNames();

}  // namespace gen
