// kvtool serve as a program: requests over HTTP, and upgrades of scripted devices.
#include <csignal>
#include <memory>
#include <nlohmann/json.hpp>

#include "tests/support/fake_camera.h"
#include "tests/support/surroundings.h"
#include "tests/support/tcp_client.h"

namespace {

using fake::Camera;
using fake::Script;
using kv_test::Contains;
using kv_test::CountOf;
using nlohmann::json;

struct Answer {
    int status = 0;
    std::string head;
    std::string body;
    json Json() const { return json::parse(body, nullptr, false); }
};

// Sends bytes and reads until the server closes the connection.
Answer Exchange(uint16_t port, const std::string& bytes) {
    const kv_test::TcpClient client(port);
    (void)client.Send(bytes);
    const std::string all = client.Receive(4 << 20);
    Answer answer;
    const size_t end = std::min(all.find("\r\n\r\n"), all.size());
    answer.head = all.substr(0, end);
    answer.body = end + 4 <= all.size() ? all.substr(end + 4) : "";
    answer.status = all.size() > 12 ? atoi(all.substr(9, 3).c_str()) : 0;
    return answer;
}

// The program `kvtool serve` with what a browser would send to it.
class Served {
  public:
    explicit Served(const std::string& options = "") {
        const std::string out = WorkFolder().Path("out");
        (void)unlink(out.c_str());
        pid_ = fork();
        if (pid_ == 0) {
            const std::string line =
                std::string("exec " KVTOOL_PATH
                            " serve --no-browser --json --interface lo "
                            "--leave-timeout 20 --back-timeout 20 --journal ") +
                WorkFolder().Path("j") + " " + options + " >" + out + " 2>" +
                WorkFolder().Path("err");
            (void)execl("/bin/sh", "sh", "-c", line.c_str(), nullptr);
            _exit(127);
        }
        EXPECT_TRUE(kv_test::WaitUntil([&] { return Contains(kv_test::ReadFile(out), "\n"); }))
            << kv_test::ReadFile(WorkFolder().Path("err"));
        const json ready = json::parse(kv_test::ReadFile(out), nullptr, false);
        port = ready.value("port", uint16_t{0});
        token = ready.value("address", std::string("="));
        token = token.substr(token.find('=') + 1);
    }
    ~Served() { (void)End(SIGKILL); }
    Served(const Served&) = delete;
    Served& operator=(const Served&) = delete;

    int End(int signal) {
        if (pid_ <= 0) {
            return -1;
        }
        (void)kill(pid_, signal);
        return Await();
    }
    int Await() {
        int status = 0;
        (void)waitpid(pid_, &status, 0);
        pid_ = -1;
        return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    }
    void Signal(int signal) const { (void)kill(pid_, signal); }

    std::string Own() const { return "127.0.0.1:" + std::to_string(port); }
    std::string Cookie() const {
        return "Cookie: kvtool_" + std::to_string(port) + "=" + token + "\r\n";
    }
    std::string Head(const std::string& line) const {
        return line + " HTTP/1.1\r\nHost: " + Own() + "\r\nConnection: close\r\n";
    }
    Answer Get(const std::string& path) const {
        return Exchange(port, Head("GET " + path) + Cookie() + "\r\n");
    }
    Answer Post(const std::string& path, const std::string& body,
                const std::string& type = "application/json") const {
        return Exchange(port, Head("POST " + path) + Cookie() + "Origin: http://" + Own() +
                                  "\r\nContent-Type: " + type + "\r\nContent-Length: " +
                                  std::to_string(body.size()) + "\r\n\r\n" + body);
    }
    json State() const { return Get("/api/state").Json(); }
    // A plan, and then its run.
    json Begin(const std::string& path, const std::string& request) const {
        const json plan = Post(path, request).Json();
        EXPECT_TRUE(plan.contains("id")) << plan;
        const json run =
            Post("/api/run", "{\"plan\":" + std::to_string(plan.value("id", 0)) + "}").Json();
        EXPECT_EQ(run.value("state", ""), "running") << run;
        return plan;
    }
    bool AwaitEnd() const {
        return kv_test::WaitUntil([this] { return State()["run"]["state"] == "ended"; }, 120);
    }

    static const kv_test::Folder& WorkFolder() {
        static const kv_test::Folder folder;
        return folder;
    }
    uint16_t port = 0;
    std::string token;

