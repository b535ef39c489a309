#include "writer/service.hpp"

int main(int argc, char** argv) {
    qm::writer::Service service;
    return service.start(argc, argv);
}
