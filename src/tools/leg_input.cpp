#include "tools/leg_input.hpp"

#include <signal.h>

#include <system_error>

#include "archive/leg_media.hpp"
#include "catalog/catalog_store.hpp"
#include "catalog/open_catalog.hpp"

namespace qm::tools {
namespace {

std::filesystem::path storage_root(const CatalogPlace& place) {
    const std::filesystem::path storage = place.storage.empty() ? "." : place.storage;
    std::error_code error;
    std::filesystem::path root = std::filesystem::canonical(storage, error);
    if (error || !std::filesystem::is_directory(root)) {
        throw LegInputError("storage " + storage.string() + " is not a directory");
    }
    return root;
}

catalog::CatalogRow find_row(const CatalogPlace& place, const std::string& uuid) {
    std::string error;
    const auto store =
        catalog::open_catalog(place.catalog, place.storage, error, catalog::CatalogOpen::EXISTING);
    if (!store) {
        throw LegInputError(error);
    }
    std::optional<catalog::CatalogRow> row = store->leg(uuid);
    if (!row) {
        throw LegInputError("no leg " + uuid + " in the catalogue");
    }
    return std::move(*row);
}

std::unique_ptr<recording::ByteSource> open_media(const catalog::CatalogRow& row,
                                                  const archive::LegMedia& media,
                                                  const StoreOptions& options) {
    if (media.state != archive::LegMediaState::LOCAL &&
        media.state != archive::LegMediaState::ARCHIVED) {
        throw LegInputError(archive::unavailable_text(row, media.state));
    }
    if (media.state == archive::LegMediaState::ARCHIVED && options.endpoint.empty()) {
        throw LegInputError("the recording of leg " + row.summary.uuid +
                            " is only in the archive, at " + row.archive_url.value_or("") +
                            ": give --endpoint to read it from the store");
    }
    if (media.state == archive::LegMediaState::ARCHIVED) {
        // The store's client needs it (a TLS connection the store closes raises SIGPIPE); this
        // command writes its results to files and standard output, which report EPIPE instead.
        ::signal(SIGPIPE, SIG_IGN);
    }
    return archive::open_leg_media(media, store_access(options));
}

}  // namespace

void add_leg_input_options(CLI::App& command, CLI::Option_group& input, LegInputOptions& options) {
    input.add_option("--uuid", options.uuid, "the leg to read, looked up in the catalogue");
    input.require_option(1);
    add_catalog_place_options(command, options.place, options.config,
                              "the recordings' root, the legs' paths are relative to (default: "
                              "the storage key of --config when the catalogue comes from there, "
                              "else the working directory)");
    add_store_options(command, options.store, READ_FROM_STORE);
}

std::unique_ptr<recording::ByteSource> open_leg_input(const LegInputOptions& options) {
    try {
        CatalogPlace place = options.place;
        std::string error;
        if (place.catalog.empty() && !fill_from_recorder_config(options.config, place, error)) {
            throw LegInputError(error);
        }
        const catalog::CatalogRow row = find_row(place, *options.uuid);
        const archive::LegMedia media = archive::locate_leg_media(row, storage_root(place));
        return open_media(row, media, options.store);
    } catch (const LegInputError&) {
        throw;
    } catch (const std::exception& failure) {
        // The catalogue's, the credentials', the endpoint's or the store's own words.
        throw LegInputError(failure.what());
    }
}

}  // namespace qm::tools
