#include "recorder/service.hpp"

int main(int argc, char** argv) {
    qm::recorder::Service service;
    return service.start(argc, argv);
}
