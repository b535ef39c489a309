#pragma once

#include <filesystem>
#include <optional>
#include <string>

// The certificate and private key `quillmar serve` answers HTTPS with, and the checks they pass
// before the server starts. Plain functions; any thread.

namespace qm::web {

struct TlsFiles {
    // PEM: the server's certificate, then any intermediate ones.
    std::filesystem::path cert;
    // PEM, unencrypted: the certificate's private key.
    std::filesystem::path key;
};

// Why the files cannot serve TLS, one line for after "quillmar serve: ", or none:
//   "--cert FILE: cannot read: REASON" (and --key)
//   "--key FILE: open to others (mode 0644): allow them nothing (chmod o-rwx FILE)"
//   "--cert FILE: holds no PEM certificate"
//   "--key FILE: holds no PEM private key"
//   "--key FILE: is not the private key of --cert FILE"
// A key open to others is refused as ssh refuses one; its group may read it (Debian's ssl-cert
// group gives services their keys so).
std::optional<std::string> tls_files_problem(const TlsFiles& files);

}  // namespace qm::web
