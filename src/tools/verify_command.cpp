#include <iostream>
#include <memory>
#include <string>

#include "tools/call_manifest.hpp"
#include "tools/manifest_verifier.hpp"
#include "tools/tool_commands.hpp"

namespace qm::tools {
namespace {

struct VerifyOptions {
    std::string manifest;
    std::string storage;
};

int run_verify(const VerifyOptions& options) {
    CallManifest manifest;
    try {
        manifest = read_manifest(options.manifest);
    } catch (const std::exception& error) {
        std::cerr << "quillmar verify: " << error.what() << '\n';
        return 2;
    }
    VerifySummary summary;
    for (const SentLeg& leg : manifest.legs) {
        const LegVerdict verdict = verify_leg(leg, options.storage);
        switch (verdict.state) {
            case LegVerdict::State::COMPLETE:
                ++summary.complete;
                continue;
            case LegVerdict::State::INCOMPLETE:
                ++summary.incomplete;
                break;
            case LegVerdict::State::MISSING:
                ++summary.missing;
                break;
        }
        std::cout << verdict_line(leg, verdict) << '\n';
    }
    std::cout << summary_line(summary) << std::endl;
    return summary.incomplete == 0 && summary.missing == 0 ? 0 : 1;
}

}  // namespace

void add_verify_command(CLI::App& app, int& status) {
    auto options = std::make_shared<VerifyOptions>();
    CLI::App* command = app.add_subcommand(
        "verify", "check the recordings under a storage directory against a send manifest");
    command->add_option("--manifest", options->manifest, "manifest written by quillmar send")
        ->required()
        ->check(CLI::ExistingFile);
    command->add_option("--storage", options->storage, "the recorder's storage directory")
        ->required()
        ->check(CLI::ExistingDirectory);
    command->callback([options, &status] { status = run_verify(*options); });
}

}  // namespace qm::tools
