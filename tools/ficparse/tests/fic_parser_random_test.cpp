// Randomised checks: random ensembles sent through a lossy FIC come out
// exactly as described, and random or mutated FIBs never break the parser or
// leave impossible values. Short by default; MVDAB_LONG_TESTS=1 runs a
// hundred times more.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <numeric>
#include <random>
#include <set>
#include <sstream>
#include <string_view>

#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/tests/fig_writer.h"

using namespace figwriter;

namespace {

int Scale() {
    const char* env = std::getenv("MVDAB_LONG_TESTS");
    return env != nullptr && std::string(env) == "1" ? 100 : 1;
}

struct Description {
    std::vector<Bytes> figs;
    ficparse::Ensemble want;  // only the fields checked below are filled
};

// Labels of the printable ASCII characters that the EBU Latin set shares.
std::string RandomLabel(std::mt19937& rng) {
    static const std::string kShared = [] {
        std::string chars;
        for (char c = ' '; c <= '~'; ++c)
            if (std::string_view("$\\^`{|}~").find(c) == std::string_view::npos) chars += c;
        return chars;
    }();
    std::string s(1 + rng() % 16, ' ');
    for (char& c : s) c = kShared[rng() % kShared.size()];
    s.back() = 'X';  // trailing spaces are trimmed
    return s;
}

// A random ensemble, as FIGs in random order and as the model they describe.
Description RandomEnsemble(std::mt19937& rng) {
    Description d;
    ficparse::Ensemble& e = d.want;
    e.id = uint16_t(rng());
    e.cifCountHigh = int(rng() % 20), e.cifCountLow = int(rng() % 250);
    e.label.text = RandomLabel(rng);
    d.figs = {Fig00(e.id, 0, false, e.cifCountHigh, e.cifCountLow), Fig1(0, e.id, e.label.text, uint16_t(rng()))};
    std::vector<int> ids(64);
    std::iota(ids.begin(), ids.end(), 0);
    std::shuffle(ids.begin(), ids.end(), rng);
    const int subCount = 1 + int(rng() % 20);
    for (int i = 0; i < subCount; ++i) {
        const SubChannelEntry s{ids[i], int(rng() % 1024), rng() % 2 == 0, int(rng() % 64), int(rng() % 2),
                                1 + int(rng() % 4), 1 + int(rng() % 1023)};
        d.figs.push_back(Fig01({s}));
        ficparse::SubChannel& w = e.subChannels[s.id];
        w.startAddress = s.start;
        w.longForm = s.longForm;
        w.size = s.longForm ? s.size : ficparse::UepTableRow(s.tableIndex).size;
    }
    std::set<uint32_t> sids;
    int nextScId = int(rng() % 4000);
    for (int n = 1 + int(rng() % 12); n > 0; --n) {
        const bool longId = rng() % 4 == 0;
        uint32_t sid;
        do sid = longId ? uint32_t(rng()) | 0x01000000u : uint32_t(rng() & 0xFFFF);
        while (!sids.insert(sid).second);
        ServiceEntry service{sid, int(rng() % 8), {}};
        ficparse::Service& w = e.services[sid];
        w.label.text = RandomLabel(rng);
        for (int c = int(rng() % 5); c > 0; --c) {
            const int tmId = std::vector<int>{0, 1, 3}[rng() % 3];
            ComponentEntry entry{tmId, int(rng() % 64), ids[rng() % subCount], rng() % 2 == 0, rng() % 2 == 0};
            ficparse::Component wc;
            wc.type = entry.type, wc.subChannelId = entry.subChannelId;
            if (tmId == 3) {
                const PacketEntry p{nextScId++, rng() % 2 == 0, rng() % 2 == 0, int(rng() % 64), ids[rng() % subCount],
                                    int(rng() % 1024)};
                entry.type = p.scId;
                wc.type = p.dscTy, wc.subChannelId = p.subChannelId, wc.packetAddress = p.address;
                d.figs.push_back(Fig03({p}));
            }
            service.components.push_back(entry);
            w.components.push_back(wc);
        }
        d.figs.push_back(Fig02({service}, longId));
        d.figs.push_back(Fig1(longId ? 5 : 1, sid, w.label.text, 0));
    }
    std::shuffle(d.figs.begin(), d.figs.end(), rng);
    return d;
}

// The fields the random ensembles set, one line per entry, to compare a
// parsed model with its description.
std::string Summary(const ficparse::Ensemble& e) {
    std::ostringstream out;
    out << e.id << ' ' << e.cifCountHigh * 250 + e.cifCountLow << " \"" << e.label.text << "\"\n";
    for (const auto& [id, s] : e.subChannels)
        out << "sub-channel " << id << ": " << s.startAddress << ' ' << s.longForm << ' ' << s.size << '\n';
    for (const auto& [sid, s] : e.services) {
        out << "service " << sid << " \"" << s.label.text << "\"\n";
        for (const auto& c : s.components) out << "  " << c.type << ' ' << c.subChannelId << ' ' << c.packetAddress << '\n';
    }
    return out.str();
}

}  // namespace

