// kvtool ladder: script language, replay, logs, picture.
#include "tests/support/common.h"
#include "tools/base/errors.h"
#include "tools/ladder/picture.h"
#include "tools/ladder/recording.h"
#include "tools/ladder/replay.h"
#include "tools/ladder/script.h"
#include "tools/ladder/timeline_json.h"

using namespace kvtool::ladder;

namespace {

Timeline Play(const std::string& script, ReplayOptions options = {}) {
    ScriptApplication application(ParseScript(script));
    return Replay(&application, options);
}

Timeline PlayLog(const std::string& text, Recording* recording = nullptr) {
    const kv_test::Folder folder;
    kv_test::WriteFile(folder.Path("log"), text);
    const Recording read = ReadLogs({folder.Path("log")});
    RecordedApplication application(read);
    ReplayOptions options;
    options.margins = true;
    Timeline timeline = Replay(&application, options);
    CompareWithLog(read, &timeline);
    if (recording != nullptr) {
        *recording = read;
    }
    return timeline;
}

// "1: offline 66 restart 183 reboot | 2m: …": the events with their seconds, without
// button_returned and started, then the end of the boot. "m": the marker was there.
std::string Steps(const Timeline& timeline) {
    std::string text;
    for (const Boot& boot : timeline.boots) {
        text +=
            (text.empty() ? "" : " | ") + std::to_string(boot.number) + (boot.marker ? "m:" : ":");
        for (const Event& event : boot.events) {
            if (event.kind != EventKind::kButtonReturned && event.kind != EventKind::kStarted) {
                text += std::string(" ") + EventName(event.kind) + " " +
                        std::to_string(event.at / 1000);
            }
        }
        text += std::string(" ") + EndName(boot.end);
    }
    return text + (timeline.repeats ? " repeats " + std::to_string(*timeline.repeats) : "");
}

std::string ScriptError(const std::string& script) {
    try {
        (void)ParseScript(script);
    } catch (const kvtool::ToolError& error) {
        EXPECT_EQ(error.Code(), kvtool::ExitCode::kUsage);
        return error.what();
    }
    return "";
}

// Trace lines as the supervisor writes them. Each has the next counter.
class TraceText {
  public:
    void Boot() { sequence_ = 0; }
    void Line(int at, const std::string& place, const std::string& message) {
        char text[256];
        (void)snprintf(text, sizeof(text),
                       "\033[0;32;32m2025-11-25 %02d:%02d:%02d [%02d] 0042  DEBUG %s \033[m%s\n",
                       at / 3600, at / 60 % 60, at % 60, sequence_++ % 100, place.c_str(),
                       message.c_str());
        text_ += text;
    }
    void Start(int at) {
        Boot();
        Line(at, "flash/kv_fullhan_watdog:KV_FH_WDT_Start:127", "Watchdog Timeout:30");
        Line(at, "upgrade_main:main:338", "app file exist!");
    }
    void Monitor(int at, const std::string& message) {
        Line(at, "upgrade_main:__KV_cameraMainProcessHandle:204", message);
    }
    void Online(int at) { Monitor(at, "Process cameraMain online"); }
    void Silence(int at, int seconds) {
        Monitor(at,
                "Proces->start_timeout = 120, cameraMain off time = " + std::to_string(seconds));
    }
    void Offline(int at, int seconds) {
        Silence(at, seconds);
        Monitor(at, "Process [cameraMain] offline");
    }
    void Raw(const std::string& text) { text_ += text; }
    void Skip(int lines) { sequence_ += lines; }
    const std::string& Text() const { return text_; }

  private:
    std::string text_;
    int sequence_ = 0;
};

}  // namespace

