// Reading programme-associated data. Sources of the formats (beyond the
// project's notes on F-PAD and the data stream element):
// - ETSI EN 300 401 clause 7.4.2: F-PAD type, X-PAD indicator (01 short,
//   10 variable size) and CI flag; short X-PAD = 4 bytes, the first one a
//   contents indicator when the CI flag is set; variable-size X-PAD: up to
//   4 contents indicators (length index b7..b5 for 4, 6, 8, 12, 16, 24, 32
//   or 48 bytes, application type b4..b0; type 0 ends the list), then the
//   subfields in their order. Without contents indicators the X-PAD
//   continues the last application; it is read here with the length of the
//   frame's last subfield.
// - clause 7.4.3: application types 1 (data group length indicator: 2 bits
//   rfa, 14 bits length, CRC), 2/3 Dynamic Label, 12/13 MOT.
// - clause 7.4.5.2: Dynamic Label segment: toggle b7, first b6, last b5,
//   C flag b4; C = 0: b3..b0 = characters - 1, then character set (first
//   segment) or segment number b6..b4; C = 1: command in b3..b0 (0001
//   clear display, 0010 DL Plus with its length - 1 in the next byte's
//   b3..b0). CRC over prefix and characters.
// - ETSI TS 101 756 table 19 (character sets: 0 EBU Latin, 6 UCS-2 BE,
//   15 UTF-8).
// - ETSI EN 301 234 clauses 5.1 and 6.1: MOT segment header, header core
//   (body size 28 bits, header size 13, content type 6, subtype 9) and
//   header extension parameters (PLI 00/01/10: 0/1/4 bytes, 11: a length
//   byte with extension flag b7 for a 15-bit length); ContentName 0x0C
//   starts with the character set in b7..b4.
#include "tools/pad/pad_decoder.h"

#include <algorithm>

#include "tools/ficparse/ebu_latin.h"
#include "tools/ficparse/fic_parser.h"

