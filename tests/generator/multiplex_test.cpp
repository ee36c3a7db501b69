// The multiplex as a receiver sees it: FIC blocks and sub-channels decoded
// with the independent decoder of coding_checks.h, FIGs read back with a
// small reader, CIF counts, reconfiguration, determinism, description files.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "generator/ensemble_bits.h"
#include "generator/ensemble_description.h"
#include "generator/multiplex.h"
#include "tests/generator/coding_checks.h"

namespace {

std::unique_ptr<gen::Multiplex> Build(const gen::EnsembleDescription& d) {
    std::string error;
    auto m = gen::Multiplex::Make(d, &error);
    EXPECT_TRUE(m) << error;
    return m;
}

gen::EnsembleDescription Preset(const std::string& name, int mode, uint64_t seed = 1) {
    gen::PresetOptions o;
    o.mode = mode;
    o.seed = seed;
    gen::EnsembleDescription d;
    std::string error;
    EXPECT_TRUE(gen::MakePresetDescription(name, o, &d, &error)) << error;
    return d;
}

std::shared_ptr<std::vector<uint8_t>> Record(gen::Multiplex& m) {
    auto fibs = std::make_shared<std::vector<uint8_t>>();
    m.RecordFibs(fibs);
    return fibs;
}

// CIF count carried by the FIG 0/0 at the start of a FIB group.
int CifCountOf(const uint8_t* fib, int* changeFlags = nullptr, int* occurrence = nullptr) {
    EXPECT_EQ(fib[0] >> 5, 0);
    EXPECT_EQ(fib[1] & 31, 0);
    if (changeFlags) *changeFlags = fib[4] >> 6;
    if (occurrence) *occurrence = (fib[4] >> 6) ? fib[6] : -1;
    return 250 * (fib[4] & 31) + fib[5];
}

TEST(Multiplex, FicBlocksDecodeToTheSentFibsInEveryMode) {
    for (int mode = 1; mode <= 4; ++mode) {
        auto m = Build(Preset("default", mode));
        auto fibs = Record(*m);
        std::vector<uint8_t> bits;
        m->NextFrame(bits);
        const gen::ModeGeometry& g = gen::Geometry(mode);
        ASSERT_EQ(bits.size(), static_cast<size_t>(g.DataBitsPerFrame()));
        ASSERT_EQ(fibs->size(), static_cast<size_t>(g.fibsPerFrame) * 32);
        const std::vector<uint8_t> mask = check::PunctureMask({{mode == 3 ? 29 : 21, 16}, {3, 15}});
        const size_t blockBits = static_cast<size_t>(g.ficBitsPerFrame / g.cifsPerFrame);
        EXPECT_EQ(blockBits, mode == 3 ? 3072u : 2304u);
        const size_t fibsPerBlock = static_cast<size_t>(g.fibsPerFrame / g.cifsPerFrame);
        for (int k = 0; k < g.cifsPerFrame; ++k) {
            std::vector<uint8_t> info =
                check::ViterbiDecode({bits.begin() + k * blockBits, bits.begin() + (k + 1) * blockBits}, mask);
            ASSERT_EQ(info.size(), fibsPerBlock * 256);
            check::Descramble(info);
            const std::vector<uint8_t> bytes = check::PackBits(info);
            const uint8_t* sent = fibs->data() + k * fibsPerBlock * 32;
            ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), sent)) << "mode " << mode << " CIF " << k;
            for (size_t f = 0; f < fibsPerBlock; ++f) EXPECT_TRUE(check::CrcResidueOk(sent + 32 * f, 32));
            EXPECT_EQ(CifCountOf(sent), k);
        }
    }
}

