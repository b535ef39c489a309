#include "writer/service.hpp"

#include "build_version.hpp"
#include "conf/configuration.hpp"
#include "log/logger.hpp"

namespace qm::writer {

Service::Service() {
    capabilities = CAPABILITY_DAEMON;
    module_name = "writer";
    service_name = "quillmar" + module_name;
    config_path = conf::default_directory + "/" + module_name + conf::default_conf_ext;
}

void Service::on_pre_start() {
    QM_LOG_SYSTEM("build version: \"" << build::VERSION << "\"");
}

bool Service::on_start() {
    return true;
}

}  // namespace qm::writer
