#include "emulator/fault_plan.h"

#include <cstdlib>

namespace emu {

namespace {

bool ParseInteger(const std::string& text, int base, int64_t lo, int64_t hi, int64_t* out) {
    if (text.empty()) return false;
    char* end = nullptr;
    const long long v = std::strtoll(text.c_str(), &end, base);
    if (*end != '\0' || v < lo || v > hi) return false;
    *out = v;
    return true;
}

// "P:AA" for the demodulator, "AA" for system registers, addresses in hex.
bool ParseAddress(const std::string& text, bool withPage, int32_t* page, int32_t* addr) {
    int64_t p = -1;
    int64_t a = 0;
    std::string address = text;
    if (withPage) {
        const size_t colon = text.find(':');
        if (colon == std::string::npos || !ParseInteger(text.substr(0, colon), 10, 0, 1, &p)) return false;
        address = text.substr(colon + 1);
    }
    if (address.rfind("0x", 0) == 0 || address.rfind("0X", 0) == 0) address = address.substr(2);
    if (!ParseInteger(address, 16, 0, 255, &a)) return false;
    *page = int32_t(p);
    *addr = int32_t(a);
    return true;
}

struct NamedKind {
    const char* name;
    RegisterAccessKind kind;
};
constexpr NamedKind kRegisterKinds[] = {
    {"demod-read", RegisterAccessKind::DemodRead},
    {"demod-write", RegisterAccessKind::DemodWrite},
    {"sys-read", RegisterAccessKind::SysRead},
    {"sys-write", RegisterAccessKind::SysWrite},
};

bool ParseItem(const std::string& name, const std::string& value, bool hasValue, FaultPlan* plan) {
    const int64_t kMax = int64_t(1) << 62;
    if (!hasValue) {
        if (name == "no-device") return plan->noDevice = true;
        if (name == "tuner-type") return plan->tunerType = true;
        if (name == "release-event") return plan->releaseEvent = true;
        if (name == "release") return plan->release = true;
        if (name == "set-frequency") return plan->setFrequency = true;
        if (name == "set-bandwidth") return plan->setBandwidth = true;
        if (name == "event") return (plan->eventRegistration.allowed = 0) == 0;
        if (name == "update") return (plan->deviceUpdate.allowed = 0) == 0;
        return false;
    }
    if (name == "event-after") return ParseInteger(value, 10, 0, kMax, &plan->eventRegistration.allowed);
    if (name == "update-after") return ParseInteger(value, 10, 0, kMax, &plan->deviceUpdate.allowed);
    if (name == "stream-stop") return ParseInteger(value, 10, 0, kMax, &plan->streamStopBytes);
    for (const NamedKind& k : kRegisterKinds) {
        const std::string base = k.name;
        if (name == base) {
            AddressFault f{k.kind, -1, 0};
            const bool demod = k.kind == RegisterAccessKind::DemodRead || k.kind == RegisterAccessKind::DemodWrite;
            if (!ParseAddress(value, demod, &f.page, &f.addr)) return false;
            plan->addresses.push_back(f);
            return true;
        }
        if (name == base + "-after") {
            return ParseInteger(value, 10, 0, kMax, &plan->registerAccess[int32_t(k.kind)].allowed);
        }
    }
    return false;
}

}  // namespace

int32_t ParseFaultPlan(const std::string& text, FaultPlan* plan, std::string* error) {
    int32_t ok = 1;
    size_t start = 0;
    while (start <= text.size()) {
        size_t end = text.find(',', start);
        if (end == std::string::npos) end = text.size();
        std::string item = text.substr(start, end - start);
        start = end + 1;
        while (!item.empty() && item.front() == ' ') item.erase(item.begin());
        while (!item.empty() && item.back() == ' ') item.pop_back();
        if (item.empty()) continue;
        const size_t eq = item.find('=');
        const bool hasValue = eq != std::string::npos;
        const std::string name = hasValue ? item.substr(0, eq) : item;
        const std::string value = hasValue ? item.substr(eq + 1) : std::string();
        if (!ParseItem(name, value, hasValue, plan)) {
            if (error != nullptr) *error += (error->empty() ? "" : "; ") + ("unknown or malformed fault \"" + item + "\"");
            ok = 0;
        }
    }
    return ok;
}

bool RegisterAccessFails(FaultPlan* plan, RegisterAccessKind kind, int32_t page, int32_t addr, int32_t count) {
    bool fails = plan->registerAccess[int32_t(kind)].Fails();
    for (const AddressFault& f : plan->addresses) {
        if (f.kind == kind && f.page == page && f.addr >= addr && f.addr < addr + count) fails = true;
    }
    return fails;
}

}  // namespace emu
