#include "archive/s3_object_source.hpp"

#include <algorithm>
#include <cstring>
#include <optional>

namespace qm::archive {

S3ObjectSource::S3ObjectSource(std::unique_ptr<S3Client> client, const std::string& key)
    : m_client(std::move(client)), m_key(key), m_name(m_client->endpoint().object_name(key)) {
    std::optional<S3ObjectInfo> info;
    try {
        info = m_client->head_object(key);
    } catch (const S3Error& refused) {
        if (refused.http_status() == 0 || !refused.code().empty()) {
            throw;
        }
        // A HEAD answer has no body to say why; the store says it in the error document of the
        // same request as a GET (SignatureDoesNotMatch, AccessDenied), which is thrown instead.
        m_client->get_object(key, ByteRange{0, 0}, [](std::string_view) {});
        throw;
    }
    if (!info) {
        throw S3Error("HEAD " + m_name + ": HTTP 404 NoSuchKey: no such object in the store", false,
                      404, "NoSuchKey");
    }
    m_size = info->size;
}

std::size_t S3ObjectSource::read(std::uint64_t offset, char* out, std::size_t count) {
    if (offset >= m_size || count == 0) {
        return 0;
    }
    const std::uint64_t last = std::min<std::uint64_t>(m_size, offset + count) - 1;
    const auto wanted = static_cast<std::size_t>(last - offset + 1);
    std::size_t got = 0;
    const std::string request = "GET " + m_name;
    m_client->get_object(m_key, ByteRange{offset, last}, [&](std::string_view chunk) {
        if (chunk.size() > wanted - got) {
            throw S3Error(request + ": the store sent more than the " + std::to_string(wanted) +
                              " bytes asked for",
                          false, 206, {});
        }
        std::memcpy(out + got, chunk.data(), chunk.size());
        got += chunk.size();
    });
    if (got != wanted) {
        throw S3Error(request + ": the store sent " + std::to_string(got) + " of the " +
                          std::to_string(wanted) + " bytes asked for from byte " +
                          std::to_string(offset),
                      true, 206, {});
    }
    return got;
}

}  // namespace qm::archive
