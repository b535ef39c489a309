#pragma once

#include "app/configured_service.hpp"
#include "writer/configuration.hpp"

namespace qm::writer {

// The recorder: the frame loads its configuration from /etc/varnholt/quillmar/writer.conf (or
// "--config") and the "--args" assignments; `on_start` then runs the recorder until a stop signal.
// Supports daemon mode. `main` owns the one object on its stack.
//
// Threads: created on the main thread; every hook runs there. Whatever `on_start` builds it owns
// and destroys itself before it returns.
class Service : public app::Service<Configuration, false> {
public:
    Service();

protected:
    // Logs the build identification.
    void on_pre_start() override;
    bool on_start() override;
};

}  // namespace qm::writer
