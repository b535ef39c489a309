#pragma once

#include <cstddef>
#include <map>
#include <mutex>
#include <string>

// The minute directories that recorded legs still write into, counted, so that the storage
// cleanup can spare them. A minute is named relative to the storage root, as the recording tree
// lays it out ("2021-10-11/12/17").
//
// Threads: every member is safe from any thread. The writing manager opens a leg on the session
// thread when it creates a recorded session, and closes it when the session completes (ends,
// times out or is flushed at stop) or is destroyed; the storage manager's thread asks. A leg takes
// the lock twice in its life, never per packet, so a plain mutex costs the data path nothing.

namespace qm::writer {

class OpenLegs {
public:
    // One open leg: it counts from `open` until the registration is reset, assigned over or
    // destroyed. Empty when default-built or moved from.
    class Registration {
    public:
        Registration() = default;
        Registration(Registration&& other) noexcept;
        Registration& operator=(Registration&& other) noexcept;
        ~Registration();

        // Closes the leg now; nothing when empty.
        void reset() noexcept;

    private:
        friend class OpenLegs;
        Registration(OpenLegs& legs, std::string minute) noexcept;

        OpenLegs* m_legs = nullptr;
        std::string m_minute;
    };

    OpenLegs() = default;
    OpenLegs(const OpenLegs&) = delete;
    OpenLegs& operator=(const OpenLegs&) = delete;

    // Counts one more leg writing into `minute`. Throws std::bad_alloc when the first leg of a
    // minute finds no memory. REQUIRES: the registry outlives the registration.
    [[nodiscard]] Registration open(std::string minute);

    // How many legs are open in `directory` (a day, an hour or a minute, relative to the storage
    // root) or below it.
    std::size_t count_under(const std::string& directory) const;

private:
    void close(const std::string& minute) noexcept;

    mutable std::mutex m_mutex;
    std::map<std::string, std::size_t> m_minutes;
};

}  // namespace qm::writer
