// kvtool as a program, without a device: usage, packages, exit codes and output.
#include "tests/support/kvtool_program.h"

namespace {

using namespace kv_test;

class KvtoolCli : public ToolTest {};

TEST_F(KvtoolCli, UsageErrorsHaveTheirOwnCode) {
    EXPECT_EQ(RunTool({"--help"}), 0);
    for (const Arguments& arguments : std::vector<Arguments>{
             {},
             {"nonsense"},
             {"pack", "-o", Path("again")},
             {"pack", "-o", Path("again"), "app"},
             {"inspect", "--size", "flash=1K", Path("good")},
             {"inspect", "--layout", Path("layout"), Path("good")},
             {"upgrade", "127.0.0.1"},
             {"upgrade", "127.0.0.1", Path("good"), "--stall-timeout", "0"},
             {"info", "--port", "65536", "127.0.0.1"},
             {"upgrade", "--wait=0", "127.0.0.1", Path("good")},
             {"upgrade", "--wait", "0", "127.0.0.1", Path("good")},
             {"upgrade", "--wait=soon", "127.0.0.1", Path("good")},
             {"upgrade", "--wait", "5", Path("good")},
         }) {
        EXPECT_EQ(RunTool(arguments), 2) << testing::PrintToString(arguments);
    }
}

TEST_F(KvtoolCli, PackIsDeterministicAndARefusalChangesNothing) {
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "app=" + Path("app")}), 0);
    EXPECT_EQ(Read("again"), Read("good"));
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "ap=" + Path("app")}), 3);
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "app=" + Path("missing")}), 3);
    EXPECT_EQ(Read("again"), Read("good")) << "a refusal must not change the file";
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "--force", "ap=" + Path("app")}), 0);
    EXPECT_NE(Read("again"), Read("good"));
}

TEST_F(KvtoolCli, PackKeepsItsInputsAndWritesToAPipe) {
    const std::string app = Read("app");
    EXPECT_EQ(RunTool({"pack", "-o", Path("app"), "app=" + Path("app")}), 2);
    EXPECT_EQ(Read("app"), app);
    std::string output;
    EXPECT_EQ(RunTool({"pack", "-o", "-", "app=" + Path("app")}, &output), 0);
    EXPECT_EQ(output, Read("good"));
}

// The link leads to a file that does not exist, to one that does, and to a named pipe.
TEST_F(KvtoolCli, PackFollowsLinksAndWritesIntoWhatIsNoFile) {
    const Arguments pack = {"pack", "-o", Path("again"), "app=" + Path("app")};
    std::filesystem::create_symlink("layout", Path("again"));
    for (const char* content : {"", "old"}) {
        EXPECT_EQ(RunTool(pack), 0);
        EXPECT_TRUE(Read("layout") == Read("good")) << content;
        EXPECT_TRUE(std::filesystem::is_symlink(Path("again")));
        WriteFile(Path("layout"), "old");
    }
    (void)unlink(Path("layout").c_str());
    const auto piped = kv_test::Run("mkfifo " + Path("layout") + "; timeout 60 cat " +
                                    Path("layout") + " & " + Line(pack) + " >/dev/null; wait");
    EXPECT_TRUE(piped.output == Read("good"));
}

