#pragma once

#include <CLI/CLI.hpp>

#include <iostream>
#include <sstream>
#include <string>
#include <vector>

// Runs one `quillmar` subcommand in the test's process, through the subcommand's own command-line
// parsing, with standard output and error captured. CLI11's own parse errors propagate.

namespace qm::tools {

struct CommandRun {
    int status = -1;
    std::string out;
    std::string err;
};

// Sends std::cout and std::cerr to strings while it lives.
class OutputCapture {
public:
    OutputCapture()
        : m_old_out(std::cout.rdbuf(m_out.rdbuf())), m_old_err(std::cerr.rdbuf(m_err.rdbuf())) {}
    ~OutputCapture() {
        std::cout.rdbuf(m_old_out);
        std::cerr.rdbuf(m_old_err);
    }

    OutputCapture(const OutputCapture&) = delete;
    OutputCapture& operator=(const OutputCapture&) = delete;

    std::string out() const { return m_out.str(); }
    std::string err() const { return m_err.str(); }

private:
    std::ostringstream m_out;
    std::ostringstream m_err;
    std::streambuf* m_old_out;
    std::streambuf* m_old_err;
};

// `quillmar NAME ARGS...`, the subcommand added by `add` (one of the add_*_command functions).
inline CommandRun run_subcommand(void (*add)(CLI::App&, int&), const std::string& name,
                                 const std::vector<std::string>& args) {
    CLI::App app;
    CommandRun run;
    add(app, run.status);
    std::vector<const char*> argv = {"quillmar", name.c_str()};
    for (const std::string& arg : args) {
        argv.push_back(arg.c_str());
    }
    OutputCapture capture;
    app.parse(static_cast<int>(argv.size()), argv.data());
    run.out = capture.out();
    run.err = capture.err();
    return run;
}

}  // namespace qm::tools
