// Programme-associated data of an audio service, as a host reads it: the
// PAD field at the end of each MP2 frame or in the data stream element that
// opens a DAB+ AU, its X-PAD data groups, the Dynamic Label text and MOT
// objects (slideshow pictures).
//
// An MP2 frame ends in its PAD field; the X-PAD's first byte is the one
// next to the ScF-CRC and its later bytes lie towards the frame's start:
//
//   header | audio ... | X-PAD (reversed) | ScF-CRC 2/4 | F-PAD 2
//
// A DAB+ AU with PAD starts with a data stream element:
//
//   0x80..0x9F | count [| escape count] | X-PAD (reversed) | F-PAD 2 | audio ...
//
// Everything read from the broadcast is bounds-checked: bad lengths and CRC
// failures drop the data group concerned and are counted.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <string>
#include <vector>

namespace pad {

// A complete MOT object.
struct MotObject {
    uint16_t transportId = 0;
    int contentType = 0;      // 2 = image
    int contentSubType = 0;   // image: 1 JFIF (JPEG), 3 PNG
    std::string name;         // ContentName, UTF-8; empty if not sent
    std::vector<uint8_t> body;
};

struct PadCounts {
    uint64_t fields = 0;          // PAD fields read
    uint64_t labelSegments = 0;   // Dynamic Label segments with a good CRC
    uint64_t labelCrcFailures = 0;
    uint64_t groups = 0;          // MOT data groups with a good CRC
    uint64_t groupCrcFailures = 0;
    uint64_t malformed = 0;       // fields, indicators or groups that do not add up
    uint64_t objects = 0;         // MOT objects completed
};

// Bytes of the ScF-CRC of an MP2 frame from its header: 2 at 48 kHz when
// the bit rate per channel is below 56 kbit/s, else 4; 0 if `header` is not
// a layer II header this can tell.
int Mp2ScfCrcBytes(const uint8_t header[4]);
// Bytes of the layer II frame whose header is `header` (48, 24 or 32 kHz,
// padding slot included); 0 if it is no such header.
size_t Mp2FrameBytes(const uint8_t header[4]);

// Dynamic Label text in UTF-8 from its bytes and character set: 0 EBU Latin
// (line break hint as a space, other hints dropped, the unused code as '?'),
// 15 UTF-8 (invalid sequences as '?'), 6 UCS-2 big-endian; any other set is
// read like 0.
std::string LabelText(const uint8_t* bytes, size_t length, int charset);

class PadDecoder {
public:
    // One whole MP2 frame (header included).
    void PushMp2Frame(const uint8_t* frame, size_t length);
    // One DAB+ AU payload (without its CRC); AUs without PAD are ignored.
    void PushAu(const uint8_t* au, size_t length);
    // A PAD field in transmission order: X-PAD area (reversed X-PAD at its
    // end), `gap` bytes not part of the PAD (the ScF-CRC), then the F-PAD.
    void PushField(const uint8_t* field, size_t length, size_t gap);

    // The current Dynamic Label, UTF-8; empty after "clear display".
    const std::string& label() const { return label_; }
    // Incremented at each label change.
    uint64_t labelVersion() const { return labelVersion_; }
    // MOT objects completed since the last call, oldest first.
    std::vector<MotObject> TakeObjects();
    const PadCounts& counts() const { return counts_; }

private:
    void Subfield(int app, const uint8_t* data, size_t length);
    void LabelBytes(bool start, const uint8_t* data, size_t length);
    void LabelSegment(const uint8_t* g, size_t length);
    void MotBytes(bool start, const uint8_t* data, size_t length);
    void MotGroup(const uint8_t* g, size_t length);
    void TryComplete(uint16_t transportId);

    struct Object {
        std::map<int, std::vector<uint8_t>> header, body;  // segments by number
        int headerLast = -1, bodyLast = -1;                // number of the last segment, -1 = not seen
    };

    std::string label_;
    uint64_t labelVersion_ = 0;
    std::vector<uint8_t> labelGroup_;            // Dynamic Label data group being assembled
    bool labelActive_ = false;
    int labelToggle_ = -1;
    int labelCharset_ = 0;
    std::map<int, std::vector<uint8_t>> labelSegments_;  // characters by segment number
    int labelLast_ = -1;

    size_t motLength_ = 0;                       // bytes, from the last length indicator; 0 = none
    size_t motExpected_ = 0;                     // bytes of the MOT data group being assembled
    std::vector<uint8_t> motGroup_;              // that data group so far
    bool motActive_ = false;
    std::map<uint16_t, Object> objects_;         // by transport id
    std::vector<MotObject> done_;

    int lastApp_ = 0;                            // application of the last subfield
    size_t lastLength_ = 0;                      // and its length
    PadCounts counts_;
};

}  // namespace pad