TEST_F(KvtoolCli, PacksByRecipeAndWritesAManifest) {
    WriteFile(Path("layout"), "# camera\nimage = app = app\nsize = app = 200000\nsensor = 39QX\n");
    // Paths of a recipe are relative to its folder, not to the current one.
    const Arguments pack = {"pack",     "-o",   Path("again"), "--recipe",      Path("layout"),
                            "--sensor", "38QX", "--manifest",  Path("manifest")};
    EXPECT_EQ(RunTool(pack), 0);
    EXPECT_EQ(Read("again"), Read("good")) << "the command line wins";
    const nlohmann::json manifest = nlohmann::json::parse(Read("manifest"));
    const auto sum = [this](const std::string& name) {
        return kv_test::Run("sha256sum <" + Path(name)).output.substr(0, 64);
    };
    EXPECT_EQ(manifest["package"]["sha256"], sum("good"));
    EXPECT_EQ(manifest["inputs"][0]["sha256"], sum("layout"));
    EXPECT_EQ(manifest["inputs"][1]["sha256"], sum("app"));
    EXPECT_EQ(manifest["inputs"][1]["file"], "app");
    const std::string first = Read("manifest");
    EXPECT_EQ(RunTool(pack), 0);
    EXPECT_EQ(Read("manifest"), first);

    for (const char* wrong : {"image = app", "images = app=app", "ic = A\nic = A", "app=app",
                              "size = app=199999\nimage = app=app"}) {
        WriteFile(Path("layout"), wrong);
        EXPECT_NE(RunTool({"pack", "-o", Path("again"), "--recipe", Path("layout")}), 0) << wrong;
    }
    const auto packTo = [this](const std::string& output, const std::string& other) {
        return RunTool({"pack", "-o", output, "--manifest", other, "app=" + Path("app")});
    };
    EXPECT_EQ(packTo(Path("again"), Path("app")), 2);
    EXPECT_EQ(packTo(Path("none"), Path("./none")), 2);
    WriteFile(Path("again"), "before");
    EXPECT_EQ(packTo(Path("again"), Path("none/manifest")), 1);
    EXPECT_EQ(packTo(Path("none/again"), Path("manifest")), 1);
    EXPECT_TRUE(Read("again") + Read("manifest") == "before" + first) << "both files or none";
}

TEST_F(KvtoolCli, ToolboxExitsLikeDiff) {
    EXPECT_EQ(RunTool({"diff", Path("good"), Path("good")}), 0);
    EXPECT_EQ(RunTool({"diff", Path("good"), Path("other")}), 1);
    EXPECT_EQ(RunTool({"diff", Path("good"), Path("none")}), 2);
    WriteFile(Path("layout"), "short");
    EXPECT_TRUE(Contains(kv_test::Run(Line({"diff", Path("good"), Path("layout")})).output,
                         "the second file is not a package"));
    EXPECT_EQ(kv_test::Run(Line({"diff", Path("good"), Path("good")}) + " >/dev/full 2>&1").status,
              2);
    WriteFile(Path("layout"), Read("app") + std::string(131072, '\xFF'));
    EXPECT_EQ(RunTool({"verify", Path("good"), "app=" + Path("layout")}), 0);
    EXPECT_EQ(RunTool({"verify", Path("good"), "app=" + Path("good")}), 1);
    EXPECT_EQ(RunTool({"verify", Path("good"), "kernel=" + Path("layout")}), 2);

    EXPECT_EQ(
        JsonOf({"extract", "--json", Path("good"), "-d", Path("out/deep")}, 0)["images"][0]["size"],
        200000);
    EXPECT_EQ(Read("out/deep/app"), Read("app"));
    EXPECT_EQ(RunTool({"extract", Path("good"), "-d", Path("out/deep")}), 3)
        << "must not replace a file";
    std::filesystem::remove_all(Path("out"));
}

