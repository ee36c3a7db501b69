#include "web_radio.h"

#include <cmath>
#include <cstdio>
#include <deque>
#include <limits>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "band_channels.h"
#include "ensemble_wait.h"
#include "host_receiver.h"
#include "mp3_stream.h"
#include "mvxdab.h"
#include "service_select.h"
#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/fic_parser.h"
#include "web_server.h"

using nlohmann::json;

namespace {

constexpr double kHistoryStepSeconds = 0.5;  // s between points of the signal plot
constexpr size_t kHistoryPoints = 240;       // two minutes

std::string Hex(uint32_t id, bool longId) { return ficparse::Format(longId ? "0x%08X" : "0x%04X", unsigned(id)); }

const char* KindKey(ServiceKind kind) {
    switch (kind) {
    case ServiceKind::Mp2: return "MP2";
    case ServiceKind::DabPlus: return "DAB+";
    case ServiceKind::Data: return "data";
    }
    return "?";
}

// The picture's type from its MOT content subtype, else from its first bytes.
std::string ImageType(const pad::MotObject& o) {
    const std::vector<uint8_t>& b = o.body;
    if (o.contentSubType == 3 || (b.size() > 4 && b[0] == 0x89 && b[1] == 'P' && b[2] == 'N' && b[3] == 'G'))
        return "image/png";
    return "image/jpeg";
}

struct SignalPoint {
    double seconds;  // since dabhost started
    int present;
    bool locked;
    int quality;
};

struct ScanFound {
    int32_t frequencyKhz;
    WaitOutcome outcome;
    std::string label;
    uint16_t ensembleId;
    size_t services;
};

class WebRadio {
public:
    WebRadio(const HostOptions& options, WebExchange& exchange, Mp3Broadcast& audio)
        : options_(options), exchange_(exchange), audio_(audio) {
        wanted_ = options.service;
    }

    void Begin() {
        if (options_.scan)
            StartScan(options_.scanFrequenciesKhz);
        else
            Tune(options_.frequencyKhz);
    }

    void Tick() {
        for (WebCommand& c : exchange_.TakeCommands()) Handle(c);
        const Clock::time_point now = Clock::now();
        const StatusSnapshot status = ReadStatus(Seconds(now - tunedAt_));
        // Until the receiver has found the new signal's frame structure, FIC
        // frames are the previous frequency's last ones.
        if (outcome_ != WaitOutcome::Waiting || status.present == 1)
            ficFrames_ += uint64_t(ficQueue.Drain(parser_));
        else
            ficQueue.Discard();
        if (outcome_ == WaitOutcome::Waiting) Decide(status);
        if (!scanning_ && !output_ && !wanted_.empty()) TrySelect();
        if (output_) {
            PassOnChange(parser_.ensemble(), choice_.kind, options_.quiet, follower_, &refusalShown_);
            for (const MscQueue::Delivery& d : mscQueue.Take()) output_->Push(d.bytes.data(), int(d.bytes.size()), d.flags);
            if (output_->counts().slides != slidesShown_) {
                slidesShown_ = output_->counts().slides;
                const pad::MotObject& o = output_->latestSlide();
                exchange_.PublishSlide(std::make_shared<const WebSlide>(WebSlide{ImageType(o), o.body}));
            }
        }
        const double sinceStart = Seconds(now - started_);
        if (history_.empty() || sinceStart - history_.back().seconds >= kHistoryStepSeconds) {
            history_.push_back({sinceStart, status.present, status.locked, status.quality});
            if (history_.size() > kHistoryPoints) history_.pop_front();
        }
        exchange_.PublishState(StateJson(status).dump());
    }

    void End() { StopService(); }

private:
    void Handle(const WebCommand& c) {
        switch (c.kind) {
        case WebCommand::Kind::Select:
            StopService();
            wanted_ = c.service;
            message_ = "selecting " + c.service;
            return;
        case WebCommand::Kind::Tune:
            scanning_ = false;
            wanted_.clear();
            Tune(c.frequencyKhz);
            return;
        case WebCommand::Kind::Scan:
            wanted_.clear();
            StartScan(c.frequenciesKhz);
            return;
        }
    }

    void Tune(int32_t khz) {
        StopService();
        tunedKhz_ = khz;
        WaitRule rule;
        if (scanning_) {
            rule.timeoutSeconds = options_.scanTimeoutSeconds;
            rule.noSignalSeconds = 0.0;
            rule.labelSuffices = true;
        } else {
            rule.timeoutSeconds = options_.timeoutSeconds;
            rule.settleSeconds = options_.settleSeconds;
        }
        wait_.emplace(rule);
        ficQueue.Clear();
        parser_.Reset();
        ficFrames_ = 0;
        tunedAt_ = Clock::now();
        outcome_ = WaitOutcome::Waiting;
        if (MVDAB_SetFreqAndBW(khz) != 1) {
            outcome_ = WaitOutcome::TuneFailed;
            message_ = "tuning " + FrequencyText(khz) + " failed";
            if (scanning_) NextScanFrequency();
            return;
        }
        message_ = "tuned " + FrequencyText(khz);
    }

