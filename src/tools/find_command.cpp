#include <iostream>
#include <memory>
#include <optional>
#include <string>

#include "catalog/catalog_find.hpp"
#include "catalog/open_catalog.hpp"
#include "tools/recorder_catalog.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

struct FindOptions {
    std::string config = default_recorder_config();
    CatalogPlace place;
    std::optional<std::string> call_id;
    std::optional<std::string> uuid;
    std::optional<std::string> from;
    std::optional<std::string> to;
    bool include_removed = false;
    std::size_t limit = 100;
    bool json = false;
};

// The time of option `name`, into `out`; false, with a line on standard error, when it does not
// parse.
bool read_time(const char* name, const std::optional<std::string>& text,
               std::optional<std::uint64_t>& out) {
    if (!text) {
        return true;
    }
    out = catalog::parse_utc_time(*text);
    if (!out) {
        std::cerr << "quillmar find: " << name << " \"" << *text
                  << "\" is not a UTC time like 2026-11-24T11:52:00Z or \"2026-11-24 11:52\""
                  << std::endl;
    }
    return out.has_value();
}

int run_find(const FindOptions& options) {
    catalog::FindQuery query;
    query.call_id = options.call_id;
    query.uuid = options.uuid;
    query.include_removed = options.include_removed;
    query.limit = options.limit;
    if (!read_time("--from", options.from, query.from_us) ||
        !read_time("--to", options.to, query.to_us)) {
        return 2;
    }
    std::string error;
    CatalogPlace place = options.place;
    if (place.catalog.empty() && !fill_from_recorder_config(options.config, place, error)) {
        std::cerr << "quillmar find: " << error << std::endl;
        return 2;
    }
    const auto store =
        catalog::open_catalog(place.catalog, place.storage, error, catalog::CatalogOpen::EXISTING);
    if (!store) {
        std::cerr << "quillmar find: " << error << std::endl;
        return 2;
    }
    std::vector<catalog::CatalogRow> rows;
    try {
        rows = store->find(query);
    } catch (const catalog::CatalogError& failure) {
        std::cerr << "quillmar find: " << failure.what() << std::endl;
        return 2;
    }
    for (const catalog::CatalogRow& row : rows) {
        std::cout << (options.json ? catalog::find_json(row) : catalog::find_line(row)) << '\n';
    }
    std::cout.flush();
    return rows.empty() ? 1 : 0;
}

}  // namespace

void add_find_command(CLI::App& app, int& status) {
    auto options = std::make_shared<FindOptions>();
    CLI::App* command =
        app.add_subcommand("find", "find recorded legs in the catalogue by call id, uuid or time");
    add_catalog_place_options(*command, options->place, options->config,
                              "the directory a relative sqlite:PATH is in (default: the storage "
                              "key of --config when the catalogue comes from there, else the "
                              "working one)");
    command->add_option("--call-id", options->call_id, "the call's id");
    command->add_option("--uuid", options->uuid, "the leg's uuid");
    command->add_option("--from", options->from, "legs that started at or after this UTC time");
    command->add_option("--to", options->to, "legs that started before this UTC time");
    command->add_flag("--include-removed", options->include_removed,
                      "also legs whose recordings have been removed");
    command->add_option("--limit", options->limit, "at most this many legs")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    command->add_flag("--json", options->json, "one JSON document per leg, one per line");
    command->callback([options, &status] { status = run_find(*options); });
}

}  // namespace qm::tools