TEST(FicParserRandom, EnsemblesSurviveALossyCarousel) {
    std::mt19937 rng(20240601);
    for (int round = 0; round < 100 * Scale(); ++round) {
        const Description d = RandomEnsemble(rng);
        const std::vector<Bytes> carousel = PackFibs(d.figs);
        std::vector<bool> delivered(carousel.size(), false);
        ficparse::FicParser parser;
        // Frames of twelve FIBs in which about one FIB in four arrives broken.
        size_t next = 0;
        while (std::find(delivered.begin(), delivered.end(), false) != delivered.end()) {
            Bytes frame;
            int32_t flags = 1;
            for (int i = 0; i < 12; ++i, next = (next + 1) % carousel.size()) {
                Bytes fib = carousel[next];
                if (rng() % 4 == 0) fib[rng() % 32] ^= uint8_t(1 + rng() % 255);
                else flags |= 0x8000 >> i, delivered[next] = true;
                frame.insert(frame.end(), fib.begin(), fib.end());
            }
            parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
        }
        ASSERT_EQ(Summary(parser.ensemble()), Summary(d.want)) << "round " << round;
        ASSERT_TRUE(parser.ensemble().Complete()) << "round " << round;
    }
}

TEST(FicParserRandom, GarbageNeverBreaksTheParser) {
    std::mt19937 rng(7);
    const std::vector<Bytes> valid = PackFibs(RandomEnsemble(rng).figs);
    ficparse::FicParser parser;
    for (int n = 0; n < 20000 * Scale(); ++n) {
        Bytes fib(32);
        if (n % 3 == 0) {  // random bytes
            for (uint8_t& b : fib) b = uint8_t(rng());
        } else if (n % 3 == 1) {  // a valid FIB with a few bytes changed
            fib = valid[rng() % valid.size()];
            for (int k = 1 + int(rng() % 3); k > 0; --k) fib[rng() % 30] = uint8_t(rng());
        } else {  // type 0 and 1 headers with plausible lengths and random bodies
            for (size_t p = 0; p < 30;) {
                const size_t length = 1 + rng() % 29;
                fib[p] = uint8_t(((rng() % 2) << 5) | length);
                for (size_t k = p + 1; k < 30 && k <= p + length; ++k) fib[k] = uint8_t(rng());
                p += 1 + length;
            }
        }
        parser.PushFib(fib.data(), true);
        if (n % 997 == 0 || n % 5000 == 4999) {
            for (const auto& [id, s] : parser.ensemble().subChannels)
                ASSERT_TRUE(id < 64 && s.startAddress < 1024 && s.size < 1024);
            for (const auto& [id, s] : parser.ensemble().services) ASSERT_LE(s.components.size(), 15u);
            ASSERT_FALSE(ficparse::EnsembleJson(parser.ensemble(), &parser.statistics()).empty());
            ASSERT_FALSE(ficparse::EnsembleText(parser.ensemble(), &parser.statistics()).empty());
        }
        if (n % 5000 == 4999) parser.Reset();
    }
}
