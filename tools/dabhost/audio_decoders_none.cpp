// The audio decoders of a build without libmpg123 and libfaad2 (the Windows
// cross build): neither decodes, so dabhost writes no WAV but still records
// a service's bytes.
#include "audio_decoders.h"

Mp2Decoder::Mp2Decoder() = default;
Mp2Decoder::~Mp2Decoder() = default;

int Mp2Decoder::Decode(const uint8_t*, int, PcmBlock*) { return 0; }

AacDecoder::~AacDecoder() = default;

bool AacDecoder::Decode(const dabplus::AudioParameters&, const uint8_t*, int, PcmBlock*) { return false; }

bool AacDecoder::SetUp(const dabplus::AudioParameters&) { return false; }