// Reads back the multiplex configuration from a few dozen FIB groups.
TEST(Multiplex, FigsCarryTheDescription) {
    gen::EnsembleDescription d = Preset("default", 1);
    d.label = "MVX DEFAULT Ö€$";  // sent in EBU Latin
    auto m = Build(d);
    auto fibs = Record(*m);
    std::vector<uint8_t> bits;
    for (int f = 0; f < 4; ++f) m->NextFrame(bits);

    std::map<int, std::vector<uint8_t>> subChannels;          // SubChId -> FIG 0/1 entry
    std::map<uint32_t, std::vector<uint8_t>> services;        // SId -> components (2 bytes each)
    std::map<int, std::vector<uint8_t>> packetComponents;     // SCId -> FIG 0/3 entry
    std::map<int, std::string> labels;                        // id -> label and character flags
    for (size_t off = 0; off < fibs->size(); off += 32) {
        const uint8_t* fib = fibs->data() + off;
        ASSERT_TRUE(check::CrcResidueOk(fib, 32));
        std::vector<check::FigRead> figs;
        ASSERT_TRUE(check::ReadFigs(fib, &figs)) << "FIB " << off / 32;
        if ((off / 32) % 3 == 0) {
            ASSERT_TRUE(!figs.empty() && figs[0].type == 0 && figs[0].extension == 0);
        }
        for (const check::FigRead& f : figs) {
            const std::vector<uint8_t>& x = f.data;
            if (f.type == 0 && f.extension == 0) {
                EXPECT_EQ(x.size(), 5u);
                EXPECT_EQ((x[1] << 8) | x[2], d.eid);
            } else if (f.type == 0 && f.extension == 1) {
                EXPECT_EQ(x[0] & 0x80, 0);  // current organisation
                for (size_t i = 1; i < x.size();) {
                    const size_t len = (x[i + 2] & 0x80) ? 4 : 3;
                    subChannels[x[i] >> 2].assign(x.begin() + i, x.begin() + i + len);
                    i += len;
                }
            } else if (f.type == 0 && f.extension == 2) {
                const bool longIds = x[0] & 0x20;
                for (size_t i = 1; i < x.size();) {
                    uint32_t sid = 0;
                    for (int b = 0; b < (longIds ? 4 : 2); ++b) sid = (sid << 8) | x[i++];
                    const int n = x[i++] & 15;
                    services[sid].assign(x.begin() + i, x.begin() + i + 2 * n);
                    i += 2 * n;
                }
            } else if (f.type == 0 && f.extension == 3) {
                for (size_t i = 1; i + 5 <= x.size(); i += 5)
                    packetComponents[(x[i] << 4) | (x[i + 1] >> 4)].assign(x.begin() + i, x.begin() + i + 5);
            } else if (f.type == 1) {
                ASSERT_EQ(x.size(), 21u);
                labels[(x[1] << 8) | x[2]] = std::string(x.begin() + 3, x.end());
            }
        }
    }
    // Sub-channels: DAB+ EEP 3-A 48 kbit/s at 0 (36 CU); MP2 UEP row 35 next; packet EEP 2-A 32 kbit/s.
    ASSERT_EQ(subChannels.size(), 3u);
    EXPECT_EQ(subChannels[1], (std::vector<uint8_t>{0x04, 0x00, 0x80 | (2 << 2), 36}));
    EXPECT_EQ(subChannels[2], (std::vector<uint8_t>{0x08, 36, 35}));
    EXPECT_EQ(subChannels[3], (std::vector<uint8_t>{0x0C, 36 + 96, 0x80 | (1 << 2), 32}));
    ASSERT_EQ(services.size(), 3u);
    EXPECT_EQ(services[0xE201], (std::vector<uint8_t>{63, (1 << 2) | 2}));
    EXPECT_EQ(services[0xE202], (std::vector<uint8_t>{0, (2 << 2) | 2}));
    EXPECT_EQ(services[0xE1E00203], (std::vector<uint8_t>{0xC0, (1 << 2) | 2}));
    ASSERT_EQ(packetComponents.size(), 1u);
    EXPECT_EQ(packetComponents[1], (std::vector<uint8_t>{0x00, 0x10, 0x00, 3 << 2, 1}));
    EXPECT_EQ(labels[d.eid], std::string("MVX DEFAULT \xD7\xA9\xAB \xE0\x00", 18));  // short label "MVX"
    EXPECT_EQ(labels[0xE201], std::string("MVX Plus        \x0F\x00", 18));  // "Plus"
    EXPECT_EQ(labels.count(0x0203), 0u);  // 32-bit ids get no label
    EXPECT_EQ(gen::CharacterFlags("AB CDEFGHIJ", ""), 0xDF80);  // first 8 non-spaces
}

