// The program kvtool, run with arguments. KVTOOL_PATH names it in the sandbox.
#pragma once

#include <nlohmann/json.hpp>

#include "tests/support/common.h"

namespace kv_test {

using Arguments = Lines;

inline std::string Line(const Arguments& arguments) {
    std::string line = KVTOOL_PATH;
    for (const std::string& argument : arguments) {
        line += " '" + argument + "'";
    }
    return line;
}

// Runs the tool to its end; `output` gets its standard output.
inline int RunTool(const Arguments& arguments, std::string* output = nullptr) {
    const auto result = Run(Line(arguments) + " 2>/dev/null");
    if (output != nullptr) {
        *output = result.output;
    }
    return result.status;
}

// The JSON object that the tool prints; it must end with `code`.
inline nlohmann::json JsonOf(const Arguments& arguments, int code) {
    std::string output;
    EXPECT_EQ(RunTool(arguments, &output), code) << testing::PrintToString(arguments);
    return nlohmann::json::parse(output);
}

// Runs the tool, runs `then` once it has printed `text` or has ended, and returns its exit code.
inline int RunTool(const Arguments& arguments, const std::string& text, const std::string& then) {
    return Run("rm -f /tmp/tool.out; " + Line(arguments) +
               " >/tmp/tool.out 2>/tmp/tool.err & tool=$!;"
               "until grep -q '" +
               text + "' /tmp/tool.out || ! kill -0 $tool; do sleep 0.01; done;" + then +
               "; wait $tool")
        .status;
}

// Has packages for a device of this kind ("good") and of another kind ("other").
class ToolTest : public testing::Test {
  protected:
    void SetUp() override {
        (void)unlink("/tmp/tool.out");
        WriteFile(Path("app"), std::string(200000, 'a'));
        ASSERT_EQ(RunTool({"pack", "-o", Path("good"), "app=" + Path("app")}), 0);
        ASSERT_EQ(RunTool({"pack", "-o", Path("other"), "--ic", "OTHER", "app=" + Path("app")}), 0);
    }
    void TearDown() override {
        for (const char* name : {"app", "good", "other", "again", "layout", "manifest"}) {
            (void)unlink(Path(name).c_str());
        }
        EXPECT_TRUE(std::filesystem::is_empty(folder_.Path()))
            << "a temporary file was left behind";
    }
    std::string Path(const std::string& name) const { return folder_.Path(name); }
    std::string Read(const std::string& name) const { return ReadFile(Path(name)); }

    Folder folder_;
};

}  // namespace kv_test
