#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

// The files of the browser page (src/web/page: its HTML, style, script and the waveform library),
// built into the binary, so that `quillmar serve` needs nothing beside it and fetches nothing from
// elsewhere. Plain functions over constant data; any thread.

namespace qm::web {

// One file as the build embedded it: its own name ("app.js") and its bytes.
struct EmbeddedFile {
    std::string_view name;
    std::string_view bytes;
};

// The table the build generates (cmake/embed_page_assets.cmake).
extern const EmbeddedFile EMBEDDED_PAGE_FILES[];
extern const std::size_t EMBEDDED_PAGE_FILE_COUNT;

struct PageAsset {
    std::string_view bytes;
    // From the name's extension: "text/html; charset=utf-8", "text/javascript; charset=utf-8",
    // "text/css; charset=utf-8", or "application/octet-stream".
    std::string_view content_type;
};

// The embedded file `name` (a bare file name, no directory); none when there is no such file.
std::optional<PageAsset> page_asset(std::string_view name);

}  // namespace qm::web
