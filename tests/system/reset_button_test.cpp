// The reset button while the application is silent, on a board.
#include <fcntl.h>
#include <sys/stat.h>

#include "common/kv_raii.h"
#include "tests/support/board.h"

using namespace kv_test;

namespace {

class ResetButton : public testing::Test {
  protected:
    void SetUp() override {
        board_.StartSilent("3");
        Began(1);
    }
    // Waits until the thread has been started `times` times.
    void Began(size_t times) {
        ASSERT_TRUE(WaitUntil([&] {
            return CountOf(board_.Console(),
                           "HardwareResetProc 94: HardwareResetProc thread Start "
                           "is OK\n") == times;
        }));
    }
    void Counted(int count, size_t times) {
        const std::string line =
            "HardwareResetProc 103: hard reset count = " + std::to_string(count) + "\n";
        ASSERT_TRUE(WaitUntil([&] { return CountOf(board_.Console(), line) == times; }))
            << board_.Console();
    }
    void Line(const char* value) { WriteFile(board_.Path("gpio/GPIO26/value"), value); }
    // From now on the thread takes each sample from the front of a queue, and waits for one if the
    // queue is empty.
    void QueueSamples() {
        const std::string fifo = board_.Path("fifo");
        ASSERT_EQ(mkfifo(fifo.c_str(), 0600), 0);
        queue_.Reset(open(fifo.c_str(), O_RDWR | O_CLOEXEC));
        std::filesystem::rename(fifo, board_.Path("gpio/GPIO26/value"));
    }
    void Queue(const std::string& samples) {
        ASSERT_EQ(write(queue_.Get(), samples.data(), samples.size()),
                  static_cast<ssize_t>(samples.size()));
    }

    Board board_;
    UniqueFd queue_;
};

}  // namespace

TEST_F(ResetButton, NineSamplesAndTwoBeatsDoNothing) {
    QueueSamples();
    const auto start = Clock::now();
    Queue("000000000");
    Counted(9, 1);
    // Eight of the board's seconds.
    EXPECT_GT(SecondsSince(start), 8 / 3.0 - 0.1);
    Queue("100");
    Counted(2, 2);
    // The first beat leaves the thread counting, the second ends it. The removed marker shows that
    // the first has arrived.
    (void)board_.OnBoard("touch /param/var/miniserver_reboot");
    board_.SendBeats({kBeat});
    ASSERT_TRUE(board_.WaitConsole("# rm /param/var/miniserver_reboot\r\n"));
    Queue("00");
    Counted(4, 2);
    Began(1);
    // Two, because the first may have become too old by now. The thread wakes up for the samples.
    board_.SendBeats({kBeat, kBeat});
    Queue(std::string(1000, '1'));
    ASSERT_TRUE(board_.WaitConsole("HardwareResetProc 124: HardwareResetProc thread End is OK\n"));
    EXPECT_EQ(CountOf(board_.Console(), "hard reset count = 10\n"), 0U);
    // The next silence starts the thread again.
    Began(2);
    EXPECT_EQ(board_.Status().at("boot"), 1);
    EXPECT_EQ(board_.Echoes(), Lines{"rm /param/var/miniserver_reboot"});
}

TEST_F(ResetButton, TenSamplesResetEvenWithTheLineGone) {
    for (const char* const name :
         {"var/a", "var/miniserver_reboot", "x.debug.y", "wpa_supplicant.conf", "kept"}) {
        WriteFile(board_.Path("param/") + name, "");
    }
    // Data written there survives the boot.
    (void)board_.OnBoard("mount --bind /param/kept /proc/sys/vm/drop_caches");
    Line("0\n");
    Counted(3, 1);
    // From here on the line's last value counts.
    std::filesystem::rename(board_.Path("gpio/GPIO26"), board_.Path("gpio/away"));
    ASSERT_TRUE(board_.WaitConsole("hard reset count = 10\n"));
    std::filesystem::rename(board_.Path("gpio/away"), board_.Path("gpio/GPIO26"));
    Line("1\n");
    ASSERT_TRUE(board_.WaitBoot(2));
    EXPECT_EQ(board_.Reason(2), "reboot\n");
    EXPECT_NE(board_.Trace().find("gpio/get-value: No such file or directory\n"),
              std::string::npos);
    Lines left;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(board_.Path("param"))) {
        left.push_back(entry.path().filename());
    }
    std::sort(left.begin(), left.end());
    EXPECT_EQ(left, (Lines{"kept", "var"}));
    EXPECT_EQ(ReadFile(board_.Path("param/kept")), "1\n");
    // The factory reset does not echo its commands.
    EXPECT_TRUE(board_.Echoes().empty());
}
