#include "tools/cli/package_commands.h"

#include <kv_version.h>

#include <iostream>

#include "common/kv_platform.h"
#include "tools/base/files.h"
#include "tools/base/named_file.h"
#include "tools/cli/report.h"
#include "tools/package/builder.h"
#include "tools/package/flash_time.h"
#include "tools/package/package_json.h"
#include "tools/package/recipe.h"
#include "tools/package/signer.h"

namespace kvtool {

namespace {

void RefuseInputAsOutput(const std::string& input, const PackCommand& command) {
    for (const std::string& output : {command.output, command.manifest}) {
        if (output != "-" && SameFile(input, output)) {
            throw ToolError(ExitCode::kUsage,
                            Printable(output) + " is also an input; write to another file");
        }
    }
}

// Standard output may be taken by the JSON object or the package.
std::ostream& TextStream(const PackCommand& command) {
    return command.json || command.output == "-" ? std::cerr : std::cout;
}

// Reads what a package is built from, and records it for the manifest.
class PackInputs {
  public:
    explicit PackInputs(const PackCommand& command) : command_(command) {}

    BuildRequest Read(const LayoutOptions& layoutOptions) {
        BuildRequest request{kv::kIcType, kv::kSensorType, {}, Layout::Default(), command_.force};
        if (!command_.recipe.empty()) {
            ReadFrom(ReadRecipe(command_.recipe), &request);
        }
        if (!layoutOptions.file.empty()) {
            (void)Load("layout", layoutOptions.file, layoutOptions.file);
        }
        layoutOptions.Apply(&request.layout);
        request.ic = command_.ic.value_or(request.ic);
        request.sensor = command_.sensor.value_or(request.sensor);
        for (const std::string& text : command_.images) {
            const NamedFile image = ParseNamedFile(text);
            AddImage(image.name, image.file, image.file, &request);
        }
        if (!command_.sign.empty()) {
            RefuseInputAsOutput(command_.sign, command_);
            request.signatureComment = command_.comment.value_or(request.ic + " " + request.sensor);
        }
        return request;
    }

    // The role, the path as given, the size and the digest of each input; the name of each image.
    const Json& Manifest() const { return manifest_; }

  private:
    void ReadFrom(const Recipe& recipe, BuildRequest* request) {
        (void)Load("recipe", recipe.path, recipe.path);
        LayoutOptions layout{{}, recipe.sizes};
        if (!recipe.layout.empty()) {
            layout.file = recipe.Resolve(recipe.layout);
            (void)Load("layout", recipe.layout, layout.file);
        }
        layout.Apply(&request->layout);
        request->ic = recipe.ic.value_or(request->ic);
        request->sensor = recipe.sensor.value_or(request->sensor);
        for (const NamedFile& image : recipe.images) {
            AddImage(image.name, image.file, recipe.Resolve(image.file), request);
        }
    }

    void AddImage(const std::string& name, const std::string& shown, const std::string& path,
                  BuildRequest* request) {
        request->images.push_back({name, Load("image", shown, path)});
        manifest_.back()["name"] = Printable(name);
    }

    Bytes Load(const char* role, const std::string& shown, const std::string& path) {
        RefuseInputAsOutput(path, command_);
        Bytes bytes = ReadWholeFile(path);
        manifest_.push_back({{"role", role},
                             {"file", Printable(shown)},
                             {"size", bytes.size()},
                             {"sha256", Sha256Hex(bytes.data(), bytes.size())}});
        return bytes;
    }

