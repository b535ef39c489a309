#pragma once

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace qm::test {

// A fresh directory under /tmp for one test, removed with everything in it when the object goes
// out of scope. Used from the test's own thread.
class TempDirectory {
public:
    TempDirectory() {
        std::string name = "/tmp/qm_test_XXXXXX";
        if (::mkdtemp(name.data()) == nullptr) {
            throw std::runtime_error("mkdtemp failed for " + name);
        }
        m_path = name;
    }
    ~TempDirectory() {
        std::error_code ignored;
        std::filesystem::remove_all(m_path, ignored);
    }

    TempDirectory(const TempDirectory&) = delete;
    TempDirectory& operator=(const TempDirectory&) = delete;

    const std::filesystem::path& path() const { return m_path; }

    // Writes `content` to the file `name` in the directory and returns the file's path.
    std::string write_file(const std::string& name, const std::string& content) const {
        const std::filesystem::path file = m_path / name;
        std::ofstream(file, std::ios::binary) << content;
        return file.string();
    }

private:
    std::filesystem::path m_path;
};

}  // namespace qm::test
