#define KV_TRACE_NAME "some/where/module"
#include "common/kv_mini_trace.h"

#include <fcntl.h>
#include <unistd.h>

#include <atomic>
#include <regex>
#include <sstream>

#include "common/kv_raii.h"
#include "common/kv_text.h"
#include "tests/support/capture.h"

using namespace kv_test;

namespace {

Lines Split(const std::string& text) {
    Lines lines;
    std::istringstream in(text);
    for (std::string line; std::getline(in, line);) {
        lines.push_back(line);
    }
    return lines;
}

int SequenceOf(const std::string& line) {
    return std::stoi(line.substr(line.find(" [") + 2, 2));
}

}  // namespace

TEST(MiniTrace, HeaderIsExactForEveryLevel) {
    struct Row {
        void (*trace)();
        const char* head;
        const char* tail;
    };
    const Row rows[] = {
        {[] { KV_Trace(KV_LEVEL_ASSERT, KV_TRACE_NAME, 7, "fn", "m"); }, "\033[0;32;34m",
         "ASSERT /module:fn:7 \033[mm"},
        {[] { KV_Trace(KV_LEVEL_ERROR, "plain", 39, "fn", "%d%%", 5); }, "\033[0;32;31m",
         " ERROR plain:fn:39 \033[m5%"},
        {[] { KV_Trace(KV_LEVEL_FAILED, "a/b/c", 1, "fn", "m"); }, "\033[1;31m",
         "FAILED /c:fn:1 \033[mm"},
        {[] { KV_Trace(KV_LEVEL_INFO, "x", 4294967295U, "fn", "m"); }, "\033[1;33m",
         "  INFO x:fn:4294967295 \033[mm"},
        {[] { KV_Trace(KV_LEVEL_DEBUG, "x", 2, "fn", "m"); }, "\033[0;32;32m",
         " DEBUG x:fn:2 \033[mm"},
    };
    for (const Row& row : rows) {
        const Capture err(2);
        row.trace();
        const std::string text = err.Text();
        ASSERT_EQ(text.find(row.head), 0U) << text;
        const std::regex middle(
            "\\d{4}-\\d\\d-\\d\\d \\d\\d:\\d\\d:\\d\\d \\[\\d\\d\\] (\\d{4,}) ([^\\n]*)\\n");
        std::smatch match;
        const std::string rest = text.substr(std::string(row.head).size());
        ASSERT_TRUE(std::regex_match(rest, match, middle)) << text;
        EXPECT_EQ(std::stol(match[1]), static_cast<long>(getpid()));
        EXPECT_EQ(match[2], row.tail);
    }
}

TEST(MiniTrace, MacrosNameFunctionAndGivenLine) {
    const Capture err(2);
    KV_DEBUG_AT(204, "a");
    KV_ERROR_IN("elsewhere", "b");
    EXPECT_TRUE(InOrder(err.Text(), {"/module:TestBody:204 \033[ma\n", "/module:elsewhere:"}));
    KV_INFO("text\n");
    EXPECT_TRUE(Contains(err.Text(), "\033[mtext\n\n")) << "a newline in the message is kept";
}

TEST(MiniTrace, LongLineIsCutAt510Characters) {
    // The text's length with the header, and what follows its first 510 characters. The slot's end
    // is always set, so a line of 509 characters ends twice.
    const struct {
        size_t length;
        const char* end;
    } rows[] = {{508, "\n"}, {509, "\n\n"}, {510, "\n"}, {511, "\n"}, {512, "\n"}, {1200, "\n"}};
    for (const auto& row : rows) {
        const Capture empty(2);
        KV_Trace(KV_LEVEL_INFO, "x", 1, "fn", "%s", "");
        const size_t header = empty.Text().size() - 1;
        const Capture err(2);
        KV_Trace(KV_LEVEL_INFO, "x", 1, "fn", "%s", std::string(row.length - header, 'y').c_str());
        const std::string text = err.Text();
        const size_t kept = std::min<size_t>(row.length, 510);
        EXPECT_EQ(text.substr(header), std::string(kept - header, 'y') + row.end) << row.length;
    }
}

