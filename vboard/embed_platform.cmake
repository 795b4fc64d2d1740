# A CMake script: writes OUTPUT, a C++ file with the texts of FILES.
set(entries "")
foreach(file IN LISTS FILES)
    get_filename_component(name "${file}" NAME)
    file(READ "${file}" text)
    string(APPEND entries "    {\"${name}\", R\"platform(${text})platform\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"vboard/platform_files.h\"

namespace vboard {
const std::vector<PlatformFile>& PlatformFiles() {
    static const std::vector<PlatformFile> files = {
${entries}    };
    return files;
}
}  // namespace vboard
")
