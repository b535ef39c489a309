// The load of `quillmar serve`'s API clients: CLIENTS threads, each with its own connection,
// asking for SECONDS what the page asks (searches, a leg, its peaks, its whole WAV and byte ranges
// of it) over the legs the catalogue holds; then the requests made, the errors (a status other
// than 2xx, or no answer) and the latency percentiles, per kind and in all.
//
//   serve_load HOST:PORT USER:PASSWORD [CLIENTS] [SECONDS]        default: 50 clients, 30 s
//
// Not run by the tests; bench/serve_load.sh runs it beside a recorder taking datagrams.

#include <httplib.h>

#include <algorithm>
#include <array>
#include <atomic>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <iostream>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include <nlohmann/json.hpp>

namespace {

using Clock = std::chrono::steady_clock;

enum Kind : std::size_t { SEARCH, LEG, PEAKS, WHOLE_WAV, RANGE, KINDS };
constexpr std::array<const char*, KINDS> KIND_NAMES = {"search", "leg", "peaks", "audio.wav",
                                                       "range"};
// Out of 20 requests: what a page of searches with a few legs opened and played asks.
constexpr std::array<Kind, 20> MIX = {SEARCH,    SEARCH,    SEARCH, SEARCH, SEARCH, SEARCH, LEG,
                                      LEG,       LEG,       LEG,    PEAKS,  PEAKS,  PEAKS,  PEAKS,
                                      WHOLE_WAV, WHOLE_WAV, RANGE,  RANGE,  RANGE,  RANGE};

struct Leg {
    std::string uuid;
    std::string call_id;
};

// What one client saw: latencies in microseconds per kind, and errors.
struct Tally {
    std::array<std::vector<std::uint32_t>, KINDS> latencies;
    std::array<std::uint64_t, KINDS> errors{};
};

struct Target {
    std::string host;
    int port = 0;
    std::string user;
    std::string password;
};

std::unique_ptr<httplib::Client> client_of(const Target& target) {
    auto client = std::make_unique<httplib::Client>(target.host, target.port);
    client->set_basic_auth(target.user.c_str(), target.password.c_str());
    client->set_keep_alive(true);
    client->set_read_timeout(60, 0);
    return client;
}

std::vector<Leg> legs_of(const Target& target) {
    const httplib::Result result = client_of(target)->Get("/api/legs?limit=1000");
    if (!result || result->status != 200) {
        std::cerr << "serve_load: /api/legs did not answer 200" << std::endl;
        return {};
    }
    std::vector<Leg> legs;
    for (const nlohmann::json& row : nlohmann::json::parse(result->body)) {
        legs.push_back({row.at("uuid").get<std::string>(), row.at("call_id").get<std::string>()});
    }
    return legs;
}

// One request of `kind` about `leg`; whether it answered 2xx.
bool ask(httplib::Client& client, Kind kind, const Leg& leg, std::mt19937& random) {
    const std::string base = "/api/legs/" + leg.uuid;
    std::string path;
    httplib::Params params;
    httplib::Headers headers;
    switch (kind) {
        case SEARCH:
            path = "/api/legs";
            params.emplace("call_id", leg.call_id);
            break;
        case LEG:
            path = base;
            break;
        case PEAKS:
            path = base + "/peaks";
            params.emplace("width", "800");
            break;
        case WHOLE_WAV:
            path = base + "/audio.wav";
            break;
        case RANGE: {
            // A player's seek: 64 KiB from somewhere in the first 32 KiB, inside any leg of 3 s
            // or more.
            const std::uint32_t first =
                std::uniform_int_distribution<std::uint32_t>(0, 32767)(random);
            path = base + "/audio.wav";
            headers.emplace("Range",
                            "bytes=" + std::to_string(first) + "-" + std::to_string(first + 65535));
            break;
        }
        case KINDS:
            break;
    }
    const httplib::Result result = client.Get(path, params, headers);
    return result && result->status >= 200 && result->status < 300;
}

void run_client(const Target& target, const std::vector<Leg>& legs, Clock::time_point end,
                unsigned seed, Tally& tally) {
    std::mt19937 random(seed);
    auto client = client_of(target);
    for (std::size_t n = seed; Clock::now() < end; ++n) {
        const Kind kind = MIX[n % MIX.size()];
        const Leg& leg =
            legs[std::uniform_int_distribution<std::size_t>(0, legs.size() - 1)(random)];
        const Clock::time_point start = Clock::now();
        const bool ok = ask(*client, kind, leg, random);
        const auto took =
            std::chrono::duration_cast<std::chrono::microseconds>(Clock::now() - start).count();
        tally.latencies[kind].push_back(static_cast<std::uint32_t>(took));
        if (!ok) {
            ++tally.errors[kind];
            // A connection that failed is not reused.
            client = client_of(target);
        }
    }
}

// "p50 1.2 ms": the latency below which `share` of them lie.
double percentile_ms(const std::vector<std::uint32_t>& sorted, double share) {
    if (sorted.empty()) {
        return 0;
    }
    const auto index = static_cast<std::size_t>(share * static_cast<double>(sorted.size() - 1));
    return sorted[index] / 1000.0;
}

void print_line(const char* name, std::vector<std::uint32_t> latencies, std::uint64_t errors,
                double seconds) {
    std::sort(latencies.begin(), latencies.end());
    std::printf("%-10s %9zu %8.1f %7llu %8.1f %8.1f %8.1f %8.1f\n", name, latencies.size(),
                static_cast<double>(latencies.size()) / seconds,
                static_cast<unsigned long long>(errors), percentile_ms(latencies, 0.5),
                percentile_ms(latencies, 0.9), percentile_ms(latencies, 0.99),
                latencies.empty() ? 0.0 : latencies.back() / 1000.0);
}

bool parse_target(const std::string& address, const std::string& login, Target& target) {
    const std::size_t colon = address.rfind(':');
    const std::size_t separator = login.find(':');
    if (colon == std::string::npos || separator == std::string::npos) {
        return false;
    }
    target.host = address.substr(0, colon);
    target.port = std::stoi(address.substr(colon + 1));
    target.user = login.substr(0, separator);
    target.password = login.substr(separator + 1);
    return true;
}

}  // namespace