    void StartScan(std::vector<int32_t> frequencies) {
        if (frequencies.empty())
            for (const BandChannel& c : BandIIIChannels()) frequencies.push_back(c.frequencyKhz);
        scanList_ = std::move(frequencies);
        scanFound_.clear();
        scanIndex_ = 0;
        scanning_ = true;
        Tune(scanList_[0]);
    }

    // Records the scanned frequency's outcome and tunes the next one; at the
    // end, the first frequency that held an ensemble (or the one before the
    // scan) is tuned for listening.
    void NextScanFrequency() {
        const ficparse::Ensemble& e = parser_.ensemble();
        scanFound_.push_back({tunedKhz_, outcome_, e.label.text, e.id, e.services.size()});
        if (++scanIndex_ < scanList_.size()) return Tune(scanList_[scanIndex_]);
        scanning_ = false;
        int32_t next = options_.frequencyKhz;
        for (const ScanFound& f : scanFound_)
            if (HasEnsemble(f.outcome)) {
                next = f.frequencyKhz;
                break;
            }
        Tune(next);
    }

    void Decide(const StatusSnapshot& status) {
        WaitPoll poll;
        poll.elapsedSeconds = status.elapsedSeconds;
        poll.present = status.present;
        poll.lockKnown = status.lockKnown;
        poll.locked = status.locked;
        poll.ficFrames = ficFrames_;
        poll.mode = status.fic.mode;
        outcome_ = wait_->Update(poll, parser_.ensemble());
        if (outcome_ != WaitOutcome::Waiting && scanning_) NextScanFrequency();
    }

    // Requests the wanted service once the FIC describes it.
    void TrySelect() {
        ServiceChoice choice;
        std::string why;
        if (!ChooseService(parser_.ensemble(), wanted_, &choice, &why)) {
            if (outcome_ != WaitOutcome::Waiting) message_ = why;
            return;
        }
        const ServiceRequest r = RequestFor(choice.kind, choice.subChannel);
        mscQueue.Expect(choice.subChannel.id);
        MVDAB_SetMSCCallBack(OnMsc);
        if (MVDAB_AddServiceCom(r.type, r.subChannelId, r.startAddress, r.longForm, r.tableIndex, r.optionAndLevel,
                                r.size, 0, 0) != 1) {
            message_ = "the receiver refused the service " + wanted_;
            wanted_.clear();
            return;
        }
        choice_ = choice;
        request_ = r;
        selectedAt_ = Clock::now();
        follower_.Select(choice.subChannel);
        refusalShown_ = false;
        slidesShown_ = 0;
        output_ = std::make_unique<ServiceOutput>(choice.kind, nullptr, false, nullptr);
        output_->SetPcmSink([this](const PcmBlock& pcm) { Stream(pcm); });
        message_ = "receiving " + (choice.label.empty() ? Hex(choice.serviceId, choice.serviceId > 0xFFFF) : choice.label);
        if (!options_.quiet) std::fprintf(stderr, "dabhost: %s\n", message_.c_str());
    }

    void StopService() {
        if (!output_) return;
        MVDAB_DelServiceCom(request_.type, request_.subChannelId, 0);
        mscQueue.Expect(-1);
        output_.reset();
        exchange_.PublishSlide(nullptr);
    }

    // Encodes only while someone listens: the encoder costs more than the
    // rest of the host.
    void Stream(const PcmBlock& pcm) {
        if (audio_.figures().listeners == 0) return;
        mp3_.clear();
        if (encoder_.Encode(pcm, &mp3_)) audio_.Publish(mp3_.data(), mp3_.size());
    }

    json EnsembleJson() const {
        const ficparse::Ensemble& e = parser_.ensemble();
        if (!e.idKnown && !e.label.known) return nullptr;
        json services = json::array();
        for (const auto& [id, s] : e.services) {
            const std::string key = Hex(id, s.longId);
            ServiceChoice c;
            std::string why;
            const bool known = ChooseService(e, key, &c, &why);
            services.push_back({{"id", key},
                                {"label", s.label.text},
                                {"kind", known ? KindKey(c.kind) : "?"},
                                {"subChannel", known ? json(c.subChannel.id) : json(nullptr)}});
        }
        json subChannels = json::array();
        for (const auto& [id, s] : e.subChannels)
            subChannels.push_back({{"id", id},
                                   {"startAddress", s.startAddress},
                                   {"size", s.size},
                                   {"protection", s.ProtectionText()},
                                   {"bitRate", s.bitRate}});
        return {{"id", Hex(e.id, false)},
                {"label", e.label.text},
                {"complete", e.Complete()},
                {"services", services},
                {"subChannels", subChannels}};
    }

