#include "tests/support/msc_feed.h"

#include <algorithm>
#include <complex>

#include "generator/frame_transmitter.h"
#include "generator/multiplex.h"
#include "mvxdab.h"
#include "receiver/callback_slots.h"
#include "receiver/receiver_state.h"

namespace mvdab::test {

namespace {

constexpr int32_t kFrequency = 227360;
constexpr double kSampleRate = 2048000.0;

// The callbacks have no user pointer; one feed exists at a time.
int64_t ficFrameCount = 0;
std::vector<MscDelivery> deliveryLog;

void CountFic(uint8_t*, int32_t, int32_t) { ++ficFrameCount; }
void RecordMsc(uint8_t* bytes, int32_t length, int32_t flags) {
    deliveryLog.push_back({flags, ficFrameCount, std::vector<uint8_t>(bytes, bytes + length)});
}

}  // namespace

MscFeed::MscFeed(gen::EnsembleDescription description, const gen::ChannelParams& channel) {
    for (gen::SubChannelDesc& s : description.subChannels) {
        s.record = std::make_shared<std::vector<uint8_t>>();
        sent_[s.id] = s.record;
    }
    std::unique_ptr<gen::Multiplex> multiplex = gen::Multiplex::Make(description, &error_);
    if (multiplex == nullptr) return;
    description_ = multiplex->Description();
    const int mode = description_.mode;
    tx_ = std::make_unique<gen::FrameTransmitter>(std::move(multiplex), mode);
    channel_ = std::make_unique<gen::ChannelModel>(channel, tx_->MeanPower());
    ficFrameCount = 0;
    deliveryLog.clear();
    ficCallback.store(CountFic);
    mscCallback.store(RecordMsc);
    ok_ = harness.ready() && harness.Tune(kFrequency) == 1;
}

MscFeed::~MscFeed() {
    ficCallback.store(nullptr);
    mscCallback.store(nullptr);
}

void MscFeed::Push(double seconds) {
    if (!ok_) return;
    std::vector<std::complex<float>> samples(kIqFrameSamples);
    std::vector<uint8_t> bytes;
    const double end = seconds_ + seconds;
    while (seconds_ < end) {
        tx_->Read(samples.data(), samples.size());
        channel_->ProcessU8(samples.data(), samples.size(), bytes);
        seconds_ += double(samples.size()) / kSampleRate;
        harness.PushBytes(bytes.data(), int32_t(bytes.size()));
    }
}

bool MscFeed::PushUntilLocked(double limitSeconds) {
    while (ok_ && seconds_ < limitSeconds) {
        if (receiverStatus.syncState.load() == 4) return true;
        Push(kIqFrameSamples / kSampleRate);
    }
    return receiverStatus.syncState.load() == 4;
}

int32_t MscFeed::Add(int32_t id, int8_t type) {
    SubChannelParameters p;
    if (!DescribeSubChannel(description_, id, false, &p)) return -1;
    return MVDAB_AddServiceCom(type, int8_t(id), p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel, p.size,
                               0, 0);
}

int32_t MscFeed::AnnounceChange(int32_t id, int32_t cifCount) {
    SubChannelParameters p;
    if (!DescribeSubChannel(description_, id, true, &p)) return -1;
    return MVDAB_ChangeSCOrg(0, int8_t(id), p.startAddress, p.longForm, p.tableIndex, p.optionAndLevel, p.size, 0, 0,
                             int8_t(cifCount / 250), int8_t(cifCount % 250));
}

int64_t MscFeed::ficFrames() const { return ficFrameCount; }
const std::vector<MscDelivery>& MscFeed::deliveries() const { return deliveryLog; }
void MscFeed::ClearDeliveries() { deliveryLog.clear(); }

const std::vector<uint8_t>& MscFeed::Sent(int32_t id) const {
    static const std::vector<uint8_t> kNone;
    auto it = sent_.find(id);
    return it == sent_.end() ? kNone : *it->second;
}

bool MscFeed::MatchesSent(int32_t id, size_t minBytes, std::string* why) const {
    std::vector<uint8_t> got;
    for (const MscDelivery& d : deliveryLog) {
        if (d.flags != id) {
            *why = "a delivery carries flags " + std::to_string(d.flags);
            return false;
        }
        got.insert(got.end(), d.bytes.begin(), d.bytes.end());
    }
    if (got.size() < minBytes) {
        *why = std::to_string(got.size()) + " bytes delivered, fewer than " + std::to_string(minBytes);
        return false;
    }
    // Where the first delivered frame sits in what was sent; the stream is
    // random, so 64 bytes place it.
    const std::vector<uint8_t>& sent = Sent(id);
    const size_t key = std::min<size_t>(64, got.size());
    auto at = std::search(sent.begin(), sent.end(), got.begin(), got.begin() + key);
    if (at == sent.end()) {
        *why = "the first delivered bytes were never sent";
        return false;
    }
    const size_t offset = size_t(at - sent.begin());
    if (offset + got.size() > sent.size()) {
        *why = "more bytes delivered than sent";
        return false;
    }
    auto diff = std::mismatch(got.begin(), got.end(), sent.begin() + offset);
    if (diff.first != got.end()) {
        *why = "byte " + std::to_string(diff.first - got.begin()) + " of " + std::to_string(got.size()) + " differs";
        return false;
    }
    return true;
}

}  // namespace mvdab::test
