# A CMake script: writes OUTPUT, a C++ file with the bytes of FILES. GCC has no limit for the length of a string
# literal.
set(entries "")
foreach(file IN LISTS FILES)
    get_filename_component(name "${file}" NAME)
    file(READ "${file}" text)
    string(APPEND entries "        {\"${name}\", R\"page(${text})page\"},\n")
endforeach()
file(WRITE "${OUTPUT}" "#include \"tools/page/assets.h\"

namespace kvtool::page {
const std::vector<Asset>& Assets() {
    static const std::vector<Asset> assets = {
${entries}    };
    return assets;
}
}  // namespace kvtool::page
")
