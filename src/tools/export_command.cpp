#include <iostream>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "recording/audio_export.hpp"
#include "tools/leg_input.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

using recording::ExportChannels;
using recording::ExportOptions;
using recording::ExportResult;

struct ExportCommandOptions {
    std::string input;
    LegInputOptions leg;
    std::string output;
    bool mix = false;
    std::optional<int> side;
    int rate = 8000;
    bool force = false;
};

ExportChannels channels_of(const ExportCommandOptions& options) {
    if (options.mix) {
        return ExportChannels::MIX;
    }
    if (options.side) {
        return *options.side == 0 ? ExportChannels::SIDE_0 : ExportChannels::SIDE_1;
    }
    return ExportChannels::STEREO;
}

// The export of FILE, or of the leg --uuid names, read from wherever it is.
ExportResult export_input(const ExportCommandOptions& options, const ExportOptions& export_options,
                          std::string& input_name) {
    if (!options.leg.uuid) {
        input_name = options.input;
        return export_audio(export_options);
    }
    const std::unique_ptr<recording::ByteSource> source = open_leg_input(options.leg);
    input_name = source->name();
    return export_audio(export_options, *source);
}

int run_export(const ExportCommandOptions& options) {
    const ExportOptions export_options{options.input, options.output, channels_of(options),
                                       options.rate, options.force};
    try {
        std::string input_name;
        const ExportResult result = export_input(options, export_options, input_name);
        const std::string warning = tail_warning(input_name, result);
        if (!warning.empty()) {
            std::cerr << "quillmar export: " << warning << std::endl;
        }
        std::cout << summary_line(export_options.output, result) << std::endl;
        return 0;
    } catch (const std::runtime_error& error) {
        std::cerr << "quillmar export: " << error.what() << std::endl;
        return 2;
    }
}

}  // namespace

void add_export_command(CLI::App& app, int& status) {
    auto options = std::make_shared<ExportCommandOptions>();
    CLI::App* command = app.add_subcommand(
        "export", "write a recording as audio: side 0 left, side 1 right, gaps as silence");
    CLI::Option_group* input = command->add_option_group("input", "FILE or --uuid: one of the two");
    input->add_option("FILE", options->input, "the media.qm file");
    command
        ->add_option("-o,--output", options->output,
                     "audio file; its extension gives the format: .wav, .flac, .ogg or .opus")
        ->required();
    CLI::Option* mix =
        command->add_flag("--mix", options->mix, "one channel: both sides added, clipped");
    command->add_option("--side", options->side, "one side alone, mono")
        ->check(CLI::IsMember({0, 1}))
        ->excludes(mix);
    command->add_option("--rate", options->rate, "sample rate written in the file")
        ->capture_default_str()
        ->check(CLI::PositiveNumber);
    command->add_flag("--force", options->force, "overwrite an existing output");
    add_leg_input_options(*command, *input, options->leg);
    command->callback([options, &status] { status = run_export(*options); });
}

}  // namespace qm::tools
