// Queries to the supplicant, and how their answers are read.
#include "wifi/kv_wpa_query.h"

#include "tests/support/capture.h"
#include "tests/support/scripted_supplicant.h"
#include "wifi/kv_wpa_ctrl.h"

using namespace kv_test;

namespace {

using Messages = std::vector<ScriptedSupplicant::Message>;

TEST(WpaQuery, StatusFields) {
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always(
        "bssid=ignored without a line end in front\nbssid=17:22:33:44:55:66\nfreq=2437\nssid=test\n"
        "id=4\nmode=station\npairwise_cipher=sixteen letters!\ngroup_cipher=TKIP and more than "
        "fits\n"
        "key_mgmt=WPA2-PSK\nwpa_state=COMPLETED\nip_address=172.20.18.7\n"
        "address=02:00:00:00:00:01\nuuid=5c1b\n"));
    KV_WIFI_STATUS_INFO status;
    ASSERT_EQ(KV_WIFI_WPA_Status(&status), 0);
    EXPECT_STREQ(status.acBssid, "17:22:33:44:55:66");
    EXPECT_EQ(status.iFreq, 2437);
    EXPECT_STREQ(status.acSsid, "test");
    EXPECT_STREQ(status.acMode, "station");
    EXPECT_STREQ(status.acPairwiseCipher, "sixteen letters");
    EXPECT_STREQ(status.acGroupCipher, "TKIP and more t");
    EXPECT_STREQ(status.acKeyMgmt, "WPA2-PSK");
    EXPECT_STREQ(status.acWpaState, "COMPLETED");
    EXPECT_STREQ(status.acIpAddress, "172.20.18.7");
    EXPECT_STREQ(status.acUuid, "5c1b");
    // Found inside "ip_address".
    EXPECT_STREQ(status.acAddress, "172.20.18.7");
    EXPECT_EQ(std::string(status.acReply).rfind("bssid=ignored", 0), 0U);
}

TEST(WpaQuery, KeysAreFoundAnywhere) {
    const struct {
        std::string reply;
        int32_t id;
        const char* address;
        const char* state;
    } cases[] = {
        {"x\nbssid=17:22\nid=4\n", 17, "", ""},  // inside "bssid"
        {"x\nid=4\nbssid=17:22\n", 4, "", ""},
        {"id=99999999999\n", INT32_MAX, "", ""},
        {"id=-99999999999\n", INT32_MIN, "", ""},
        {"address=02:00\nip_address=1.2.3.4\n", 0, "02:00", ""},
        {"wpa_state\n", 0, "", ""},            // no "=" after the key
        {"wpa_state\nother=5\n", 0, "", "5"},  // the first "=" after the key counts
        {"wpa_state=SCAN", 0, "", "SCAN"},     // no line end
        {"address=0123456789abcdef0123\n", 0, "0123456789abcdef0", ""},            // cut
        {std::string(kWpaReplySize - 14, 'x') + "wpa_state=DONE", 0, "", "DONE"},  // 1024 bytes
    };
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always(""));
    for (const auto& c : cases) {
        supplicant.SetScript(ScriptedSupplicant::Always(c.reply));
        KV_WIFI_STATUS_INFO status;
        memset(&status, 'g', sizeof(status));
        ASSERT_EQ(KV_WIFI_WPA_Status(&status), 0);
        EXPECT_EQ(status.iId, c.id) << c.reply;
        EXPECT_STREQ(status.acAddress, c.address) << c.reply;
        EXPECT_STREQ(status.acWpaState, c.state) << c.reply;
        EXPECT_EQ(status.acReply, c.reply.substr(0, 1023));
    }
}