TEST(MiniTrace, SequenceRunsTo99AndWrapsWithoutGapAcrossThreads) {
    const Capture err(2);
    std::vector<std::thread> threads;
    for (int t = 0; t < 4; ++t) {
        threads.emplace_back([] {
            for (int i = 0; i < 60; ++i) {
                KV_INFO("from a thread");
            }
        });
    }
    for (auto& thread : threads) {
        thread.join();
    }
    const auto lines = Split(err.Text());
    ASSERT_EQ(lines.size(), 240U);
    bool wrapped = false;
    for (size_t i = 1; i < lines.size(); ++i) {
        const int before = SequenceOf(lines[i - 1]);
        const int after = SequenceOf(lines[i]);
        EXPECT_EQ(after, before == 99 ? 0 : before + 1);
        wrapped = wrapped || after == 0;
    }
    EXPECT_TRUE(wrapped);
}

// The log is a full pipe: a thread inside a line stays there until somebody reads.
TEST(MiniTrace, NoThreadEntersALineThatAnotherIsIn) {
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC | O_NONBLOCK), 0);
    const UniqueFd reader(ends[0]);
    UniqueFd writer(ends[1]);
    size_t filling = 0;
    while (write(writer.Get(), "x", 1) == 1) {
        ++filling;
    }
    (void)fcntl(writer.Get(), F_SETFL, 0);
    (void)fcntl(reader.Get(), F_SETFL, 0);
    const UniqueFd saved(dup(2));
    (void)dup2(writer.Get(), 2);
    writer.Reset();
    std::atomic<pid_t> ids[2] = {{0}, {0}};
    std::vector<std::thread> threads;
    for (auto& id : ids) {
        threads.emplace_back([&id] {
            id = gettid();
            KV_INFO("from a thread");
        });
    }
    for (const auto& id : ids) {
        EXPECT_TRUE(WaitUntil([&id] {
            return id != 0 &&
                   Contains(ReadFile("/proc/self/task/" + std::to_string(id) + "/stat"), ") S ");
        }));
    }
    std::string text;
    while (CountOf(text, "\n") < 2) {
        char block[4096];
        text.append(block, static_cast<size_t>(read(reader.Get(), block, sizeof(block))));
    }
    for (auto& thread : threads) {
        thread.join();
    }
    (void)dup2(saved.Get(), 2);
    const auto lines = Split(text.substr(filling));
    ASSERT_EQ(lines.size(), 2U);
    EXPECT_EQ(SequenceOf(lines[1]), (SequenceOf(lines[0]) + 1) % 100);
}

TEST(MiniTrace, KeepsErrno) {
    // Every write to it fails and sets errno.
    const UniqueFd full(open("/dev/full", O_WRONLY | O_CLOEXEC));
    const UniqueFd saved(dup(2));
    ASSERT_TRUE(full && saved);
    (void)dup2(full.Get(), 2);
    errno = EXDEV;
    KV_ERROR("a failure");
    const int after = errno;
    (void)dup2(saved.Get(), 2);
    EXPECT_EQ(after, EXDEV);
}

TEST(MiniTrace, ForeignTextsLoseTheirControlBytesOnly) {
    std::string all;
    std::string shown;
    for (int byte = 0; byte < 256; ++byte) {
        all += static_cast<char>(byte);
        shown += byte < 0x20 || byte == 0x7f ? '?' : static_cast<char>(byte);
    }
    EXPECT_EQ(kv::LogText(all.data(), all.size()).Get(), shown);
    EXPECT_EQ(kv::LogText("a\nb\0c").Get(), std::string("a?b"));
    EXPECT_EQ(kv::LogText(std::string(2000, 'x').c_str()).Get(), std::string(511, 'x'));
}

TEST(MiniTrace, DumpHoldsTheLastThreeLinesOldestFirst) {
    std::filesystem::create_directories("etc/configs");
    std::string last;
    {
        const Capture err(2);
        for (const char* text : {"A", "B", "C", "D"}) {
            KV_INFO("%s", text);
        }
        const auto lines = Split(err.Text());
        last = lines[1] + "\n" + lines[2] + "\n" + lines[3] + "\n";
    }
    KV_TraceDump(KV_TRACE_NAME, 1, "fn", "not used");
    EXPECT_EQ(ReadFile("etc/configs/assert.txt"), last);
    EXPECT_EQ(ReadFile("etc/configs/assert.ftp"), last);
}

TEST(MiniTraceDeathTest, AssertionTracesDumpsAndAborts) {
    std::filesystem::create_directories("etc/configs");
    EXPECT_DEATH(KV_ASSERT_FAIL_AT(253, "pthread create failed:%s", "why"),
                 "ASSERT /module:TestBody:253 .*pthread create failed:why\n"
                 "(.*: )?some/where/module:253: TestBody: Assertion `0' failed");
    EXPECT_TRUE(Contains(ReadFile("etc/configs/assert.txt"), "pthread create failed:why\n"));
}