TEST(Multiplex, CifCountAdvancesAndWraps) {
    for (int mode : {1, 3}) {
        gen::EnsembleDescription d = Preset("single-random", mode);
        d.firstCifCount = 4990;
        auto m = Build(d);
        auto fibs = Record(*m);
        std::vector<uint8_t> bits;
        const int perFrame = gen::Geometry(mode).cifsPerFrame;
        for (int f = 0; f < 20 / perFrame; ++f) m->NextFrame(bits);
        const size_t groupBytes = static_cast<size_t>(gen::FibsPerCif(mode)) * 32;
        ASSERT_EQ(fibs->size(), 20 * groupBytes);
        for (int c = 0; c < 20; ++c) EXPECT_EQ(CifCountOf(fibs->data() + c * groupBytes), (4990 + c) % 5000);
        EXPECT_EQ(m->CifCount(), 10);
    }
    // High part 19, low part 249 at the top of the cycle.
    const gen::Fig top = gen::EnsembleInformationFig(0x1234, 0, true, 4999, 0);
    EXPECT_EQ(top, (gen::Fig{0x05, 0x00, 0x12, 0x34, 0x20 | 19, 249}));
}

// Sub-channel bits of consecutive CIFs: de-interleaved, decoded and
// descrambled they must give the recorded payload, 15 CIFs late.
void CheckSubChannel(gen::EnsembleDescription d, size_t which, int cifs) {
    auto record = std::make_shared<std::vector<uint8_t>>();
    d.subChannels[which].record = record;
    auto m = Build(d);
    const gen::SubChannelDesc& s = m->Description().subChannels[which];
    gen::SubChannelProfile p;
    std::string error;
    ASSERT_TRUE(gen::MakeProfile(s.protection, s.bitrateKbps, &p, &error));
    std::vector<std::pair<int, int>> runs;
    for (const gen::PunctureRun& r : p.runs) runs.push_back({r.blocks, r.pi});
    const std::vector<uint8_t> mask = check::PunctureMask(runs);
    const size_t n = static_cast<size_t>(64 * p.sizeCu), frameBytes = static_cast<size_t>(3 * s.bitrateKbps);
    std::vector<std::vector<uint8_t>> history;
    std::vector<uint8_t> fibs(4 * 32), msc(gen::kCifBits);
    for (int t = 0; t < cifs; ++t) {
        m->NextCif(fibs.data(), msc.data());
        history.emplace_back(msc.begin() + 64 * s.startCu, msc.begin() + 64 * s.startCu + n);
        if (t < 15) continue;
        // Receiver side: bit i waits 15 - d(i mod 16) more CIFs.
        std::vector<uint8_t> codeword(n);
        for (size_t i = 0; i < n; ++i) {
            const int r = static_cast<int>(i % 16);
            const int d16 = ((r & 1) << 3) | ((r & 2) << 1) | ((r & 4) >> 1) | ((r & 8) >> 3);
            codeword[i] = history[static_cast<size_t>(t - 15 + d16)][i];
        }
        std::vector<uint8_t> info = check::ViterbiDecode(codeword, mask);
        ASSERT_EQ(info.size(), frameBytes * 8);
        check::Descramble(info);
        const std::vector<uint8_t> bytes = check::PackBits(info);
        ASSERT_TRUE(std::equal(bytes.begin(), bytes.end(), record->begin() + (t - 15) * frameBytes))
            << "logical frame " << t - 15;
        for (size_t i = gen::PuncturedLength(p.runs); i < n; ++i) ASSERT_EQ(codeword[i], 0) << "padding bit " << i;
    }
}

