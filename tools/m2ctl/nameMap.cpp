#include "nameMap.hpp"

#include <fstream>
#include <sstream>
#include <variant>
#include <vector>

#include <open62541/types.h>

#include "catalogue.hpp"
#include "cli.hpp"

namespace m2ctl {

namespace {

/// A JSON value of the shapes a map has: a string, or an object (its members in order).
struct Json {
    std::string text;
    std::vector<std::pair<std::string, Json>> members;
    bool object = false;
    int line = 0;
};

/// A strict reader for the map's JSON: objects and strings only, nothing after the end.
class Reader {
public:
    Reader(const std::string& text, std::string file) : text_(text), file_(std::move(file)) {}

    Json document() {
        Json out = value();
        blanks();
        if (at_ < text_.size()) fail("unexpected text after the end of the map");
        return out;
    }

    [[noreturn]] void fail(const std::string& what) const {
        throw UsageError("bad map " + inQuotes(file_) + ": line " + std::to_string(line_) + ": " + what);
    }

private:
    void blanks() {
        while (at_ < text_.size() &&
               (text_[at_] == ' ' || text_[at_] == '\t' || text_[at_] == '\r' || text_[at_] == '\n')) {
            if (text_[at_] == '\n') ++line_;
            ++at_;
        }
    }

    bool take(char c) {
        blanks();
        if (at_ < text_.size() && text_[at_] == c) {
            ++at_;
            return true;
        }
        return false;
    }

    void expect(char c) {
        if (!take(c)) fail(std::string("expected '") + c + "'");
    }

    Json value() {
        blanks();
        Json out;
        out.line = line_;
        if (at_ >= text_.size()) fail("unexpected end of the map");
        if (text_[at_] == '"') {
            out.text = string();
        } else if (text_[at_] == '{') {
            ++at_;
            out.object = true;
            if (!take('}')) {
                do {
                    blanks();
                    if (at_ >= text_.size() || text_[at_] != '"') fail("expected a key in double quotes");
                    std::string key = string();
                    for (const auto& m : out.members)
                        if (m.first == key) fail("key " + inQuotes(key) + " given twice");
                    expect(':');
                    out.members.emplace_back(std::move(key), value());
                } while (take(','));
                expect('}');
            }
        } else {
            fail("expected a string or an object");
        }
        return out;
    }

    unsigned hex4() {
        if (at_ + 4 > text_.size()) fail("bad \\u escape");
        unsigned v = 0;
        for (int i = 0; i < 4; ++i) {
            const char c = text_[at_++];
            v <<= 4;
            if (c >= '0' && c <= '9')
                v |= unsigned(c - '0');
            else if (c >= 'a' && c <= 'f')
                v |= unsigned(c - 'a' + 10);
            else if (c >= 'A' && c <= 'F')
                v |= unsigned(c - 'A' + 10);
            else
                fail("bad \\u escape");
        }
        return v;
    }

    std::string string() {
        ++at_; // the opening quote
        std::string out;
        while (true) {
            if (at_ >= text_.size()) fail("a string without its closing quote");
            const char c = text_[at_++];
            if (c == '"') return out;
            if (static_cast<unsigned char>(c) < 0x20) fail("a control character in a string");
            if (c != '\\') {
                out += c;
                continue;
            }
            if (at_ >= text_.size()) fail("a string without its closing quote");
            const char e = text_[at_++];
            switch (e) {
            case '"':
                out += '"';
                break;
            case '\\':
                out += '\\';
                break;
            case '/':
                out += '/';
                break;
            case 'b':
                out += '\b';
                break;
            case 'f':
                out += '\f';
                break;
            case 'n':
                out += '\n';
                break;
            case 'r':
                out += '\r';
                break;
            case 't':
                out += '\t';
                break;
            case 'u': {
                unsigned cp = hex4();
                if (cp >= 0xD800 && cp < 0xDC00) {
                    if (at_ + 2 > text_.size() || text_[at_] != '\\' || text_[at_ + 1] != 'u')
                        fail("a lone surrogate in a \\u escape");
                    at_ += 2;
                    const unsigned low = hex4();
                    if (low < 0xDC00 || low >= 0xE000) fail("a lone surrogate in a \\u escape");
                    cp = 0x10000 + ((cp - 0xD800) << 10) + (low - 0xDC00);
                } else if (cp >= 0xDC00 && cp < 0xE000) {
                    fail("a lone surrogate in a \\u escape");
                }
                utf8(cp, out);
                break;
            }
            default:
                fail(std::string("bad escape \\") + e);
            }
        }
    }

