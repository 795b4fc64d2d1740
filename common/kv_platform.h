// The board and its surroundings: paths, ports, interfaces, the partition table and the device's
// identity. Shell commands repeat some of them as text: those of the factory reset name "/param"
// (main/hardware_reset.cpp), those of the station "wlan0" (wifi/kv_wifi_sta.cpp).
#pragma once

#include <cstddef>
#include <cstdint>

namespace kv {

// Compiled-in identity, shared by package acceptance, device information and discovery.
constexpr char kIcType[] = "PRT7K";
constexpr char kSensorType[] = "38QX";
constexpr char kModelCode[] = "ZH8C4";
constexpr char kCustomerCode[] = "QJT";
constexpr char kFirmwareVersion[] = "1.0.0.241127_R1";

// "%s_%s_%s_V%s" of chip type, sensor type, customer code and firmware version.
struct DeviceName {
    // The NUL of each of the first three parts makes room for the "_" after it, and 1 more is for
    // the "V".
    char text[sizeof(kIcType) + sizeof(kSensorType) + sizeof(kCustomerCode) + 1 +
              sizeof(kFirmwareVersion)];
};
constexpr DeviceName JoinDeviceName() {
    const char* const parts[] = {kIcType,       "_",  kSensorType,     "_",
                                 kCustomerCode, "_V", kFirmwareVersion};
    DeviceName name{};
    size_t length = 0;
    for (const char* part : parts) {
        for (; *part != '\0'; ++part) {
            name.text[length++] = *part;
        }
    }
    return name;
}
inline constexpr DeviceName kJoinedDeviceName = JoinDeviceName();
inline constexpr const auto& kDeviceName = kJoinedDeviceName.text;

// The camera application and the supervisor's own process name.
constexpr char kAppName[] = "cameraMain";
constexpr char kAppPath[] = "/opt/app/bin/cameraMain";
constexpr char kSelfName[] = "upgradeMain";

// Marker files.
constexpr char kDebugMarker[] = "/param/miniserver.debug";
constexpr char kRebootMarker[] = "/param/var/miniserver_reboot";

// The upgrade package for the flash writer, and the digest that came with it.
constexpr char kPackagePath[] = "/tmp/upGradeFile.FLS";
constexpr char kMd5Path[] = "/tmp/md5.txt";

// Version file of the installed application.
constexpr char kVersionFile[] = "/opt/app/config/Ver.ini";

// Assertion dumps. Relative to the working directory on purpose.
constexpr char kAssertText[] = "etc/configs/assert.txt";
constexpr char kAssertFtp[] = "etc/configs/assert.ftp";

// Local heartbeat socket.
constexpr char kHeartbeatHost[] = "127.0.0.1";
constexpr int kHeartbeatPort = 5555;

// Services on the local network.
constexpr int kProtocolPort = 80;
constexpr int kDiscoveryPort = 6789;

// Interfaces.
constexpr char kEthInterface[] = "eth0";
constexpr char kWifiInterface[] = "wlan0";

// Hardware watchdog.
constexpr char kWatchdogDevice[] = "/dev/watchdog";
constexpr int kWatchdogTimeoutSeconds = 30;

// Reset button: its line number, and the value files of the lines ("GPIO" in upper case).
constexpr int kResetButtonGpio = 26;
constexpr char kGpioValuePath[] = "/sys/class/gpio/GPIO%d/value";

// Wi-Fi.
constexpr char kWifiWorkDir[] = "/tmp";
constexpr char kWifiDebugWorkDir[] = "/param";
constexpr char kWifiConnectScript[] = "/root/wifi_connect.sh";
constexpr char kWifiSoftReset[] = "wifi_reset.sh soft";
constexpr char kWpaConfName[] = "wpa_supplicant.conf";
constexpr char kWpaControlSocket[] = "/tmp/wpa_supplicant/wlan0";
constexpr char kServiceSsid[] = "test";
constexpr char kServicePassphrase[] = "24681357";
constexpr char kDefaultPingTarget[] = "172.20.18.1";

// Name resolution and routes.
constexpr char kResolvConf[] = "/etc/resolv.conf";
constexpr char kRouteTable[] = "/proc/net/route";

// Debugging console.
constexpr char kConsoleDir[] = "/tmp/bin/";
constexpr char kConsoleCommandPipe[] = "/tmp/bin/cmd_link_snd";
constexpr char kConsoleReplyPipe[] = "/tmp/bin/cmd_link_ack";
constexpr char kConsoleClient[] = "/sbin/command_link";

// Flash: the partition rows, in the order in which the writer tries them.
struct PartitionRow {
    char name[32];
    char device[32];
};
constexpr PartitionRow kPartitions[] = {
    {"kernel", "/dev/mtd3"}, {"rootfs", "/dev/mtd4"}, {"app", "/dev/mtd5"},
    {"var", "/dev/mtd6"},    {"param", "/dev/mtd7"},  {"uboot", "/dev/mtd0"},
};
// The devices of the boot-loader region, in their order. The partition row of the first one stands
// for all three.
constexpr char kBootDevices[][32] = {"/dev/mtd0", "/dev/mtd1", "/dev/mtd2"};
constexpr size_t kFlashTransferUnit = 65536;

// Applications killed before flashing, in this order.
constexpr char kKillList[][16] = {"cameraMain", "udhcpc"};

}  // namespace kv
