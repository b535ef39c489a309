#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

#include "archive/leg_media.hpp"

// The options by which `quillmar archive` reaches the archive's store to upload legs, and `export`,
// `inspect` and `serve` to read archived legs whose local copy has gone: the endpoint (an
// archive_url names only the bucket), the region, the addressing, and the credentials (the
// environment or a file only its owner reads, never the command line). Called on the tool's main
// thread.

namespace qm::tools {

struct StoreOptions {
    // Empty: the store is not read.
    std::string endpoint;
    std::optional<std::string> region;
    bool path_style = false;
    std::optional<std::string> credentials;
};

// How `--endpoint` is described for the commands that read archived legs.
inline constexpr const char* READ_FROM_STORE =
    "the archive's store, http(s)://HOST[:PORT], read for archived legs whose local copy has gone";

// Adds `--endpoint` (described as `endpoint_help`), `--region`, `--path-style` and `--credentials`
// to `command`, into `options`; returns the `--endpoint` option.
CLI::Option* add_store_options(CLI::App& command, StoreOptions& options,
                               const std::string& endpoint_help);

// How to reach the store, none without an endpoint. The region is --region, else AWS_REGION, else
// us-east-1. THROWS: archive::S3EndpointError for an endpoint that is not such a URL (or an IP
// address without --path-style), archive::CredentialsError when the credentials are missing or
// refused.
std::optional<archive::StoreAccess> store_access(const StoreOptions& options);

}  // namespace qm::tools
