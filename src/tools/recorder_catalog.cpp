#include "tools/recorder_catalog.hpp"

#include <string_view>

#include "conf/configuration.hpp"
#include "log/logger.hpp"
#include "recorder/configuration.hpp"

namespace qm::tools {

namespace {

// The parser's own prefix, left out of the tool's message, which names the file instead.
constexpr std::string_view LOG_PREFIX = "CONFIGURATION: ";

// While it lives, the process's log sink keeps the first ERROR text and drops every other line.
// The parser says why it failed only through the logger; the tool repeats that reason on
// standard error in its own words.
class FirstLoggedError {
public:
    FirstLoggedError() : m_saved(log::Logger::m_instance) {
        log::LoggerImpl& logger = log::Logger::m_instance;
        logger.context = this;
        logger.close = nullptr;
        logger.write = &FirstLoggedError::write;
    }
    ~FirstLoggedError() {
        log::LoggerImpl& logger = log::Logger::m_instance;
        logger.context = m_saved.context;
        logger.close = m_saved.close;
        logger.write = m_saved.write;
    }

    FirstLoggedError(const FirstLoggedError&) = delete;
    FirstLoggedError& operator=(const FirstLoggedError&) = delete;

    const std::string& text() const { return m_text; }

private:
    struct SavedSink {
        explicit SavedSink(const log::LoggerImpl& logger)
            : context(logger.context), close(logger.close), write(logger.write) {}
        void* context;
        log::LoggerImpl::CloseFn close;
        log::LoggerImpl::WriteFn write;
    };

    static void write(void* context, const char*, int, const log::Message& message) {
        auto& self = *static_cast<FirstLoggedError*>(context);
        if (message.level == log::Level::ERROR && self.m_text.empty()) {
            self.m_text = message.text();
            if (self.m_text.starts_with(LOG_PREFIX)) {
                self.m_text.erase(0, LOG_PREFIX.size());
            }
        }
    }

    SavedSink m_saved;
    std::string m_text;
};

}  // namespace

std::string default_recorder_config() {
    return conf::default_directory + "/writer" + conf::default_conf_ext;
}

bool fill_from_recorder_config(const std::string& path, CatalogPlace& place, std::string& error) {
    recorder::Configuration configuration;
    {
        FirstLoggedError logged;
        if (!configuration.parse_file(path)) {
            error = "recorder configuration " + path + ": " + logged.text();
            return false;
        }
    }
    if (place.catalog.empty()) {
        if (configuration.catalog.empty()) {
            error = "recorder configuration " + path +
                    " sets no catalogue: give --catalog or set its catalog key";
            return false;
        }
        place.catalog = configuration.catalog;
    }
    if (place.storage.empty()) {
        place.storage = configuration.storage;
    }
    return true;
}

void add_catalog_place_options(CLI::App& command, CatalogPlace& place, std::string& config,
                               const std::string& storage_help) {
    command.add_option("--catalog", place.catalog,
                       "sqlite:PATH or a postgresql:// URI (default: the catalog key of --config)");
    command.add_option("--storage", place.storage, storage_help);
    command
        .add_option("--config", config,
                    "the recorder's configuration file, read when --catalog is not given")
        ->capture_default_str();
}

}  // namespace qm::tools
