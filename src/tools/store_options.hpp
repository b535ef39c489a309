#pragma once

#include <CLI/CLI.hpp>

#include <optional>
#include <string>

#include "archive/leg_media.hpp"

// The options by which `quillmar export`, `inspect` and `serve` reach the archive's store to read
// archived legs whose local copy has gone: the endpoint (an archive_url names only the bucket),
// the region, the addressing, and the credentials as the archiver takes them (the environment or
// a file only its owner reads, never the command line). Called on the tool's main thread.

namespace qm::tools {

struct StoreOptions {
    // Empty: the store is not read.
    std::string endpoint;
    std::optional<std::string> region;
    bool path_style = false;
    std::optional<std::string> credentials;
};

// Adds `--endpoint`, `--region`, `--path-style` and `--credentials` to `command`, into `options`.
void add_store_options(CLI::App& command, StoreOptions& options);

// How to reach the store, none without an endpoint. The region is --region, else AWS_REGION, else
// us-east-1. THROWS: archive::S3EndpointError for an endpoint that is not such a URL (or an IP
// address without --path-style), archive::CredentialsError when the credentials are missing or
// refused.
std::optional<archive::StoreAccess> store_access(const StoreOptions& options);

}  // namespace qm::tools
