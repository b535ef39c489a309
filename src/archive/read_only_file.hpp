#pragma once

#include <fcntl.h>
#include <unistd.h>

#include <filesystem>

namespace qm::archive {

// A file opened for reading, closed with the object. `fd()` is negative when the open failed;
// errno then still holds the reason right after the constructor.
// One thread at a time.
class ReadOnlyFile {
public:
    explicit ReadOnlyFile(const std::filesystem::path& path)
        : m_fd(::open(path.c_str(), O_RDONLY | O_CLOEXEC)) {}
    ~ReadOnlyFile() {
        if (m_fd >= 0) {
            ::close(m_fd);
        }
    }

    ReadOnlyFile(const ReadOnlyFile&) = delete;
    ReadOnlyFile& operator=(const ReadOnlyFile&) = delete;

    int fd() const { return m_fd; }

private:
    int m_fd;
};

}  // namespace qm::archive
