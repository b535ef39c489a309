#include "archive/s3_client.hpp"

#include <curl/curl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <exception>
#include <mutex>
#include <stdexcept>

#include "archive/read_only_file.hpp"

namespace qm::archive {
namespace {

// A store that does not accept the connection in this time is treated as unreachable.
constexpr long CONNECT_TIMEOUT_MS = 10'000;
// A transfer that moves less than a byte a second for a minute has stalled; a long upload that
// still moves is never cut.
constexpr long LOW_SPEED_LIMIT = 1;
constexpr long LOW_SPEED_TIME_S = 60;
// An error document is a few hundred bytes; a larger body is cut here.
constexpr std::size_t MAX_ERROR_BODY = 64 * 1024;
// SHA-256 of the empty body, the payload hash of a request without one.
constexpr const char* EMPTY_SHA256 =
    "e3b0c44298fc1c149afbf4c8996fb92427ae41e4649b934ca495991b7852b855";

std::once_flag g_curl_initialised;

void initialise_curl() {
    std::call_once(g_curl_initialised, [] {
        if (curl_global_init(CURL_GLOBAL_DEFAULT) != CURLE_OK) {
            throw std::runtime_error("cannot initialise libcurl");
        }
    });
}

// The request headers, freed with the object.
class HeaderList {
public:
    HeaderList() = default;
    ~HeaderList() { curl_slist_free_all(m_list); }
    HeaderList(const HeaderList&) = delete;
    HeaderList& operator=(const HeaderList&) = delete;

    void add(const std::string& header) {
        curl_slist* appended = curl_slist_append(m_list, header.c_str());
        if (appended == nullptr) {
            throw std::bad_alloc();
        }
        m_list = appended;
    }
    curl_slist* get() const { return m_list; }

private:
    curl_slist* m_list = nullptr;
};

// The headers of every request: the signed payload hash and, for a temporary credential, its
// token.
void add_common_headers(HeaderList& headers, const std::string& payload_sha256,
                        const S3Credentials& credentials) {
    headers.add("x-amz-content-sha256: " + payload_sha256);
    if (!credentials.session_token.empty()) {
        headers.add("x-amz-security-token: " + credentials.session_token);
    }
}

std::string range_header(const ByteRange& range) {
    return "Range: bytes=" + std::to_string(range.first) + "-" +
           (range.last ? std::to_string(*range.last) : std::string());
}

std::string unquoted(std::string text) {
    if (text.size() >= 2 && text.front() == '"' && text.back() == '"') {
        return text.substr(1, text.size() - 2);
    }
    return text;
}

}  // namespace

// What the callbacks of one request share with the code that started it.
struct S3Client::Transfer {
    CURL* handle = nullptr;
    // The body goes to `on_chunk` only when the answer has this status; any other answer's body
    // is an error document, kept in `error_body`.
    long expected_status = 200;
    const std::function<void(std::string_view)>* on_chunk = nullptr;
    std::string error_body;
    // The upload's file, or -1.
    int upload_fd = -1;
    int upload_errno = 0;
    // An exception from `on_chunk`, rethrown after curl has returned.
    std::exception_ptr failure;

    static std::size_t write(char* data, std::size_t size, std::size_t count, void* user) {
        auto& transfer = *static_cast<Transfer*>(user);
        const std::size_t length = size * count;
        long status = 0;
        curl_easy_getinfo(transfer.handle, CURLINFO_RESPONSE_CODE, &status);
        if (status != transfer.expected_status || transfer.on_chunk == nullptr) {
            const std::size_t room = MAX_ERROR_BODY - transfer.error_body.size();
            transfer.error_body.append(data, std::min(length, room));
            return length;
        }
        try {
            (*transfer.on_chunk)(std::string_view(data, length));
        } catch (...) {
            transfer.failure = std::current_exception();
            return 0;  // curl ends the transfer with CURLE_WRITE_ERROR
        }
        return length;
    }

