#include "tools/page/plan_options.h"

#include "tools/base/text.h"
#include "tools/page/http_server.h"

namespace kvtool::page {

namespace {

constexpr int64_t kMostJobs = 500;
constexpr int64_t kMostFailures = 100000;
constexpr int64_t kMostRetries = 1000;
constexpr size_t kMostDevices = 10000;

int64_t Number(const std::string& key, const Json& value, int64_t least, int64_t most) {
    if (!value.is_number_integer() || value.get<int64_t>() < least || value.get<int64_t>() > most) {
        throw HttpError(400, key + " must be a number from " + std::to_string(least) + " to " +
                                 std::to_string(most));
    }
    return value.get<int64_t>();
}

bool Flag(const std::string& key, const Json& value) {
    if (!value.is_boolean()) {
        throw HttpError(400, key + " must be true or false");
    }
    return value.get<bool>();
}

std::string Text(const std::string& key, const Json& value) {
    if (!value.is_string() || value.get<std::string>().size() > 200) {
        throw HttpError(400, key + " must be a short text");
    }
    return value.get<std::string>();
}

std::vector<std::string> Devices(const Json& value) {
    if (!value.is_array() || value.size() > kMostDevices) {
        throw HttpError(400, "devices must be a list");
    }
    std::vector<std::string> devices;
    for (const Json& device : value) {
        devices.push_back(Text("devices", device));
    }
    return devices;
}

}  // namespace

Json PlanOptions::ToJson() const {
    return {{"jobs", jobs},
            {"canary", canary},
            {"max_failures", maxFailures},
            {"retry", retry},
            {"force", force},
            {"again", again},
            {"expect_port", expectPort ? Json(*expectPort) : Json()},
            {"expect_version", Printable(expectVersion)}};
}

PlanOptions ReadPlanOptions(const Json& request) {
    if (!request.is_object()) {
        throw HttpError(400, "the request must be a JSON object");
    }
    PlanOptions options;
    for (const auto& [key, value] : request.items()) {
        if (value.is_null()) {
            continue;
        }
        if (key == "devices") {
            options.devices = Devices(value);
        } else if (key == "jobs") {
            options.jobs = static_cast<size_t>(Number(key, value, 1, kMostJobs));
        } else if (key == "canary") {
            options.canary = static_cast<size_t>(Number(key, value, 0, kMostJobs));
        } else if (key == "max_failures") {
            options.maxFailures = static_cast<size_t>(Number(key, value, 0, kMostFailures));
        } else if (key == "retry") {
            options.retry = static_cast<int>(Number(key, value, 0, kMostRetries));
        } else if (key == "force") {
            options.force = Flag(key, value);
        } else if (key == "force_identity") {
            if (Flag(key, value)) {
                throw HttpError(400,
                                "nothing overrides the identity: a device refuses a package that "
                                "names another chip or sensor type");
            }
        } else if (key == "again") {
            options.again = Flag(key, value);
        } else if (key == "expect_port") {
            options.expectPort = static_cast<uint16_t>(Number(key, value, 1, 65535));
        } else if (key == "expect_version") {
            options.expectVersion = Text(key, value);
        } else {
            throw HttpError(400, "there is no option '" + Printable(key) + "'");
        }
    }
    return options;
}

}  // namespace kvtool::page
