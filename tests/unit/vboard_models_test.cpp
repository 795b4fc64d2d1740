#include <linux/watchdog.h>

#include <stdexcept>

#include "tests/support/common.h"
#include "vboard/devices/faults.h"
#include "vboard/devices/nor_flash.h"
#include "vboard/devices/watchdog_timer.h"

using namespace kv_test;
using namespace vboard;
using namespace std::chrono_literals;

namespace {

constexpr int64_t kBlock = 65536;

TEST(NorFlash, ClearsBitsOnProgramAndSetsThemOnErase) {
    const Folder folder;
    const std::string file = folder.Path("nor");
    NorFlash flash(file, 2 * kBlock, kBlock);
    EXPECT_EQ(ReadFile(file), std::string(2 * kBlock, '\xFF'));

    EXPECT_EQ(flash.Program(kBlock - 1, "\x0F\xF0", 2).result, 2);
    const ProgramResult again = flash.Program(kBlock - 2, "\xFF\x3C\x3C", 3);
    EXPECT_EQ(again.result, 3);
    EXPECT_EQ(again.bitsKept, 4U);  // 0x30 in the first byte and 0x0C in the second
    EXPECT_EQ(again.firstKept, static_cast<uint64_t>(kBlock - 1));
    EXPECT_EQ(ReadFile(file).substr(kBlock - 2, 4), "\xFF\x0C\x30\xFF");

    NorFlash reopened(file, 2 * kBlock, kBlock);
    EXPECT_EQ(reopened.Erase(kBlock, kBlock), 0);
    EXPECT_EQ(ReadFile(file).substr(kBlock - 2, 4), "\xFF\x0C\xFF\xFF");
}

TEST(NorFlash, KeepsToItsEndAndItsBlocks) {
    const Folder folder;
    const std::string file = folder.Path("nor");
    NorFlash flash(file, 2 * kBlock, kBlock);
    char buffer[8] = {};
    EXPECT_EQ(flash.Program(2 * kBlock - 3, "abcdef", 6).result, 3);
    EXPECT_EQ(flash.Program(2 * kBlock, "a", 1).result, -ENOSPC);
    EXPECT_EQ(flash.Read(2 * kBlock - 3, buffer, 8), 3);
    EXPECT_STREQ(buffer, "abc");
    EXPECT_EQ(flash.Read(2 * kBlock, buffer, 8), 0);

    const std::pair<uint64_t, uint64_t> refused[] = {
        {1, kBlock}, {0, kBlock - 1}, {0, 3 * kBlock}, {2 * kBlock, kBlock}, {kBlock, ~0U}};
    for (const auto& [start, length] : refused) {
        EXPECT_EQ(flash.Erase(start, length), -EINVAL) << start << " " << length;
    }
    EXPECT_EQ(ReadFile(file).substr(2 * kBlock - 3), "abc");

    EXPECT_THROW(NorFlash(file, kBlock, kBlock), std::runtime_error);  // the file is larger
    EXPECT_THROW(NorFlash(file + "2", kBlock + 1, kBlock), std::runtime_error);
    EXPECT_THROW(NorFlash("/nowhere/nor", kBlock, kBlock), std::runtime_error);
}

TEST(NorFlash, TakesTheChipsTimeAndCanBeCutShort) {
    const Folder folder;
    const std::string file = folder.Path("nor");
    NorFlash flash(file, 2 * kBlock, kBlock);
    int steps = 0;
    StepEnd third = StepEnd::kCut;
    std::chrono::microseconds busy{0};
    const StepGate powerFailsAtStep3 = [&](std::chrono::microseconds step) {
        busy += step;
        return ++steps < 3 ? StepEnd::kWhole : third;
    };
    // 100 … 899 covers pages 0 … 3. The power fails in page 2.
    EXPECT_EQ(flash.Program(100, std::string(800, 'x').data(), 800, powerFailsAtStep3).result,
              -ENODEV);
    EXPECT_EQ(busy, 3 * kv::kNorPageProgram);
    EXPECT_EQ(ReadFile(file).substr(0, 600),
              std::string(100, '\xFF') + std::string(412, 'x') + std::string(88, '\xFF'));

    const std::string zeros(2 * kBlock, '\0');
    ASSERT_EQ(flash.Program(0, zeros.data(), zeros.size()).result, 2 * kBlock);
    steps = 1;
    busy = 0us;
    EXPECT_EQ(flash.Erase(0, 2 * kBlock, powerFailsAtStep3), -ENODEV);
    EXPECT_EQ(busy, 300ms);
    EXPECT_EQ(ReadFile(file), std::string(kBlock * 3 / 2, '\xFF') + std::string(kBlock / 2, '\0'));

    // The same block and the last 12 bytes of a page, cut at a chosen place.
    const struct {
        StepEnd end;
        std::string block;
        std::string page;
    } rows[] = {
        {StepEnd::kFirstHalf, std::string(kBlock / 2, '\xFF') + std::string(kBlock / 2, 'b'),
         "aaaaaa\xFF\xFF\xFF\xFF\xFF\xFF"},
        {StepEnd::kSecondHalf, std::string(kBlock / 2, 'b') + std::string(kBlock / 2, '\xFF'),
         "\xFF\xFF\xFF\xFF\xFF\xFF"
         "aaaaaa"},
        {StepEnd::kLast, std::string(kBlock, '\xFF'), "aaaaaaaaaaaa"},
    };
    for (const auto& row : rows) {
        third = row.end;
        ASSERT_EQ(flash.Erase(0, 2 * kBlock), 0);
        ASSERT_GT(flash.Program(0, std::string(kBlock, 'b').data(), kBlock).result, 0);
        steps = 2;
        EXPECT_EQ(flash.Erase(0, kBlock, powerFailsAtStep3), -ENODEV);
        EXPECT_TRUE(ReadFile(file).substr(0, kBlock) == row.block);
        steps = 2;
        EXPECT_EQ(flash.Program(kBlock + 244, std::string(300, 'a').data(), 300, powerFailsAtStep3)
                      .result,
                  -ENODEV);
        EXPECT_EQ(ReadFile(file).substr(kBlock + 244, 14), row.page + "\xFF\xFF");
    }
}

class WatchdogTimerTest : public ::testing::Test {
  protected:
    WatchdogTimer::Time At(double seconds) const {
        return WatchdogTimer::Time() + 1h +
               std::chrono::duration_cast<std::chrono::nanoseconds>(
                   std::chrono::duration<double>(seconds));
    }
    WatchdogTimer timer_;
};

TEST_F(WatchdogTimerTest, StarvesUnlessFed) {
    EXPECT_FALSE(timer_.Starved(At(1000)));
    EXPECT_EQ(timer_.Open(At(0)), 0);
    EXPECT_EQ(timer_.Open(At(0)), -EBUSY);
    EXPECT_EQ(timer_.Deadline(), At(60));
    for (const int refused : {0, -1, kWatchdogMaxTimeout + 1}) {
        EXPECT_EQ(timer_.SetTimeout(refused, At(1)), -EINVAL);
    }
    EXPECT_EQ(timer_.SetTimeout(30, At(10)), 0);  // feeds
    EXPECT_EQ(timer_.Deadline(), At(40));
    timer_.KeepAlive(At(20));
    timer_.Write("x", 1, At(30));
    timer_.Write("V", 0, At(35));
    EXPECT_EQ(timer_.TimeLeft(At(40.5)), 19);
    EXPECT_EQ(timer_.Status(At(40.5)).feeds, 3U);
    EXPECT_DOUBLE_EQ(timer_.Status(At(40.5)).secondsSinceFeed, 10.5);
    EXPECT_DOUBLE_EQ(timer_.Status(At(40.5)).largestGapSeconds, 10);
    EXPECT_FALSE(timer_.Starved(At(59.999)));

    // Too late for any rescue, even though nobody has asked for the time since.
    timer_.KeepAlive(At(60));
    (void)timer_.SetTimeout(100, At(60));
    (void)timer_.SetOptions(WDIOS_DISABLECARD, At(60));
    EXPECT_TRUE(timer_.Starved(At(60)));
    EXPECT_EQ(timer_.Deadline(), At(60));
    timer_.PowerOn();
    EXPECT_FALSE(timer_.Starved(At(1000)));
    EXPECT_EQ(timer_.Timeout(), 60);
    EXPECT_EQ(timer_.Status(At(1000)).feeds, 3U);
    EXPECT_DOUBLE_EQ(timer_.Status(At(1000)).largestGapSeconds, 10);
}

TEST_F(WatchdogTimerTest, DisarmsOnlyWhenAsked) {
    EXPECT_EQ(timer_.SetOptions(0, At(0)), -EINVAL);
    EXPECT_EQ(timer_.Open(At(0)), 0);
    timer_.Write("V", 1, At(1));
    timer_.Write("x", 1, At(1));  // revokes the earlier permission
    timer_.Release(At(2));
    EXPECT_EQ(timer_.Deadline(), At(62));
    EXPECT_EQ(timer_.Open(At(3)), 0);  // does not feed a running timer
    EXPECT_EQ(timer_.Deadline(), At(62));
    timer_.Write("xVx", 3, At(4));
    timer_.Release(At(5));
    EXPECT_FALSE(timer_.Deadline().has_value());

    EXPECT_EQ(timer_.Open(At(10)), 0);
    EXPECT_EQ(timer_.SetOptions(WDIOS_DISABLECARD, At(11)), 0);
    EXPECT_FALSE(timer_.Deadline().has_value());
    timer_.KeepAlive(At(12));  // no effect while disarmed
    EXPECT_FALSE(timer_.Starved(At(1000)));
    EXPECT_EQ(timer_.SetOptions(WDIOS_ENABLECARD, At(1000)), 0);
    EXPECT_EQ(timer_.Deadline(), At(1060));
}

TEST(FaultsTest, CountSeparately) {
    Faults faults;
    faults.Add({"mtd3", "write", EIO, 0, 2, 1});
    faults.Add({"mtd3", "write", 0, 100, 1, 2});
    const auto next = [&] {
        const auto fault = faults.Take("mtd3", "write");
        return fault ? std::make_pair(fault->error, fault->shortBytes) : std::make_pair(-1, 0U);
    };
    EXPECT_EQ(next(), std::make_pair(-1, 0U));
    EXPECT_FALSE(faults.Take("mtd4", "write") || faults.Take("mtd3", "read"));
    EXPECT_EQ(next(), std::make_pair(0, 100U));
    EXPECT_EQ(next(), std::make_pair(EIO, 0U));
    EXPECT_EQ(next(), std::make_pair(0, 100U));
    EXPECT_EQ(next(), std::make_pair(-1, 0U));
    // Any partition, but not the watchdog.
    faults.Add({kAnyPartition, "write", EIO, 0, 1});
    EXPECT_FALSE(faults.Take("mtd3", "write") || faults.Take(kWatchdog, "write"));
    EXPECT_TRUE(faults.Take("mtd5", "write"));
    EXPECT_THROW(faults.Add({"mtd3", "wirte", EIO}), std::runtime_error);
    EXPECT_THROW(faults.Add({"mtd3", "erase", 0}), std::runtime_error);
    EXPECT_THROW(faults.Add({"mtd3", "erase", EIO, 0, 0, 0}), std::runtime_error);
    EXPECT_THROW(faults.Add({kWatchdog, "erase", EIO}), std::runtime_error);
}

TEST(PowerFaultTest, HappensAtItsStepOnce) {
    PowerFault power;
    EXPECT_FALSE(power.Armed());
    EXPECT_EQ(power.Next(), StepEnd::kWhole);
    for (const auto& [place, end] :
         {std::pair(PowerCut::Place::kAfter, StepEnd::kLast),
          std::pair(PowerCut::Place::kFirstHalf, StepEnd::kFirstHalf),
          std::pair(PowerCut::Place::kSecondHalf, StepEnd::kSecondHalf)}) {
        power.Set({5, PowerCut::Place::kAfter});
        power.Set({2, place});  // replaces it
        EXPECT_TRUE(power.Armed());
        EXPECT_EQ(power.Next(), StepEnd::kWhole);
        EXPECT_EQ(power.Next(), end);
        EXPECT_FALSE(power.Armed());
        EXPECT_EQ(power.Next(), StepEnd::kWhole);
    }
}

}  // namespace
