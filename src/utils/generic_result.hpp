#pragma once

namespace qm::utils {

// The outcome of an operation that reports by status instead of throwing: one value of `Status`,
// of which `SUCCESS_VALUE` means success. A plain value; copy it freely between threads.
template <typename Status, Status SUCCESS_VALUE>
class [[nodiscard]] GenericResult {
public:
    static constexpr Status SUCCESS = SUCCESS_VALUE;

    constexpr GenericResult(Status status = SUCCESS_VALUE)  // NOLINT(google-explicit-constructor)
        : m_status(status) {}

    constexpr Status status() const { return m_status; }
    constexpr bool succeeded() const { return m_status == SUCCESS_VALUE; }
    constexpr explicit operator bool() const { return succeeded(); }

    friend constexpr bool operator==(GenericResult left, GenericResult right) = default;

private:
    Status m_status;
};

}  // namespace qm::utils
