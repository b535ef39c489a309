#include "catalog/open_catalog.hpp"

#include <libpq-fe.h>

#include <string_view>

#include "catalog/postgres_connection.hpp"
#include "catalog/sqlite_connection.hpp"

namespace qm::catalog {
namespace {

constexpr std::string_view SQLITE_PREFIX = "sqlite:";

// Why the URI cannot be used, or empty: libpq's reason when it does not parse, or the password
// it must not carry.
std::string postgres_problem(const std::string& location) {
    char* message = nullptr;
    PQconninfoOption* options = PQconninfoParse(location.c_str(), &message);
    if (options == nullptr) {
        std::string reason = message ? message : "out of memory";
        PQfreemem(message);
        while (!reason.empty() && reason.back() == '\n') {
            reason.pop_back();
        }
        return "catalogue: not a PostgreSQL URI: " + reason;
    }
    std::string problem;
    for (const PQconninfoOption* option = options; option->keyword != nullptr; ++option) {
        if (std::string_view(option->keyword) == "password" && option->val != nullptr &&
            *option->val != '\0') {
            problem =
                "catalogue: the PostgreSQL URI holds a password; put it in a password file "
                "(PGPASSFILE or ~/.pgpass) instead";
        }
    }
    PQconninfoFree(options);
    return problem;
}

std::unique_ptr<SqlConnection> connect(const std::string& location,
                                       const std::filesystem::path& storage, CatalogOpen mode) {
    if (const std::string problem = location_problem(location); !problem.empty()) {
        throw CatalogError(problem);
    }
    if (is_postgres_location(location)) {
        return std::make_unique<PostgresConnection>(location);
    }
    const std::filesystem::path file(location.substr(SQLITE_PREFIX.size()));
    return std::make_unique<SqliteConnection>(file.is_absolute() ? file : storage / file,
                                              mode == CatalogOpen::CREATE);
}

}  // namespace

bool is_postgres_location(const std::string& location) {
    return location.starts_with("postgresql://") || location.starts_with("postgres://");
}

std::string location_problem(const std::string& location) {
    if (location.starts_with(SQLITE_PREFIX)) {
        return location.size() == SQLITE_PREFIX.size()
                   ? "catalogue: \"" + location + "\" names no file"
                   : std::string();
    }
    if (is_postgres_location(location)) {
        return postgres_problem(location);
    }
    return "catalogue: \"" + location + "\" is neither sqlite:PATH nor a postgresql:// URI";
}

std::unique_ptr<CatalogStore> open_catalog(const std::string& location,
                                           const std::filesystem::path& storage, std::string& error,
                                           CatalogOpen mode) {
    try {
        return std::make_unique<CatalogStore>(connect(location, storage, mode),
                                              mode == CatalogOpen::CREATE);
    } catch (const CatalogError& failure) {
        error = failure.what();
    }
    return nullptr;
}

}  // namespace qm::catalog