    static std::size_t read(char* buffer, std::size_t size, std::size_t count, void* user) {
        auto& transfer = *static_cast<Transfer*>(user);
        for (;;) {
            const ssize_t got = ::read(transfer.upload_fd, buffer, size * count);
            if (got >= 0) {
                return static_cast<std::size_t>(got);
            }
            if (errno != EINTR) {
                transfer.upload_errno = errno;
                return CURL_READFUNC_ABORT;
            }
        }
    }

    // curl rewinds the body when it sends the request again on a fresh connection.
    static int seek(void* user, curl_off_t offset, int origin) {
        auto& transfer = *static_cast<Transfer*>(user);
        return ::lseek(transfer.upload_fd, offset, origin) < 0 ? CURL_SEEKFUNC_FAIL
                                                               : CURL_SEEKFUNC_OK;
    }
};

S3Client::S3Client(S3Endpoint endpoint, S3Credentials credentials)
    : m_endpoint(std::move(endpoint)),
      m_credentials(std::move(credentials)),
      m_signing("aws:amz:" + m_endpoint.region() + ":s3") {
    initialise_curl();
    m_handle = curl_easy_init();
    if (m_handle == nullptr) {
        throw std::runtime_error("cannot create a libcurl handle");
    }
}

S3Client::~S3Client() {
    curl_easy_cleanup(m_handle);
}

void S3Client::prepare(const std::string& key, curl_slist* headers) {
    // A reset keeps the handle's open connection for the next request.
    curl_easy_reset(m_handle);
    const std::string url = m_endpoint.object_url(key);
    curl_easy_setopt(m_handle, CURLOPT_URL, url.c_str());
    curl_easy_setopt(m_handle, CURLOPT_PROTOCOLS_STR, "http,https");
    // The key's escaped path is what gets signed: curl must not merge "." or ".." segments.
    curl_easy_setopt(m_handle, CURLOPT_PATH_AS_IS, 1L);
    curl_easy_setopt(m_handle, CURLOPT_AWS_SIGV4, m_signing.c_str());
    curl_easy_setopt(m_handle, CURLOPT_USERNAME, m_credentials.access_key_id.c_str());
    curl_easy_setopt(m_handle, CURLOPT_PASSWORD, m_credentials.secret_access_key.c_str());
    curl_easy_setopt(m_handle, CURLOPT_HTTPHEADER, headers);
    curl_easy_setopt(m_handle, CURLOPT_ERRORBUFFER, m_error_text);
    // No signals: the client runs on threads of a daemon with its own signal handling.
    curl_easy_setopt(m_handle, CURLOPT_NOSIGNAL, 1L);
    curl_easy_setopt(m_handle, CURLOPT_CONNECTTIMEOUT_MS, CONNECT_TIMEOUT_MS);
    curl_easy_setopt(m_handle, CURLOPT_LOW_SPEED_LIMIT, LOW_SPEED_LIMIT);
    curl_easy_setopt(m_handle, CURLOPT_LOW_SPEED_TIME, LOW_SPEED_TIME_S);
    m_error_text[0] = '\0';
}

long S3Client::perform(const std::string& request, Transfer& transfer) {
    transfer.handle = m_handle;
    curl_easy_setopt(m_handle, CURLOPT_WRITEFUNCTION, &Transfer::write);
    curl_easy_setopt(m_handle, CURLOPT_WRITEDATA, &transfer);
    const CURLcode result = curl_easy_perform(m_handle);
    if (transfer.failure) {
        std::rethrow_exception(transfer.failure);
    }
    if (transfer.upload_errno != 0) {
        throw std::runtime_error(
            request + ": cannot read the local file: " + std::strerror(transfer.upload_errno));
    }
    if (result != CURLE_OK) {
        const std::string reason =
            m_error_text[0] != '\0' ? m_error_text : curl_easy_strerror(result);
        throw transport_error(request, m_endpoint.endpoint(), reason);
    }
    long status = 0;
    curl_easy_getinfo(m_handle, CURLINFO_RESPONSE_CODE, &status);
    return status;
}

FileDigest S3Client::put_object(const std::string& key, const std::filesystem::path& file) {
    const FileDigest digest = digest_file(file);
    put_object(key, file, digest);
    return digest;
}

void S3Client::put_object(const std::string& key, const std::filesystem::path& file,
                          const FileDigest& digest) {
    const std::string request = "PUT " + m_endpoint.object_name(key);
    const ReadOnlyFile body(file);
    if (body.fd() < 0) {
        throw std::runtime_error(request + ": cannot read " + file.string() + ": " +
                                 std::strerror(errno));
    }
    HeaderList headers;
    add_common_headers(headers, digest.sha256_hex, m_credentials);
    headers.add("Content-MD5: " + digest.md5_base64);
    headers.add("Content-Type: application/octet-stream");
    prepare(key, headers.get());
    Transfer transfer;
    transfer.upload_fd = body.fd();
    curl_easy_setopt(m_handle, CURLOPT_UPLOAD, 1L);
    curl_easy_setopt(m_handle, CURLOPT_INFILESIZE_LARGE, static_cast<curl_off_t>(digest.size));
    curl_easy_setopt(m_handle, CURLOPT_READFUNCTION, &Transfer::read);
    curl_easy_setopt(m_handle, CURLOPT_READDATA, &transfer);
    curl_easy_setopt(m_handle, CURLOPT_SEEKFUNCTION, &Transfer::seek);
    curl_easy_setopt(m_handle, CURLOPT_SEEKDATA, &transfer);
    const long status = perform(request, transfer);
    if (status != 200) {
        throw error_from_response(request, static_cast<int>(status), transfer.error_body);
    }
}

std::optional<S3ObjectInfo> S3Client::head_object(const std::string& key) {
    const std::string request = "HEAD " + m_endpoint.object_name(key);
    HeaderList headers;
    add_common_headers(headers, EMPTY_SHA256, m_credentials);
    prepare(key, headers.get());
    curl_easy_setopt(m_handle, CURLOPT_NOBODY, 1L);
    Transfer transfer;
    const long status = perform(request, transfer);
    if (status == 404) {
        return std::nullopt;
    }
    if (status != 200) {
        throw error_from_response(request, static_cast<int>(status), transfer.error_body);
    }
    curl_off_t length = -1;
    curl_easy_getinfo(m_handle, CURLINFO_CONTENT_LENGTH_DOWNLOAD_T, &length);
    curl_header* etag = nullptr;
    if (length < 0 || curl_easy_header(m_handle, "ETag", 0, CURLH_HEADER, -1, &etag) != CURLHE_OK) {
        throw S3Error(request + ": the answer has no Content-Length or no ETag", false,
                      static_cast<int>(status), {});
    }
    return S3ObjectInfo{static_cast<std::uint64_t>(length), unquoted(etag->value)};
}

void S3Client::get_object(const std::string& key, const std::optional<ByteRange>& range,
                          const std::function<void(std::string_view)>& on_chunk) {
    const std::string request = "GET " + m_endpoint.object_name(key);
    HeaderList headers;
    add_common_headers(headers, EMPTY_SHA256, m_credentials);
    if (range) {
        headers.add(range_header(*range));
    }
    prepare(key, headers.get());
    Transfer transfer;
    // A store that ignores the range answers 200 with the whole object: not what was asked.
    transfer.expected_status = range ? 206 : 200;
    transfer.on_chunk = &on_chunk;
    const long status = perform(request, transfer);
    if (status == 200 && range) {
        throw S3Error(request + ": the store ignored the byte range", false, 200, {});
    }
    if (status != transfer.expected_status) {
        throw error_from_response(request, static_cast<int>(status), transfer.error_body);
    }
}

void S3Client::verify_object(const std::string& key, const FileDigest& local) {
    const std::string object = m_endpoint.object_name(key);
    const std::optional<S3ObjectInfo> stored = head_object(key);
    if (!stored) {
        throw S3Error(object + " is missing after its upload", true, 404, {});
    }
    if (stored->size != local.size || stored->etag != local.md5_hex) {
        throw S3Error(object + " differs from the local file: " + std::to_string(stored->size) +
                          " bytes, ETag " + stored->etag + "; local " + std::to_string(local.size) +
                          " bytes, MD5 " + local.md5_hex,
                      true, 200, {});
    }
}

}  // namespace qm::archive
