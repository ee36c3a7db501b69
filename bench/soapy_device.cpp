// CPU cost of the SoapySDR device library at 2.048 MS/s in real time, on the
// test module (driver=mvxtest) playing a file of random bytes: the library's
// reader thread (readStream, conversion, buffer, event) and a reader that
// fetches with MVA_GetData on each event, as the receiver's capture thread
// does, for 4 s of signal per case.
//
//   bench_soapy_device [--benchmark_filter=...]
//
// Counter realtime_share: CPU time of the whole process over the seconds of
// signal (0.02 means 2 % of one core). module_only runs the module alone
// through SoapySDR, without the device library, to be subtracted.
// The module and the library are found beside this program (../soapy-modules,
// ../lib) unless SOAPY_SDR_PLUGIN_PATH and MVDAB_LIB_DIR say otherwise.
#include <benchmark/benchmark.h>

#if __has_include(<SoapySDR/Device.h>)
#include <dlfcn.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <sys/resource.h>
#include <unistd.h>

#include <SoapySDR/Device.h>
#include <SoapySDR/Formats.h>

#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "device/device_interface.h"

namespace {

// The five entries of the device library that a reader uses.
struct DeviceEntries {
    MVA_BDAFilterInit_t filterInit = nullptr;
    MVA_BDAFilterRelease_t filterRelease = nullptr;
    MVA_SetDABEventHandle_t setEventHandle = nullptr;
    MVA_GetData_t getData = nullptr;
    MVA_Demod_Byte_Write_t demodWrite = nullptr;
    std::string error;

