// X-PAD coding of the transmitter. Sources of the formats, beyond the
// project's notes on the PAD field ends:
// - ETSI EN 300 401 clause 7.4.2 (variable-size X-PAD: contents indicator
//   = length index b7..b5 + application type b4..b0, at most 4, an end
//   marker of type 0 if fewer; subfield lengths by index 4, 6, 8, 12, 16,
//   24, 32, 48 bytes), clause 7.4.3 (application types: 1 data group length
//   indicator, 2/3 Dynamic Label start/continuation, 12/13 MOT start/
//   continuation) and clause 7.4.5 (Dynamic Label segment: 2-byte prefix,
//   1..16 characters, CRC; up to 8 segments; character set in the first
//   segment; command "clear display" = 0001).
// - ETSI EN 301 234 clauses 5.1 and 6 (MOT segment header: repetition count
//   3 bits, segment size 13 bits; header core: body size 28 bits, header
//   size 13 bits, content type 6 bits, subtype 9 bits; parameters with a
//   2-bit length indicator; ContentName = 0x0C with a character set byte,
//   TriggerTime = 0x05) and ETSI TS 101 499 (slideshow: content type 2
//   image, subtype 1 JFIF, 3 PNG; TriggerTime 0 = show now).
#include "generator/pad_encoder.h"

#include <algorithm>
#include <cstring>
#include <filesystem>

#include "generator/label_charset.h"
#include "generator/payload_coding.h"
#include "generator/payload_file.h"

namespace gen {
namespace {

constexpr int kSubfieldBytes[8] = {4, 6, 8, 12, 16, 24, 32, 48};  // by length index
constexpr int kAppLengthIndicator = 1, kAppLabelStart = 2, kAppMotStart = 12;
constexpr size_t kLabelMaxBytes = 128;   // 8 segments of 16 characters
constexpr size_t kMotSegmentBytes = 1024;

void AppendCrc(std::vector<uint8_t>& v) {
    const size_t n = v.size();
    const uint16_t crc = CrcCcitt16(v.data(), n);
    v.resize(n + 2);
    v[n] = static_cast<uint8_t>(crc >> 8);
    v[n + 1] = static_cast<uint8_t>(crc);
}

// One MSC data group with CRC, segment field and transport id.
std::vector<uint8_t> MotDataGroup(int type, int continuity, int segment, bool last, uint16_t transportId,
                                  const uint8_t* data, size_t size) {
    const uint8_t head[9] = {
        static_cast<uint8_t>(0x70 | type),  // CRC, segment and user access flags
        static_cast<uint8_t>((continuity & 15) << 4),
        static_cast<uint8_t>((last ? 0x80 : 0) | (segment >> 8)), static_cast<uint8_t>(segment),
        0x12,  // transport id present, 2 bytes of user access
        static_cast<uint8_t>(transportId >> 8), static_cast<uint8_t>(transportId),
        static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size),  // repetition count 0, segment size
    };
    std::vector<uint8_t> g(sizeof head + size);
    std::memcpy(g.data(), head, sizeof head);
    if (size > 0) std::memcpy(g.data() + sizeof head, data, size);
    AppendCrc(g);
    return g;
}

}  // namespace

bool LoadSlides(const std::string& dir, std::vector<PadSlide>* slides, std::string* error) {
    std::error_code ec;
    std::vector<std::filesystem::path> paths;
    for (const auto& entry : std::filesystem::directory_iterator(dir, ec)) {
        std::string ext = entry.path().extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
        if (ext == ".jpg" || ext == ".jpeg" || ext == ".png") paths.push_back(entry.path());
    }
    if (ec) return *error = dir + ": " + ec.message(), false;
    std::sort(paths.begin(), paths.end());
    slides->clear();
    for (const auto& path : paths) {
        PadSlide slide;
        slide.name = path.filename().string().substr(0, 100);
        std::string ext = path.extension().string();
        std::transform(ext.begin(), ext.end(), ext.begin(), [](unsigned char c) { return std::tolower(c); });
        slide.contentSubType = ext == ".png" ? 3 : 1;
        if (!ReadWholeFile(path.string(), &slide.bytes, error)) return false;
        if (slide.bytes.empty() || slide.bytes.size() > kMotSegmentBytes * 0x7FFF)
            return *error = path.string() + ": empty or too large for a slide", false;
        slides->push_back(std::move(slide));
    }
    if (slides->empty()) return *error = dir + ": no .jpg or .png pictures", false;
    return true;
}

std::vector<std::vector<uint8_t>> PadEncoder::LabelGroups(const std::string& label, bool toggle) {
    const uint8_t t = toggle ? 0x80 : 0;
    std::vector<std::vector<uint8_t>> groups;
    if (label.empty()) {
        std::vector<uint8_t> clear = {static_cast<uint8_t>(t | 0x10 | 0x01), 0x00};  // command: clear display
        AppendCrc(clear);
        groups.push_back(std::move(clear));
        return groups;
    }
    // EBU Latin when the set has every character of the label, else UTF-8.
    std::string text;
    const int charset = EncodeEbuLatin(label, &text) ? 0 : 15;
    if (charset == 15) text = label;
    const size_t length = std::min(text.size(), kLabelMaxBytes);
    const int segments = static_cast<int>((length + 15) / 16);
    for (int i = 0; i < segments; ++i) {
        const size_t first = static_cast<size_t>(i) * 16, n = std::min<size_t>(16, length - first);
        std::vector<uint8_t> g = {
            static_cast<uint8_t>(t | (i == 0 ? 0x40 : 0) | (i == segments - 1 ? 0x20 : 0) | (n - 1)),
            static_cast<uint8_t>(i == 0 ? charset << 4 : i << 4),
        };
        g.insert(g.end(), text.begin() + static_cast<long>(first), text.begin() + static_cast<long>(first + n));
        AppendCrc(g);
        groups.push_back(std::move(g));
    }
    return groups;
}