  private:
    pid_t pid_ = -1;
};

class PageServer : public testing::Test {
  protected:
    void SetUp() override {
        kv_test::RequireSandbox();
        for (const auto& entry : std::filesystem::directory_iterator(Served::WorkFolder().Path())) {
            std::filesystem::remove(entry.path());
        }
        kv_test::WriteFile("/tmp/app", std::string(400000, 'a'));
        (void)kv_test::Shell(KVTOOL_PATH " pack -o /tmp/good app=/tmp/app");
        (void)kv_test::Shell(KVTOOL_PATH " pack -o /tmp/bad --force nowhere=/tmp/app");
    }
    static Answer Upload(const Served& served, const std::string& file) {
        return served.Post("/api/package?name=..%2F" + file, kv_test::ReadFile("/tmp/" + file),
                           "application/octet-stream");
    }
};

TEST_F(PageServer, RefusesWhatIsNotItsPage) {
    const Served served;
    const std::string cookie = served.Cookie();
    const std::string own = "Origin: http://" + served.Own() + "\r\n";
    const std::string type = "Content-Type: application/json\r\n";
    struct Case {
        int status;
        std::string bytes;
    };
    const std::string post = served.Head("POST /api/run/stop") + cookie + own + type;
    const Case cases[] = {
        {200, served.Head("GET /api/state") + cookie + "\r\n"},
        {403, served.Head("GET /api/state") + "\r\n"},
        {403, served.Head("GET /") + "\r\n"},
        {403, served.Head("GET /?token=" + std::string(32, '0')) + "\r\n"},
        {303, served.Head("GET /?token=" + served.token) + "\r\n"},
        {421, "GET /api/state HTTP/1.1\r\nHost: evil.example\r\nConnection: close\r\n" + cookie +
                  "\r\n"},
        {421, "GET /?token=" + served.token +
                  " HTTP/1.1\r\nHost: evil.example\r\n"
                  "Connection: close\r\n\r\n"},
        {421, served.Head("GET /api/state") + "Host: evil.example\r\n" + cookie + "\r\n"},
        // No CORS: the preflight request is refused, and no answer allows another origin.
        {403, served.Head("OPTIONS /api/plan") + cookie +
                  "Origin: http://evil.example\r\nAccess-Control-Request-Method: POST\r\n\r\n"},
        {403, served.Head("POST /api/run/stop") + cookie + type + "Content-Length: 0\r\n\r\n"},
        {415, served.Head("POST /api/run/stop") + cookie + own + "Content-Length: 0\r\n\r\n"},
        {409, post + "Content-Length: 0\r\n\r\n"},
        {405, served.Head("GET /api/run/stop") + cookie + "\r\n"},
        // Paths.
        {404, served.Head("GET /../../etc/passwd") + cookie + "\r\n"},
        {404, served.Head("GET /%2e%2e/%2e%2e/etc/passwd") + cookie + "\r\n"},
        {404, served.Head("GET //etc/passwd") + cookie + "\r\n"},
        {404, served.Head("GET http://" + served.Own() + "/api/state") + cookie + "\r\n"},
        // Sizes.
        {400, served.Head("GET /" + std::string(9000, 'x')) + cookie + "\r\n"},
        {400,
         served.Head("GET /api/state") + "X: " + std::string(9000, 'x') + "\r\n" + cookie + "\r\n"},
        {413, served.Head("POST /api/package") + cookie + own + type +
                  "Content-Length: 268435457\r\n\r\n"},
        {413, served.Head("POST /api/plan") + cookie + own + type +
                  "Content-Length: 18446744073709551615\r\n\r\n"},
        {411, served.Head("POST /api/plan") + cookie + own + type +
                  "Transfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
        // Two readings of one request.
        {400, post + "Content-Length: 0\r\nContent-Length: 5\r\n\r\n"},
        {400, post + "Content-Length: 5\r\nTransfer-Encoding: chunked\r\n\r\n0\r\n\r\n"},
        {400, "GET /api/state\r\n\r\n"},
        {400, served.Head("GET /api/state") + " folded: header\r\n\r\n"},
    };
    for (const Case& one : cases) {
        const Answer answer = Exchange(served.port, one.bytes);
        EXPECT_EQ(answer.status, one.status) << one.bytes << "\n" << answer.head << answer.body;
        EXPECT_FALSE(Contains(answer.head, "Access-Control-")) << answer.head;
        EXPECT_TRUE(one.status == 303 || !Contains(answer.head + answer.body, served.token));
        for (const char* const header :
             {"Content-Security-Policy: default-src 'none'; script-src 'self';",
              "X-Content-Type-Options: nosniff", "Referrer-Policy: no-referrer",
              "Cross-Origin-Resource-Policy: same-origin", "Cache-Control: no-store"}) {
            EXPECT_TRUE(one.status == 400 || Contains(answer.head, header)) << answer.head;
        }
        EXPECT_EQ(one.status == 303, Contains(answer.head, "HttpOnly; SameSite=Strict; Path=/"));
    }
    // The address is clicked on another page: a redirect would come without the cookie.
    const Answer clicked = Exchange(served.port, served.Head("GET /?token=" + served.token) +
                                                     "Sec-Fetch-Site: cross-site\r\n\r\n");
    EXPECT_EQ(clicked.status, 200);
    EXPECT_TRUE(Contains(clicked.body, "content=\"0;url=/\"") &&
                Contains(clicked.head, "HttpOnly"));
    const Answer page = served.Get("/");
    EXPECT_EQ(page.status, 200);
    EXPECT_TRUE(Contains(page.head, "Cache-Control: no-cache") && Contains(page.head, "ETag: \""));
    const kv_test::CommandResult listening = kv_test::Run("ss -Hltn");
    EXPECT_EQ(CountOf(listening.output, ":" + std::to_string(served.port)),
              CountOf(listening.output, "127.0.0.1:" + std::to_string(served.port)) +
                  CountOf(listening.output, "[::1]:" + std::to_string(served.port)))
        << listening.output;
}

TEST_F(PageServer, BoundsConnectionsAndOpenPages) {
    const Served served;
    const std::string events = served.Head("GET /api/events") + served.Cookie() + "\r\n";
    std::vector<kv_test::TcpClient> pages;
    for (int i = 0; i < 32; ++i) {
        pages.emplace_back(served.port);
        EXPECT_TRUE(Contains(pages.back().Ask(events, 15), "200")) << i;
    }
    EXPECT_EQ(Exchange(served.port, events).status, 503) << "one page too many";
    EXPECT_EQ(served.Get("/api/state").status, 200) << "other requests pass";
    std::vector<kv_test::TcpClient> idle;
    while (idle.size() < 32) {
        idle.emplace_back(served.port);
        EXPECT_TRUE(idle.back().Send("GET /"));
    }
    // The place of a connection that was just closed may have been taken when it was still counted.
    Answer full;
    EXPECT_TRUE(kv_test::WaitUntil([&] {
        full = served.Get("/api/state");
        if (full.status != 503) {
            idle.emplace_back(served.port);
            (void)idle.back().Send("GET /");
        }
        return full.status == 503;
    }));
    EXPECT_LE(idle.size(), 40U);
    EXPECT_EQ(full.body, "");
    pages.clear();
    EXPECT_TRUE(kv_test::WaitUntil([&] {
        const kv_test::TcpClient page(served.port);
        return Contains(page.Ask(events, 15), "200");
    })) << "a page that is closed gives its place back";
}

TEST_F(PageServer, TakesAPackageOrSaysWhyNot) {
    Served served;
    const std::string one = "{\"devices\":[\"127.1.0.2\"]}";
    EXPECT_EQ(served.Post("/api/plan", one).status, 409) << "no package yet";
    const json good = Upload(served, "good").Json();
    EXPECT_EQ(good["file"], "good") << good;
    EXPECT_EQ(good["acceptable"], true);
    EXPECT_EQ(good["map"][2]["written"][0]["length"], 400000) << good["map"];
    EXPECT_EQ(good["map"][2]["stays"], false);
    EXPECT_EQ(good["map"][0]["stays"], true);
    EXPECT_EQ(served.State()["package"]["md5"], good["md5"]);
    for (const char* const request :
         {"[]", "{", "{\"devices\":7}", "{\"devices\":[]}",
          "{\"devices\":[\"127.1.0.2\"],\"jobs\":0}", "{\"devices\":[\"127.1.0.2\"],\"jobs\":501}",
          "{\"devices\":[\"127.1.0.2\"],\"colour\":1}",
          "{\"devices\":[\"127.1.0.2\"],\"force_identity\":true}"}) {
        EXPECT_EQ(served.Post("/api/plan", request).status, 400) << request;
    }
    EXPECT_EQ(Upload(served, "bad").Json()["acceptable"], false);
    const Answer refused = served.Post("/api/plan", one);
    EXPECT_EQ(refused.status, 422) << refused.body;
    EXPECT_TRUE(Contains(refused.body, "not fit for the device"));
    EXPECT_EQ(served.Post("/api/plan", "{\"devices\":[\"127.1.0.2\"],\"force\":true}").status, 200);
    // An upload that breaks off leaves the package before it.
    {
        const kv_test::TcpClient client(served.port);
        (void)client.Send(served.Head("POST /api/package?name=half") + served.Cookie() +
                          "Origin: http://" + served.Own() +
                          "\r\nContent-Type: application/octet-stream\r\n"
                          "Content-Length: 100000\r\n\r\n" +
                          std::string(50000, 'x'));
    }
    EXPECT_EQ(served.State()["package"]["file"], "bad");
    EXPECT_EQ(served.Post("/api/run", "{\"plan\":7}").status, 409);
    EXPECT_EQ(served.Post("/api/run", "{}").status, 400);
    EXPECT_EQ(served.End(SIGINT), 0);
    EXPECT_FALSE(std::filesystem::exists(Served::WorkFolder().Path("j")))
        << "a journal without a run";

    (void)kv_test::Shell(
        "cd /tmp && minisign -G -f -W -p key.pub -s key >/dev/null && "
        "minisign -S -s key -m good -t camera >/dev/null");
    const Served strict("--trusted-key /tmp/key.pub");
    (void)Upload(strict, "good");
    EXPECT_EQ(strict.Post("/api/plan", "{\"devices\":[\"127.1.0.2\"],\"force\":true}").status, 422);
    const std::string type = "application/octet-stream";
    EXPECT_NE(strict.Post("/api/signature", "rubbish", type).Json()["signature_error"], nullptr);
    EXPECT_EQ(strict.Post("/api/plan", one).status, 422);
    const json signedOne =
        strict.Post("/api/signature", kv_test::ReadFile("/tmp/good.minisig"), type).Json();
    EXPECT_EQ(signedOne["signature"]["trusted_comment"], "camera") << signedOne;
    EXPECT_EQ(strict.Post("/api/plan", one).status, 200);
}

// Its upload does not end before kvtool does, and it never stalls for long.
Script Slow() {
    Script script = Camera::Alive();
    script.readStep = 4000;
    script.readPause = std::chrono::milliseconds(500);
    return script;
}

TEST_F(PageServer, UpgradesAndTriesAgainWhatFailed) {
    const Served served;
    (void)Upload(served, "good");
    const Camera good(2);
    Script resets;
    resets.closeAfter = 1000;
    auto unlucky = std::make_unique<Camera>(3, resets);
    const json plan = served.Begin("/api/plan", "{\"devices\":[\"127.1.0.2\",\"127.1.0.3\"]}");
    EXPECT_EQ(plan["devices"][1]["intention"], "upgrade") << plan;
    EXPECT_EQ(plan["devices"][1]["device"], unlucky->mac);
    ASSERT_TRUE(served.AwaitEnd());
    json run = served.State()["run"];
    EXPECT_EQ(run["exit_code"], 13) << run;
    EXPECT_EQ(run["members"][0]["state"], "done") << run;
    EXPECT_FALSE(run["members"][0]["observed"].empty()) << run;
    EXPECT_EQ(run["members"][0]["bytes_acknowledged"], run["members"][0]["bytes_total"]);
    EXPECT_EQ(run["members"][1]["code"], 6) << run;
    EXPECT_EQ(run["members"][1]["may_retry"], true);

    unlucky.reset();
    const Camera lucky(3);
    const json again = served.Begin("/api/run/retry", "{}");
    ASSERT_EQ(again["devices"].size(), 1U) << again;
    EXPECT_EQ(again["devices"][0]["intention"],
              "upgrade again: an earlier run ended while "
              "uploading");
    ASSERT_TRUE(served.AwaitEnd());
    run = served.State()["run"];
    EXPECT_EQ(run["exit_code"], 0) << run;
    EXPECT_EQ(run["done"], 2);
    EXPECT_EQ(run["id"], 2);
    EXPECT_EQ(good.device.Accepted() + lucky.device.Accepted(), 2);
    EXPECT_EQ(served.Post("/api/run/retry", "{}").status, 409) << "nothing is left";
    EXPECT_TRUE(Contains(served.Get("/api/report?format=csv").body, lucky.mac));
    EXPECT_EQ(served.Get("/api/report?format=json").Json()["runs"], 2);

    // Another package begins another journal; the first one stays readable.
    (void)Upload(served, "bad");
    const Answer other = served.Post("/api/plan", R"({"devices":["127.1.0.3"],"force":true})");
    EXPECT_EQ(other.Json()["new_journal"], true) << other.body;
    (void)served.Begin("/api/plan", "{\"devices\":[\"127.1.0.9\"],\"force\":true}");
    ASSERT_TRUE(served.AwaitEnd());
    EXPECT_EQ(served.State()["run"]["members"].size(), 1U);
    const json history = served.Get("/api/history?device=" + lucky.mac).Json()["journals"];
    ASSERT_EQ(history.size(), 1U) << history;
    EXPECT_EQ(history[0]["member"]["state"], "done");
    EXPECT_TRUE(Contains(history[0]["journal"], "/j.1")) << history;
}

TEST_F(PageServer, GoesOnAfterAKill) {
    auto slow = std::make_unique<Camera>(4, Slow());
    std::string md5;
    {
        Served served;
        md5 = Upload(served, "good").Json()["md5"];
        (void)served.Begin("/api/plan", "{\"devices\":[\"127.1.0.4\"]}");
        ASSERT_TRUE(kv_test::WaitUntil(
            [&] { return served.State()["run"]["members"][0]["bytes_acknowledged"] > 50000; }));
        EXPECT_EQ(served.State()["run"]["members"][0]["state"], "uploading");
        const Served other;  // the same journal
        EXPECT_EQ(other.port, 0) << "two servers on one journal";
        EXPECT_EQ(served.End(SIGKILL), 128 + SIGKILL);
    }
    slow.reset();
    const Camera quick(4);
    const Served served;
    const json state = served.State();
    EXPECT_EQ(state["run"]["state"], "ended");
    EXPECT_EQ(state["run"]["exit_code"], nullptr);
    EXPECT_EQ(state["run"]["open"], 1) << state["run"];
    EXPECT_EQ(state["package"]["md5"], md5) << "it was kept beside the journal";
    (void)served.Begin("/api/run/resume", "{}");
    ASSERT_TRUE(served.AwaitEnd());
    EXPECT_EQ(served.State()["run"]["exit_code"], 0) << served.State()["run"];
    EXPECT_EQ(quick.device.Accepted(), 1);
}

TEST_F(PageServer, EndsInTwoStepsWhileADeviceIsWritten) {
    Camera first(5, Slow());
    std::atomic<bool> answers{false};
    Script late = Camera::Alive();
    late.edit = [&answers](uint16_t command, const fake::Bytes& reply) {
        EXPECT_TRUE(command != 0x2002 || kv_test::WaitUntil([&answers] { return answers.load(); }));
        return reply;
    };
    Camera second(6, late);
    Served served;
    (void)Upload(served, "good");
    const kv_test::TcpClient page(served.port);
    (void)page.Send(served.Head("GET /api/events") + served.Cookie() + "\r\n");
    (void)served.Begin("/api/plan", "{\"devices\":[\"127.1.0.5\",\"127.1.0.6\"],\"jobs\":1}");
    ASSERT_TRUE(kv_test::WaitUntil(
        [&] { return served.State()["run"]["members"][0]["state"] == "uploading"; }));
    EXPECT_EQ(served.Post("/api/plan", "{\"devices\":[\"127.1.0.6\"]}").status, 409);
    served.Signal(SIGINT);
    const auto saysItWaits = [] {
        return Contains(kv_test::ReadFile(Served::WorkFolder().Path("err")),
                        " under way will finish");
    };
    ASSERT_TRUE(kv_test::WaitUntil(saysItWaits));
    EXPECT_TRUE(kv_test::WaitUntil([&] { return served.State()["run"]["state"] == "stopping"; }));
    EXPECT_EQ(served.End(SIGINT), 130);
    EXPECT_TRUE(kv_test::InOrder(page.Receive(1 << 20),
                                 {"event: state", "event: ending\ndata: {\"under_way\":1}"}));
    EXPECT_EQ(second.device.Accepted(), 0);

    // The one that was cut off waits for some seconds, so the other one is first.
    Served patient;
    (void)patient.Begin("/api/run/resume", "{\"jobs\":1}");
    ASSERT_TRUE(kv_test::WaitUntil(
        [&] { return patient.State()["run"]["members"][1]["state"] == "finishing"; }));
    EXPECT_EQ(patient.Post("/api/run/stop", "{}").status, 200);
    patient.Signal(SIGINT);
    EXPECT_TRUE(kv_test::WaitUntil(saysItWaits));
    answers = true;
    EXPECT_EQ(patient.Await(), 0) << "the one under way has finished";
    EXPECT_EQ(second.device.Accepted(), 1);
    EXPECT_EQ(first.device.Accepted(), 0) << "it had not begun";

    const Served listening;
    const auto taken = kv_test::Run(KVTOOL_PATH " serve --no-browser --journal /tmp/other --port " +
                                    std::to_string(listening.port));
    EXPECT_EQ(taken.status, 1) << taken.output;
    EXPECT_TRUE(Contains(taken.output, "cannot listen on port")) << taken.output;
}

}  // namespace