namespace pad {
namespace {

constexpr size_t kSubfieldBytes[8] = {4, 6, 8, 12, 16, 24, 32, 48};
constexpr int kAppLengthIndicator = 1, kAppLabelStart = 2, kAppLabelMore = 3, kAppMotStart = 12,
              kAppMotMore = 13;
constexpr int kMaxSegmentNumber = 2047;  // beyond the largest picture a slideshow sends
constexpr size_t kMaxObjects = 4;        // objects assembled at the same time

bool CrcGood(const uint8_t* bytes, size_t length) {
    if (length < 2) return false;
    const uint16_t crc = ficparse::FibCrc(bytes, static_cast<int>(length - 2));
    return crc == ((bytes[length - 2] << 8) | bytes[length - 1]);
}

void AppendUtf8(uint32_t c, std::string& out) {
    if (c < 0x80) {
        out += static_cast<char>(c);
    } else if (c < 0x800) {
        out += static_cast<char>(0xC0 | (c >> 6));
        out += static_cast<char>(0x80 | (c & 0x3F));
    } else {
        out += static_cast<char>(0xE0 | (c >> 12));
        out += static_cast<char>(0x80 | ((c >> 6) & 0x3F));
        out += static_cast<char>(0x80 | (c & 0x3F));
    }
}

// Length of the valid UTF-8 sequence at `p` (1..4), 0 if invalid.
size_t Utf8Sequence(const uint8_t* p, size_t left) {
    const uint8_t b = p[0];
    size_t n = b < 0x80 ? 1 : (b & 0xE0) == 0xC0 ? 2 : (b & 0xF0) == 0xE0 ? 3 : (b & 0xF8) == 0xF0 ? 4 : 0;
    if (n == 0 || n > left || (n == 2 && b < 0xC2)) return 0;
    for (size_t i = 1; i < n; ++i)
        if ((p[i] & 0xC0) != 0x80) return 0;
    return n;
}

}  // namespace

int Mp2ScfCrcBytes(const uint8_t h[4]) {
    static constexpr int kRates1[15] = {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
    static constexpr int kRates2[15] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
    if (h[0] != 0xFF || (h[1] & 0xE6) != 0xE4) return 0;  // sync, layer II
    const int rateIndex = h[2] >> 4;
    if (rateIndex == 0 || rateIndex == 15) return 0;
    const bool mpeg1 = (h[1] & 0x18) == 0x18;
    const int kbps = mpeg1 ? kRates1[rateIndex] : kRates2[rateIndex];
    const int perChannel = (h[3] >> 6) == 3 ? kbps : kbps / 2;
    const bool fs48 = mpeg1 && ((h[2] >> 2) & 3) == 1;
    return fs48 && perChannel < 56 ? 2 : 4;
}

size_t Mp2FrameBytes(const uint8_t h[4]) {
    static constexpr int kRates1[15] = {0, 32, 48, 56, 64, 80, 96, 112, 128, 160, 192, 224, 256, 320, 384};
    static constexpr int kRates2[15] = {0, 8, 16, 24, 32, 40, 48, 56, 64, 80, 96, 112, 128, 144, 160};
    static constexpr int kFs1[3] = {44100, 48000, 32000};
    if (h[0] != 0xFF || (h[1] & 0xE6) != 0xE4) return 0;
    const int rateIndex = h[2] >> 4, fsIndex = (h[2] >> 2) & 3;
    if (rateIndex == 0 || rateIndex == 15 || fsIndex == 3) return 0;
    const bool mpeg1 = (h[1] & 0x18) == 0x18;
    if (!mpeg1 && (h[1] & 0x18) != 0x10) return 0;
    const int kbps = mpeg1 ? kRates1[rateIndex] : kRates2[rateIndex];
    const int fs = mpeg1 ? kFs1[fsIndex] : kFs1[fsIndex] / 2;
    return static_cast<size_t>(144 * kbps * 1000 / fs + ((h[2] >> 1) & 1));
}

std::string LabelText(const uint8_t* bytes, size_t length, int charset) {
    std::string out;
    for (size_t i = 0; i < length;) {
        if (charset == 15) {
            const size_t n = Utf8Sequence(bytes + i, length - i);
            if (n == 0) out += '?', ++i;
            else out.append(reinterpret_cast<const char*>(bytes + i), n), i += n;
        } else if (charset == 6) {
            if (i + 1 >= length) break;
            const uint32_t c = (bytes[i] << 8) | bytes[i + 1];
            if (c >= 0xD800 && c < 0xE000) out += '?';
            else if (c >= 0x20) AppendUtf8(c, out);
            i += 2;
        } else {
            // Line and word break hints (0x0A, 0x0B, 0x1F) read as a space or
            // nothing; the unused 0x00 as '?'.
            const uint32_t c = ficparse::kEbuLatin[bytes[i++]];
            if (c >= 0x20) AppendUtf8(c, out);
            else if (c == 0x0A) out += ' ';
            else if (c != 0x0B && c != 0x1F) out += '?';
        }
    }
    return out;
}

void PadDecoder::PushMp2Frame(const uint8_t* frame, size_t length) {
    if (length < 4) return;
    const int gap = Mp2ScfCrcBytes(frame);
    if (gap == 0) return;
    PushField(frame + 4, length - 4, static_cast<size_t>(gap));
}

void PadDecoder::PushAu(const uint8_t* au, size_t length) {
    if (length < 2 || (au[0] >> 5) != 4) return;  // not a data stream element
    size_t count = au[1], pos = 2;
    if (count == 255) {
        if (length < 3) return void(++counts_.malformed);
        count += au[2], pos = 3;
    }
    if (pos + count > length) return void(++counts_.malformed);
    PushField(au + pos, count, 0);
}

void PadDecoder::PushField(const uint8_t* field, size_t length, size_t gap) {
    if (length < gap + 2) return;
    ++counts_.fields;
    const uint8_t f0 = field[length - 2], f1 = field[length - 1];
    if ((f0 >> 6) != 0) return;  // other F-PAD types carry no X-PAD signalling
    const int indicator = (f0 >> 4) & 3;
    const bool ci = (f1 & 0x02) != 0;
    const size_t area = length - gap - 2;
    // The X-PAD in its own order: from the byte before the gap backwards.
    std::vector<uint8_t> x(area);
    for (size_t i = 0; i < area; ++i) x[i] = field[area - 1 - i];
    auto continuation = [](int app) {
        return app == kAppLabelStart ? kAppLabelMore : app == kAppMotStart ? kAppMotMore : app;
    };

    if (indicator == 1) {  // short X-PAD: 4 bytes
        if (area < 4) return void(++counts_.malformed);
        if (ci) {
            lastApp_ = x[0] & 0x1F;
            Subfield(lastApp_, x.data() + 1, 3);
        } else if (lastApp_ != 0) {
            Subfield(continuation(lastApp_), x.data(), 4);
        }
        lastLength_ = 0;
    } else if (indicator == 2) {  // variable size
        if (!ci) {
            if (lastApp_ == 0 || lastLength_ == 0 || lastLength_ > area) return;
            Subfield(continuation(lastApp_), x.data(), lastLength_);
            lastApp_ = continuation(lastApp_);
            return;
        }
        int apps[4];
        size_t lengths[4], n = 0, pos = 0;
        while (n < 4) {
            if (pos >= area) return void(++counts_.malformed);
            const uint8_t b = x[pos++];
            if ((b & 0x1F) == 0) break;
            apps[n] = b & 0x1F, lengths[n] = kSubfieldBytes[b >> 5], ++n;
        }
        for (size_t k = 0; k < n; ++k) {
            if (pos + lengths[k] > area) return void(++counts_.malformed);
            Subfield(apps[k], x.data() + pos, lengths[k]);
            pos += lengths[k];
            lastApp_ = apps[k], lastLength_ = lengths[k];
        }
    }
}

void PadDecoder::Subfield(int app, const uint8_t* data, size_t length) {
    switch (app) {
    case kAppLengthIndicator:
        if (length < 4) return void(++counts_.malformed);
        if (!CrcGood(data, 4)) return void(++counts_.groupCrcFailures);
        motLength_ = static_cast<size_t>(((data[0] & 0x3F) << 8) | data[1]);
        break;
    case kAppLabelStart: LabelBytes(true, data, length); break;
    case kAppLabelMore: LabelBytes(false, data, length); break;
    case kAppMotStart: MotBytes(true, data, length); break;
    case kAppMotMore: MotBytes(false, data, length); break;
    default: break;  // other applications are not read
    }
}

void PadDecoder::LabelBytes(bool start, const uint8_t* data, size_t length) {
    if (start) labelGroup_.clear(), labelActive_ = true;
    if (!labelActive_) return;
    labelGroup_.insert(labelGroup_.end(), data, data + length);
    if (labelGroup_.size() < 2) return;
    // Prefix, characters or command field, CRC: at most 20 bytes.
    const uint8_t b0 = labelGroup_[0];
    size_t total = 2 + (b0 & 0x0F) + 1 + 2;
    if (b0 & 0x10) total = (b0 & 0x0F) == 2 ? 2 + (labelGroup_[1] & 0x0F) + 1 + 2 : 4;
    if (labelGroup_.size() < total) return;
    LabelSegment(labelGroup_.data(), total);  // bytes after the segment are filler
    labelActive_ = false;
}

void PadDecoder::LabelSegment(const uint8_t* g, size_t length) {
    if (!CrcGood(g, length)) return void(++counts_.labelCrcFailures);
    ++counts_.labelSegments;
    const int toggle = g[0] >> 7;
    if (toggle != labelToggle_) labelSegments_.clear(), labelLast_ = -1, labelToggle_ = toggle;
    if (g[0] & 0x10) {
        if ((g[0] & 0x0F) == 1 && !label_.empty()) label_.clear(), ++labelVersion_;  // clear display
        if ((g[0] & 0x0F) == 1) labelSegments_.clear(), labelLast_ = -1;
        return;  // DL Plus and other commands are not read
    }
    const bool first = g[0] & 0x40, last = g[0] & 0x20;
    const int number = first ? 0 : (g[1] >> 4) & 7;
    if (first) labelCharset_ = g[1] >> 4;
    labelSegments_[number].assign(g + 2, g + length - 2);
    if (last) labelLast_ = number;
    if (labelLast_ < 0) return;
    std::vector<uint8_t> bytes;
    for (int i = 0; i <= labelLast_; ++i) {
        const auto it = labelSegments_.find(i);
        if (it == labelSegments_.end()) return;
        bytes.insert(bytes.end(), it->second.begin(), it->second.end());
    }
    std::string text = LabelText(bytes.data(), bytes.size(), labelCharset_);
    if (text != label_) label_ = std::move(text), ++labelVersion_;
}

void PadDecoder::MotBytes(bool start, const uint8_t* data, size_t length) {
    if (start) {
        motGroup_.clear();
        motExpected_ = motLength_;
        motActive_ = motLength_ > 0;  // a group without its length cannot be delimited
        motLength_ = 0;
    }
    if (!motActive_) return;
    const size_t take = std::min(length, motExpected_ - motGroup_.size());
    motGroup_.insert(motGroup_.end(), data, data + take);
    if (motGroup_.size() < motExpected_) return;
    motActive_ = false;
    MotGroup(motGroup_.data(), motGroup_.size());
}

void PadDecoder::MotGroup(const uint8_t* g, size_t n) {
    if (n < 2) return void(++counts_.malformed);
    const bool extension = g[0] & 0x80, crc = g[0] & 0x40, segmented = g[0] & 0x20, access = g[0] & 0x10;
    const int type = g[0] & 0x0F;
    if (crc) {
        if (n < 4) return void(++counts_.malformed);
        if (!CrcGood(g, n)) return void(++counts_.groupCrcFailures);
        n -= 2;
    }
    size_t pos = extension ? 4 : 2;
    int number = 0;
    bool last = true;
    if (segmented) {
        if (pos + 2 > n) return void(++counts_.malformed);
        last = g[pos] & 0x80;
        number = ((g[pos] & 0x7F) << 8) | g[pos + 1];
        pos += 2;
    }
    int transportId = -1;
    if (access) {
        if (pos + 1 > n) return void(++counts_.malformed);
        const size_t fieldLength = g[pos] & 0x0F;
        const bool hasId = g[pos] & 0x10;
        ++pos;
        if (pos + fieldLength > n || (hasId && fieldLength < 2)) return void(++counts_.malformed);
        if (hasId) transportId = (g[pos] << 8) | g[pos + 1];
        pos += fieldLength;
    }
    if (pos + 2 > n) return void(++counts_.malformed);
    const size_t size = static_cast<size_t>(((g[pos] & 0x1F) << 8) | g[pos + 1]);
    pos += 2;
    if (pos + size > n || number > kMaxSegmentNumber) return void(++counts_.malformed);
    ++counts_.groups;
    if (transportId < 0 || (type != 3 && type != 4)) return;  // only header and body of identified objects

    const auto id = static_cast<uint16_t>(transportId);
    if (!objects_.count(id) && objects_.size() >= kMaxObjects) objects_.erase(objects_.begin());
    Object& o = objects_[id];
    (type == 3 ? o.header : o.body)[number].assign(g + pos, g + pos + size);
    if (last) (type == 3 ? o.headerLast : o.bodyLast) = number;
    TryComplete(id);
}

void PadDecoder::TryComplete(uint16_t transportId) {
    Object& o = objects_[transportId];
    auto join = [](const std::map<int, std::vector<uint8_t>>& parts, int lastNumber, std::vector<uint8_t>* out) {
        if (lastNumber < 0) return false;
        for (int i = 0; i <= lastNumber; ++i) {
            const auto it = parts.find(i);
            if (it == parts.end()) return false;
            out->insert(out->end(), it->second.begin(), it->second.end());
        }
        return true;
    };
    std::vector<uint8_t> h;
    MotObject object;
    if (!join(o.header, o.headerLast, &h) || !join(o.body, o.bodyLast, &object.body)) return;
    objects_.erase(transportId);
    if (h.size() < 7) return void(++counts_.malformed);
    const size_t bodySize = (size_t(h[0]) << 20) | (size_t(h[1]) << 12) | (size_t(h[2]) << 4) | (h[3] >> 4);
    const size_t headerSize = (size_t(h[3] & 0x0F) << 9) | (size_t(h[4]) << 1) | (h[5] >> 7);
    if (headerSize < 7 || headerSize > h.size() || bodySize != object.body.size()) return void(++counts_.malformed);
    object.transportId = transportId;
    object.contentType = (h[5] >> 1) & 0x3F;
    object.contentSubType = ((h[5] & 1) << 8) | h[6];
    for (size_t p = 7; p < headerSize;) {
        const int pli = h[p] >> 6, id = h[p] & 0x3F;
        ++p;
        size_t length = pli == 0 ? 0 : pli == 1 ? 1 : pli == 2 ? 4 : 0;
        if (pli == 3) {
            if (p >= headerSize) return void(++counts_.malformed);
            if (h[p] & 0x80) {
                if (p + 1 >= headerSize) return void(++counts_.malformed);
                length = (size_t(h[p] & 0x7F) << 8) | h[p + 1], p += 2;
            } else {
                length = h[p] & 0x7F, ++p;
            }
        }
        if (p + length > headerSize) return void(++counts_.malformed);
        if (id == 0x0C && length >= 1) object.name = LabelText(&h[p + 1], length - 1, h[p] >> 4);
        p += length;
    }
    ++counts_.objects;
    done_.push_back(std::move(object));
}

std::vector<MotObject> PadDecoder::TakeObjects() {
    std::vector<MotObject> out;
    out.swap(done_);
    return out;
}

}  // namespace pad
