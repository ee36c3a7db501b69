// Payloads without structure: pseudo-random bytes and file bytes, and the
// wrappers that record or shift any source.
#include <cstdio>
#include <fstream>
#include <iterator>

#include "generator/payload_file.h"
#include "generator/payload_rng.h"
#include "generator/payload_sources.h"

namespace gen {
namespace {

class RandomPayload final : public PayloadSource {
public:
    explicit RandomPayload(uint32_t seed) : seed_(seed), rng_(0x5241'4E44'0000'0000ull ^ seed) {}
    void NextLogicalFrame(uint8_t* out, size_t length) override {
        for (size_t i = 0; i < length; ++i) out[i] = rng_.Byte();
    }
    std::string Describe() const override { return "random seed " + std::to_string(seed_); }

private:
    uint32_t seed_;
    Rng rng_;
};

class FilePayload final : public PayloadSource {
public:
    FilePayload(std::string path, std::vector<uint8_t> bytes) : path_(std::move(path)), bytes_(std::move(bytes)) {}
    void NextLogicalFrame(uint8_t* out, size_t length) override {
        for (size_t i = 0; i < length; ++i) {
            out[i] = bytes_[pos_];
            if (++pos_ == bytes_.size()) pos_ = 0;
        }
    }
    std::string Describe() const override {
        return "file " + path_ + " (" + std::to_string(bytes_.size()) + " bytes, looping)";
    }

private:
    std::string path_;
    std::vector<uint8_t> bytes_;
    size_t pos_ = 0;
};

class RecordingPayload final : public PayloadSource {
public:
    RecordingPayload(PayloadPtr inner, std::shared_ptr<std::vector<uint8_t>> record)
        : inner_(std::move(inner)), record_(std::move(record)) {}
    void NextLogicalFrame(uint8_t* out, size_t length) override {
        inner_->NextLogicalFrame(out, length);
        if (record_) record_->insert(record_->end(), out, out + length);
    }
    std::string Describe() const override { return inner_->Describe() + ", recorded"; }

private:
    PayloadPtr inner_;
    std::shared_ptr<std::vector<uint8_t>> record_;
};

class SkippingPayload final : public PayloadSource {
public:
    SkippingPayload(PayloadPtr inner, int skip) : inner_(std::move(inner)), skip_(skip) {}
    void NextLogicalFrame(uint8_t* out, size_t length) override {
        for (; skip_ > 0; --skip_) inner_->NextLogicalFrame(out, length);
        inner_->NextLogicalFrame(out, length);
    }
    std::string Describe() const override { return inner_->Describe() + ", shifted"; }

private:
    PayloadPtr inner_;
    int skip_;
};

}  // namespace

bool ReadWholeFile(const std::string& path, std::vector<uint8_t>* bytes, std::string* error) {
    std::ifstream f(path, std::ios::binary);
    if (!f) {
        if (error) *error = "cannot open " + path;
        return false;
    }
    bytes->assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
    if (f.bad()) {
        if (error) *error = "cannot read " + path;
        return false;
    }
    return true;
}

PayloadPtr MakeRandomPayload(uint32_t seed) { return std::make_unique<RandomPayload>(seed); }

PayloadPtr MakeFilePayload(const std::string& path, std::string* error) {
    std::vector<uint8_t> bytes;
    if (!ReadWholeFile(path, &bytes, error)) return nullptr;
    if (bytes.empty()) {
        if (error) *error = path + " is empty";
        return nullptr;
    }
    return std::make_unique<FilePayload>(path, std::move(bytes));
}

PayloadPtr MakeRecordingPayload(PayloadPtr inner, std::shared_ptr<std::vector<uint8_t>> record) {
    if (!inner) return nullptr;
    return std::make_unique<RecordingPayload>(std::move(inner), std::move(record));
}

PayloadPtr MakeSkippingPayload(PayloadPtr inner, int skipFrames) {
    if (!inner) return nullptr;
    return std::make_unique<SkippingPayload>(std::move(inner), skipFrames < 0 ? 0 : skipFrames);
}

}  // namespace gen
