#include <unistd.h>

#include <limits.h>
#include <filesystem>
#include <iostream>
#include <memory>
#include <string>

#include "catalog/catalog_reindex.hpp"
#include "catalog/open_catalog.hpp"
#include "tools/recorder_catalog.hpp"
#include "tools/tool_commands.hpp"
#include "utils/time.hpp"

namespace qm::tools {
namespace {

struct ReindexCommandOptions {
    CatalogPlace place;
    std::string config = default_recorder_config();
    std::string recorder;
};

// "<this host's name>:0": the port is unknown without the recorder's configuration.
std::string default_recorder() {
    char name[HOST_NAME_MAX + 1] = {};
    if (::gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') {
        return "localhost:0";
    }
    return std::string(name) + ":0";
}

void print_skipped(const std::filesystem::path& file, const std::string& reason) {
    std::cerr << "WARNING: " << file.string() << ": " << reason << "; leg skipped\n";
}

// The catalogue and the storage: from the command line, what it leaves out from the recorder's
// configuration file. False, with a line on standard error, when they cannot be had.
bool find_place(const ReindexCommandOptions& command, CatalogPlace& place) {
    place = command.place;
    std::string error;
    if ((place.catalog.empty() || place.storage.empty()) &&
        !fill_from_recorder_config(command.config, place, error)) {
        std::cerr << "quillmar catalog reindex: " << error << std::endl;
        return false;
    }
    if (place.storage.empty()) {
        std::cerr << "quillmar catalog reindex: recorder configuration " << command.config
                  << " sets no storage: give --storage or set its storage key" << std::endl;
        return false;
    }
    if (!std::filesystem::is_directory(place.storage)) {
        std::cerr << "quillmar catalog reindex: storage " << place.storage << " is not a directory"
                  << std::endl;
        return false;
    }
    return true;
}

int run_reindex(const ReindexCommandOptions& command) {
    const std::string recorder = command.recorder.empty() ? default_recorder() : command.recorder;
    if (!catalog::parse_recorder(recorder)) {
        std::cerr << "quillmar catalog reindex: --recorder \"" << recorder << "\" is not HOST:PORT"
                  << std::endl;
        return 2;
    }
    CatalogPlace place;
    if (!find_place(command, place)) {
        return 2;
    }
    std::string error;
    const auto store = catalog::open_catalog(place.catalog, place.storage, error);
    if (!store) {
        std::cerr << "quillmar catalog reindex: " << error << std::endl;
        return 2;
    }
    catalog::ReindexOptions options;
    options.storage = place.storage;
    options.recorder = recorder;
    options.now_us = utils::time::now_us();
    try {
        std::cout << catalog::reindex_line(catalog::reindex(*store, options, print_skipped))
                  << std::endl;
    } catch (const catalog::CatalogError& failure) {
        std::cerr << "quillmar catalog reindex: " << failure.what() << std::endl;
        return 2;
    }
    return 0;
}

}  // namespace

void add_catalog_command(CLI::App& app, int& status) {
    CLI::App* catalog = app.add_subcommand("catalog", "maintain the catalogue of recordings");
    catalog->require_subcommand(1);
    auto options = std::make_shared<ReindexCommandOptions>();
    CLI::App* reindex = catalog->add_subcommand(
        "reindex", "bring the catalogue in line with the legs a storage directory holds");
    reindex->add_option("--storage", options->place.storage,
                        "the recorder's storage directory (default: the storage key of --config)");
    reindex->add_option("--catalog", options->place.catalog,
                        "sqlite:PATH (relative to the storage) or a postgresql:// URI (default: "
                        "the catalog key of --config)");
    reindex
        ->add_option("--config", options->config,
                     "the recorder's configuration file, read when --storage or --catalog is "
                     "not given")
        ->capture_default_str();
    reindex->add_option("--recorder", options->recorder,
                        "HOST:PORT of the rows made from a media file without leg.json "
                        "(default: this host's name and port 0)");
    reindex->callback([options, &status] { status = run_reindex(*options); });
}

}  // namespace qm::tools
