#pragma once

#include <CLI/CLI.hpp>

// The subcommands of `quillmar`. Each adds itself to the program's command line; when it is the
// one given, it runs from its callback and leaves the program's exit status in `status`.
// Every failure is one line on standard error.

namespace qm::tools {

void add_inspect_command(CLI::App& app, int& status);
void add_export_command(CLI::App& app, int& status);
void add_send_command(CLI::App& app, int& status);
void add_verify_command(CLI::App& app, int& status);
// `catalog reindex`.
void add_catalog_command(CLI::App& app, int& status);
void add_find_command(CLI::App& app, int& status);
// `passwd FILE NAME`: the users of `quillmar serve`.
void add_passwd_command(CLI::App& app, int& status);
void add_serve_command(CLI::App& app, int& status);
// `archive`: a service uploading legs to S3-compatible object storage.
void add_archive_command(CLI::App& app, int& status);

}  // namespace qm::tools