TEST(Ladder, FollowsAnApplicationThroughItsBoots) {
    const struct {
        const char* script;
        const char* steps;
    } rows[] = {
        {"silent",
         "1: offline 6 restart 123 reboot 186 reboot | "
         "2m: offline 6 restart 123 recovery 186 recovery"},
        {"silent 95s, beat", "1: offline 6 online 95 settled"},
        // The restart begins the start-up again.
        {"silent 130s, beat",
         "1: offline 6 restart 123 reboot 186 reboot | "
         "2m: offline 6 restart 123 recovery 186 recovery"},
        {"silent 130s, beat; restart: continue", "1: offline 6 restart 123 online 130 settled"},
        // What the old application sends before startapp.sh waits while the supervisor is busy.
        {"silent 124s, beat 0.5s, silent; restart: silent",
         "1: offline 6 restart 123 online 126 offline 132 reboot 249 reboot | "
         "2m: offline 6 restart 123 online 126 marker_removed 126 offline 132 reboot 249 reboot "
         "repeats 2"},
        {"silent 10s, beat 20s, power-cut; boot: not-ready",
         "1: offline 6 online 10 power_cut 30 power_cut | 2: settled"},
        {"silent; boot: beat",
         "1: offline 6 restart 123 reboot 186 reboot | "
         "2m: marker_removed 0 settled"},
        {"silent; boot: silent; restart: repeat 2 (beat 1s, silent 9s), power-cut",
         "1: offline 6 restart 123 reboot 186 reboot | "
         "2m: offline 6 restart 123 online 126 marker_removed 126 offline 135 online 136 "
         "offline 144 power_cut 146 power_cut | 3: offline 6 restart 123 online 126 offline 135 "
         "online 136 offline 144 power_cut 146 power_cut repeats 3"},
        {"beat 3s, silent 5.9s, beat", "1: settled"},
        {"repeat (silent 10s)",
         "1: offline 6 restart 123 reboot 186 reboot | "
         "2m: offline 6 restart 123 recovery 186 recovery"},
        {"repeat 1000000 (repeat 1000000 (silent 1s))",
         "1: offline 6 restart 123 reboot 186 reboot | "
         "2m: offline 6 restart 123 recovery 186 limit"},
        {"beat every 7s", "1: offline 6 online 7 offline 27 online 28 offline 48 online 49 limit"},
    };
    for (const auto& row : rows) {
        ReplayOptions options;
        options.limit = std::string(row.script) == "beat every 7s" ? 62'000 : options.limit;
        EXPECT_EQ(Steps(Play(row.script, options)), row.steps) << row.script;
    }
}

TEST(Ladder, ErrorsOfAScriptNameTheWord) {
    const struct {
        const char* script;
        const char* error;
    } rows[] = {
        {"beat 1s, silnet 2s", "at 'silnet': unknown word (did you mean 'silent'?), character 10"},
        {"beat 60", "at the end: a time needs a unit: s, min or h, character 8"},
        {"beat 60 m", "at 'm': a time needs a unit"},
        {"beat 0s", "at '0': a time must be longer than 0"},
        {"beat 1..5s", "at '1..5': not a number"},
        {"beat, silent", "at 'silent': the step before it has no time, so this one never begins"},
        {"power-cut, beat", "at 'beat': nothing follows a power cut"},
        {"", "at the end: expected a step"},
        {"beat 1s,", "at the end: expected a step"},
        {"beat 1s silent", "at 'silent': expected ',' and a step"},
        {"beat 1s every", "at the end: 'every' needs a time"},
        {"repeat (beat once)", "at '(': a repetition must take some time"},
        {"repeat 0 (beat 1s)", "at '0': repeat 1 to 1000000 times"},
        {"repeat 2 (beat)", "at '2': a repetition needs steps that end"},
        {"repeat 2 beat", "at 'beat': expected '('"},
        {"beat 1s; beat", "at 'beat': expected 'boot:' or 'restart:' after ';'"},
        {"restart: beat", "at 'restart': the script must say first"},
        {"beat; restart: beat; restart: beat", "at 'restart': there is only one restart"},
        {"beat; boott: beat", "at 'boott': unknown label (did you mean 'boot'?)"},
        {"beat \033[2J", "at '\\x1B[': unknown word"},
    };
    for (const auto& row : rows) {
        EXPECT_NE(ScriptError(row.script).find(row.error), std::string::npos)
            << row.script << ": " << ScriptError(row.script);
    }
    std::string deep = "beat";
    for (int i = 0; i < 1000; ++i) {
        deep.insert(0, "repeat(");
    }
    EXPECT_NE(ScriptError(deep).find("too many repetitions"), std::string::npos);
    EXPECT_EQ(ParseDuration("1h30min 0.5s"), 5'400'500);
}