int main(int argc, char** argv) {
    Target target;
    if (argc < 3 || !parse_target(argv[1], argv[2], target)) {
        std::cerr << "usage: serve_load HOST:PORT USER:PASSWORD [CLIENTS] [SECONDS]" << std::endl;
        return 2;
    }
    const int clients = argc > 3 ? std::stoi(argv[3]) : 50;
    const int seconds = argc > 4 ? std::stoi(argv[4]) : 30;
    const std::vector<Leg> legs = legs_of(target);
    if (legs.empty()) {
        std::cerr << "serve_load: no legs to ask for" << std::endl;
        return 1;
    }
    std::vector<Tally> tallies(static_cast<std::size_t>(clients));
    std::vector<std::thread> threads;
    const Clock::time_point start = Clock::now();
    const Clock::time_point end = start + std::chrono::seconds(seconds);
    for (int i = 0; i < clients; ++i) {
        threads.emplace_back(run_client, std::cref(target), std::cref(legs), end,
                             static_cast<unsigned>(i),
                             std::ref(tallies[static_cast<std::size_t>(i)]));
    }
    for (std::thread& thread : threads) {
        thread.join();
    }
    const double elapsed = std::chrono::duration<double>(Clock::now() - start).count();
    std::printf("# %d clients, %.1f s, %zu legs\n", clients, elapsed, legs.size());
    std::printf("%-10s %9s %8s %7s %8s %8s %8s %8s\n", "kind", "requests", "per_s", "errors",
                "p50_ms", "p90_ms", "p99_ms", "max_ms");
    std::vector<std::uint32_t> all;
    std::uint64_t all_errors = 0;
    for (std::size_t kind = 0; kind < KINDS; ++kind) {
        std::vector<std::uint32_t> latencies;
        std::uint64_t errors = 0;
        for (const Tally& tally : tallies) {
            latencies.insert(latencies.end(), tally.latencies[kind].begin(),
                             tally.latencies[kind].end());
            errors += tally.errors[kind];
        }
        all.insert(all.end(), latencies.begin(), latencies.end());
        all_errors += errors;
        print_line(KIND_NAMES[kind], std::move(latencies), errors, elapsed);
    }
    print_line("all", std::move(all), all_errors, elapsed);
    return all_errors == 0 ? 0 : 1;
}