// Both signature formats of minisign. kvtool refuses what minisign refuses.
TEST_F(KvtoolCli, TrustsWhatMinisignSigned) {
    std::filesystem::create_directory(Path("out"));
    const auto minisign = [this](const std::string& arguments) {
        return kv_test::Run("cd " + folder_.Path() + "/out && minisign " + arguments + " 2>&1")
            .status;
    };
    ASSERT_EQ(minisign("-G -W -p key.pub -s key"), 0);
    ASSERT_EQ(minisign("-G -W -p other.pub -s other"), 0);
    for (const char* kind : {"", "-l "}) {
        ASSERT_EQ(minisign(std::string("-S ") + kind + "-s key -m ../good -t 'camera 1.2' -x good"),
                  0);
        const auto agree = [&](const std::string& key, const std::string& package, int code) {
            EXPECT_EQ(RunTool({"inspect", "--trusted-key", Path("out/" + key), "--signature",
                               Path("out/good"), Path(package)}),
                      code)
                << kind << key;
            EXPECT_EQ(minisign("-V -p " + key + " -m ../" + package + " -x good") == 0, code == 0)
                << kind << key;
        };
        agree("key.pub", "good", 0);
        agree("other.pub", "good", 3);
        agree("key.pub", "other", 3);
        const std::string signature = Read("out/good");
        std::string changed = signature;
        changed.replace(changed.find("camera 1.2"), 10, "camera 1.3");
        WriteFile(Path("out/good"), changed);
        agree("key.pub", "good", 3);
        changed = signature.substr(0, signature.find("trusted comment"));
        WriteFile(Path("out/good"), changed);
        agree("key.pub", "good", 3);
    }
    EXPECT_EQ(RunTool({"upgrade", "127.0.0.1", "--port", "1", "--trusted-key", Path("out/key.pub"),
                       Path("good")}),
              3)
        << "unsigned, so kvtool does not connect";
    ASSERT_EQ(minisign("-S -s key -m ../good -x ../good.minisig -t 'camera 1.2'"), 0);
    const auto json = JsonOf({"upgrade", "127.0.0.1", "--json", "--port", "1", "--trusted-key",
                              Path("out/key.pub"), Path("good")},
                             4);
    EXPECT_EQ(json["signature"]["trusted_comment"], "camera 1.2");
    (void)unlink(Path("good.minisig").c_str());
    std::filesystem::remove_all(Path("out"));
}

TEST_F(KvtoolCli, SignsPackagesInside) {
    std::filesystem::create_directory(Path("out"));
    (void)Shell("cd " + Path("out") +
                " && minisign -G -W -p key.pub -s key && "
                "minisign -G -W -p other.pub -s other && cat other.pub key.pub >both");
    const auto pack = [this](const Arguments& more) {
        Arguments arguments = {"pack", "-o", Path("again"), "--sign", Path("out/key")};
        arguments.insert(arguments.end(), more.begin(), more.end());
        arguments.push_back("app=" + Path("app"));
        return arguments;
    };
    const auto made = JsonOf(pack({"--json"}), 0)["signature"];
    EXPECT_EQ(made["trusted_comment"], "PRT7K 38QX");
    EXPECT_EQ(made["form"], "embedded");
    const std::string first = Read("again");
    std::string piped;
    EXPECT_EQ(RunTool({"pack", "-o", "-", "--sign", Path("out/key"), "app=" + Path("app")}, &piped),
              0);
    EXPECT_TRUE(piped == first) << "the same arguments give the same bytes, and only those";
    EXPECT_EQ(JsonOf({"inspect", "--json", Path("again")}, 0)["embedded_signature"], made);
    EXPECT_EQ(JsonOf({"inspect", "--json", Path("again")}, 0).count("signature"), 0U)
        << "only a verified signature is reported as \"signature\"";
    for (const char* keys : {"key.pub", "both"}) {
        EXPECT_EQ(
            JsonOf({"inspect", "--json", "--trusted-key", Path("out") + "/" + keys, Path("again")},
                   0)["signature"],
            made);
    }
    EXPECT_EQ(RunTool({"inspect", "--trusted-key", Path("out/other.pub"), Path("again")}), 3);
    EXPECT_EQ(RunTool({"inspect", "--trusted-key", Path("out/key"), Path("again")}), 3);
    // The signature inside the package comes before a detached one that nobody asked for.
    WriteFile(Path("again.minisig"), "no signature");
    EXPECT_EQ(RunTool({"inspect", "--trusted-key", Path("out/key.pub"), Path("again")}), 0);
    EXPECT_EQ(RunTool({"inspect", "--trusted-key", Path("out/key.pub"), "--signature",
                       Path("again.minisig"), Path("again")}),
              3);
    (void)unlink(Path("again.minisig").c_str());

    EXPECT_EQ(RunTool(pack({"--comment", std::string(255, 'c')})), 0);
    const std::string last = Read("again");
    for (const auto& [more, code] : std::vector<std::pair<Arguments, int>>{
             {{"--comment", std::string(256, 'c')}, 3},
             {{"--comment", ""}, 3},
             {{"--comment", "two\nlines"}, 3},
             {{"--manifest", Path("out/key")}, 2},
         }) {
        EXPECT_EQ(RunTool(pack(more)), code) << testing::PrintToString(more);
    }
    for (const char* wrong : {"app", "missing", "out/key.pub"}) {
        EXPECT_EQ(
            RunTool({"pack", "-o", Path("again"), "--sign", Path(wrong), "app=" + Path("app")}), 3)
            << wrong;
    }
    EXPECT_EQ(RunTool({"pack", "-o", Path("again"), "--comment", "x", "app=" + Path("app")}), 2);
    EXPECT_EQ(kv_test::Run("PATH= " + Line(pack({})) + " 2>&1").status, 1) << "no minisign";
    EXPECT_TRUE(Read("again") == last) << "a failure must not change the file";
    std::filesystem::remove_all(Path("out"));
}

