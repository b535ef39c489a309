#include "archive/s3_error.hpp"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

namespace qm::archive {
namespace {

// Codes a store sends when it is overloaded or the request took too long: worth repeating.
constexpr std::array<std::string_view, 7> RETRYABLE_CODES = {
    "SlowDown",        "Throttling",     "ThrottlingException", "RequestThrottled",
    "TooManyRequests", "RequestTimeout", "ServiceUnavailable"};

// Replaces the five entities XML predefines; a store escapes at least '&' and '<' in a message.
std::string xml_text(const std::string& escaped) {
    static constexpr std::array<std::pair<std::string_view, char>, 5> ENTITIES = {
        {{"&lt;", '<'}, {"&gt;", '>'}, {"&quot;", '"'}, {"&apos;", '\''}, {"&amp;", '&'}}};
    std::string text;
    for (std::size_t i = 0; i < escaped.size();) {
        const auto entity = std::find_if(ENTITIES.begin(), ENTITIES.end(), [&](const auto& e) {
            return escaped.compare(i, e.first.size(), e.first) == 0;
        });
        if (entity == ENTITIES.end()) {
            text += escaped[i++];
        } else {
            text += entity->second;
            i += entity->first.size();
        }
    }
    return text;
}

// The text of the first <name>...</name> element; empty when there is none.
std::string element(const std::string& xml, const std::string& name) {
    const std::string open = "<" + name + ">";
    const auto start = xml.find(open);
    if (start == std::string::npos) {
        return {};
    }
    const auto end = xml.find("</" + name + ">", start);
    if (end == std::string::npos) {
        return {};
    }
    return xml_text(xml.substr(start + open.size(), end - start - open.size()));
}

bool retryable_answer(int http_status, const std::string& code) {
    if (http_status >= 500 || http_status == 429) {
        return true;
    }
    for (const std::string_view retryable : RETRYABLE_CODES) {
        if (code == retryable) {
            return true;
        }
    }
    return false;
}

}  // namespace

S3Error error_from_response(const std::string& request, int http_status, const std::string& body) {
    std::string code = element(body, "Code");
    const std::string text = element(body, "Message");
    std::string message = request + ": HTTP " + std::to_string(http_status);
    if (!code.empty()) {
        message += " " + code;
    }
    if (!text.empty()) {
        message += ": " + text;
    }
    const bool retryable = retryable_answer(http_status, code);
    return S3Error(message, retryable, http_status, std::move(code));
}

S3Error transport_error(const std::string& request, const std::string& endpoint,
                        const std::string& reason) {
    return S3Error(request + ": cannot reach " + endpoint + ": " + reason, true, 0, {});
}

}  // namespace qm::archive
