// The station's decisions, in simulated time.
#include "wifi/kv_wifi_sta_step.h"

#include "tests/support/common.h"

namespace {

using kv::StaGo;
using kv::StaLink;
using kv::StaMachine;
using kv::StaState;
using kv::StaVerdict;

constexpr char kMac[] = "02:00:00:00:00:01";

TEST(StaStep, TimeOutsMakeRoundsOfThreeWithThreeSoftResets) {
    StaMachine machine;
    std::vector<int> softResets = {StaPlanConnect(&machine, StaGo::kSoftReset)};
    for (int i = 1; i < 40; ++i) {
        softResets.push_back(StaPlanConnect(&machine, StaGo::kConnect));
    }
    std::vector<int> expected(40, 0);
    expected[3] = expected[6] = expected[9] = 1;
    EXPECT_EQ(softResets, expected);
    EXPECT_EQ(machine.retryCount, 4);
}

TEST(StaStep, BadAddressesGiveThreeSoftResetsAndNeverAnother) {
    StaMachine machine;
    std::vector<int> softResets = {StaPlanConnect(&machine, StaGo::kSoftReset)};
    for (int i = 1; i < 1000; ++i) {
        EXPECT_EQ(StaOnVerify(&machine, "", nullptr, kMac), StaVerdict::kNoAddress);
        softResets.push_back(StaPlanConnect(&machine, StaGo::kSoftReset));
    }
    std::vector<int> expected(1000, 0);
    expected[1] = expected[2] = expected[3] = 1;
    EXPECT_EQ(softResets, expected);
    // A verified link restarts the series.
    EXPECT_EQ(StaOnVerify(&machine, "1.2.3.4", nullptr, kMac), StaVerdict::kGood);
    EXPECT_EQ(StaOnLink(&machine, StaLink::kDead), StaGo::kSoftReset);
    EXPECT_EQ(StaPlanConnect(&machine, StaGo::kSoftReset), 1);
}

TEST(StaStep, AFailureInARoundsLastAttemptPassesTheSoftResetPointTwice) {
    StaMachine machine;
    (void)StaPlanConnect(&machine, StaGo::kSoftReset);
    (void)StaPlanConnect(&machine, StaGo::kConnect);
    (void)StaPlanConnect(&machine, StaGo::kConnect);
    (void)StaOnVerify(&machine, "", nullptr, kMac);
    EXPECT_EQ(StaPlanConnect(&machine, StaGo::kSoftReset), 2);
    EXPECT_EQ(machine.retryCount, 2);
    EXPECT_EQ(machine.attemptCount, 1);
}

TEST(StaStep, AssociatingTimesOutSixtySecondsAfterTheLastChange) {
    const struct {
        const char* wpaState;  // the last one was "SCANNING", at 100
        bool guardEnable;
        int64_t now;
        StaGo go;
        StaState state;
        int64_t lastChange;
    } cases[] = {
        {"SCANNING", true, 160, StaGo::kStay, StaState::kAssociating, 100},
        {"SCANNING", true, 161, StaGo::kConnect, StaState::kAssociating, 100},
        {"SCANNING", false, 1000000, StaGo::kStay, StaState::kAssociating, 100},
        {nullptr, true, 160, StaGo::kStay, StaState::kAssociating, 100},
        {nullptr, true, 161, StaGo::kConnect, StaState::kAssociating, 100},
        {nullptr, false, 1000000, StaGo::kStay, StaState::kAssociating, 100},
        {"ASSOCIATING", true, 161, StaGo::kStay, StaState::kAssociating, 161},
        {"", true, 161, StaGo::kStay, StaState::kAssociating, 161},
        {"COMPLETED", true, 161, StaGo::kStay, StaState::kAddressing, 161},
        {"COMPLETED2", true, 161, StaGo::kStay, StaState::kAssociating, 161},
    };
    for (const auto& c : cases) {
        StaMachine machine;
        (void)StaPlanConnect(&machine, StaGo::kSoftReset);
        StaOnConnected(&machine, 90);
        EXPECT_EQ(StaOnStatus(&machine, "SCANNING", true, 100), StaGo::kStay);
        EXPECT_EQ(StaOnStatus(&machine, c.wpaState, c.guardEnable, c.now), c.go) << c.now;
        EXPECT_EQ(machine.state, c.state) << c.now;
        EXPECT_EQ(machine.lastChange, c.lastChange) << c.now;
        // The connect sequence clears the text, so the same one counts as a change again.
        StaOnConnected(&machine, 5000000);
        EXPECT_EQ(StaOnStatus(&machine, "SCANNING", true, 5000061), StaGo::kStay);
    }
}

TEST(StaStep, Verifying) {
    const struct {
        const char* ip;
        const char* wantedIp;
        const char* mac;
        StaVerdict verdict;
    } cases[] = {
        {"1.2.3.4", nullptr, kMac, StaVerdict::kGood},
        {"", nullptr, kMac, StaVerdict::kNoAddress},
        {"1.2.3.4", "1.2.3.4", kMac, StaVerdict::kGood},
        {"1.2.3.4", "1.2.3.5", kMac, StaVerdict::kNoAddress},
        {"", "1.2.3.4", kMac, StaVerdict::kNoAddress},
        {"1.2.3.4", nullptr, "", StaVerdict::kNoMac},
        {"", nullptr, "", StaVerdict::kNoAddress},
        // After a failed read the buffer holds the last command, which passes.
        {"1.2.3.4", nullptr, "udhcpc -i wlan0", StaVerdict::kGood},
    };
    for (const auto& c : cases) {
        StaMachine machine;
        machine.state = StaState::kVerifying;
        machine.retryCount = 2;
        machine.attemptCount = 3;
        EXPECT_EQ(StaOnVerify(&machine, c.ip, c.wantedIp, c.mac), c.verdict) << c.ip;
        const bool good = c.verdict == StaVerdict::kGood;
        EXPECT_EQ(machine.state, good ? StaState::kGuarding : StaState::kVerifying) << c.ip;
        EXPECT_EQ(machine.retryCount, good ? 0 : 3) << c.ip;
        EXPECT_EQ(machine.attemptCount, good ? 0 : 3) << c.ip;
    }
}

TEST(StaStep, GuardLooksAtTheLinkAfterSixMissesInARow) {
    const struct {
        StaLink link;
        StaGo go;
        int retries;
    } cases[] = {
        {StaLink::kDead, StaGo::kSoftReset, 1},
        {StaLink::kNotRunning, StaGo::kConnect, 0},
        {StaLink::kFine, StaGo::kStay, 0},
    };
    for (const auto& c : cases) {
        StaMachine machine;
        machine.lastChange = 100;
        EXPECT_FALSE(StaPingDue(machine, 105));
        EXPECT_TRUE(StaPingDue(machine, 106));
        int64_t now = 106;
        const auto miss = [&] {
            EXPECT_TRUE(StaPingDue(machine, now));
            const bool look = StaOnPing(&machine, false, now);
            EXPECT_FALSE(StaPingDue(machine, now + 5));
            now += 6;
            return look;
        };
        for (int i = 0; i < 5; ++i) {
            EXPECT_FALSE(miss());
        }
        EXPECT_FALSE(StaOnPing(&machine, true, now));  // a reply restarts the count
        now += 6;
        for (int i = 0; i < 5; ++i) {
            EXPECT_FALSE(miss());
        }
        EXPECT_TRUE(miss());
        EXPECT_EQ(StaOnLink(&machine, c.link), c.go);
        EXPECT_EQ(machine.retryCount, c.retries);
        EXPECT_EQ(machine.pingFailCount, 0);
    }
}

}  // namespace
