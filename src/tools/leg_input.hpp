#pragma once

#include <CLI/CLI.hpp>

#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "recording/byte_source.hpp"
#include "tools/recorder_catalog.hpp"
#include "tools/store_options.hpp"

// A recording named by its leg instead of its file, for `quillmar export` and `inspect`:
// `--uuid UUID` looked up in the catalogue (`--catalog`, `--storage`, `--config` as `find` takes
// them), read from the storage when the leg's file is there, else from the archive's store when
// the leg is archived and `--endpoint` is given. Called on the tool's main thread.

namespace qm::tools {

struct LegInputOptions {
    std::string config = default_recorder_config();
    CatalogPlace place;
    std::optional<std::string> uuid;
    StoreOptions store;
};

// Adds `--uuid` to `input`, the command's group that holds its FILE and requires one of the two,
// and the catalogue's and the store's options to `command`.
void add_leg_input_options(CLI::App& command, CLI::Option_group& input, LegInputOptions& options);

// Why the leg cannot be read, one line without the command's name:
//   no leg UUID in the catalogue
//   leg UUID has been removed
//   the recording of leg UUID has gone
//   the recording of leg UUID is only in the archive, at s3://BUCKET/KEY/: give --endpoint to
//   read it from the store
// and the catalogue's, the credentials' or the store's own error.
class LegInputError : public std::runtime_error {
public:
    using std::runtime_error::runtime_error;
};

// The leg's recording, ready to read. REQUIRES: options.uuid is set.
// THROWS: LegInputError.
std::unique_ptr<recording::ByteSource> open_leg_input(const LegInputOptions& options);

}  // namespace qm::tools
