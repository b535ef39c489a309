#pragma once

#include <CLI/CLI.hpp>

#include <string>

// Where `quillmar catalog reindex` and `quillmar find` find the catalogue when the command line
// leaves it out: in the recorder's own configuration file, read with the recorder's own parser, so
// that the tool and the recorder agree on every key. Called on the tool's main thread only, while
// no other thread runs: reading the file swaps the process's log sink for the time it takes.

namespace qm::tools {

// The recorder's configuration file when `--config` is not given: the one the recorder itself
// reads by default. A function, as it is built from constants of another translation unit.
std::string default_recorder_config();

// The catalogue's location and the directory a relative `sqlite:PATH` is in.
struct CatalogPlace {
    // "sqlite:PATH" or a "postgresql://" URI.
    std::string catalog;
    // Empty: the working directory.
    std::string storage;
};

// Fills what is empty in `place` from the `catalog` and `storage` keys of the recorder's
// configuration file `path`; what the command line gave stays. False, with `error` saying why in
// one line that names the file, when the file cannot be read or parsed, or when `place.catalog` is
// empty and the file sets no catalogue. The parser's log lines are kept from every sink: the
// tool's standard output is for its results.
[[nodiscard]] bool fill_from_recorder_config(const std::string& path, CatalogPlace& place,
                                             std::string& error);

// Adds `--catalog`, `--storage` (described as `storage_help`) and `--config` to `command`, into
// `place` and `config`, for the subcommands that read a recorder's catalogue.
void add_catalog_place_options(CLI::App& command, CatalogPlace& place, std::string& config,
                               const std::string& storage_help);

}  // namespace qm::tools
