#include <algorithm>
#include <iostream>
#include <memory>
#include <string>
#include <vector>

#include "recording/recording_inspector.hpp"
#include "tools/leg_input.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

struct InspectOptions {
    std::vector<std::string> files;
    LegInputOptions leg;
    bool json = false;
};

void print_report(const recording::RecordingReport& report, bool json, bool first) {
    if (json) {
        std::cout << recording::report_json(report).dump() << '\n';
    } else {
        std::cout << (first ? "" : "\n") << recording::report_text(report);
    }
    std::cout.flush();
    if (report.state != recording::RecordingState::SOUND) {
        std::cerr << "quillmar inspect: " << recording::error_text(report) << std::endl;
    }
}

// The leg --uuid names, read from wherever it is; a leg that cannot be read is one line and 2.
int inspect_leg(const InspectOptions& options) {
    try {
        const std::unique_ptr<recording::ByteSource> source = open_leg_input(options.leg);
        const recording::RecordingReport report = recording::inspect_recording(*source);
        print_report(report, options.json, true);
        return recording::exit_status(report);
    } catch (const std::runtime_error& failure) {
        std::cerr << "quillmar inspect: " << failure.what() << std::endl;
        return 2;
    }
}

// Every file is reported, the bad ones too; the worst status is the program's.
int run_inspect(const InspectOptions& options) {
    if (options.leg.uuid) {
        return inspect_leg(options);
    }
    int status = 0;
    for (std::size_t i = 0; i < options.files.size(); ++i) {
        const recording::RecordingReport report = recording::inspect_recording(options.files[i]);
        print_report(report, options.json, i == 0);
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
    CLI::Option_group* input = command->add_option_group("input", "FILE or --uuid: one of the two");
    input->add_option("FILE", options->files, "media.qm files");
    command->add_flag("--json", options->json, "one JSON document per file, one per line");
    add_leg_input_options(*command, *input, options->leg);
    command->callback([options, &status] { status = run_inspect(*options); });
}

}  // namespace qm::tools
