// The supplicant's file as the program must write it.
#pragma once

namespace kv_test {

constexpr char kServiceNetwork[] =
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
    "}";

}  // namespace kv_test
