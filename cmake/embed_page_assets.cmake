# cmake -DOUTPUT=<file.cpp> -DINPUTS=<file;file;...> -P embed_page_assets.cmake
# Writes a C++ source holding each input's bytes, named by the file's own name, as the table
# web/page_assets.hpp declares. Run at build time, so that a changed page rebuilds the binary.
set(entries "")
set(arrays "")
set(index 0)
foreach(input IN LISTS INPUTS)
    get_filename_component(name "${input}" NAME)
    file(READ "${input}" hex HEX)
    string(LENGTH "${hex}" hex_length)
    math(EXPR size "${hex_length} / 2")
    string(REGEX REPLACE "([0-9a-f][0-9a-f])" "'\\\\x\\1'," bytes "${hex}")
    # An empty file still needs one element; its size says 0.
    if(size EQUAL 0)
        set(bytes "'\\0'")
    endif()
    string(APPEND arrays "const char ASSET_${index}[] = {${bytes}};\n")
    string(APPEND entries "    {\"${name}\", {ASSET_${index}, ${size}}},\n")
    math(EXPR index "${index} + 1")
endforeach()
file(WRITE "${OUTPUT}.tmp"
"// Made by cmake/embed_page_assets.cmake from src/web/page: do not edit.
#include \"web/page_assets.hpp\"

namespace qm::web {
namespace {
${arrays}}  // namespace

const EmbeddedFile EMBEDDED_PAGE_FILES[] = {
${entries}};
const std::size_t EMBEDDED_PAGE_FILE_COUNT = ${index};

}  // namespace qm::web
")
file(COPY_FILE "${OUTPUT}.tmp" "${OUTPUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUTPUT}.tmp")