    static void utf8(unsigned cp, std::string& out) {
        if (cp < 0x80) {
            out += char(cp);
        } else if (cp < 0x800) {
            out += char(0xC0 | (cp >> 6));
            out += char(0x80 | (cp & 0x3F));
        } else if (cp < 0x10000) {
            out += char(0xE0 | (cp >> 12));
            out += char(0x80 | ((cp >> 6) & 0x3F));
            out += char(0x80 | (cp & 0x3F));
        } else {
            out += char(0xF0 | (cp >> 18));
            out += char(0x80 | ((cp >> 12) & 0x3F));
            out += char(0x80 | ((cp >> 6) & 0x3F));
            out += char(0x80 | (cp & 0x3F));
        }
    }

    const std::string& text_;
    std::string file_;
    std::size_t at_ = 0;
    int line_ = 1;
};

bool isType(const std::string& name) {
    return visitByName(DataTypes{}, name, [](auto) {});
}
bool isInterface(const std::string& name) {
    return visitByName(InterfaceRows{}, name, [](auto) {});
}

} // namespace

NameMap loadNameMap(const std::string& file) {
    std::ifstream in(file);
    if (!in) throw UsageError("bad map " + inQuotes(file) + ": cannot read it");
    std::stringstream content;
    content << in.rdbuf();
    const std::string text = content.str();
    Reader reader(text, file);
    const Json doc = reader.document();

    NameMap map;
    map.file = file;
    const auto bad = [&](const std::string& key, const std::string& what) -> UsageError {
        return UsageError("bad map " + inQuotes(file) + ": " + key + ": " + what);
    };
    const auto nodeId = [&](const std::string& key, const Json& v) {
        if (v.object) throw bad(key, "expected a node id in double quotes");
        UA_NodeId id;
        UA_NodeId_init(&id);
        UA_String text{v.text.size(), reinterpret_cast<UA_Byte*>(const_cast<char*>(v.text.data()))};
        const UA_StatusCode status = UA_NodeId_parse(&id, text);
        UA_NodeId_clear(&id);
        if (status != UA_STATUSCODE_GOOD || v.text.empty())
            throw bad(key, "not an OPC UA node id: " + inQuotes(v.text));
        return v.text;
    };
    if (!doc.object) throw bad("(top)", "expected an object");
    for (const auto& [key, v] : doc.members) {
        if (key == "endpoint") {
            if (v.object) throw bad(key, "expected opc.tcp://HOST:PORT in double quotes");
            try {
                authorityOf(v.text);
            } catch (const UsageError&) {
                throw bad(key, "expected opc.tcp://HOST:PORT, got " + inQuotes(v.text));
            }
            map.endpoint = v.text;
        } else if (key == "types") {
            if (!v.object) throw bad(key, "expected an object of type names and node ids");
            for (const auto& [name, id] : v.members) {
                if (!isType(name)) throw bad("types." + name, "no such type (m2ctl list shows the 24 types)");
                map.types[name] = nodeId("types." + name, id);
            }
        } else if (key == "interfaces") {
            if (!v.object) throw bad(key, "expected an object of interface names");
            for (const auto& [name, nodes] : v.members) {
                const std::string at = "interfaces." + name;
                if (!isInterface(name)) throw bad(at, "no such interface (m2ctl list shows the 23 interfaces)");
                if (!nodes.object) throw bad(at, "expected {\"object\": NODE ID, \"method\": NODE ID}");
                MethodNodes m;
                for (const auto& [part, id] : nodes.members) {
                    if (part == "object")
                        m.object = nodeId(at + ".object", id);
                    else if (part == "method")
                        m.method = nodeId(at + ".method", id);
                    else
                        throw bad(at + "." + part, "unknown key (expected object and method)");
                }
                if (m.object.empty()) throw bad(at + ".object", "missing");
                if (m.method.empty()) throw bad(at + ".method", "missing");
                map.interfaces[name] = m;
            }
        } else {
            throw bad(key, "unknown key (expected endpoint, types and interfaces)");
        }
    }
    return map;
}

std::string simulatorMap(const std::string& endpoint) {
    std::string types, interfaces;
    forEach(DataTypes{}, [&](auto tag) {
        const std::string name = entityName<typename decltype(tag)::type>();
        types +=
            std::string(types.empty() ? "" : ",") + "\n    " + inQuotes(name) + ": " + inQuotes(variableNodeId(name));
    });
    forEach(InterfaceRows{}, [&](auto tag) {
        using Row = typename decltype(tag)::type;
        const std::string name = Row::Methods::interfaceName;
        interfaces += std::string(interfaces.empty() ? "" : ",") + "\n    " + inQuotes(name) +
                      ": {\"object\": " + inQuotes(objectNodeId(name)) +
                      ", \"method\": " + inQuotes(methodNodeId(name, Row::Methods::methodName)) + "}";
    });
    return "{\n  \"endpoint\": " + inQuotes(endpoint) + ",\n  \"types\": {" + types + "\n  },\n  \"interfaces\": {" +
           interfaces + "\n  }\n}\n";
}

} // namespace m2ctl
