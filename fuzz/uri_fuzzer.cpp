// Entity URIs as an application may pass them: the checks never crash, refuse only with
// std::invalid_argument naming the URI, and every node id they accept round-trips through
// its text form and through a URI built from it.
#include <cctype>
#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <stdexcept>
#include <string>
#include <vector>

#include <open62541/types.h>

#include <vesk/duvo/opcua/uriHelper.hpp>
#include <vesk/duvo/util.hpp>

namespace {

[[noreturn]] void fail(const std::string& what, const std::string& uri) {
    std::fprintf(stderr, "uri_fuzzer: %s\n  uri: %s\n", what.c_str(), uri.c_str());
    std::abort();
}

/// Refused properly: by std::invalid_argument whose message names the URI.
template <class F>
bool refusedProperly(F check, const std::string& uri, const char* name) {
    try {
        check();
        return false;
    } catch (const std::invalid_argument& e) {
        // what() ends at a NUL byte: the URI is named up to its first one.
        if (std::string(e.what()).find(uri.substr(0, uri.find('\0'))) == std::string::npos)
            fail(std::string(name) + " refused without naming the URI: " + e.what(), uri);
        return true;
    } catch (const std::exception& e) {
        fail(std::string(name) + " threw something else than std::invalid_argument: " + e.what(), uri);
    }
}

/// RFC 3986 percent-encoding of everything but the unreserved characters.
std::string encode(const std::string& text) {
    static const char hex[] = "0123456789ABCDEF";
    std::string out;
    for (unsigned char c : text) {
        if (std::isalnum(c) || c == '-' || c == '.' || c == '_' || c == '~') {
            out += static_cast<char>(c);
        } else {
            out += '%';
            out += hex[c >> 4];
            out += hex[c & 15];
        }
    }
    return out;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
    using vesk::duvo::opcua::UriHelper;
    namespace detail = vesk::duvo::opcua::detail;
    const std::string uri(reinterpret_cast<const char*>(data), size);

    const bool ps = UriHelper::isPubSubUri(uri);
    const bool rr = UriHelper::isReqResUri(uri);
    if (ps && rr) fail("a URI of both kinds", uri);

    for (int flags = 0; flags < 4; ++flags)
        refusedProperly([&] { vesk::duvo::util::checkUri(uri, flags & 1, flags & 2); }, uri, "checkUri");
    std::string endpoint;
    if (!refusedProperly([&] { endpoint = UriHelper::endpointOf(uri); }, uri, "endpointOf") &&
        endpoint.rfind("opc.tcp://", 0) != 0)
        fail("an endpoint without opc.tcp://: " + endpoint, uri);

    using NodeIds = decltype(detail::getNodeIds(uri));
    NodeIds ids;
    if (refusedProperly([&] { ids = detail::getNodeIds(uri); }, uri, "getNodeIds")) return 0;
    if (ids.empty()) fail("getNodeIds accepted a URI without ids", uri);

    // Every id prints as text that parses back to the same id, and a URI made of those
    // texts, encoded, gives the same ids again.
    std::string rebuilt = "opcua-ps://127.0.0.1:4840#";
    for (std::size_t i = 0; i < ids.size(); ++i) {
        const std::string text = detail::nodeIdToString(*ids[i]);
        UA_NodeId back;
        UA_NodeId_init(&back);
        UA_String str{text.size(), reinterpret_cast<UA_Byte*>(const_cast<char*>(text.data()))};
        if (UA_NodeId_parse(&back, str) != UA_STATUSCODE_GOOD) fail("a printed id does not parse: " + text, uri);
        const bool same = UA_NodeId_equal(&back, ids[i].get());
        UA_NodeId_clear(&back);
        if (!same) fail("a printed id parses to another id: " + text, uri);
        rebuilt += (i ? "," : "") + encode(text);
    }
    NodeIds again;
    try {
        again = detail::getNodeIds(rebuilt);
    } catch (const std::exception& e) {
        fail(std::string("the rebuilt URI is refused: ") + e.what() + "\n  rebuilt: " + rebuilt, uri);
    }
    if (again.size() != ids.size()) fail("the rebuilt URI has another id count: " + rebuilt, uri);
    for (std::size_t i = 0; i < ids.size(); ++i)
        if (!UA_NodeId_equal(again[i].get(), ids[i].get())) fail("the rebuilt URI has another id: " + rebuilt, uri);
    return 0;
}