TEST(Multiplex, SubChannelsDecodeToTheRecordedPayload) {
    CheckSubChannel(Preset("single-random", 1), 0, 19);   // EEP 3-A
    CheckSubChannel(Preset("default", 2), 1, 18);         // UEP row 35, 4 padding bits
    CheckSubChannel(Preset("data", 4), 1, 16);            // packet stream with FEC
    gen::EnsembleDescription d = Preset("single-random", 1);
    d.subChannels[0].protection = {gen::ProtectionKind::kEepB, 4};
    d.subChannels[0].bitrateKbps = 32;
    CheckSubChannel(d, 0, 17);
}

TEST(Multiplex, ReconfigurationIsAnnouncedThenApplied) {
    gen::EnsembleDescription d = Preset("reconfigure", 2);
    d.firstCifCount = 4990;
    d.reconfiguration.cifCount = 20;  // 30 CIFs in, across the wrap
    d.reconfiguration.announceCifs = 10;
    gen::SubChannelDesc other;  // stays where it is
    other.id = 9, other.startCu = 700, other.bitrateKbps = 16, other.payload = "random:5";
    other.protection = {gen::ProtectionKind::kEepA, 4};
    d.subChannels.push_back(other);
    auto m = Build(d);
    auto fibs = Record(*m);
    std::vector<uint8_t> bits;
    int nextFigs = 0;
    for (int t = 0; t < 40; ++t) {
        m->NextFrame(bits);  // mode II: one CIF per frame
        const uint8_t* group = fibs->data() + t * 96;
        int flagsField = 0, occurrence = 0;
        EXPECT_EQ(CifCountOf(group, &flagsField, &occurrence), (4990 + t) % 5000);
        const bool announcing = t >= 20 && t < 30;
        EXPECT_EQ(flagsField, announcing ? 1 : 0) << "CIF " << t;
        EXPECT_EQ(occurrence, announcing ? 20 : -1);
        // FIG 0/1 entries of this group: current (C/N 0) and next (C/N 1).
        for (int f = 0; f < 3; ++f) {
            std::vector<check::FigRead> figs;
            ASSERT_TRUE(check::ReadFigs(group + 32 * f, &figs));
            for (const check::FigRead& fig : figs) {
                if (fig.type != 0 || fig.extension != 1) continue;
                const bool next = fig.data[0] & 0x80;
                EXPECT_TRUE(!next || announcing) << "CIF " << t;
                nextFigs += next;
                const bool newOrganisation = next || t >= 30;
                ASSERT_EQ(fig.data.size(), 9u);  // both long-form entries, in every organisation
                for (size_t e = 1; e < 9; e += 4) {
                    const int id = fig.data[e] >> 2;
                    const int start = ((fig.data[e] & 3) << 8) | fig.data[e + 1];
                    const int level = ((fig.data[e + 2] >> 2) & 3) + 1;
                    EXPECT_EQ(start, id == 9 ? 700 : newOrganisation ? 400 : 0) << "CIF " << t;
                    EXPECT_EQ(level, id == 9 ? 4 : newOrganisation ? 2 : 3) << "CIF " << t;
                }
            }
        }
        // The sub-channel's capacity: 48 CU at CU 0, then 64 CU at CU 400.
        // Zeros in the unused capacity; a new protection restarts the delay lines.
        const uint8_t* msc = bits.data() + gen::Geometry(2).ficBitsPerFrame;
        EXPECT_EQ(std::count(msc, msc + 64 * 48, 1) > 0, t < 30) << "CIF " << t;
        EXPECT_EQ(std::count(msc + 64 * 400, msc + 64 * 464, 1) > 0, t >= 30) << "CIF " << t;
    }
    EXPECT_GE(nextFigs, 5);  // the next organisation went out during the announcement
}

