// The configuration file: its bytes, and the log lines of the two writers.
#include "wifi/kv_wifi_conf.h"

#include "tests/support/capture.h"
#include "tests/support/wifi_conf.h"
#include "wifi/kv_wifi_sta.h"

using namespace kv_test;

namespace {

TEST(WifiConf, ServiceNetworkHasElevenLinesAndStartsTheStation) {
    const Capture log(2);
    EXPECT_EQ(__KV_WIFI_StaSupplicant(), 0);
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    EXPECT_EQ(ReadFile("/tmp/wpa_supplicant.conf"), kServiceNetwork);
    EXPECT_TRUE(InOrder(log.Text(), {" DEBUG upgrade_main:__KV_WIFI_StaSupplicant:",
                                     "\033[mneed passwd!! default WPA-PSK\n\n"}));
    // The station also starts without the file.
    std::filesystem::remove("/tmp/wpa_supplicant.conf");
    std::filesystem::create_directory("/tmp/wpa_supplicant.conf");
    EXPECT_EQ(__KV_WIFI_StaSupplicant(), 0);
    EXPECT_EQ(KV_WIFI_StaStop(), 0);
    EXPECT_TRUE(InOrder(log.Text(), {"FAILED upgrade_main:__KV_WIFI_StaSupplicant:",
                                     "open file :/tmp/wpa_supplicant.conf failed!\n"}));
    EXPECT_EQ(CountOf(log.Text(), "need passwd"), 1U);
}

TEST(WifiConf, DebugWriter) {
    std::filesystem::create_directory("/tmp/conf");
    const std::string head =
        "ctrl_interface=/tmp/conf/wpa_supplicant\nupdate_config=1\nap_scan=1\nnetwork={\n"
        "\tssid=\"a \"b\" %s\"\n\tscan_ssid=1\n";
    const Capture log(2);
    EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("a \"b\" %s", "", "/tmp/conf"), 0);
    EXPECT_EQ(ReadFile("/tmp/conf/wpa_supplicant.conf"), head + "\tkey_mgmt=NONE\n}");
    EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("a \"b\" %s", "%n12345678", "/tmp/conf"), 0);
    EXPECT_EQ(ReadFile("/tmp/conf/wpa_supplicant.conf"),
              head +
                  "\tkey_mgmt=WPA-PSK WPA-EAP IEEE8021X NONE\n\tpairwise=TKIP CCMP\n"
                  "\tgroup=CCMP TKIP WEP104 WEP40\n\tpsk=\"%n12345678\"\n}");
    EXPECT_TRUE(InOrder(
        log.Text(), {" DEBUG kv_wifi_sta:__KV_WIFI_StaSupplicantDebug:",
                     "no passwd!! Dot_WIFI_MODE_OPEN\n\n", "need passwd!! default WPA-PSK\n\n"}));
}

TEST(WifiConf, DebugWriterWithoutADirectory) {
    // At most 44 characters leave room for "/wpa_supplicant.conf" in 63.
    const std::string longest = "/tmp/" + std::string(38, 'd');
    const std::string tooLong = longest + "d";
    std::filesystem::create_directory(longest);
    std::filesystem::create_directory(tooLong);
    EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("s", "", longest.c_str()), 0);

    for (const std::string& directory : {std::string("/tmp/absent"), tooLong}) {
        const Capture log(2);
        EXPECT_EQ(__KV_WIFI_StaSupplicantDebug("s", "", directory.c_str()), -1);
        const std::string name = (directory + "/wpa_supplicant.conf").substr(0, 63);
        EXPECT_TRUE(InOrder(log.Text(), {"FAILED kv_wifi_sta:__KV_WIFI_StaSupplicantDebug:",
                                         "open file :" + name + " failed!\n"}));
    }
    EXPECT_TRUE(std::filesystem::is_empty(tooLong));
}

}  // namespace
