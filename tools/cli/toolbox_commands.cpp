#include "tools/cli/toolbox_commands.h"

#include <algorithm>
#include <filesystem>
#include <iostream>

#include "tools/base/files.h"
#include "tools/base/named_file.h"
#include "tools/package/extract.h"
#include "tools/package/package_json.h"

namespace kvtool {

namespace {

std::string DifferenceText(const ByteDifference& difference) {
    return std::to_string(difference.count) + " bytes differ, the first at " +
           std::to_string(difference.first);
}

void PrintComparison(const PackageComparison& comparison) {
    bool told = !comparison.header.empty();
    for (const HeaderDifference& field : comparison.header) {
        std::cout << field.field << ": " << field.a << " -> " << field.b << '\n';
    }
    for (const ImageComparison& image : comparison.images) {
        std::cout << Printable(image.name) << ": " << ImageChangeName(image.change);
        told = told || image.change != ImageChange::kSame;
        if (image.change == ImageChange::kChanged) {
            std::cout << ", " << SizeText(image.a->size) << " -> " << SizeText(image.b->size)
                      << ", " << DifferenceText(image.difference);
        } else if (image.change == ImageChange::kMoved) {
            std::cout << ", entry " << image.a->index << " at " << image.a->offset << " -> entry "
                      << image.b->index << " at " << image.b->offset;
        } else {
            std::cout << ", " << SizeText((image.a ? image.a : image.b)->size);
        }
        std::cout << '\n';
    }
    if (!told && !comparison.identical) {
        std::cout << "bytes outside the images differ\n";
    }
}

// The part of the partition that the offset lies in.
const char* Zone(const DumpVerdict& verdict) {
    if (verdict.difference.first < verdict.image) {
        return "in the image";
    }
    return verdict.difference.first < verdict.image + verdict.behind ? "after the image"
                                                                     : "in the erased rest";
}

void PrintVerdict(const DumpVerdict& verdict) {
    std::cout << verdict.name << ": ";
    if (verdict.difference.count > 0) {
        std::cout << "DIFFERENT, " << DifferenceText(verdict.difference) << ", " << Zone(verdict)
                  << '\n';
        return;
    }
    std::cout << "same, image " << SizeText(verdict.image) << ", written after it "
              << SizeText(verdict.behind) << ", erased "
              << SizeText(verdict.size - verdict.image - verdict.behind) << '\n';
}

// Dumps with the same name belong together, in the given order.
std::vector<PartitionDump> ReadDumps(const std::vector<std::string>& texts) {
    std::vector<PartitionDump> dumps;
    for (const std::string& text : texts) {
        const NamedFile input = ParseNamedFile(text);
        auto dump = std::find_if(dumps.begin(), dumps.end(), [&input](const PartitionDump& other) {
            return other.name == input.name;
        });
        if (dump == dumps.end()) {
            dump = dumps.insert(dumps.end(), {input.name, {}});
        }
        dump->devices.push_back(ReadWholeFile(input.file));
    }
    return dumps;
}

}  // namespace

ExitCode RunExtract(const ExtractCommand& command, Json* json) {
    (*json)["file"] = Printable(command.file);
    const Bytes package = ReadWholeFile(command.file);
    const PackageReport report = CheckPackage(package, Layout::Default(), {});
    const std::vector<ImageFile> images = SelectImages(report, command.names, command.force);
    if (images.empty()) {
        throw ToolError(ExitCode::kRefused, Printable(command.file) + " contains no image");
    }
    const std::filesystem::path folder(command.folder);
    std::error_code error;
    std::filesystem::create_directories(folder, error);
    if (error) {
        throw ToolError(ExitCode::kInternal,
                        "cannot create " + Printable(command.folder) + ": " + error.message());
    }
    for (const ImageFile& image : images) {
        const std::string path = folder / image.name;
        if (!command.force && std::filesystem::symlink_status(path, error).type() !=
                                  std::filesystem::file_type::not_found) {
            throw ToolError(ExitCode::kRefused,
                            Printable(path) + " already exists; use --force to replace it");
        }
    }
    (*json)["images"] = Json::array();
    for (const ImageFile& image : images) {
        const std::string path = folder / image.name;
        const Bytes bytes = ImageBytes(package, *image.entry);
        WriteWholeFile(path, bytes);
        (*json)["images"].push_back({{"index", image.entry->index},
                                     {"name", Printable(image.entry->name)},
                                     {"file", Printable(path)},
                                     {"size", bytes.size()},
                                     {"md5", Md5Hex(bytes.data(), bytes.size())}});
        if (!command.json) {
            std::cout << Printable(path) << ": " << SizeText(bytes.size()) << '\n';
        }
    }
    return ExitCode::kDone;
}

ExitCode RunDiff(const DiffCommand& command, Json* json) {
    json->update({{"a", Printable(command.a)}, {"b", Printable(command.b)}});
    const PackageComparison comparison =
        ComparePackages(ReadWholeFile(command.a), ReadWholeFile(command.b), Layout::Default());
    json->update(ComparisonJson(comparison));
    if (!command.json) {
        PrintComparison(comparison);
    }
    return comparison.identical ? ExitCode::kDone : ExitCode::kDifferent;
}

ExitCode RunVerify(const VerifyCommand& command, Json* json) {
    (*json)["file"] = Printable(command.file);
    const Bytes package = ReadWholeFile(command.file);
    bool equal = true;
    (*json)["partitions"] = Json::array();
    for (const PartitionDump& dump : ReadDumps(command.dumps)) {
        const DumpVerdict verdict = VerifyDump(package, Layout::Default(), dump);
        equal = equal && verdict.difference.count == 0;
        (*json)["partitions"].push_back(VerdictJson(verdict));
        if (!command.json) {
            PrintVerdict(verdict);
        }
    }
    return equal ? ExitCode::kDone : ExitCode::kDifferent;
}

}  // namespace kvtool