    json ServiceJson() const {
        if (!output_) return nullptr;
        const ServiceCounts& c = output_->counts();
        return {{"id", Hex(choice_.serviceId, choice_.serviceId > 0xFFFF)},
                {"label", choice_.label},
                {"kind", KindKey(choice_.kind)},
                {"subChannel", choice_.subChannel.id},
                {"bitRate", choice_.subChannel.bitRate},
                {"protection", choice_.subChannel.ProtectionText()},
                {"seconds", Seconds(Clock::now() - selectedAt_)},
                {"dynamicLabel", output_->label()},
                {"audio", choice_.kind == ServiceKind::DabPlus ? output_->AudioText() : std::string()},
                {"slides", c.slides},
                {"deliveries", c.deliveries},
                {"audioFrames", c.audioFrames},
                {"superframes", c.superframes},
                {"firecodeFailures", c.firecodeFailures},
                {"headersUnusable", c.headersUnusable},
                {"auCrcFailures", c.auCrcFailures},
                {"decodeFailures", c.decodeFailures},
                {"dropped", mscQueue.counts().dropped}};
    }

    json StateJson(const StatusSnapshot& status) const {
        json history = json::array();
        for (const SignalPoint& p : history_)
            history.push_back({std::round(p.seconds * 10.0) / 10.0, p.present, p.locked ? 1 : 0, p.quality});
        json found = json::array();
        for (const ScanFound& f : scanFound_)
            found.push_back({{"frequencyKhz", f.frequencyKhz},
                             {"block", ChannelName(f.frequencyKhz)},
                             {"outcome", OutcomeKey(f.outcome)},
                             {"label", f.label},
                             {"id", HasEnsemble(f.outcome) ? json(Hex(f.ensembleId, false)) : json(nullptr)},
                             {"services", f.services}});
        const Mp3Broadcast::Figures a = audio_.figures();
        return {{"frequencyKhz", tunedKhz_},
                {"block", ChannelName(tunedKhz_)},
                {"outcome", OutcomeKey(outcome_)},
                {"message", message_},
                {"signal",
                 {{"present", status.present},
                  {"locked", status.locked},
                  {"quality", status.quality},
                  {"mode", ModeText(status.fic.mode)}}},
                {"history", history},
                {"fic",
                 {{"frames", status.fic.frames},
                  {"fibs", status.fic.fibs},
                  {"fibsBad", status.fic.fibsBad},
                  {"dropped", status.fic.dropped}}},
                {"ensemble", EnsembleJson()},
                {"service", ServiceJson()},
                {"wanted", output_ ? std::string() : wanted_},
                {"scan",
                 {{"running", scanning_}, {"done", scanIndex_}, {"total", scanList_.size()}, {"found", found}}},
                {"audio",
                 {{"format", "MP3, 48 kHz stereo, 128 kbit/s"},
                  {"listeners", a.listeners},
                  {"bytes", a.bytes},
                  {"droppedChunks", a.droppedChunks}}}};
    }

    const HostOptions& options_;
    WebExchange& exchange_;
    Mp3Broadcast& audio_;
    const Clock::time_point started_ = Clock::now();
    ficparse::FicParser parser_;

    int32_t tunedKhz_ = 0;
    Clock::time_point tunedAt_;
    std::optional<EnsembleWait> wait_;
    WaitOutcome outcome_ = WaitOutcome::Waiting;
    uint64_t ficFrames_ = 0;  // parsed since tuning

    bool scanning_ = false;
    std::vector<int32_t> scanList_;
    size_t scanIndex_ = 0;
    std::vector<ScanFound> scanFound_;

    std::string wanted_;  // service to select once the FIC describes it
    ServiceChoice choice_;
    ServiceRequest request_;
    Clock::time_point selectedAt_;
    ReconfigurationFollower follower_;
    bool refusalShown_ = false;
    std::unique_ptr<ServiceOutput> output_;  // set while a service is received
    uint64_t slidesShown_ = 0;

    Mp3Encoder encoder_;
    std::vector<uint8_t> mp3_;
    std::deque<SignalPoint> history_;
    std::string message_;
};

}  // namespace

int RunWeb(const HostOptions& options, const volatile std::sig_atomic_t& interrupted) {
    WebExchange exchange;
    Mp3Broadcast audio;
    WebServer server(exchange, audio);
    const int port = server.Start(options.webHost, options.webPort);
    if (port < 0) {
        std::fprintf(stderr, "dabhost: cannot serve the web page on %s:%d\n", options.webHost.c_str(),
                     options.webPort);
        return 1;
    }
    // The test scripts read the port from this line.
    std::fprintf(stderr, "dabhost: web page at http://%s:%d/\n", options.webHost.c_str(), port);
    WebRadio radio(options, exchange, audio);
    radio.Begin();
    const double duration = options.durationGiven ? options.durationSeconds : std::numeric_limits<double>::infinity();
    const Clock::time_point start = Clock::now();
    while (!interrupted && Seconds(Clock::now() - start) < duration) {
        radio.Tick();
        Sleep(options.intervalSeconds);
    }
    radio.End();
    server.Stop();
    return 0;
}
