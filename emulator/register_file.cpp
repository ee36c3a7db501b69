#include "emulator/register_file.h"

#include <cstring>

namespace emu {

namespace {
bool RangeValid(int32_t addr, int32_t count, const void* buffer) {
    return buffer != nullptr && addr >= 0 && count >= 1 && addr + count <= 256;
}
constexpr int32_t kLineBit = 0x04;
}  // namespace

double SampleRateCodeToPpm(uint8_t high, uint8_t low) {
    int32_t code = (int32_t(high & 0x3F) << 8) | low;
    if (code & 0x2000) code -= 0x4000;
    return double(code) * 1.0e6 / 16777216.0;
}

RegisterFile::RegisterFile() { Reset(); }

void RegisterFile::Reset() {
    std::lock_guard<std::mutex> hold(lock_);
    std::memset(demod_, 0, sizeof demod_);
    std::memset(system_, 0, sizeof system_);
    system_[4] = kLineBit;
    softResets_ = 0;
}

int32_t RegisterFile::ReadDemod(int32_t page, int32_t addr, int32_t count, uint8_t* buffer) {
    if ((page != 0 && page != 1) || !RangeValid(addr, count, buffer)) return 0;
    std::lock_guard<std::mutex> hold(lock_);
    std::memcpy(buffer, &demod_[page][addr], size_t(count));
    return 1;
}

int32_t RegisterFile::WriteDemod(int32_t page, int32_t addr, int32_t count, const uint8_t* buffer) {
    if ((page != 0 && page != 1) || !RangeValid(addr, count, buffer)) return 0;
    std::lock_guard<std::mutex> hold(lock_);
    for (int32_t i = 0; i < count; ++i) {
        const int32_t a = addr + i;
        if (page == 1 && a == 0x01 && (demod_[1][a] & 0x04) != 0 && (buffer[i] & 0x04) == 0) ++softResets_;
        demod_[page][a] = buffer[i];
    }
    return 1;
}

int32_t RegisterFile::ReadSystem(int32_t addr, int32_t count, uint8_t* buffer) {
    if (!RangeValid(addr, count, buffer)) return 0;
    std::lock_guard<std::mutex> hold(lock_);
    std::memcpy(buffer, &system_[addr], size_t(count));
    return 1;
}

int32_t RegisterFile::WriteSystem(int32_t addr, int32_t count, const uint8_t* buffer) {
    if (!RangeValid(addr, count, buffer)) return 0;
    int32_t before = 0;
    int32_t after = 0;
    {
        std::lock_guard<std::mutex> hold(lock_);
        before = LineLevelLocked();
        std::memcpy(&system_[addr], buffer, size_t(count));
        after = LineLevelLocked();
    }
    if (before != after && observer_ != nullptr) observer_(after);
    return 1;
}

int32_t RegisterFile::LineLevelLocked() const {
    const bool output = (system_[4] & kLineBit) == 0 && (system_[3] & kLineBit) != 0;
    return output && (system_[1] & kLineBit) != 0 ? 1 : 0;
}

double RegisterFile::SampleRateCorrectionPpm() {
    std::lock_guard<std::mutex> hold(lock_);
    return SampleRateCodeToPpm(demod_[1][0x3E], demod_[1][0x3F]);
}

int32_t RegisterFile::GoodReceptionLine() {
    std::lock_guard<std::mutex> hold(lock_);
    return LineLevelLocked();
}

int32_t RegisterFile::SoftResets() {
    std::lock_guard<std::mutex> hold(lock_);
    return softResets_;
}

}  // namespace emu