TEST(WpaQuery, RefusedAndEmpty) {
    ScriptedSupplicant supplicant(
        ScriptedSupplicant::Always("FAIL\nwpa_state=COMPLETED\nRSSI=-7\n"));
    KV_WIFI_STATUS_INFO status;
    KV_WIFI_SIGNAL_INFO signal;
    const Capture trace(2);
    EXPECT_EQ(KV_WIFI_WPA_Status(&status), 0);
    EXPECT_EQ(KV_WIFI_SignalPoll(&signal), 0);
    EXPECT_STREQ(status.acWpaState, "");
    EXPECT_EQ(signal.iRssi, 0);
    EXPECT_EQ(std::string(status.acReply).rfind("FAIL\n", 0), 0U);
    supplicant.SetScript(ScriptedSupplicant::Always(""));
    EXPECT_EQ(KV_WIFI_WPA_Status(&status), -1);
    EXPECT_EQ(KV_WIFI_SignalPoll(&signal), -1);
    for (const char* text :
         {"Err: STATUS (FAIL)\n\n", "Err: SIGNAL_POLL (FAIL)\n\n", "Err: STATUS\n\n",
          "Err: SIGNAL_POLL\n\n", " ERROR kv_wpa_ctrl:KV_WIFI_WPA_Status:"}) {
        EXPECT_TRUE(Contains(trace.Text(), text)) << text;
    }
}

TEST(WpaQuery, NearApList) {
    const std::string head = "bssid / frequency / signal level / flags / ssid 1111\n";
    const struct {
        Messages scan;
        Messages results;
        int expected;
        const char* traced;
    } cases[] = {
        {{{"OK\n"}}, {{head + "02:00\t2412\t-40\t[ESS]\tnet\n\r\n03:00\t\t\tx1111x\n"}}, 1, ""},
        {{{"OK\n"}}, {{head + "02:00\t2412\t-40\t[ESS]\tnet\n"}}, 0, ""},
        {{{"OK\n"}}, {{""}}, -1, "FAILED kv_wpa_ctrl:KV_WIFI_GetNearApList"},
        {{{"FAIL-BUSY\n"}}, {{head + "\n1111\n"}}, 0, "Err: SCAN (FAIL)\n\n"},
        {{{""}}, {{head + "\n1111\n"}}, -1, "Err: SCAN\n"},
    };
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always(""));
    for (const auto& c : cases) {
        supplicant.SetScript(
            [&c](const std::string& command) { return command == "SCAN" ? c.scan : c.results; });
        const Capture trace(2);
        EXPECT_EQ(KV_WIFI_GetNearApList("1111"), c.expected) << c.traced;
        EXPECT_TRUE(Contains(trace.Text(), c.traced));
    }
}

TEST(WpaQuery, RssiIsPolledAtMostEveryThreeSeconds) {
    ScriptedSupplicant supplicant(ScriptedSupplicant::Always(
        "RSSI=-52\nLINKSPEED=65\nNOISE=9999\nFREQUENCY=2437\nAVG_RSSI=-50\n"));
    KV_WIFI_SIGNAL_INFO signal;
    ASSERT_EQ(KV_WIFI_SignalPoll(&signal), 0);
    EXPECT_EQ(signal.iLinkSpeed, 65);
    EXPECT_EQ(signal.iNoise, 9999);
    EXPECT_EQ(signal.iFrequency, 2437);

    EXPECT_EQ(KV_WIFI_GetLastRssi(), 0);
    EXPECT_EQ(KV_WIFI_GetRssi(), -52);
    const auto polled = Clock::now();
    supplicant.SetScript(ScriptedSupplicant::Always(""));
    const int soon = KV_WIFI_GetRssi();
    if (SecondsSince(polled) < 2) {  // otherwise the value may be too old by now
        EXPECT_EQ(soon, -52);
        EXPECT_EQ(KV_WIFI_GetLastRssi(), -52);
        EXPECT_EQ(supplicant.Count("SIGNAL_POLL"), 2);
    }
    // Whole seconds: the next query comes 3 s later, and a failed one counts as 0.
    std::this_thread::sleep_until(polled + milliseconds(3010));
    EXPECT_EQ(KV_WIFI_GetRssi(), 0);
    EXPECT_EQ(supplicant.Count("SIGNAL_POLL"), 3);
}

}  // namespace