TEST_F(KvtoolCli, AnInterruptEndsALongReplay) {
    const std::string ladder =
        Line({"ladder", "--script", "repeat 1000000 (repeat 1000000 (silent 0.001s))"});
    EXPECT_EQ(kv_test::Run("timeout --preserve-status -k 10 -s INT 1 " + ladder + " 2>&1").status,
              130);
}

TEST_F(KvtoolCli, UnknownCommandsAreNamed) {
    for (const auto& [arguments, text] : std::vector<std::pair<std::string, std::string>>{
             {"upgrad", "unknown command 'upgrad' (did you mean 'upgrade'?)"},
             {"xyzzy", "unknown command 'xyzzy'\n"},
             {"'\033[2J'", "unknown command '\\x1B[2J'"},
         }) {
        const auto result = kv_test::Run(std::string(KVTOOL_PATH) + " " + arguments + " 2>&1");
        EXPECT_NE(result.output.find(text), std::string::npos) << result.output;
    }
}

// A failure gives an object too, with what is known by then.
TEST_F(KvtoolCli, FailuresAreJsonToo) {
    struct Case {
        Arguments arguments;
        int code;
        const char* key;
        std::string value;
    };
    WriteFile(Path("again"), "x");
    const Case cases[] = {
        {{"inspect", Path("none")}, 3, "file", Path("none")},
        {{"inspect", Path("\xFF\x1B")}, 3, "file", Path("\\xFF\\x1B")},
        {{"pack", "-o", Path("x"), "ap=" + Path("app")}, 3, "file", Path("x")},
        {{"info", "127.0.0.1", "--port", "1"}, 4, "host", "127.0.0.1"},
        {{"discover", "not.a.host.invalid"}, 4, "host", "not.a.host.invalid"},
        {{"upgrade", "127.0.0.1", "--port", "1", Path("good")}, 4, "file", Path("good")},
    };
    for (Case c : cases) {
        c.arguments.push_back("--json");
        const nlohmann::json json = JsonOf(c.arguments, c.code);
        EXPECT_EQ(json["schema"], 1);
        EXPECT_EQ(json["command"], c.arguments[0]);
        EXPECT_EQ(json["exit_code"], c.code);
        EXPECT_FALSE(json["error"].get<std::string>().empty());
        EXPECT_EQ(json[c.key], c.value);
    }
    const auto json = JsonOf({"upgrade", "127.0.0.1", "--json", Path("again")}, 3);
    EXPECT_EQ(json["package"]["findings"][0]["kind"], "short_file");
}

TEST_F(KvtoolCli, InspectTellsFitFromUnfit) {
    nlohmann::json json = JsonOf({"inspect", "--json", Path("good")}, 0);
    EXPECT_EQ(json["acceptable"], true);
    EXPECT_EQ(json["entries"][0]["written_behind"], 62144);
    EXPECT_EQ(RunTool({"inspect", Path("other")}), 0) << "fit for a device with the same identity";
    json = JsonOf({"inspect", "--json", "--ic", "PRT7K", Path("other")}, 3);
    EXPECT_EQ(json["findings"][0]["severity"], "error");
    EXPECT_EQ(RunTool({"inspect", Path("app")}), 3);
    WriteFile(Path("layout"), "# smaller\n\napp=128K\n");
    EXPECT_EQ(RunTool({"inspect", "--layout", Path("layout"), Path("good")}), 3);
}

}  // namespace
