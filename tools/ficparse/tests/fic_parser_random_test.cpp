// Randomised checks of the parser: random ensembles sent through a lossy FIC
// must come out exactly as described, and random or mutated FIBs must never
// crash it or leave impossible values in the model. Short by default; with
// MVDAB_LONG_TESTS=1 in the environment the sweeps run about a hundred times
// longer.
#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <random>
#include <set>

#include "tools/ficparse/ensemble_print.h"
#include "tools/ficparse/tests/fig_writer.h"

using namespace figwriter;

namespace {

int Scale() {
    const char* env = std::getenv("MVDAB_LONG_TESTS");
    return env != nullptr && std::string(env) == "1" ? 100 : 1;
}

struct Description {
    uint16_t eid;
    int cifHigh, cifLow;
    std::string label;
    uint16_t shortMask;
    std::vector<SubChannelEntry> subChannels;
    std::vector<ServiceEntry> services;
    std::vector<bool> longIds;
    std::vector<std::string> labels;
    std::vector<PacketEntry> packets;
};

std::string RandomLabel(std::mt19937& rng) {
    static const char kChars[] = "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789 -+&!";
    const int length = 1 + int(rng() % 16);
    std::string s;
    for (int i = 0; i < length; ++i) s += kChars[rng() % (sizeof kChars - 1)];
    s.back() = 'X';  // the parser trims trailing spaces
    return s;
}

Description RandomDescription(std::mt19937& rng) {
    Description d;
    d.eid = uint16_t(rng());
    d.cifHigh = int(rng() % 20);
    d.cifLow = int(rng() % 250);
    d.label = RandomLabel(rng);
    d.shortMask = uint16_t(rng());
    std::vector<int> ids(64);
    for (int i = 0; i < 64; ++i) ids[i] = i;
    std::shuffle(ids.begin(), ids.end(), rng);
    const int subCount = 1 + int(rng() % 20);
    for (int i = 0; i < subCount; ++i) {
        SubChannelEntry e{ids[i], int(rng() % 1024), rng() % 2 == 0, int(rng() % 64), int(rng() % 2),
                          1 + int(rng() % 4), 1 + int(rng() % 1023)};
        d.subChannels.push_back(e);
    }
    std::set<uint32_t> sids;
    int nextScId = int(rng() % 4000);
    const int serviceCount = 1 + int(rng() % 12);
    for (int s = 0; s < serviceCount; ++s) {
        const bool longId = rng() % 4 == 0;
        uint32_t sid;
        do sid = longId ? uint32_t(rng()) | 0x01000000u : uint32_t(rng() & 0xFFFF);
        while (!sids.insert(sid).second);
        ServiceEntry service{sid, int(rng() % 8), {}};
        const int components = int(rng() % 5);
        for (int c = 0; c < components; ++c) {
            const int tmId = std::array<int, 3>{0, 1, 3}[rng() % 3];
            ComponentEntry entry{tmId, int(rng() % 64), d.subChannels[rng() % subCount].id, rng() % 2 == 0,
                                 rng() % 2 == 0};
            if (tmId == 3) {
                entry.typeOrScId = nextScId++;
                d.packets.push_back({entry.typeOrScId, rng() % 2 == 0, rng() % 2 == 0, int(rng() % 64),
                                     d.subChannels[rng() % subCount].id, int(rng() % 1024)});
            }
            service.components.push_back(entry);
        }
        d.services.push_back(service);
        d.longIds.push_back(longId);
        d.labels.push_back(RandomLabel(rng));
    }
    return d;
}

std::vector<Bytes> Figs(const Description& d) {
    std::vector<Bytes> figs = {Fig00(d.eid, 0, false, d.cifHigh, d.cifLow), Fig1(0, d.eid, d.label, d.shortMask)};
    for (const SubChannelEntry& e : d.subChannels) figs.push_back(Fig01({e}));
    for (size_t i = 0; i < d.services.size(); ++i) {
        figs.push_back(Fig02({d.services[i]}, d.longIds[i]));
        figs.push_back(Fig1(d.longIds[i] ? 5 : 1, d.services[i].sid, d.labels[i], 0));
    }
    for (const PacketEntry& p : d.packets) figs.push_back(Fig03({p}));
    return figs;
}

void ExpectModelMatches(const Description& d, const ficparse::Ensemble& e) {
    EXPECT_EQ(e.id, d.eid);
    EXPECT_EQ(e.cifCountHigh * 250 + e.cifCountLow, d.cifHigh * 250 + d.cifLow);
    EXPECT_EQ(e.label.text, d.label);
    ASSERT_EQ(e.subChannels.size(), d.subChannels.size());
    for (const SubChannelEntry& s : d.subChannels) {
        const ficparse::SubChannel& got = e.subChannels.at(s.id);
        EXPECT_EQ(got.startAddress, s.start);
        EXPECT_EQ(got.longForm, s.longForm);
        if (s.longForm) {
            EXPECT_EQ(got.size, s.size);
            EXPECT_EQ(got.option, s.option);
            EXPECT_EQ(got.protectionLevel, s.level);
        } else {
            EXPECT_EQ(got.tableIndex, s.tableIndex);
            EXPECT_EQ(got.size, ficparse::UepTableRow(s.tableIndex).size);
        }
    }
    ASSERT_EQ(e.services.size(), d.services.size());
    for (size_t i = 0; i < d.services.size(); ++i) {
        const ficparse::Service& got = e.services.at(d.services[i].sid);
        EXPECT_EQ(got.longId, d.longIds[i]);
        EXPECT_EQ(got.label.text, d.labels[i]);
        EXPECT_EQ(got.conditionalAccessId, d.services[i].caId);
        ASSERT_EQ(got.components.size(), d.services[i].components.size());
        for (size_t c = 0; c < got.components.size(); ++c) {
            const ComponentEntry& want = d.services[i].components[c];
            EXPECT_EQ(int(got.components[c].transport), want.tmId);
            EXPECT_EQ(got.components[c].primary, want.primary);
            if (want.tmId == 3) {
                EXPECT_EQ(got.components[c].serviceComponentId, want.typeOrScId);
                const auto p = std::find_if(d.packets.begin(), d.packets.end(),
                                            [&](const PacketEntry& x) { return x.scId == want.typeOrScId; });
                EXPECT_EQ(got.components[c].subChannelId, p->subChannelId);
                EXPECT_EQ(got.components[c].packetAddress, p->address);
                EXPECT_EQ(got.components[c].type, p->dscTy);
            } else {
                EXPECT_EQ(got.components[c].type, want.typeOrScId);
                EXPECT_EQ(got.components[c].subChannelId, want.subChannelId);
            }
        }
    }
    EXPECT_TRUE(e.Complete());
}

void ExpectSaneModel(const ficparse::FicParser& parser) {
    const ficparse::Ensemble& e = parser.ensemble();
    for (const auto& [id, s] : e.subChannels) {
        ASSERT_TRUE(id >= 0 && id < 64);
        ASSERT_TRUE(s.startAddress >= 0 && s.startAddress < 1024);
        ASSERT_TRUE(s.size >= 0 && s.size < 1024);
    }
    for (const auto& [id, s] : e.services) {
        ASSERT_LE(s.components.size(), 15u);
        for (const auto& c : s.components) ASSERT_LT(c.subChannelId, 64);
    }
    ASSERT_LE(e.cifCountHigh, 31);
    // The printers must cope with whatever the parser has taken in.
    ASSERT_FALSE(ficparse::EnsembleJson(e, &parser.statistics()).empty());
    ASSERT_FALSE(ficparse::EnsembleText(e, &parser.statistics()).empty());
}

}  // namespace

