#pragma once

#include <stdexcept>
#include <string>

// A failed request to the store, classified for the caller's retry loop.
//   retryable: the store was not reached or the connection broke (transport), answered 5xx, or
//              asked the client to slow down (429, SlowDown, throttling, RequestTimeout): the same
//              request may succeed later.
//   not retryable: any other refusal (4xx with the store's <Code>, e.g. SignatureDoesNotMatch,
//              AccessDenied, NoSuchBucket, NoSuchKey): repeating it fails the same way until an
//              operator changes something.
// Any thread.

namespace qm::archive {

class S3Error : public std::runtime_error {
public:
    // `message` is complete (request, object, status, code); the code is repeated in `code()`.
    S3Error(const std::string& message, bool retryable, int http_status, std::string code)
        : std::runtime_error(message),
          m_retryable(retryable),
          m_http_status(http_status),
          m_code(std::move(code)) {}

    bool retryable() const { return m_retryable; }
    // 0 when the store did not answer.
    int http_status() const { return m_http_status; }
    // The store's <Code> ("SignatureDoesNotMatch"); empty when it sent none.
    const std::string& code() const { return m_code; }

private:
    bool m_retryable;
    int m_http_status;
    std::string m_code;
};

// The error for a store's answer with status `http_status` (not 2xx) and body `body` (its XML
// error document, or empty). `request` names the request in the message: "PUT s3://b/k".
// The message: "<request>: HTTP 403 SignatureDoesNotMatch: <the store's Message>".
S3Error error_from_response(const std::string& request, int http_status, const std::string& body);

// The error for a request that got no answer: "<request>: cannot reach <endpoint>: <reason>".
S3Error transport_error(const std::string& request, const std::string& endpoint,
                        const std::string& reason);

}  // namespace qm::archive
