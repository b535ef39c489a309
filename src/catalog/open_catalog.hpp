#pragma once

#include <filesystem>
#include <memory>
#include <string>

#include "catalog/catalog_store.hpp"

// Opens the catalogue an operator names:
//   sqlite:PATH          an SQLite file; a relative PATH is inside `storage` (or the working
//                        directory when `storage` is empty)
//   postgresql://...     a libpq URI (also postgres://), passed to libpq as is; the password
//                        comes from PGPASSFILE, ~/.pgpass or PGSERVICE, never from the URI
// Any thread; the store it returns belongs to the caller's thread.

namespace qm::catalog {

enum class CatalogOpen {
    // Create the file and the schema when they are missing (the recorder, `reindex`).
    CREATE,
    // Only an existing catalogue (`find`): a missing one is an error, not a new empty file.
    EXISTING,
};

// Whether the location names a PostgreSQL database (a server that may be down for a while, where
// an SQLite file is the recorder's own).
bool is_postgres_location(const std::string& location);

// Why the location cannot name a catalogue (neither form, an SQLite form without a file, a URI
// that libpq refuses or that holds a password), or empty when its form is right. Opens nothing.
std::string location_problem(const std::string& location);

// The store, or null with `error` saying why (an unknown kind of location, a database that cannot
// be opened or is not a catalogue). A location holding a password is refused: it would end up in
// configuration files and process lists.
std::unique_ptr<CatalogStore> open_catalog(const std::string& location,
                                           const std::filesystem::path& storage, std::string& error,
                                           CatalogOpen mode = CatalogOpen::CREATE);

}  // namespace qm::catalog