TEST(Multiplex, SameSeedSameBits) {
    std::vector<uint8_t> a, b, c;
    gen::EnsembleBits x, y, z;
    std::string error;
    for (auto [bits, seed] : {std::pair{&x, 7}, {&y, 7}, {&z, 8}})
        ASSERT_TRUE(gen::MakeEnsembleBits("default", "", 4, static_cast<uint64_t>(seed), bits, &error)) << error;
    for (int f = 0; f < 12; ++f) {
        x.source->NextFrame(a), y.source->NextFrame(b), z.source->NextFrame(c);
        ASSERT_EQ(a, b) << "frame " << f;
    }
    EXPECT_NE(a, c);
    EXPECT_NE(x.listing.find("sub-channel 2: start 36 CU, size 96 CU, uep:3 (index 35), 128 kbit/s"), std::string::npos);
    for (const std::string& name : gen::EnsemblePresetNames())
        EXPECT_TRUE(gen::MakeEnsembleBits(name, "", 3, 1, &x, &error)) << name << ": " << error;
    EXPECT_FALSE(gen::MakeEnsembleBits("default:mp2=/nonexistent.mp2", "", 1, 1, &x, &error));
    EXPECT_FALSE(gen::MakeEnsembleBits("nothing", "", 1, 1, &x, &error));
}

TEST(EnsembleDescription, FileFormatAndItsErrors) {
    const std::string text =
        "# two services\n"
        "ensemble eid=0xE2B0 label=\"FILE TEST\" short=FILE cif=100 mode=3 seed=9\n"
        "subchannel id=5 start=10 protection=eep-b:2 bitrate=64 payload=random:3\n"
        "subchannel id=6 protection=uep:4 bitrate=96 payload=random:4   # after id 5\n"
        "subchannel id=7 protection=eep-a:4 bitrate=16 payload=packet:5,size=48\n"
        "service sid=0xE2B1 label=\"Köln Süd Öffentl\" component=dabplus:5 component=stream:6,dscty=24\n"
        "service sid=0xE2E000B2 component=packet:7,scid=9,address=33,dscty=5\n"
        "reconfigure cif=300 subchannel=6 start=600 announce=100\n";
    gen::EnsembleDescription d;
    std::string error;
    ASSERT_TRUE(gen::ParseDescription(text, 1, 1, &d, &error)) << error;
    EXPECT_EQ(d.eid, 0xE2B0);
    EXPECT_EQ(d.mode, 3);
    EXPECT_EQ(d.seed, 9u);
    EXPECT_EQ(d.firstCifCount, 100);
    ASSERT_EQ(d.services.size(), 2u);
    ASSERT_EQ(d.services[0].components.size(), 2u);
    EXPECT_EQ(d.services[0].components[1].dataType, 24);
    EXPECT_EQ(d.services[1].components[0].packetAddress, 33);
    EXPECT_EQ(d.reconfiguration.newStartCu, 600);
    auto m = Build(d);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->Description().subChannels[1].startCu, 10 + 42);  // 2-B at 64 kbit/s is 42 CU
    EXPECT_NE(m->Listing().find("address 33"), std::string::npos) << m->Listing();

    const std::pair<const char*, const char*> bad[] = {
        {"subchannel id=1 bitrate=48 payload=random:1 colour=red\n", "line 1"},
        {"subchannel id=1 protection=eep-a:3 bitrate=48\n", "payload"},
        {"service sid=1 component=video:1\n", "component kind"},
        {"ensemble label=\"SEVENTEEN LETTERS\"\n", "label"},
        {"service sid=1 label=\"a{b}\"\n", "label"},  // no braces in EBU Latin
    };
    for (auto [line, expected] : bad) {
        EXPECT_FALSE(gen::ParseDescription(line, 1, 1, &d, &error)) << line;
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
    // Consistency is checked when the multiplex is built.
    const std::pair<const char*, const char*> inconsistent[] = {
        {"subchannel id=1 start=0 protection=eep-a:3 bitrate=48 payload=random:1\n"
         "subchannel id=2 start=30 protection=eep-a:3 bitrate=48 payload=random:1\n", "overlap"},
        {"subchannel id=1 start=830 protection=uep:3 bitrate=56 payload=random:1\n"
         "service sid=0xE001 component=mp2:2\n", "864"},
    };
    for (auto [text, expected] : inconsistent) {
        ASSERT_TRUE(gen::ParseDescription(text, 1, 1, &d, &error)) << error;
        EXPECT_FALSE(gen::Multiplex::Make(d, &error));
        EXPECT_NE(error.find(expected), std::string::npos) << error;
    }
}

}  // namespace