    bool Load() {
        const char* dir = std::getenv("MVDAB_LIB_DIR");
        void* library = dlopen((std::string(dir != nullptr ? dir : ".") + "/libMVC900ACCESS_soapy.so").c_str(), RTLD_NOW);
        if (library == nullptr) return error = dlerror(), false;
        filterInit = reinterpret_cast<MVA_BDAFilterInit_t>(dlsym(library, "MVA_BDAFilterInit"));
        filterRelease = reinterpret_cast<MVA_BDAFilterRelease_t>(dlsym(library, "MVA_BDAFilterRelease"));
        setEventHandle = reinterpret_cast<MVA_SetDABEventHandle_t>(dlsym(library, "MVA_SetDABEventHandle"));
        getData = reinterpret_cast<MVA_GetData_t>(dlsym(library, "MVA_GetData"));
        demodWrite = reinterpret_cast<MVA_Demod_Byte_Write_t>(dlsym(library, "MVA_Demod_Byte_Write"));
        if (filterInit && filterRelease && setEventHandle && getData && demodWrite) return true;
        return error = "an entry of the device library is missing", false;
    }
};

// Waits up to `timeoutMs` for the device's event, then fetches what it has.
void WaitAndFetch(const DeviceEntries& entries, int eventFd, int timeoutMs, uint8_t* buffer, int32_t* got) {
    *got = 0;
    pollfd p{eventFd, POLLIN, 0};
    uint64_t count = 0;
    if (poll(&p, 1, timeoutMs) <= 0 || read(eventFd, &count, sizeof count) < 0) return;
    int32_t reserved = 0;
    entries.getData(buffer, MVA_READ_CAPACITY, got, &reserved);
}

// Samples the test module has delivered, through its state entry.
int64_t ModuleSamples() {
    const char* dir = std::getenv("SOAPY_SDR_PLUGIN_PATH");
    const std::string path = std::string(dir != nullptr ? dir : ".") + "/libmvxtest_soapy_module.so";
    void* module = dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    if (module == nullptr) return 0;
    double correction = 0, frequency = 0;
    int64_t samples = 0;
    int32_t gain = 0;
    using StateEntry = int32_t (*)(double*, int64_t*, int32_t*, double*);
    if (auto entry = reinterpret_cast<StateEntry>(dlsym(module, "MvxTestModuleState")))
        entry(&correction, &samples, &gain, &frequency);
    dlclose(module);
    return samples;
}

constexpr double kSeconds = 4.0;
constexpr double kRate = 2048000.0;

double ProcessCpuSeconds() {
    rusage u{};
    getrusage(RUSAGE_SELF, &u);
    return double(u.ru_utime.tv_sec + u.ru_stime.tv_sec) + 1e-6 * double(u.ru_utime.tv_usec + u.ru_stime.tv_usec);
}

// Points SoapySDR at the test module only, the bench at the built libraries,
// and the module at a file of random bytes.
void SetUpEnvironment() {
    static bool done = false;
    if (done) return;
    done = true;
    char self[4096] = {};
    const ssize_t n = readlink("/proc/self/exe", self, sizeof self - 1);
    std::string dir = n > 0 ? std::string(self, size_t(n)) : std::string("./x");
    dir = dir.substr(0, dir.rfind('/')) + "/..";
    setenv("SOAPY_SDR_PLUGIN_PATH", (dir + "/soapy-modules").c_str(), 0);
    setenv("MVDAB_LIB_DIR", (dir + "/lib").c_str(), 0);
    setenv("SOAPY_SDR_ROOT", (dir + "/soapy-root").c_str(), 0);
    setenv("MVSOAPY_DEVICE", "driver=mvxtest", 1);
    const std::string file = "/tmp/bench_soapy_device.u8";
    std::vector<uint8_t> bytes(size_t(kRate) * 2);
    std::mt19937 random(1);
    for (uint8_t& b : bytes) b = uint8_t(random());
    if (std::FILE* f = std::fopen(file.c_str(), "wb")) {
        std::fwrite(bytes.data(), 1, bytes.size(), f);
        std::fclose(f);
    }
    setenv("MVXTEST_SOURCE", ("file:" + file).c_str(), 1);
}

// format: the module's stream format; correction: whether the module offers
// frequency correction (then the register stays 0), else the library
// resamples a -10 ppm register.
void DeviceLibrary(benchmark::State& state, const char* format, bool correction) {
    SetUpEnvironment();
    setenv("MVXTEST_FORMAT", format, 1);
    setenv("MVXTEST_CORRECTION", correction ? "1" : "0", 1);
    DeviceEntries entries;
    if (!entries.Load()) {
        state.SkipWithError(entries.error.c_str());
        return;
    }
    for (auto _ : state) {
        if (entries.filterInit(0) != 1) {
            state.SkipWithError("no mvxtest device");
            return;
        }
        const int fd = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
        MVA_EventHandle handle = fd;
        // -10 ppm: code floor(-10 x 16.777216) = -168, 14 bits. Only for the
        // library's resampler: through the device, the module would resample.
        uint8_t offset[2] = {uint8_t((-168 & 0x3FFF) >> 8), uint8_t(-168 & 0xFF)};
        if (!correction) entries.demodWrite(1, 0x3E, 2, offset);
        std::vector<uint8_t> buffer(MVA_READ_CAPACITY);
        const double start = ProcessCpuSeconds();
        entries.setEventHandle(&handle);
        while (ModuleSamples() < int64_t(kSeconds * kRate)) {
            int32_t got = 0;
            WaitAndFetch(entries, fd, 100, buffer.data(), &got);
        }
        const double cpu = ProcessCpuSeconds() - start;
        entries.filterRelease(0);
        close(fd);
        state.counters["realtime_share"] = cpu / (double(ModuleSamples()) / kRate);
    }
}

void ModuleOnly(benchmark::State& state) {
    SetUpEnvironment();
    setenv("MVXTEST_FORMAT", "CS16", 1);
    for (auto _ : state) {
        SoapySDRDevice* device = SoapySDRDevice_makeStrArgs("driver=mvxtest");
        if (device == nullptr) {
            state.SkipWithError("no mvxtest device");
            return;
        }
        const size_t channel = 0;
        SoapySDRDevice_setSampleRate(device, SOAPY_SDR_RX, 0, kRate);
        SoapySDRStream* stream = SoapySDRDevice_setupStream(device, SOAPY_SDR_RX, SOAPY_SDR_CS16, &channel, 1, nullptr);
        std::vector<int16_t> samples(2 * 16384);
        void* buffers[1] = {samples.data()};
        const double start = ProcessCpuSeconds();
        SoapySDRDevice_activateStream(device, stream, 0, 0, 0);
        int64_t total = 0;
        while (total < int64_t(kSeconds * kRate)) {
            int flags = 0;
            long long timeNs = 0;
            const int got = SoapySDRDevice_readStream(device, stream, buffers, 16384, &flags, &timeNs, 100000);
            if (got > 0) total += got;
        }
        const double cpu = ProcessCpuSeconds() - start;
        SoapySDRDevice_closeStream(device, stream);
        SoapySDRDevice_unmake(device);
        state.counters["realtime_share"] = cpu / (double(total) / kRate);
    }
}

BENCHMARK_CAPTURE(DeviceLibrary, cs16_device_correction, "CS16", true)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(DeviceLibrary, cs8_device_correction, "CS8", true)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(DeviceLibrary, cf32_device_correction, "CF32", true)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK_CAPTURE(DeviceLibrary, cs16_resampled, "CS16", false)->Iterations(1)->Unit(benchmark::kSecond);
BENCHMARK(ModuleOnly)->Iterations(1)->Unit(benchmark::kSecond);

}  // namespace

#else
// Built without SoapySDR: nothing to measure.
#endif

BENCHMARK_MAIN();