TEST(Ladder, MarginsSayHowLateAHeartbeatCouldHaveCome) {
    ReplayOptions options;
    options.margins = true;
    const Timeline timeline = Play(
        "beat 10s, silent 95s, beat 4s, silent; restart: silent 30s, beat 1s, silent", options);
    const Margins& margins = timeline.boots[0].margins;
    ASSERT_TRUE(margins.closest);
    EXPECT_EQ(margins.closest->steps[0].later, 5000);
    ASSERT_EQ(margins.beats.size(), 2U);
    EXPECT_EQ(margins.beats[0].at, 105'000);
    EXPECT_EQ(margins.beats[0].silence, 95'000);
    // Restart at 132, reboot 63 s after it.
    ASSERT_EQ(margins.beats[0].steps.size(), 2U);
    EXPECT_EQ(margins.beats[0].steps[0].step, EventKind::kRestart);
    EXPECT_EQ(margins.beats[0].steps[0].later, 27'000);
    EXPECT_EQ(margins.beats[0].steps[1].step, EventKind::kReboot);
    EXPECT_EQ(margins.beats[0].steps[1].later, 90'000);
    // Silent from 109 on: restart at 231. The next heartbeat comes 33 s too late to prevent it.
    const auto missed =
        std::find_if(margins.missed.begin(), margins.missed.end(),
                     [](const MissedBeat& beat) { return beat.step == EventKind::kRestart; });
    ASSERT_NE(missed, margins.missed.end());
    EXPECT_EQ(missed->at, 231'000);
    EXPECT_EQ(missed->late, 33'000);
    EXPECT_EQ(margins.missed.back().step, EventKind::kReboot);
    EXPECT_FALSE(margins.missed.back().late);

    // A heartbeat as late as its margin is in time; a check later it is not.
    EXPECT_EQ(Steps(Play("beat 10s, silent 122s, beat")), "1: offline 18 online 132 settled");
    EXPECT_EQ(Steps(Play("beat 10s, silent 122.1s, beat; restart: continue")),
              "1: offline 18 restart 132 online 135 settled");
}

TEST(Ladder, ReadsHeartbeatLogs) {
    EXPECT_EQ(Steps(PlayLog("# by hand\n0 boot\n9 ready\n10 not-ready # later\n200 end\n")),
              "1: offline 6 online 9 offline 18 restart 132 reboot 195 reboot");
    // What follows a reboot of the replay belongs to its next boot.
    EXPECT_EQ(Steps(PlayLog("100 1\n101 1\n300 1\n301 0\n310 end\n")),
              "1: offline 9 restart 123 reboot 186 reboot | 2m: offline 6 online 14 "
              "marker_removed 14 offline 21 input_end");
    EXPECT_EQ(Steps(PlayLog("2026-11-25 21:00:00 boot\n2026-11-25 21:00:07.5 1\n"
                            "2026-11-26T00:00:00 boot\n2026-11-26T00:00:07 end\n")),
              "1: offline 6 online 7 power_cut 7 power_cut | 2: offline 6 input_end");
    for (const char* wrong :
         {"5 1\n4 1\n", "x\n", "5 redy\n", "1e99 1\n", "nan 1\n", "\n", "# no\n"}) {
        EXPECT_THROW((void)PlayLog(wrong), kvtool::ToolError) << wrong;
    }
}

TEST(Ladder, ReadsTheSupervisorsTrace) {
    TraceText trace;
    trace.Start(10);
    trace.Online(12);
    trace.Online(16);  // the one at 17 is not logged
    for (int at = 25; at <= 130; at += 3) {
        trace.Offline(at, at - 17);
    }
    trace.Raw("# startapp.sh\r\n");
    // One heartbeat that is not logged ends the silence at 135.
    trace.Offline(142, 7);
    trace.Raw("host [   12.3] serial: ");
    trace.Online(144);
    trace.Start(1000);
    trace.Raw("# rm /param/var/miniserver_reboot\r\n");
    trace.Online(1004);
    Timeline timeline = PlayLog(trace.Text());
    EXPECT_EQ(Steps(timeline),
              "1: offline 15 online 125 offline 132 online 134 power_cut 134 power_cut | "
              "2m: marker_removed 4 input_end");
    EXPECT_EQ(timeline.differences, std::vector<std::string>{});
    EXPECT_EQ(timeline.boots[0].events[0].seen, 15'000);
    EXPECT_TRUE(timeline.boots[0].notes.empty());
}

TEST(Ladder, TheTraceOfALadderAgreesWithItsReplay) {
    TraceText trace;
    for (int boot = 0; boot < 2; ++boot) {
        trace.Start(10);
        for (int at = 16; at <= 193; at += 3) {
            trace.Silence(at, at < 136 ? at - 10 : at - 73);
            if (at != 193) {
                trace.Monitor(at, "Process [cameraMain] offline");
            }
        }
        trace.Silence(196, 123);
        if (boot == 0) {
            trace.Line(196, "flash/kv_fullhan_watdog:KV_FH_WDT_Reboot:98",
                       "Start to stop feeding the dog!");
            trace.Line(196, "flash/kv_fullhan_watdog:KV_FH_WDT_Reboot:105",
                       "Wait for the watchdog to restart!");
        } else {
            trace.Line(197, "mini/kv_mini_protocol:KV_MINI_ProtocolInit:1",
                       "MINI ProtocolInit Init Success!");
            trace.Monitor(197, "Process [cameraMain] offline");
        }
    }
    const Timeline timeline = PlayLog(trace.Text());
    EXPECT_EQ(Steps(timeline),
              "1: offline 6 restart 123 reboot 186 reboot | "
              "2m: offline 6 restart 123 recovery 186 recovery");
    EXPECT_EQ(timeline.differences, std::vector<std::string>{});

    // A log without the restart contradicts the replay.
    TraceText other;
    other.Start(10);
    for (int at = 16; at <= 163; at += 3) {
        other.Offline(at, at - 10 > 120 ? 120 : at - 10);
    }
    EXPECT_EQ(PlayLog(other.Text()).differences.size(), 1U);
}

TEST(Ladder, TellsWhatALogLeavesOut) {
    // The last lines of a boot that has had its restart before.
    TraceText cut;
    cut.Skip(40);
    cut.Offline(500, 118);
    cut.Silence(503, 121);
    cut.Line(503, "flash/kv_fullhan_watdog:KV_FH_WDT_Reboot:98", "Start to stop feeding the dog!");
    Timeline timeline = PlayLog(cut.Text());
    EXPECT_EQ(Steps(timeline), "1: offline 6 reboot 123 reboot");
    ASSERT_EQ(timeline.boots[0].notes.size(), 1U);

    TraceText gaps;
    gaps.Start(10);
    gaps.Online(12);
    gaps.Skip(3);
    gaps.Online(24);    // no line tells of a silence
    gaps.Online(3700);  // the clock was set
    timeline = PlayLog(gaps.Text());
    EXPECT_EQ(Steps(timeline), "1: input_end");
    EXPECT_EQ(timeline.boots[0].notes.size(), 2U);
    EXPECT_LT(timeline.boots[0].length, 20'000);

    // No application; a boot that writes flash; a kept log that says the marker exists.
    TraceText rest;
    rest.Raw("# upgrade_keep_log.sh: boot 000007, no marker\n");
    rest.Line(1, "mini/kv_mini_protocol:KV_MINI_ProtocolInit:1", "MINI ProtocolInit Init Success!");
    rest.Line(1, "upgrade_main:main:327", "app file not exist!");
    rest.Raw("# upgrade_keep_log.sh: boot 000008, marker exists\n");
    rest.Start(5);
    rest.Line(7, "flash/kv_fullhan_flash:KV_UPGRADE_Proc:9", "ic is PRT7K");
    EXPECT_EQ(Steps(PlayLog(rest.Text())),
              "1: recovery 0 power_cut 0 power_cut | 2m: upgrade 2 recovery");
}

TEST(Ladder, ThePictureIsWellFormedAndNeedsNothingElse) {
    const std::string picture =
        Picture(Play("beat 2h, silent; restart: silent 40s, not-ready 20s, beat"), "<a & \"b\">");
    const kv_test::Folder folder;
    kv_test::WriteFile(folder.Path("picture.svg"), picture);
    const auto parsed = kv_test::Run(
        "python3 -c 'import sys, xml.etree.ElementTree as t; r = t.parse(sys.argv[1]).getroot(); "
        "print(r[0].text, r[0].tag, r[1].tag, r.get(\"role\"))' " +
        folder.Path("picture.svg"));
    EXPECT_EQ(parsed.status, 0) << parsed.output;
    EXPECT_EQ(
        parsed.output,
        "<a & \"b\"> {http://www.w3.org/2000/svg}title {http://www.w3.org/2000/svg}desc img\n");
    EXPECT_TRUE(kv_test::Contains(picture, "prefers-color-scheme: dark"));
    EXPECT_TRUE(kv_test::Contains(picture, "2:02:03: restart: 123 s of silence"));
    EXPECT_EQ(kv_test::CountOf(picture, "http"), 1U);

    // A picture of a long log stays small, and its text says what is left out.
    ReplayOptions options;
    const std::string flapping =
        Picture(Play("repeat (beat 10s, silent 11s)", options), "flapping");
    EXPECT_LT(flapping.size(), 400'000U);
    EXPECT_TRUE(kv_test::Contains(flapping, "more events"));
}
