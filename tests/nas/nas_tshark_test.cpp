// tshark, an independent dissector, reads every NAS message the encoders write.
#include <gtest/gtest.h>

#include <map>

#include "nas_testlib.h"

namespace {

bool problem(const TsharkFields& f, std::string& why) {
    for (const TsharkField& x : f) {
        if (x.key == "nas_5gs.extraneous_data" || x.key == "nas_eps.extraneous_data" || x.key == "_ws.malformed" ||
            x.key == "_ws.expert.message") {
            why += x.key + " " + x.value + "; ";
        }
    }
    return !why.empty();
}

// Left out of the all-IE forms: the network's form of the detach request has the cause and no identity
// (it is checked on its own below); tshark 4.0 reads SS code and LCS indicator as one octet each.
const std::map<std::string, std::set<std::string>> kLeaveOut = {
    {"Detach_request", {"mEMMCause"}},
    {"CS_Service_notification", {"mSSCode", "mLCSIndicator"}},
};

void checkFamily(const NasFamily& fam, bool allOptional) {
    std::vector<std::vector<uint8_t>> packets;
    std::vector<std::vector<std::string>> ieis;
    std::vector<std::string> names;
    for (uint16_t i = 0; i < fam.count; i++) {
        const NasMsgDesc* m = fam.msgs[i];
        auto lo = kLeaveOut.find(m->name);
        void* r = sampleRecord(m, allOptional, lo == kLeaveOut.end() ? std::set<std::string>{} : lo->second);
        packets.push_back(encodeRecord(m, r));
        ieis.push_back(encodedIeis(m, r));
        names.push_back(m->name);
        free(r);
    }
    bool fg = fam.discriminator == MV_5GS_MM_EPD || fam.discriminator == MV_5GS_SM_EPD;
    TsharkRun run = runTshark(fg ? "nas-5gs" : "nas-eps", packets);
    EXPECT_EQ(run.rc, 0) << run.report;
    ASSERT_EQ(run.packets.size(), packets.size()) << run.report;
    for (size_t i = 0; i < packets.size(); i++) {
        SCOPED_TRACE(names[i] + " " + toHex(packets[i]));
        std::string why;
        EXPECT_FALSE(problem(run.packets[i], why)) << why;
        EXPECT_EQ(tsharkIeis(run.packets[i]), ieis[i]);
    }
}

TEST(NasTshark, EveryMessageDissectsCleanWithEveryIe) {
    if (!tsharkAvailable()) GTEST_SKIP() << "tshark is not installed";
    for (const NasFamily& f : kNasFamilies) {
        SCOPED_TRACE(f.name);
        checkFamily(f, true);
        checkFamily(f, false);
    }
}

}  // namespace
