// Deterministic pseudo-random numbers for payloads and the channel model:
// xoshiro256** seeded through splitmix64, and Gaussian pairs by the polar
// method. Independent of the standard library's distributions, whose output
// may differ between library versions.
#pragma once

#include <cmath>
#include <cstdint>

namespace gen {

class Rng {
public:
    explicit Rng(uint64_t seed) {
        uint64_t x = seed;
        for (auto& w : s_) {
            x += 0x9E3779B97F4A7C15ull;
            uint64_t z = x;
            z = (z ^ (z >> 30)) * 0xBF58476D1CE4E5B9ull;
            z = (z ^ (z >> 27)) * 0x94D049BB133111EBull;
            w = z ^ (z >> 31);
        }
    }

    uint64_t Next() {
        const uint64_t result = Rotl(s_[1] * 5, 7) * 9;
        const uint64_t t = s_[1] << 17;
        s_[2] ^= s_[0];
        s_[3] ^= s_[1];
        s_[1] ^= s_[2];
        s_[0] ^= s_[3];
        s_[2] ^= t;
        s_[3] = Rotl(s_[3], 45);
        return result;
    }

    uint8_t Byte() { return static_cast<uint8_t>(Next() >> 56); }

    // Uniform in [0, bound), bound > 0 (multiply-shift, bias below 2^-32).
    uint64_t Below(uint64_t bound) {
        return static_cast<uint64_t>((static_cast<unsigned __int128>(Next()) * bound) >> 64);
    }

    // Uniform in [0, 1).
    double Uniform() { return static_cast<double>(Next() >> 11) * 0x1.0p-53; }

    // Two independent standard normal values.
    void GaussianPair(double* a, double* b) {
        double u, v, s;
        do {
            u = 2.0 * Uniform() - 1.0;
            v = 2.0 * Uniform() - 1.0;
            s = u * u + v * v;
        } while (s >= 1.0 || s == 0.0);
        const double f = std::sqrt(-2.0 * std::log(s) / s);
        *a = u * f;
        *b = v * f;
    }

private:
    static uint64_t Rotl(uint64_t x, int k) { return (x << k) | (x >> (64 - k)); }
    uint64_t s_[4];
};

}  // namespace gen
