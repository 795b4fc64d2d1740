// The configuration file: its bytes, and how the two writers report.
#include "wifi/kv_wifi_conf.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <iterator>
#include <string>

#include "tests/support/capture.h"
#include "wifi/kv_wifi_sta.h"

namespace {

using kv_test::Capture;

std::string Read(const std::string& path) {
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), std::istreambuf_iterator<char>()};
}

bool Contains(const std::string& text, const std::string& part) {
    return text.find(part) != std::string::npos;
}

TEST(WifiConf, ServiceNetworkHasElevenLinesAndStartsTheStation) {
    const Capture trace(2);
    EXPECT_EQ(__KV_WIFI_StaSupplicant(), 0);
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    const std::string log = trace.Text();
    EXPECT_EQ(Read("/tmp/wpa_supplicant.conf"),
              "ctrl_interface=/tmp/wpa_supplicant\n"
              "update_config=1\n"
              "ap_scan=1\n"
              "network={\n"
              "\tssid=\"test\"\n"
              "\tscan_ssid=1\n"
              "\tkey_mgmt=WPA-PSK WPA-EAP IEEE8021X NONE\n"
              "\tpairwise=TKIP CCMP\n"
              "\tgroup=CCMP TKIP WEP104 WEP40\n"
              "\tpsk=\"24681357\"\n"
              "}");
    EXPECT_TRUE(Contains(log, " DEBUG upgrade_main:__KV_WIFI_StaSupplicant:"));
    EXPECT_TRUE(Contains(log, "\033[mneed passwd!! default WPA-PSK\n\n"));
}

TEST(WifiConf, ServiceStationStartsWithoutAFile) {
    std::filesystem::remove("/tmp/wpa_supplicant.conf");
    std::filesystem::create_directory("/tmp/wpa_supplicant.conf");
    const Capture trace(2);
    EXPECT_EQ(__KV_WIFI_StaSupplicant(), 0);
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    const std::string log = trace.Text();
    EXPECT_TRUE(Contains(log, "FAILED upgrade_main:__KV_WIFI_StaSupplicant:"));
    EXPECT_TRUE(Contains(log, "open file :/tmp/wpa_supplicant.conf failed!\n"));
    EXPECT_FALSE(Contains(log, "need passwd"));
}

TEST(WifiConf, DebugWriter) {
    std::filesystem::create_directory("/tmp/conf");
    const std::string head =
        "ctrl_interface=/tmp/conf/wpa_supplicant\nupdate_config=1\nap_scan=1\nnetwork={\n"
        "\tssid=\"a \"b\" %s\"\n\tscan_ssid=1\n";
    const Capture trace(2);
    EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("a \"b\" %s", "", "/tmp/conf"), 0);
    std::string log = trace.Text();
    EXPECT_EQ(Read("/tmp/conf/wpa_supplicant.conf"), head + "\tkey_mgmt=NONE\n}");
    EXPECT_TRUE(Contains(log, " DEBUG kv_wifi_sta:__KV_WIFI_StaSupplicantDebug:"));
    EXPECT_TRUE(Contains(log, "no passwd!! Dot_WIFI_MODE_OPEN\n\n"));

    EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("a \"b\" %s", "%n12345678", "/tmp/conf"), 0);
    log = trace.Text();
    EXPECT_EQ(Read("/tmp/conf/wpa_supplicant.conf"),
              head +
                  "\tkey_mgmt=WPA-PSK WPA-EAP IEEE8021X NONE\n\tpairwise=TKIP CCMP\n"
                  "\tgroup=CCMP TKIP WEP104 WEP40\n\tpsk=\"%n12345678\"\n}");
    EXPECT_TRUE(Contains(log, "need passwd!! default WPA-PSK\n\n"));
}

TEST(WifiConf, DebugWriterWithoutADirectory) {
    // 44 characters are the most that leave room for "/wpa_supplicant.conf" in 63.
    const std::string longest = "/tmp/" + std::string(38, 'd');
    const std::string tooLong = longest + "d";
    std::filesystem::create_directory(longest);
    std::filesystem::create_directory(tooLong);
    EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("s", "", longest.c_str()), 0);

    for (const std::string& directory : {std::string("/tmp/absent"), tooLong}) {
        const Capture trace(2);
        EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("s", "", directory.c_str()), -1);
        const std::string log = trace.Text();
        const std::string name = (directory + "/wpa_supplicant.conf").substr(0, 63);
        EXPECT_TRUE(Contains(log, "FAILED kv_wifi_sta:__KV_WIFI_StaSupplicantDebug:"));
        EXPECT_TRUE(Contains(log, "open file :" + name + " failed!\n"));
    }
    EXPECT_TRUE(std::filesystem::is_empty(tooLong));
}

}  // namespace
