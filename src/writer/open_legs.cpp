#include "writer/open_legs.hpp"

#include <utility>

namespace qm::writer {

OpenLegs::Registration::Registration(OpenLegs& legs, std::string minute) noexcept
    : m_legs(&legs), m_minute(std::move(minute)) {}

OpenLegs::Registration::Registration(Registration&& other) noexcept
    : m_legs(std::exchange(other.m_legs, nullptr)), m_minute(std::move(other.m_minute)) {}

OpenLegs::Registration& OpenLegs::Registration::operator=(Registration&& other) noexcept {
    if (this != &other) {
        reset();
        m_legs = std::exchange(other.m_legs, nullptr);
        m_minute = std::move(other.m_minute);
    }
    return *this;
}

OpenLegs::Registration::~Registration() {
    reset();
}

void OpenLegs::Registration::reset() noexcept {
    if (m_legs != nullptr) {
        std::exchange(m_legs, nullptr)->close(m_minute);
    }
}

OpenLegs::Registration OpenLegs::open(std::string minute) {
    {
        const std::lock_guard<std::mutex> lock(m_mutex);
        ++m_minutes[minute];
    }
    return Registration(*this, std::move(minute));
}

void OpenLegs::close(const std::string& minute) noexcept {
    const std::lock_guard<std::mutex> lock(m_mutex);
    const auto found = m_minutes.find(minute);
    if (found != m_minutes.end() && --found->second == 0) {
        m_minutes.erase(found);
    }
}

// The names that begin with `directory` sort together, from it on; those in it are `directory`
// itself and those that go on with a '/'.
std::size_t OpenLegs::count_under(const std::string& directory) const {
    const std::lock_guard<std::mutex> lock(m_mutex);
    std::size_t count = 0;
    for (auto minute = m_minutes.lower_bound(directory);
         minute != m_minutes.end() && minute->first.compare(0, directory.size(), directory) == 0;
         ++minute) {
        const std::string& name = minute->first;
        if (name.size() == directory.size() || name[directory.size()] == '/') {
            count += minute->second;
        }
    }
    return count;
}

}  // namespace qm::writer
