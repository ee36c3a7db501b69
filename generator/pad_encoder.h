// Programme-associated data for the transmitter's audio sources: a Dynamic
// Label text and slideshow pictures, cut into X-PAD data groups and handed
// out one audio frame's PAD field at a time.
//
// PAD field of one frame, as it ends an MP2 frame or fills the data stream
// element at the start of a DAB+ AU (MP2 has the 2 or 4 ScF-CRC bytes between
// X-PAD and F-PAD):
//
//   ... audio | X-PAD, last byte first ... first byte | F-PAD byte 0 | byte 1
//                                         ^ contents indicators start here
//
// X-PAD (variable size, contents indicators always present), in its own
// order: CI 1 [CI 2 CI 3 CI 4] [end marker 0x00 if fewer than 4] then the
// subfields in the order of their CIs.
#pragma once

#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace gen {

struct PadSlide {
    std::string name;            // content name sent in the MOT header (the file name)
    int contentSubType = 1;      // MOT image subtype: 1 JFIF (JPEG), 3 PNG
    std::vector<uint8_t> bytes;  // the whole file
};

// The pictures of a folder (*.jpg, *.jpeg, *.png), in name order. False with
// `error` set if the folder cannot be read, holds none, or a picture is
// larger than the MOT body can describe.
bool LoadSlides(const std::string& dir, std::vector<PadSlide>* slides, std::string* error);

// One frame's PAD: X-PAD bytes in their own order (not yet reversed) and the
// two F-PAD bytes.
struct PadField {
    std::vector<uint8_t> xpad;
    uint8_t fpad[2] = {0, 0};
};

// Sends the label's segments, then one picture, then the label again, the
// next picture, and so on, without end. Deterministic.
class PadEncoder {
public:
    // `label`: UTF-8, up to 128 bytes as sent (in EBU Latin when the set has
    // all its characters, else in UTF-8). Either may be empty.
    PadEncoder(std::string label, std::vector<PadSlide> slides);
    // The PAD of the next frame with at most `maxXpad` X-PAD bytes (at least
    // 6 are needed for anything to be sent).
    PadField Next(int maxXpad);
    // Writes `field` into the last `PadBytes(field)` bytes of `end` - that
    // many bytes before `end` - in transmission order (X-PAD reversed, then
    // `gap` untouched bytes, then F-PAD).
    static void Write(const PadField& field, int gap, uint8_t* end);
    static int PadBytes(const PadField& field, int gap) { return static_cast<int>(field.xpad.size()) + gap + 2; }

    // The X-PAD data groups of one label and of one MOT object, as sent.
    static std::vector<std::vector<uint8_t>> LabelGroups(const std::string& label, bool toggle);
    static std::vector<std::vector<uint8_t>> MotGroups(const PadSlide& slide, uint16_t transportId,
                                                       int* continuity);

private:
    struct Group {
        int startType;  // X-PAD application type of the first subfield
        bool lengthIndicator;  // a data group length indicator goes first
        std::vector<uint8_t> bytes;
    };
    void Refill();

    std::string label_;
    std::vector<PadSlide> slides_;
    std::vector<Group> queue_;
    size_t groupIndex_ = 0;   // group being sent
    size_t groupOffset_ = 0;  // its bytes already sent
    bool indicatorSent_ = false;
    size_t nextSlide_ = 0;
    uint16_t transportId_ = 0;
    int motContinuity_[2] = {0, 0};  // continuity index of header (type 3) and body (type 4) groups
};

}  // namespace gen
