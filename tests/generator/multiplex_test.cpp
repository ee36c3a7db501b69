// The multiplex against an independent coder: FIC blocks and sub-channels
// re-encoded from what was recorded, FIGs read back byte by byte, the CIF
// count, reconfiguration and description files.
#include <gtest/gtest.h>

#include <algorithm>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "generator/ensemble_description.h"
#include "generator/multiplex.h"
#include "tests/generator/coding_checks.h"

namespace {

using Bytes = std::vector<uint8_t>;

std::unique_ptr<gen::Multiplex> Build(const gen::EnsembleDescription& d) {
    std::string error;
    auto m = gen::Multiplex::Make(d, &error);
    EXPECT_TRUE(m) << error;
    return m;
}

gen::EnsembleDescription Preset(const std::string& name, int mode) {
    gen::PresetOptions o;
    o.mode = mode;
    gen::EnsembleDescription d;
    std::string error;
    EXPECT_TRUE(gen::MakePresetDescription(name, o, &d, &error)) << error;
    return d;
}

// CIF count carried by the FIG 0/0 that opens a FIB group, with its change
// flags and, if any are set, the occurrence (else -1).
int CifCountOf(const uint8_t* fib, int* changeFlags = nullptr, int* occurrence = nullptr) {
    EXPECT_TRUE(fib[0] >> 5 == 0 && (fib[1] & 31) == 0) << "no FIG 0/0 first";
    if (changeFlags) *changeFlags = fib[4] >> 6;
    if (occurrence) *occurrence = (fib[4] >> 6) ? fib[6] : -1;
    return 250 * (fib[4] & 31) + fib[5];
}

// The FIGs of `count` FIBs, their data fields after the first byte appended
// under 256 * type + that byte (so C/N, P/D and charset are part of the key).
// Every FIB must pass its CRC, hold whole FIGs and only zeros after the end marker.
std::map<int, Bytes> Fields(const uint8_t* fibs, size_t count) {
    std::map<int, Bytes> out;
    for (const uint8_t* fib = fibs; fib < fibs + 32 * count; fib += 32) {
        EXPECT_TRUE(check::CrcResidueOk(fib, 32));
        size_t i = 0;
        for (size_t length; i < 30 && fib[i] != 0xFF; i += 1 + length) {
            length = fib[i] & 31;
            if (length == 0 || i + 1 + length > 30) break;
            Bytes& field = out[256 * (fib[i] >> 5) + fib[i + 1]];
            field.insert(field.end(), fib + i + 2, fib + i + 1 + length);
        }
        EXPECT_TRUE(i == 30 || (fib[i] == 0xFF && std::all_of(fib + i + 1, fib + 30, [](uint8_t b) { return b == 0; })));
    }
    return out;
}

bool Has(const Bytes& field, const Bytes& entry) {
    return std::search(field.begin(), field.end(), entry.begin(), entry.end()) != field.end();
}

// Every FIC block is its FIB group coded independently; the CIF count runs
// through the wrap, one step per CIF.
TEST(Multiplex, FicBlocksAreTheCodedFibGroupsInEveryMode) {
    for (int mode = 1; mode <= 4; ++mode) {
        gen::EnsembleDescription d = Preset("default", mode);
        d.firstCifCount = 4997;
        auto m = Build(d);
        auto fibs = std::make_shared<Bytes>();
        m->RecordFibs(fibs);
        const gen::ModeGeometry& g = gen::Geometry(mode);
        const size_t groupBytes = g.fibsPerFrame / g.cifsPerFrame * 32, blockBits = groupBytes * 8 * 3;
        ASSERT_EQ(static_cast<size_t>(g.ficBitsPerFrame), g.cifsPerFrame * blockBits);
        Bytes bits;
        for (int cif = 0; cif < 4;) {
            m->NextFrame(bits);
            for (int k = 0; k < g.cifsPerFrame; ++k, ++cif) {
                const uint8_t* group = fibs->data() + cif * groupBytes;
                const Bytes coded = check::ChannelCode(check::Unpack(group, groupBytes), {{mode == 3 ? 29 : 21, 16}, {3, 15}});
                ASSERT_TRUE(std::equal(coded.begin(), coded.end(), bits.begin() + k * blockBits, bits.begin() + (k + 1) * blockBits))
                    << "mode " << mode << " CIF " << cif;
                EXPECT_EQ(CifCountOf(group), (4997 + cif) % 5000);
            }
        }
    }
}

// The multiplex configuration read back from four frames of FIBs.
TEST(Multiplex, FigsCarryTheDescription) {
    gen::EnsembleDescription d = Preset("default", 1);
    d.label = "MVX DEFAULT Ö€$";  // sent in EBU Latin
    auto m = Build(d);
    auto fibs = std::make_shared<Bytes>();
    m->RecordFibs(fibs);
    Bytes bits;
    for (int f = 0; f < 4; ++f) m->NextFrame(bits);
    auto f = Fields(fibs->data(), fibs->size() / 32);
    // FIG 0/1: DAB+ EEP 3-A 48 kbit/s at CU 0 (36 CU); MP2 UEP row 35 next; packet EEP 2-A 32 kbit/s.
    EXPECT_TRUE(Has(f[1], {0x04, 0x00, 0x80 | (2 << 2), 36}));
    EXPECT_TRUE(Has(f[1], {0x08, 36, 35}));
    EXPECT_TRUE(Has(f[1], {0x0C, 36 + 96, 0x80 | (1 << 2), 32}));
    // FIG 0/2, one component each: DAB+ (ASCTy 63) and MP2 audio, then packet data (TMId 3, SCId 1), primary.
    EXPECT_TRUE(Has(f[2], {0xE2, 0x01, 1, 63, (1 << 2) | 2}));
    EXPECT_TRUE(Has(f[2], {0xE2, 0x02, 1, 0, (2 << 2) | 2}));
    EXPECT_TRUE(Has(f[0x22], {0xE1, 0xE0, 0x02, 0x03, 1, 0xC0, (1 << 2) | 2}));
    EXPECT_TRUE(Has(f[3], {0x00, 0x10, 0x00, 3 << 2, 1}));  // SCId 1, DG used, DSCTy 0, SubChId 3, address 1
    // FIG 1/0 and 1/1 in EBU Latin with the short labels "MVX" and "Plus"; a 32-bit id gets no label.
    auto label = [](uint16_t id, const std::string& text) {
        Bytes b = {static_cast<uint8_t>(id >> 8), static_cast<uint8_t>(id)};
        return b.insert(b.end(), text.begin(), text.end()), b;
    };
    EXPECT_TRUE(Has(f[256], label(d.eid, std::string("MVX DEFAULT \xD7\xA9\xAB \xE0\x00", 18))));
    EXPECT_TRUE(Has(f[257], label(0xE201, std::string("MVX Plus        \x0F\x00", 18))));
    EXPECT_EQ(f.size(), 7u) << "only FIG 0/0, 0/1, 0/2 (16 and 32-bit ids), 0/3, 1/0 and 1/1";
}
// Every MSC bit of a sub-channel is the recorded logical frames coded
// independently and time-interleaved: bit i of CIF t comes from frame
// t - d(i mod 16), zero before the start; UEP padding bits are zero.
void CheckSubChannel(gen::EnsembleDescription d, size_t which, int frames) {
    auto record = std::make_shared<Bytes>();
    d.subChannels[which].record = record;
    auto m = Build(d);
    const gen::SubChannelDesc& s = m->Description().subChannels[which];
    gen::SubChannelProfile p;
    std::string error;
    ASSERT_TRUE(gen::MakeProfile(s.protection, s.bitrateKbps, &p, &error));
    std::vector<std::pair<int, int>> runs;
    for (const gen::PunctureRun& r : p.runs) runs.push_back({r.blocks, r.pi});
    const gen::ModeGeometry& g = gen::Geometry(d.mode);
    const size_t n = 64 * static_cast<size_t>(p.sizeCu), frameBytes = 3 * static_cast<size_t>(s.bitrateKbps);
    std::vector<Bytes> coded;
    Bytes bits;
    for (int f = 0; f < frames; ++f) {
        m->NextFrame(bits);
        for (int c = 0; c < g.cifsPerFrame; ++c) {
            const size_t t = coded.size();
            ASSERT_GE(record->size(), (t + 1) * frameBytes);
            coded.push_back(check::ChannelCode(check::Unpack(record->data() + t * frameBytes, frameBytes), runs));
            coded.back().resize(n, 0);
            const uint8_t* msc = bits.data() + g.ficBitsPerFrame + c * gen::kCifBits + 64 * s.startCu;
            for (size_t i = 0, delay; i < n; ++i) {
                delay = static_cast<size_t>(check::kInterleaverDelay[i % 16]);
                ASSERT_EQ(msc[i], t >= delay ? coded[t - delay][i] : 0) << "CIF " << t << " bit " << i;
            }
        }
    }
}

TEST(Multiplex, SubChannelsAreTheCodedRecordedPayload) {
    CheckSubChannel(Preset("single-random", 1), 0, 5);  // EEP 3-A, four CIFs a frame
    CheckSubChannel(Preset("default", 2), 1, 18);        // UEP row 35, 4 padding bits
    CheckSubChannel(Preset("data", 4), 1, 9);            // packet stream with FEC
    gen::EnsembleDescription d = Preset("single-random", 3);
    d.subChannels[0].protection = {gen::ProtectionKind::kEepB, 4};
    d.subChannels[0].bitrateKbps = 32;
    CheckSubChannel(d, 0, 17);
}

// The change is announced in FIG 0/0 (change flags, occurrence) and by the
// next organisation in FIG 0/1 (C/N = 1) during the 10 CIFs before it, across
// the CIF count's wrap; then the current organisation is the new one.
TEST(Multiplex, ReconfigurationIsAnnouncedThenApplied) {
    gen::EnsembleDescription d = Preset("reconfigure", 2);
    d.firstCifCount = 4990;
    d.reconfiguration.cifCount = 20;
    d.reconfiguration.announceCifs = 10;
    auto m = Build(d);
    auto fibs = std::make_shared<Bytes>();
    m->RecordFibs(fibs);
    const uint8_t id = static_cast<uint8_t>(d.subChannels[0].id << 2);
    const Bytes before = {id, 0, 0x80 | (2 << 2), 48}, after = {static_cast<uint8_t>(id | 1), 400 - 256, 0x80 | (1 << 2), 64};
    Bytes bits;
    int nextSeen = 0;
    for (int t = 0; t < 34; ++t) {
        m->NextFrame(bits);  // mode II: one CIF per frame
        int flags = 0, occurrence = 0;
        EXPECT_EQ(CifCountOf(fibs->data() + t * 96, &flags, &occurrence), (4990 + t) % 5000);
        const bool announcing = t >= 20 && t < 30;
        EXPECT_EQ(flags, announcing ? 1 : 0) << "CIF " << t;
        EXPECT_EQ(occurrence, announcing ? 20 : -1) << "CIF " << t;
        auto f = Fields(fibs->data() + t * 96, 3);
        // Entries of a FIG kind in this group, all equal to `entry` (the carousel may repeat them).
        auto only = [&](int key, const Bytes& entry) {
            bool ok = f[key].size() % 4 == 0;
            for (size_t i = 0; ok && i < f[key].size(); i += 4) ok = std::equal(entry.begin(), entry.end(), &f[key][i]);
            return ok;
        };
        EXPECT_TRUE(only(1, t < 30 ? before : after)) << "CIF " << t;
        EXPECT_TRUE(only(0x81, after) && (announcing || f[0x81].empty())) << "CIF " << t;
        nextSeen += !f[0x81].empty();
    }
    EXPECT_GE(nextSeen, 3);
}

// A description file with every kind of line builds; syntax errors are found
// when parsing, inconsistencies when the multiplex is built.
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
    EXPECT_TRUE(d.eid == 0xE2B0 && d.mode == 3 && d.seed == 9 && d.firstCifCount == 100);
    ASSERT_TRUE(d.services.size() == 2 && d.services[0].components.size() == 2);
    EXPECT_EQ(d.services[0].components[1].dataType, 24);
    EXPECT_EQ(d.services[1].components[0].packetAddress, 33);
    EXPECT_EQ(d.reconfiguration.newStartCu, 600);
    auto m = Build(d);
    ASSERT_TRUE(m);
    EXPECT_EQ(m->Description().subChannels[1].startCu, 10 + 42);  // 2-B at 64 kbit/s is 42 CU

