// Reads the credentials file named by its argument and prints the access key id (never the
// secret), or the error, with exit status 1.
#include <iostream>

#include "archive/s3_credentials.hpp"

int main(int argc, char** argv) {
    if (argc != 2) {
        std::cerr << "usage: read_s3_credentials FILE\n";
        return 2;
    }
    try {
        std::cout << qm::archive::credentials_from_file(argv[1]).access_key_id << "\n";
        return 0;
    } catch (const qm::archive::CredentialsError& error) {
        std::cerr << error.what() << "\n";
        return 1;
    }
}
