// `quillmar`: look into recordings, turn them into audio, send test calls to a recorder,
// verify what it recorded, and keep and search the catalogue of recordings. Each subcommand lives
// in its own file; see "tools/tool_commands.hpp".

#include <CLI/CLI.hpp>
#include <exception>
#include <iostream>

#include "build_version.hpp"
#include "tools/tool_commands.hpp"

int main(int argc, char** argv) {
    CLI::App app{"quillmar: inspect, export, send, verify and find quillmarwriter recordings"};
    app.set_version_flag("--version", std::string(qm::build::VERSION));
    app.require_subcommand(1);
    int status = 0;
    qm::tools::add_inspect_command(app, status);
    qm::tools::add_export_command(app, status);
    qm::tools::add_send_command(app, status);
    qm::tools::add_verify_command(app, status);
    qm::tools::add_catalog_command(app, status);
    qm::tools::add_find_command(app, status);
    qm::tools::add_passwd_command(app, status);
    qm::tools::add_serve_command(app, status);
    qm::tools::add_archive_command(app, status);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError& error) {
        // Help and version end with 0; every mistake on the command line is a usage error, 2.
        return app.exit(error) == 0 ? 0 : 2;
    } catch (const std::exception& error) {
        // What a subcommand did not foresee ends the program as a failure, not with an abort.
        std::cerr << "quillmar: " << error.what() << std::endl;
        return 1;
    }
    return status;
}