    const struct { const char* text; const char* error; bool parses; } bad[] = {
        {"subchannel id=1 bitrate=48 payload=random:1 colour=red\n", "line 1", false},
        {"subchannel id=1 protection=eep-a:3 bitrate=48\n", "payload", false},
        {"subchannel id=1 start=0 protection=eep-a:5 bitrate=48 payload=random:1\n", "", false},
        {"service sid=1 component=video:1\n", "component kind", false},
        {"ensemble label=\"SEVENTEEN LETTERS\"\n", "label", false},
        {"service sid=1 label=\"a{b}\"\n", "label", false},  // no braces in EBU Latin
        {"subchannel id=1 start=0 protection=eep-a:3 bitrate=48 payload=random:1\n"
         "subchannel id=2 start=30 protection=eep-a:3 bitrate=48 payload=random:1\n", "overlap", true},
        {"subchannel id=1 start=830 protection=uep:3 bitrate=56 payload=random:1\n"
         "service sid=0xE001 component=mp2:2\n", "864", true},
    };
    for (const auto& b : bad) {
        error.clear();
        ASSERT_EQ(gen::ParseDescription(b.text, 1, 1, &d, &error), b.parses) << b.text;
        EXPECT_TRUE(b.parses ? !gen::Multiplex::Make(d, &error) : true) << b.text;
        EXPECT_TRUE(!error.empty() && error.find(b.error) != std::string::npos) << error;
    }
}

}  // namespace
