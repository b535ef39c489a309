// Writes one valid datagram of each packet type (and of the forms that change a packet's length
// rule) into a directory, one file each, as the starting corpus of the packet reader's fuzzer.
//
//   packet_seed_writer <directory>
//
// The directory is created if needed. Exit status 0 on success, 1 on a usage or write error.

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iostream>
#include <string>
#include <utility>
#include <vector>

#include "media/packet_encoder.hpp"
#include "media/packet_header.hpp"

namespace {

namespace media = qm::media;
using qm::media::Datagram;

std::vector<std::pair<std::string, Datagram>> seeds() {
    qm::media::StartFields start_with_rule;
    start_with_rule.header.flags =
        media::FLAG_START_RULE | media::FLAG_START_N | media::FLAG_OUTBOUND;
    start_with_rule.rule = 42;
    start_with_rule.ft = {0xff, 0x3c};
    qm::media::StartFields start_empty_call_id;
    start_empty_call_id.call_id = "";
    qm::media::DataFields data_empty;
    data_empty.payload = {};
    qm::media::DataFields data_outbound;
    data_outbound.header.flags = media::FLAG_DATA_S | media::FLAG_OUTBOUND;
    data_outbound.seq = 2;
    data_outbound.off = 160;
    data_outbound.payload.assign(160, 0x1234);
    qm::media::ControlFields control_with_ft;
    control_with_ft.ft = {{0xa8, 0x54}};
    qm::media::ControlFields control_byte7;
    control_byte7.header.flags = media::FLAG_CONTROL_FT | 0x0300;  // byte 7 set: no ft after all
    return {
        {"start", qm::media::encode_start()},
        {"start_rule", qm::media::encode_start(start_with_rule)},
        {"start_empty_call_id", qm::media::encode_start(start_empty_call_id)},
        {"data", qm::media::encode_data()},
        {"data_empty", qm::media::encode_data(data_empty)},
        {"data_outbound", qm::media::encode_data(data_outbound)},
        {"control", qm::media::encode_control()},
        {"control_ft", qm::media::encode_control(control_with_ft)},
        {"control_byte7", qm::media::encode_control(control_byte7)},
        {"terminate", qm::media::encode_terminate()},
    };
}

bool write_file(const std::filesystem::path& path, const Datagram& bytes) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out.write(reinterpret_cast<const char*>(bytes.data()),
              static_cast<std::streamsize>(bytes.size()));
    return static_cast<bool>(out);
}

}  // namespace

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: " << argv[0] << " <directory>\n";
        return EXIT_FAILURE;
    }
    const std::filesystem::path directory(argv[1]);
    std::error_code error;
    std::filesystem::create_directories(directory, error);
    if (error) {
        std::cerr << "cannot create " << directory << ": " << error.message() << '\n';
        return EXIT_FAILURE;
    }
    for (const auto& [name, bytes] : seeds()) {
        if (!write_file(directory / (name + ".bin"), bytes)) {
            std::cerr << "cannot write " << (directory / (name + ".bin")) << '\n';
            return EXIT_FAILURE;
        }
    }
    return EXIT_SUCCESS;
}
