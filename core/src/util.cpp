#include <vesk/duvo/util.hpp>

#include <chrono>
#include <climits>
#include <cmath>
#include <cstdio>
#include <random>
#include <stdexcept>

#include <boost/url/parse.hpp>

namespace vesk::duvo::util {

std::int64_t currentTimeMillis() {
    using namespace std::chrono;
    return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

double timestampToDouble(std::int64_t millis) { return static_cast<double>(millis) / 1000.0; }

std::int64_t timestampFromDouble(double seconds) { return static_cast<std::int64_t>(std::floor(seconds * 1000.0)); }

std::string newUUID() {
    thread_local std::mt19937_64 engine{std::random_device{}()};
    const std::uint64_t hi = (engine() & 0xffffffffffff0fffULL) | 0x0000000000004000ULL; // version 4
    const std::uint64_t lo = (engine() & 0x3fffffffffffffffULL) | 0x8000000000000000ULL; // variant 1
    char text[37];
    std::snprintf(text, sizeof text, "%08x-%04x-%04x-%04x-%012llx", unsigned(hi >> 32), unsigned(hi >> 16) & 0xffffu,
                  unsigned(hi) & 0xffffu, unsigned(lo >> 48), static_cast<unsigned long long>(lo & 0xffffffffffffULL));
    return text;
}

long getReplyTimeQoS(const std::vector<std::shared_ptr<rr::qos::QoS>>& qos) {
    long reply = INT32_MAX;
    for (const auto& q : qos)
        if (const auto* r = dynamic_cast<const rr::qos::ReplyTime*>(q.get()))
            reply = static_cast<long>(r->getValue().count());
    return reply;
}

void checkUri(const std::string& uri, bool needsPath, bool needsFragment) {
    const auto parsed = boost::urls::parse_uri(uri);
    if (!parsed) throw std::invalid_argument("invalid URI: " + parsed.error().message() + " Uri:" + uri);
    if (!parsed->has_authority() || parsed->encoded_host().empty())
        throw std::invalid_argument("URI has no host. Uri:" + uri);
    if (needsPath && parsed->encoded_path().empty()) throw std::invalid_argument("URI has no path. Uri:" + uri);
    if (needsFragment && (!parsed->has_fragment() || parsed->encoded_fragment().empty()))
        throw std::invalid_argument("URI has no fragment. Uri:" + uri);
}

} // namespace vesk::duvo::util
