#include <vesk/duvo/opcua/uriHelper.hpp>

#include <cctype>
#include <stdexcept>
#include <string_view>

#include <boost/url/parse.hpp>
#include <boost/url/pct_string_view.hpp>

namespace vesk::duvo::opcua {

namespace {

bool iequals(std::string_view a, std::string_view b) {
    if (a.size() != b.size()) return false;
    for (std::size_t i = 0; i < a.size(); ++i)
        if (std::tolower(static_cast<unsigned char>(a[i])) != std::tolower(static_cast<unsigned char>(b[i])))
            return false;
    return true;
}

// The scheme as written; an ill-formed URI still has one, so that checkUri reports what is wrong.
std::string_view schemeOf(const std::string& uri) {
    const auto parsed = boost::urls::parse_uri(uri);
    if (parsed) return parsed->scheme();
    const auto colon = uri.find(':');
    return colon == std::string::npos ? std::string_view() : std::string_view(uri).substr(0, colon);
}

bool isUtf8(std::string_view text) {
    std::size_t i = 0;
    while (i < text.size()) {
        const auto c = static_cast<unsigned char>(text[i]);
        std::size_t more = 0;
        unsigned min = 0;
        if (c < 0x80) {
            ++i;
            continue;
        }
        if ((c & 0xE0) == 0xC0) {
            more = 1;
            min = 0x80;
        } else if ((c & 0xF0) == 0xE0) {
            more = 2;
            min = 0x800;
        } else if ((c & 0xF8) == 0xF0 && c <= 0xF4) {
            more = 3;
            min = 0x10000;
        } else
            return false;
        if (i + more >= text.size()) return false;
        unsigned code = c & (0x3F >> more);
        for (std::size_t k = 1; k <= more; ++k) {
            const auto d = static_cast<unsigned char>(text[i + k]);
            if ((d & 0xC0) != 0x80) return false;
            code = (code << 6) | (d & 0x3F);
        }
        if (code < min || code > 0x10FFFF || (code >= 0xD800 && code <= 0xDFFF)) return false;
        i += more + 1;
    }
    return true;
}

[[noreturn]] void badId(const std::string& uri, std::string_view part, const char* why) {
    throw std::invalid_argument(std::string(why) + " node id \"" + std::string(part) + "\" in URI " + uri);
}

} // namespace

bool UriHelper::isPubSubUri(const std::string& uri) { return iequals(schemeOf(uri), "opcua-ps"); }

bool UriHelper::isReqResUri(const std::string& uri) { return iequals(schemeOf(uri), "opcua-rr"); }

std::string UriHelper::endpointOf(const std::string& uri) {
    const auto parsed = boost::urls::parse_uri(uri);
    if (!parsed) throw std::invalid_argument("invalid URI: " + parsed.error().message() + " Uri:" + uri);
    return "opc.tcp://" + std::string(parsed->encoded_authority()) + std::string(parsed->encoded_path());
}

namespace detail {

std::vector<UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>> getNodeIds(const std::string& uri) {
    const auto parsed = boost::urls::parse_uri(uri);
    if (!parsed) throw std::invalid_argument("invalid URI: " + parsed.error().message() + " Uri:" + uri);
    if (!parsed->has_fragment()) throw std::invalid_argument("URI has no node ids in its fragment. Uri:" + uri);

    std::vector<UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>> ids;
    const std::string_view fragment = parsed->encoded_fragment();
    std::size_t start = 0;
    while (true) {
        const std::size_t comma = fragment.find(',', start);
        const std::string_view part =
            fragment.substr(start, comma == std::string_view::npos ? std::string_view::npos : comma - start);
        if (part.empty()) badId(uri, part, "empty");
        const auto encoded = boost::urls::make_pct_string_view(part);
        if (!encoded) badId(uri, part, "undecodable");
        const std::string text = encoded->decode();
        if (!isUtf8(text)) badId(uri, part, "undecodable (not UTF-8)");

        UA_NodeId id;
        UA_NodeId_init(&id);
        UA_String str{text.size(), reinterpret_cast<UA_Byte*>(const_cast<char*>(text.data()))};
        if (UA_NodeId_parse(&id, str) != UA_STATUSCODE_GOOD) badId(uri, part, "unparsable");
        ids.push_back(UaCpp<UA_NodeId, std::shared_ptr<UA_NodeId>>::take(id));

        if (comma == std::string_view::npos) break;
        start = comma + 1;
    }
    return ids;
}

std::string nodeIdToString(const UA_NodeId& id) {
    UA_String out;
    UA_String_init(&out);
    if (UA_NodeId_print(&id, &out) != UA_STATUSCODE_GOOD) throw std::runtime_error("cannot print node id");
    std::string text(reinterpret_cast<const char*>(out.data), out.length);
    UA_String_clear(&out);
    return text;
}

} // namespace detail
} // namespace vesk::duvo::opcua
