#include "tools/cli/package_commands.h"

#include <iostream>

#include "common/kv_platform.h"
#include "tools/base/files.h"
#include "tools/cli/named_file.h"
#include "tools/cli/report.h"
#include "tools/package/builder.h"
#include "tools/package/package_json.h"

namespace kvtool {

namespace {

void RefuseInputAsOutput(const std::string& input, const std::string& output) {
    if (output != "-" && SameFile(input, output)) {
        throw ToolError(ExitCode::kUsage, Printable(output) + " is one of the inputs as well");
    }
}

// Standard output belongs to the JSON object or to the package.
std::ostream& TextStream(const PackCommand& command) {
    return command.json || command.output == "-" ? std::cerr : std::cout;
}

}  // namespace

ExitCode RunPack(const PackCommand& command, const Layout& layout, Json* json) {
    (*json)["file"] = Printable(command.output);
    if (command.json && command.output == "-") {
        throw ToolError(ExitCode::kUsage, "--json and -o - both want standard output");
    }
    BuildRequest request{command.ic, command.sensor, {}, layout, command.force};
    for (const std::string& image : command.images) {
        const NamedFile input = ParseNamedFile(image);
        RefuseInputAsOutput(input.file, command.output);
        request.images.push_back({input.name, ReadWholeFile(input.file)});
    }
    BuildResult result = BuildPackage(request);
    if (command.ic != kv::kIcType || command.sensor != kv::kSensorType) {
        result.warnings.push_back(std::string("a device of chip ") + kv::kIcType + " and sensor " +
                                  kv::kSensorType + " will refuse this package");
    }
    for (const std::string& warning : result.warnings) {
        std::cerr << "warning: " << warning << '\n';
    }
    const std::string md5 = Md5Hex(result.bytes.data(), result.bytes.size());
    json->update({{"size", result.bytes.size()}, {"md5", md5}, {"warnings", result.warnings}});
    if (command.output == "-") {
        WriteToStandardOutput(result.bytes);
    } else {
        WriteWholeFile(command.output, result.bytes);
    }
    TextStream(command) << Printable(command.output) << ": " << SizeText(result.bytes.size())
                        << ", MD5 " << md5 << '\n';
    return ExitCode::kDone;
}

ExitCode RunInspect(const InspectCommand& command, const Layout& layout, Json* json) {
    (*json)["file"] = Printable(command.file);
    const PackageReport report = CheckPackage(ReadWholeFile(command.file), layout, command.device);
    json->update(PackageJson(report));
    if (!command.json) {
        PrintPackage(std::cout, report);
    }
    return report.Acceptable() ? ExitCode::kDone : ExitCode::kRefused;
}

}  // namespace kvtool
