#include "storage/file_system.hpp"

#include <boost/filesystem.hpp>

namespace qm::storage {
namespace {

namespace fs = boost::filesystem;

// Boost reports errno values in the system category; the same value in the standard one gives
// the same message.
std::error_code standard(const boost::system::error_code& error) {
    return error ? std::error_code(error.value(), std::system_category()) : std::error_code();
}

class RealFileSystem : public FileSystem {
public:
    Space space(const std::string& path) override {
        const fs::space_info space = fs::space(path);
        return Space{space.capacity, space.free, space.available};
    }

    std::uint64_t used_bytes(const std::string& path) override {
        std::uint64_t sum = 0;
        for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path)) {
            if (fs::is_regular_file(entry.status())) {
                sum += fs::file_size(entry.path());
            }
        }
        return sum;
    }

    Kind kind(const std::string& path) override {
        boost::system::error_code error;
        const fs::file_status status = fs::status(path, error);
        if (!fs::exists(status)) {
            return Kind::missing;
        }
        return fs::is_directory(status) ? Kind::directory : Kind::other;
    }

    void list(const std::string& path, std::vector<std::string>& entries) override {
        boost::system::error_code error;
        for (fs::directory_iterator entry(path, error); !error && entry != fs::directory_iterator();
             entry.increment(error)) {
            entries.push_back(entry->path().string());
        }
    }

    std::error_code remove_tree(const std::string& path) override {
        boost::system::error_code error;
        fs::remove_all(path, error);
        return standard(error);
    }

    std::error_code remove(const std::string& path) override {
        boost::system::error_code error;
        fs::remove(path, error);
        return standard(error);
    }

    std::chrono::system_clock::time_point now() override {
        return std::chrono::system_clock::now();
    }
};

}  // namespace

FileSystem& real_file_system() {
    // Never destroyed: a cleanup may still run while statics go at exit.
    static RealFileSystem* const instance = new RealFileSystem();
    return *instance;
}

}  // namespace qm::storage
