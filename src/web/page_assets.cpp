#include "web/page_assets.hpp"

#include <utility>

namespace qm::web {
namespace {

std::string_view content_type_of(std::string_view name) {
    static constexpr std::pair<std::string_view, std::string_view> TYPES[] = {
        {".html", "text/html; charset=utf-8"},
        {".js", "text/javascript; charset=utf-8"},
        {".css", "text/css; charset=utf-8"},
    };
    for (const auto& [extension, type] : TYPES) {
        if (name.size() > extension.size() && name.ends_with(extension)) {
            return type;
        }
    }
    return "application/octet-stream";
}

}  // namespace

std::optional<PageAsset> page_asset(std::string_view name) {
    for (std::size_t i = 0; i < EMBEDDED_PAGE_FILE_COUNT; ++i) {
        if (EMBEDDED_PAGE_FILES[i].name == name) {
            return PageAsset{EMBEDDED_PAGE_FILES[i].bytes, content_type_of(name)};
        }
    }
    return std::nullopt;
}

}  // namespace qm::web