std::vector<std::vector<uint8_t>> PadEncoder::MotGroups(const PadSlide& slide, uint16_t transportId,
                                                        int* continuity) {
    // Header: core, TriggerTime "now", ContentName in EBU Latin.
    const size_t nameBytes = std::min<size_t>(slide.name.size(), 126);
    const size_t headerSize = 7 + 5 + 3 + nameBytes;
    const uint64_t body = slide.bytes.size();
    const uint64_t core = (body << 28) | (headerSize << 15) | (2u << 9) | static_cast<uint64_t>(slide.contentSubType);
    std::vector<uint8_t> header;
    for (int shift = 48; shift >= 0; shift -= 8) header.push_back(static_cast<uint8_t>(core >> shift));
    header.insert(header.end(), {0x85, 0, 0, 0, 0});
    header.insert(header.end(), {0xCC, static_cast<uint8_t>(nameBytes + 1), 0x00});
    header.insert(header.end(), slide.name.begin(), slide.name.begin() + static_cast<long>(nameBytes));

    std::vector<std::vector<uint8_t>> groups;
    groups.push_back(MotDataGroup(3, continuity[0]++, 0, true, transportId, header.data(), header.size()));
    const size_t segments = (slide.bytes.size() + kMotSegmentBytes - 1) / kMotSegmentBytes;
    for (size_t i = 0; i < segments; ++i) {
        const size_t first = i * kMotSegmentBytes, n = std::min(kMotSegmentBytes, slide.bytes.size() - first);
        groups.push_back(MotDataGroup(4, continuity[1]++, static_cast<int>(i), i + 1 == segments, transportId,
                                      slide.bytes.data() + first, n));
    }
    return groups;
}

PadEncoder::PadEncoder(std::string label, std::vector<PadSlide> slides)
    : label_(std::move(label)), slides_(std::move(slides)) {}

void PadEncoder::Refill() {
    queue_.clear();
    groupIndex_ = groupOffset_ = 0;
    if (!label_.empty())
        for (auto& g : LabelGroups(label_, false)) queue_.push_back({kAppLabelStart, false, std::move(g)});
    if (!slides_.empty()) {
        const PadSlide& slide = slides_[nextSlide_++ % slides_.size()];
        for (auto& g : MotGroups(slide, ++transportId_, motContinuity_))
            queue_.push_back({kAppMotStart, true, std::move(g)});
    }
}

PadField PadEncoder::Next(int maxXpad) {
    PadField field;
    if (groupIndex_ >= queue_.size()) Refill();
    if (queue_.empty() || maxXpad < 6) return field;
    const Group& g = queue_[groupIndex_];
    std::vector<uint8_t> ci, data;
    if (g.lengthIndicator && groupOffset_ == 0 && !indicatorSent_) {
        // The length of the data group that starts next, 14 bits, with its CRC.
        std::vector<uint8_t> dgli = {static_cast<uint8_t>((g.bytes.size() >> 8) & 0x3F),
                                     static_cast<uint8_t>(g.bytes.size())};
        AppendCrc(dgli);
        ci.push_back(kAppLengthIndicator);  // length index 0: 4 bytes
        data = dgli;
        indicatorSent_ = true;
    }
    // The data subfield: the shortest length that takes the rest of the
    // group, else the longest that fits beside the contents indicators.
    const size_t remaining = g.bytes.size() - groupOffset_;
    const int room = maxXpad - static_cast<int>(data.size()) - static_cast<int>(ci.size()) - 2;
    int index = -1;
    for (int i = 0; i < 8 && kSubfieldBytes[i] <= room; ++i) {
        index = i;
        if (static_cast<size_t>(kSubfieldBytes[i]) >= remaining) break;
    }
    if (index >= 0) {
        const int app = groupOffset_ == 0 ? g.startType : g.startType + 1;
        ci.push_back(static_cast<uint8_t>(index << 5 | app));
        const size_t n = std::min<size_t>(static_cast<size_t>(kSubfieldBytes[index]), remaining);
        data.insert(data.end(), g.bytes.begin() + static_cast<long>(groupOffset_),
                    g.bytes.begin() + static_cast<long>(groupOffset_ + n));
        data.resize(data.size() + static_cast<size_t>(kSubfieldBytes[index]) - n, 0);
        groupOffset_ += n;
        if (groupOffset_ == g.bytes.size()) ++groupIndex_, groupOffset_ = 0, indicatorSent_ = false;
    }
    ci.push_back(0);  // end marker (never 4 indicators here)
    field.xpad = std::move(ci);
    field.xpad.insert(field.xpad.end(), data.begin(), data.end());
    field.fpad[0] = 0x20;  // F-PAD type 0, variable-size X-PAD
    field.fpad[1] = 0x02;  // contents indicators present
    return field;
}

void PadEncoder::Write(const PadField& field, int gap, uint8_t* end) {
    uint8_t* p = end - PadBytes(field, gap);
    for (size_t k = 0; k < field.xpad.size(); ++k) p[k] = field.xpad[field.xpad.size() - 1 - k];
    end[-2] = field.fpad[0];
    end[-1] = field.fpad[1];
}

}  // namespace gen