TEST(FicParserRandom, EnsemblesSurviveALossyCarousel) {
    std::mt19937 rng(20240601);
    const int rounds = 100 * Scale();
    for (int round = 0; round < rounds; ++round) {
        const Description d = RandomDescription(rng);
        std::vector<Bytes> figs = Figs(d);
        std::shuffle(figs.begin(), figs.end(), rng);
        const std::vector<Bytes> carousel = PackFibs(figs);
        std::vector<bool> delivered(carousel.size(), false);
        ficparse::FicParser parser;
        // Frames of twelve FIBs; about one FIB in four arrives broken.
        size_t next = 0;
        for (int frame = 0; frame < 1000 && !std::all_of(delivered.begin(), delivered.end(), [](bool b) { return b; });
             ++frame) {
            Bytes bytes;
            int32_t flags = 1;
            for (int i = 0; i < 12; ++i, next = (next + 1) % carousel.size()) {
                Bytes fib = carousel[next];
                if (rng() % 4 == 0) {
                    fib[rng() % 32] ^= uint8_t(1 + rng() % 255);
                } else {
                    flags |= 0x8000 >> i;
                    delivered[next] = true;
                }
                bytes.insert(bytes.end(), fib.begin(), fib.end());
            }
            parser.PushFibs(bytes.data(), int32_t(bytes.size()), flags);
        }
        SCOPED_TRACE(round);
        ExpectModelMatches(d, parser.ensemble());
        if (HasFatalFailure() || HasNonfatalFailure()) return;
    }
}

TEST(FicParserRandom, GarbageNeverBreaksTheParser) {
    std::mt19937 rng(7);
    const int fibs = 20000 * Scale();
    ficparse::FicParser parser;
    const Description d = RandomDescription(rng);
    const std::vector<Bytes> valid = PackFibs(Figs(d));
    for (int n = 0; n < fibs; ++n) {
        Bytes fib(32);
        switch (rng() % 3) {
        case 0:  // uniformly random bytes
            for (uint8_t& b : fib) b = uint8_t(rng());
            break;
        case 1:  // a valid FIB with a few bytes changed
            fib = valid[rng() % valid.size()];
            for (int k = 1 + int(rng() % 3); k > 0; --k) fib[rng() % 30] = uint8_t(rng());
            break;
        default:  // FIG headers with plausible types and lengths, random bodies
            for (size_t p = 0; p < 30;) {
                const int length = 1 + int(rng() % 29);
                fib[p] = uint8_t(((rng() % 2) << 5) | length);
                for (size_t k = p + 1; k < 30 && k <= p + size_t(length); ++k) fib[k] = uint8_t(rng());
                p += 1 + size_t(length);
            }
            break;
        }
        parser.PushFib(fib.data(), true);
        if (n % 997 == 0) {
            ExpectSaneModel(parser);
            if (HasFatalFailure()) return;
        }
        if (n % 5000 == 0) parser.Reset();
    }
    ExpectSaneModel(parser);
}
