// Parts of kvtool serve: who may talk to it, what it tells a page, which devices it remembers.
#include <poll.h>

#include <nlohmann/json.hpp>

#include "tests/support/fake_camera.h"
#include "tools/page/access.h"
#include "tools/page/device_watch.h"
#include "tools/page/model.h"
#include "tools/page/run_view.h"

namespace {

using namespace kvtool::page;
using kv_test::Contains;
using kv_test::CountOf;
using kvtool::Millis;
using nlohmann::json;

TEST(PageGate, KnowsItsOwnPage) {
    Gate gate(8080, NewToken());
    const std::string cookie = "a=b; kvtool_8080=" + gate.Token();
    const std::string own = "http://127.0.0.1:8080";
    struct Case {
        Credentials request;
        unsigned refused;
    };
    const char* const type = "application/json; charset=utf-8";
    const std::string wrong = "kvtool_8080=" + std::string(32, '0');
    const std::string shorter = cookie.substr(0, cookie.size() - 1);
    const std::string longer = cookie + "0";
    const std::string otherPort = "kvtool_8081=" + gate.Token();
    const Case cases[] = {
        {{"GET", "127.0.0.1:8080", "", cookie, "", ""}, 0},
        {{"GET", "LocalHost:8080", "", cookie, "", "same-origin"}, 0},
        {{"GET", "[::1]:8080", "", cookie, "", "none"}, 0},
        {{"POST", "127.0.0.1:8080", own, cookie, type, "same-origin"}, 0},
        // Names that point at this PC, and other ports of it.
        {{"GET", "evil.example:8080", "", cookie, "", ""}, 421},
        {{"GET", "127.0.0.1", "", cookie, "", ""}, 421},
        {{"GET", "127.0.0.1:8081", "", cookie, "", ""}, 421},
        {{"GET", "", "", cookie, "", ""}, 421},
        // Keys.
        {{"GET", "127.0.0.1:8080", "", "", "", ""}, 403},
        {{"GET", "127.0.0.1:8080", "", wrong, "", ""}, 403},
        {{"GET", "127.0.0.1:8080", "", shorter, "", ""}, 403},
        {{"GET", "127.0.0.1:8080", "", longer, "", ""}, 403},
        {{"GET", "127.0.0.1:8080", "", otherPort, "", ""}, 403},
        // Other pages. One on another port of this PC counts as the same site for cookies.
        {{"POST", "127.0.0.1:8080", "", cookie, type, ""}, 403},
        {{"POST", "127.0.0.1:8080", "null", cookie, type, ""}, 403},
        {{"POST", "127.0.0.1:8080", "http://127.0.0.1:3000", cookie, type, "same-site"}, 403},
        {{"POST", "127.0.0.1:8080", "https://127.0.0.1:8080", cookie, type, ""}, 403},
        {{"DELETE", "127.0.0.1:8080", "http://evil.example", cookie, type, "cross-site"}, 403},
        {{"GET", "127.0.0.1:8080", "http://evil.example", cookie, "", "cross-site"}, 403},
        {{"GET", "127.0.0.1:8080", "", cookie, "", "same-site"}, 403},
        {{"GET", "127.0.0.1:8080", "", cookie, "", "cross-site"}, 403},
        // What a form can send.
        {{"POST", "127.0.0.1:8080", own, cookie, "text/plain", ""}, 415},
        {{"POST", "127.0.0.1:8080", own, cookie, "application/x-www-form-urlencoded", ""}, 415},
        {{"POST", "127.0.0.1:8080", own, cookie, "", ""}, 415},
    };
    for (const Case& one : cases) {
        std::string why;
        EXPECT_EQ(gate.Refuse(one.request, true, &why), one.refused)
            << one.request.method << " " << one.request.host << " " << one.request.origin << " "
            << one.request.cookie << " " << one.request.contentType << " " << one.request.fetchSite;
    }
    EXPECT_NE(NewToken(), NewToken());
    EXPECT_EQ(gate.Token().size(), 32U);
    const std::string once = gate.TokenForBrowser();
    EXPECT_TRUE(gate.TakeToken(once));
    EXPECT_FALSE(gate.TakeToken(once)) << "it stood in the arguments of a program";
    EXPECT_FALSE(gate.TakeToken(""));
    EXPECT_TRUE(gate.TakeToken(gate.Token()) && gate.TakeToken(gate.Token()));
}

kvtool::DiscoveryReply ReplyOf(int number) {
    kvtool::DiscoveryReply reply;
    reply.mac = fake::MacOf(number);
    reply.ip = "10.7." + std::to_string(number / 250) + "." + std::to_string(number % 250 + 1);
    return reply;
}

kvtool::WatchRound Round(const std::vector<kvtool::WatchedDevice>& devices) {
    static const kvtool::DiscoveryResult nothing;
    return {devices, {}, {}, nothing};
}

TEST(PageModel, TellsEachReaderWhatIsNewToIt) {
    Model model;
    model.SetRun({{"id", 1}});
    model.SetMember(0, {{"device", "<script>"}, {"state", "uploading"}});
    uint64_t early = 0;
    const std::string first = model.EventsSince(&early);
    EXPECT_EQ(first.find("event: state\ndata: {\"schema\":1,"), 0U) << first;
    EXPECT_EQ(CountOf(first, "event:"), 1U);
    const json state = json::parse(model.State());
    EXPECT_EQ(state["run"]["members"][0]["device"], "<script>");
    EXPECT_EQ(state["package"], nullptr);
    EXPECT_EQ(model.EventsSince(&early), "");

    const Model::Reader reader(&model);
    for (int i = 0; i < 10000; ++i) {
        model.SetProgress(0, {{"bytes_acknowledged", i}});
        model.SetPackage({{"size", i}});
    }
    pollfd entry{reader.Fd(), POLLIN, 0};
    EXPECT_EQ(poll(&entry, 1, 0), 1);
    uint64_t late = 0;
    EXPECT_EQ(CountOf(model.EventsSince(&late), "event:"), 1U) << "all of it as one state";
    const std::string since = model.EventsSince(&early);
    EXPECT_EQ(CountOf(since, "event:"), 2U) << since;
    EXPECT_TRUE(kv_test::InOrder(since, {"event: package\ndata: {\"size\":9999}\n\n",
                                         "event: progress\ndata: [{\"device\":\"<script>\","
                                         "\"bytes_acknowledged\":9999}]\n\n"}))
        << since;
    reader.Rest();
    model.SetPackage({{"size", 9999}});
    EXPECT_EQ(poll(&entry, 1, 0), 0) << "nothing has changed";
    model.SetMember(0, {{"device", "<script>"}, {"state", "done"}});
    model.Note("a note");
    const std::string more = model.EventsSince(&early);
    EXPECT_TRUE(Contains(more, "\"state\":\"done\",\"bytes_acknowledged\":9999}")) << more;
    EXPECT_TRUE(Contains(more, "event: note\ndata: {\"text\":\"a note\"}\n\n")) << more;
    model.ClearMembers();
    model.SetEnding(3);
    const std::string last = model.EventsSince(&early);
    EXPECT_TRUE(kv_test::InOrder(
        last, {"event: state", "\"members\":[]", "event: ending\n", "{\"under_way\":3}"}))
        << last;
}

TEST(PageRun, OnlyTheReasonForAStopStopsIt) {
    Model model;
    RunView view({}, &model, nullptr);
    uint64_t seq = 0;
    (void)model.EventsSince(&seq);
    view.Note("1 seen alive; the others start");
    EXPECT_EQ(view.RunJson()["state"], "running");
    EXPECT_EQ(view.RunJson()["stopped"], "");
    EXPECT_EQ(CountOf(model.EventsSince(&seq), "1 seen alive"), 1U);
    view.Stopping("2 failed");
    EXPECT_EQ(view.RunJson()["state"], "stopping");
    EXPECT_EQ(CountOf(model.EventsSince(&seq), "2 failed"), 1U) << "once in the run, no note";
}

TEST(PageDevices, StayInTheListAndCannotFillTheMemory) {
    Model model;
    DeviceList list(&model);
    std::vector<kvtool::WatchedDevice> two = {{{ReplyOf(1), {"10.7.0.2"}, false}, Millis(0)},
                                              {{ReplyOf(2), {"10.7.0.3"}, false}, Millis(0)}};
    list.Take(Round(two), "T1");
    uint64_t seq = 0;
    (void)model.EventsSince(&seq);
    two[1].silent = Millis(2000);
    list.Take(Round(two), "T2");
    EXPECT_EQ(model.EventsSince(&seq), "") << "seen again is no change";
    two.pop_back();
    two[0].found.reply.firmware = "\x1b[31m<b>\u202e";
    list.Take(Round(two), "T3");
    const std::string events = model.EventsSince(&seq);
    EXPECT_EQ(CountOf(events, "event: device"), 2U) << events;
    EXPECT_TRUE(std::all_of(events.begin(), events.end(), [](char c) {
        return c == '\n' || (c >= ' ' && c <= '~');
    })) << events;
    const json devices = json::parse(model.State())["devices"];
    ASSERT_EQ(devices.size(), 2U);
    EXPECT_EQ(devices[0]["last_seen"], "T3");
    EXPECT_EQ(devices[0]["firmware"], "\\x1B[31m<b>\\xE2\\x80\\xAE");
    EXPECT_EQ(devices[1]["present"], false);
    EXPECT_EQ(devices[1]["first_seen"], "T1");
    EXPECT_EQ(devices[1]["last_seen"], "T1") << "it was silent in the second round";

    std::vector<kvtool::WatchedDevice> many;
    for (int i = 1; i <= static_cast<int>(DeviceList::kMost) + 100; ++i) {
        many.push_back({{ReplyOf(i), {"10.7.0.2"}, false}, Millis(0)});
    }
    list.Take(Round(many), "T4");
    EXPECT_EQ(json::parse(model.State())["devices"].size(), DeviceList::kMost);
}

}  // namespace