    const PackCommand& command_;
    Json manifest_ = Json::array();
};

Bytes ManifestOf(const BuildRequest& request, const Json& inputs, const Json& package) {
    const Json manifest = {{"schema", kJsonSchema},
                           {"tool", std::string("kvtool ") + kv::kVersion},
                           {"ic", Printable(request.ic)},
                           {"sensor", Printable(request.sensor)},
                           {"inputs", inputs},
                           {"package", package}};
    const std::string text = manifest.dump(2, ' ', true) + "\n";
    return Bytes(text.begin(), text.end());
}

// Neither file changes unless both can be written.
void WriteOutputs(const PackCommand& command, const Bytes& package, const Bytes& manifest) {
    std::optional<PendingFile> packageFile;
    std::optional<PendingFile> manifestFile;
    if (!command.manifest.empty()) {
        manifestFile.emplace(command.manifest, manifest);
    }
    if (command.output != "-") {
        packageFile.emplace(command.output, package);
        packageFile->Commit();
    } else {
        WriteToStandardOutput(package);
    }
    if (manifestFile) {
        manifestFile->Commit();
    }
}

}  // namespace

ExitCode RunPack(const PackCommand& command, const LayoutOptions& layout, Json* json) {
    (*json)["file"] = Printable(command.output);
    if (command.json && command.output == "-") {
        throw ToolError(ExitCode::kUsage,
                        "--json and -o - cannot both use standard output; give -o a file");
    }
    if (command.images.empty() && command.recipe.empty()) {
        throw ToolError(ExitCode::kUsage, "nothing to pack; give NAME=IMAGE or --recipe");
    }
    if (!command.manifest.empty() && command.output != "-" &&
        SameTarget(command.output, command.manifest)) {
        throw ToolError(ExitCode::kUsage, "-o and --manifest name the same file");
    }
    PackInputs inputs(command);
    const BuildRequest request = inputs.Read(layout);
    BuildResult result = BuildPackage(request);
    if (request.ic != kv::kIcType || request.sensor != kv::kSensorType) {
        result.warnings.push_back(std::string("a device of chip ") + kv::kIcType + " and sensor " +
                                  kv::kSensorType + " will refuse this package");
    }
    for (const PowerWindow& window :
         PredictFlashTime(CheckPackage(result.bytes, request.layout, {})).windows) {
        if (window.risk == CutRisk::kDead) {
            result.warnings.push_back("boot loader: power " + PowerWindowText(window) +
                                      "; leave it out if it has not changed");
        }
    }
    for (const std::string& warning : result.warnings) {
        std::cerr << "warning: " << warning << '\n';
    }
    if (!command.sign.empty()) {
        SignPackage(&result.bytes, command.sign);
    }
    Json package = {{"size", result.bytes.size()},
                    {"md5", Md5Hex(result.bytes.data(), result.bytes.size())},
                    {"sha256", Sha256Hex(result.bytes.data(), result.bytes.size())}};
    const auto signature = command.sign.empty() ? std::optional<EmbeddedSignature>()
                                                : FindEmbeddedSignature(result.bytes);
    if (signature) {
        package["signature"] = SignatureJson(signature->text);
    }
    json->update(package);
    (*json)["warnings"] = result.warnings;
    WriteOutputs(command, result.bytes, ManifestOf(request, inputs.Manifest(), package));
    TextStream(command) << Printable(command.output) << ": " << SizeText(result.bytes.size())
                        << ", MD5 " << package["md5"].get<std::string>() << '\n';
    if (signature) {
        TextStream(command) << SignatureText(signature->text) << '\n';
    }
    return ExitCode::kDone;
}

ExitCode RunInspect(const InspectCommand& command, const Layout& layout, Json* json) {
    (*json)["file"] = Printable(command.file);
    const Bytes package = ReadWholeFile(command.file);
    std::optional<Signature> signature;
    if (!command.trust.key.empty()) {
        signature = VerifySignature(package, command.file, command.trust);
        (*json)["signature"] = SignatureJson(*signature);
    }
    const PackageReport report = CheckPackage(package, layout, command.device);
    json->update(PackageJson(report));
    if (!command.json) {
        if (signature) {
            std::cout << SignatureText(*signature) << '\n';
        } else if (report.signature) {
            std::cout << "signature not checked, because there is no --trusted-key: "
                      << SignatureText(report.signature->text) << '\n';
        }
        PrintPackage(std::cout, report);
    }
    return report.Acceptable() ? ExitCode::kDone : ExitCode::kRefused;
}

}  // namespace kvtool
