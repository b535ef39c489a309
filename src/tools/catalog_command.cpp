#include <unistd.h>

#include <limits.h>
#include <iostream>
#include <memory>
#include <string>

#include "catalog/catalog_reindex.hpp"
#include "catalog/open_catalog.hpp"
#include "tools/tool_commands.hpp"
#include "utils/time.hpp"

namespace qm::tools {
namespace {

struct ReindexCommandOptions {
    std::string storage;
    std::string catalog;
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

int run_reindex(const ReindexCommandOptions& command) {
    const std::string recorder = command.recorder.empty() ? default_recorder() : command.recorder;
    if (!catalog::parse_recorder(recorder)) {
        std::cerr << "quillmar catalog reindex: --recorder \"" << recorder << "\" is not HOST:PORT"
                  << std::endl;
        return 2;
    }
    std::string error;
    const auto store = catalog::open_catalog(command.catalog, command.storage, error);
    if (!store) {
        std::cerr << "quillmar catalog reindex: " << error << std::endl;
        return 2;
    }
    catalog::ReindexOptions options;
    options.storage = command.storage;
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
    reindex->add_option("--storage", options->storage, "the recorder's storage directory")
        ->required()
        ->check(CLI::ExistingDirectory);
    reindex
        ->add_option("--catalog", options->catalog,
                     "sqlite:PATH (relative to the storage) or a postgresql:// URI")
        ->required();
    reindex->add_option("--recorder", options->recorder,
                        "HOST:PORT of the rows made from a media file without leg.json "
                        "(default: this host's name and port 0)");
    reindex->callback([options, &status] { status = run_reindex(*options); });
}

}  // namespace qm::tools
