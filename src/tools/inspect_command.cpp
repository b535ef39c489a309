#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "recording/recording_inspector.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

struct InspectOptions {
    std::vector<std::string> files;
    bool json = false;
};

// Every file is reported, the bad ones too; the worst status is the program's.
int run_inspect(const InspectOptions& options) {
    int status = 0;
    for (std::size_t i = 0; i < options.files.size(); ++i) {
        const recording::RecordingReport report = recording::inspect_recording(options.files[i]);
        if (options.json) {
            std::cout << recording::report_json(report).dump() << '\n';
        } else {
            std::cout << (i == 0 ? "" : "\n") << recording::report_text(report);
        }
        std::cout.flush();
        if (report.state != recording::RecordingState::SOUND) {
            std::cerr << "quillmar inspect: " << recording::error_text(report) << std::endl;
        }
        status = std::max(status, recording::exit_status(report));
    }
    return status;
}

}  // namespace

void add_inspect_command(CLI::App& app, int& status) {
    auto options = std::make_shared<InspectOptions>();
    CLI::App* command = app.add_subcommand(
        "inspect", "show the header and the frames of recordings and check that they are whole");
    // Not checked for existence here: a missing file is reported like any other bad one.
    command->add_option("FILE", options->files, "media.qm files")->required();
    command->add_flag("--json", options->json, "one JSON document per file, one per line");
    command->callback([options, &status] { status = run_inspect(*options); });
}

}  // namespace qm::tools
