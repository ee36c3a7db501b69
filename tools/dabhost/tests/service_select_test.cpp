// Choosing a service from the parsed FIC, the service command's arguments
// for both protection forms, and following an announced reconfiguration.
#include <gtest/gtest.h>

#include "service_select.h"
#include "test_ensembles.h"
#include "tools/ficparse/fic_parser.h"

namespace {

using namespace figwriter;

ficparse::FicParser Parsed(const std::vector<Bytes>& figs) {
    ficparse::FicParser parser;
    int32_t flags = 0;
    const Bytes frame = hosttest::ModeIFrame(figs, &flags);
    parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
    return parser;
}

TEST(ChooseService, ByLabelOrIdWithTheRequestOfItsPrimaryComponent) {
    std::vector<Bytes> figs = hosttest::TwoServiceFigs(true, true);
    // A data service of packet mode in sub-channel 3, and one in the FIDC.
    figs.push_back(Fig01({{3, 200, true, 0, 1, 2, 24}}));
    figs.push_back(Fig02({{0xE1E00203, 0, {{3, 7, 0, true, false}}}, {0xE1E00204, 0, {{2, 1, 0, true, false}}}}, true));
    figs.push_back(Fig03({{7, false, true, 5, 3, 9}}));
    const ficparse::FicParser parser = Parsed(figs);
    struct Case {
        const char* wanted;
        uint32_t id;
        ServiceKind kind;
        ServiceRequest request;
    } cases[] = {
        // Short form: the table index; long form: option in bit 2, level - 1 below.
        {"First", 0xC221, ServiceKind::Mp2, {0, 1, 0, 0, 26, 0, 0}},
        {"  second ", 0xC222, ServiceKind::DabPlus, {3, 2, 70, 1, 0, 2, 48}},
        {"0xc222", 0xC222, ServiceKind::DabPlus, {3, 2, 70, 1, 0, 2, 48}},
        {"C221", 0xC221, ServiceKind::Mp2, {0, 1, 0, 0, 26, 0, 0}},
        {"E1E00203", 0xE1E00203, ServiceKind::Data, {0, 3, 200, 1, 0, 0b101, 24}},
    };
    for (const Case& c : cases) {
        ServiceChoice choice;
        std::string why;
        ASSERT_TRUE(ChooseService(parser.ensemble(), c.wanted, &choice, &why)) << c.wanted << ": " << why;
        EXPECT_EQ(choice.serviceId, c.id) << c.wanted;
        EXPECT_EQ(choice.kind, c.kind) << c.wanted;
        const ServiceRequest r = RequestFor(choice.kind, choice.subChannel);
        const ServiceRequest& e = c.request;
        EXPECT_EQ(std::vector<int>({r.type, r.subChannelId, r.startAddress, r.longForm, r.tableIndex,
                                    r.optionAndLevel, r.size}),
                  std::vector<int>({e.type, e.subChannelId, e.startAddress, e.longForm, e.tableIndex,
                                    e.optionAndLevel, e.size}))
            << c.wanted;
    }
    for (const char* missing : {"Third", "0xC223", "E1E00204", ""}) {
        ServiceChoice choice;
        std::string why;
        EXPECT_FALSE(ChooseService(parser.ensemble(), missing, &choice, &why)) << missing;
        EXPECT_FALSE(why.empty());
    }
}

TEST(ReconfigurationFollower, PassesOnEachAnnouncedChangeOnceWithItsCifCount) {
    const std::vector<Bytes> current = {Fig01({{0, 0, true, 0, 0, 3, 48}})};
    ficparse::FicParser parser = Parsed(current);
    ReconfigurationFollower follower;
    follower.Select(parser.ensemble().subChannels.at(0));
    ReconfigurationFollower::Change change;
    EXPECT_FALSE(follower.Due(parser.ensemble(), &change));

    auto push = [&](const std::vector<Bytes>& figs) {
        int32_t flags = 0;
        const Bytes frame = hosttest::ModeIFrame(figs, &flags);
        parser.PushFibs(frame.data(), int32_t(frame.size()), flags);
    };
    // The next configuration alone, or the announcement alone, is not enough.
    push({Fig01({{0, 400, true, 0, 0, 2, 64}}, 0x81)});
    EXPECT_FALSE(follower.Due(parser.ensemble(), &change));
    // Announced at CIF count 4 x 250 + 240 for low part 167: the next period.
    push({Fig00(0xE1A6, 1, false, 4, 240, 167)});
    ASSERT_TRUE(follower.Due(parser.ensemble(), &change));
    EXPECT_EQ(change.next.startAddress, 400);
    EXPECT_EQ(change.cifCountHigh * 250 + change.cifCountLow, 5 * 250 + 167);
    follower.Passed(change);
    EXPECT_FALSE(follower.Due(parser.ensemble(), &change));
    EXPECT_EQ(follower.changesPassed(), 1);
    // A change that keeps the sub-channel as it is needs nothing; the CIF
    // count wraps from 4999 to 0.
    push({Fig00(0xE1A6, 1, false, 19, 100, 50), Fig01({{0, 400, true, 0, 0, 2, 64}}, 0x81)});
    EXPECT_FALSE(follower.Due(parser.ensemble(), &change));
    push({Fig01({{0, 500, true, 0, 0, 2, 64}}, 0x81)});
    ASSERT_TRUE(follower.Due(parser.ensemble(), &change));
    EXPECT_EQ(change.cifCountHigh * 250 + change.cifCountLow, 50);
}

}  // namespace
