#include "service_output.h"

#include "tools/ficparse/ensemble_print.h"

void MscQueue::Expect(int subChannelId) {
    std::lock_guard<std::mutex> lock(mutex_);
    expected_ = subChannelId;
    queue_.clear();
    counts_ = Counts{};
}

void MscQueue::Push(const uint8_t* bytes, int32_t length, int32_t flags) {
    if (bytes == nullptr || length <= 0) return;
    std::lock_guard<std::mutex> lock(mutex_);
    // The low six bits name the sub-channel; bit 7 is a DAB+ flag.
    if ((flags & 0x3F) != expected_) {
        ++counts_.foreign;
        return;
    }
    ++counts_.deliveries;
    counts_.bytes += uint64_t(length);
    if (queue_.size() >= kMaxQueued) {
        ++counts_.dropped;
        return;
    }
    queue_.push_back(Delivery{std::vector<uint8_t>(bytes, bytes + length), flags});
}

std::vector<MscQueue::Delivery> MscQueue::Take() {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<Delivery> out(std::make_move_iterator(queue_.begin()), std::make_move_iterator(queue_.end()));
    queue_.clear();
    return out;
}

MscQueue::Counts MscQueue::counts() const {
    std::lock_guard<std::mutex> lock(mutex_);
    return counts_;
}

const char* ServiceKindText(ServiceKind kind) {
    switch (kind) {
    case ServiceKind::Mp2: return "MPEG layer II audio";
    case ServiceKind::DabPlus: return "DAB+ audio";
    case ServiceKind::Data: return "data";
    }
    return "?";
}

ServiceOutput::ServiceOutput(ServiceKind kind, std::FILE* record, bool adts, WavWriter* wav)
    : kind_(kind), record_(record), adts_(adts), wav_(wav) {}

void ServiceOutput::Write(const uint8_t* bytes, size_t length) {
    if (record_ != nullptr && length > 0 && std::fwrite(bytes, 1, length, record_) != length)
        counts_.writeFailed = true;
}

void ServiceOutput::Play(const PcmBlock& pcm) {
    if (pcmSink_ && !pcm.samples.empty()) pcmSink_(pcm);
    if (wav_ != nullptr && !wav_->Write(pcm)) counts_.writeFailed = true;
}

void ServiceOutput::Push(const uint8_t* bytes, int length, int32_t flags) {
    if (bytes == nullptr || length <= 0) return;
    ++counts_.deliveries;
    counts_.bytes += uint64_t(length);
    switch (kind_) {
    case ServiceKind::DabPlus:
        PushSuperframe(bytes, length, flags);
        return;
    case ServiceKind::Mp2: {
        Write(bytes, size_t(length));
        if (!mp2_.ok()) {
            ReadMp2Pad(bytes, size_t(length));
            ++counts_.decodeFailures;
            return;
        }
        ReadMp2Pad(bytes, size_t(length));
        PcmBlock pcm;
        counts_.audioFrames += uint64_t(mp2_.Decode(bytes, length, &pcm));
        Play(pcm);
        return;
    }
    case ServiceKind::Data:
        Write(bytes, size_t(length));
        return;
    }
}

void ServiceOutput::PushSuperframe(const uint8_t* bytes, int length, int32_t flags) {
    ++counts_.superframes;
    if (flags & 0x80) ++counts_.firecodeFailures;
    dabplus::Superframe sf;
    if (!dabplus::ParseSuperframe(bytes, length, &sf)) {
        ++counts_.headersUnusable;
        return;
    }
    last_ = sf;
    anySuperframe_ = true;
    PcmBlock pcm;
    for (int k = 0; k < sf.auCount; ++k) {
        const dabplus::AccessUnit& au = sf.aus[k];
        ++counts_.aus;
        if (!au.crcGood) {
            ++counts_.auCrcFailures;
            continue;
        }
        if (au.payloadBytes == 0) continue;
        const uint8_t* payload = bytes + au.offset;
        pad_.PushAu(payload, size_t(au.payloadBytes));
        if (record_ != nullptr) {
            frame_.clear();
            if (adts_)
                dabplus::AppendAdtsFrame(sf.audio, payload, au.payloadBytes, &frame_);
            else
                dabplus::AppendLoasFrame(sf.audio, payload, au.payloadBytes, &frame_);
            Write(frame_.data(), frame_.size());
        }
        if (aac_.Decode(sf.audio, payload, au.payloadBytes, &pcm))
            ++counts_.audioFrames;
        else
            ++counts_.decodeFailures;
    }
    Play(pcm);
    SaveSlides();
}

// Cuts the MP2 stream into frames by their headers (skipping bytes where no
// header is found) and reads the PAD at the end of each.
void ServiceOutput::ReadMp2Pad(const uint8_t* bytes, size_t length) {
    mp2Pending_.insert(mp2Pending_.end(), bytes, bytes + length);
    size_t pos = 0;
    while (pos + 4 <= mp2Pending_.size()) {
        const size_t n = pad::Mp2FrameBytes(&mp2Pending_[pos]);
        if (n == 0) {
            ++pos;
            continue;
        }
        if (pos + n > mp2Pending_.size()) break;
        pad_.PushMp2Frame(&mp2Pending_[pos], n);
        pos += n;
    }
    mp2Pending_.erase(mp2Pending_.begin(), mp2Pending_.begin() + long(pos));
    SaveSlides();
}

void ServiceOutput::SaveSlides() {
    for (const pad::MotObject& o : pad_.TakeObjects()) {
        if (o.contentType != 2) continue;  // only images make a slideshow
        ++counts_.slides;
        latestSlide_ = o;
        if (slidesDir_.empty()) continue;
        // The content name without any folder part, and no hidden or odd names.
        std::string name = o.name.substr(o.name.find_last_of('/') == std::string::npos ? 0 : o.name.find_last_of('/') + 1);
        for (char& c : name)
            if (static_cast<unsigned char>(c) < 0x20 || c == '\\') c = '_';
        if (name.empty() || name[0] == '.')
            name = ficparse::Format("slide-%u.%s", unsigned(o.transportId), o.contentSubType == 3 ? "png" : "jpg");
        const std::string path = slidesDir_ + "/" + name;
        std::FILE* f = std::fopen(path.c_str(), "wb");
        const bool ok = f != nullptr && std::fwrite(o.body.data(), 1, o.body.size(), f) == o.body.size();
        if (f != nullptr && std::fclose(f) != 0) counts_.writeFailed = true;
        if (!ok) counts_.writeFailed = true;
    }
}

std::string ServiceOutput::AudioText() const {
    if (!anySuperframe_) return "";
    const dabplus::AudioParameters& a = last_.audio;
    const char* codec = a.sbr ? (a.ps ? "HE-AAC v2" : "HE-AAC") : "AAC-LC";
    return ficparse::Format("%s, %d kHz, %s%s", codec, a.OutputRateHz() / 1000, a.ps ? "parametric stereo"
                                                                                 : a.stereo ? "stereo" : "mono",
                            a.mpegSurround ? ", MPEG surround" : "");
}
