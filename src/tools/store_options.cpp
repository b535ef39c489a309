#include "tools/store_options.hpp"

#include "archive/s3_credentials.hpp"

namespace qm::tools {

CLI::Option* add_store_options(CLI::App& command, StoreOptions& options,
                               const std::string& endpoint_help) {
    CLI::Option* endpoint = command.add_option("--endpoint", options.endpoint, endpoint_help);
    command.add_option("--region", options.region,
                       "the store's region (default: AWS_REGION, else us-east-1)");
    command.add_flag("--path-style", options.path_style,
                     "put the bucket in the URL's path, not its host name");
    command.add_option("--credentials", options.credentials,
                       "an AWS credentials file readable only by its owner (default: "
                       "AWS_ACCESS_KEY_ID and AWS_SECRET_ACCESS_KEY)");
    return endpoint;
}

std::optional<archive::StoreAccess> store_access(const StoreOptions& options) {
    if (options.endpoint.empty()) {
        return std::nullopt;
    }
    archive::StoreAccess access;
    access.endpoint = options.endpoint;
    access.region =
        options.region.value_or(archive::region_from_environment().value_or("us-east-1"));
    access.addressing = options.path_style ? archive::S3Addressing::path_style
                                           : archive::S3Addressing::virtual_hosted;
    // Checks the endpoint now, not at the first archived leg; any valid bucket name will do.
    static_cast<void>(
        archive::S3Endpoint(access.endpoint, "bucket", access.region, access.addressing));
    access.credentials = options.credentials ? archive::credentials_from_file(*options.credentials)
                                             : archive::credentials_from_environment();
    return access;
}

}  // namespace qm::tools
