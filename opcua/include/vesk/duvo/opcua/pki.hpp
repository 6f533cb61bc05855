#pragma once
// Certificate files of an application's PKI folder: reading (PEM or DER), SHA-1 thumbprints and
// self-signed certificates. Header-only so that the simulator and m2ctl share it.
#include <array>
#include <cerrno>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <vector>

#include <open62541/client.h>
#include <open62541/client_config_default.h>
#include <open62541/plugin/create_certificate.h>
#include <open62541/types.h>

namespace vesk::duvo::pki {

/// The application's PKI folder unless "opc.security.pkiDir" names another: under the user's
/// data folder ($XDG_DATA_HOME, else ~/.local/share).
inline std::string defaultDir() {
    std::string base;
    if (const char* xdg = std::getenv("XDG_DATA_HOME"); xdg && *xdg)
        base = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
        base = std::string(home) + "/.local/share";
    else
        base = ".";
    return base + "/duvo-opcua/pki";
}

/// The file's bytes; throws std::runtime_error "cannot read PATH: REASON".
inline std::string readFile(const std::string& path) {
    std::ifstream in(path, std::ios::binary);
    if (!in) throw std::runtime_error("cannot read " + path + ": " + std::strerror(errno));
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
}

inline void writeFile(const std::string& path, const std::string& bytes, bool secret = false) {
    std::filesystem::create_directories(std::filesystem::path(path).parent_path());
    {
        std::ofstream out(path, std::ios::binary | std::ios::trunc);
        if (!out || !out.write(bytes.data(), static_cast<std::streamsize>(bytes.size())))
            throw std::runtime_error("cannot write " + path + ": " + std::strerror(errno));
    }
    if (secret)
        std::filesystem::permissions(path, std::filesystem::perms::owner_read | std::filesystem::perms::owner_write);
}

/// DER bytes of a PEM file's first block; DER input is returned as it is.
inline std::string toDer(const std::string& bytes) {
    const auto begin = bytes.find("-----BEGIN");
    if (begin == std::string::npos) return bytes;
    const auto bodyStart = bytes.find('\n', begin);
    const auto bodyEnd = bytes.find("-----END", begin);
    if (bodyStart == std::string::npos || bodyEnd == std::string::npos || bodyEnd < bodyStart)
        throw std::runtime_error("malformed PEM");
    std::string out;
    std::uint32_t acc = 0;
    int bits = 0;
    for (auto i = bodyStart; i < bodyEnd; ++i) {
        const char c = bytes[i];
        int v;
        if (c >= 'A' && c <= 'Z')
            v = c - 'A';
        else if (c >= 'a' && c <= 'z')
            v = c - 'a' + 26;
        else if (c >= '0' && c <= '9')
            v = c - '0' + 52;
        else if (c == '+')
            v = 62;
        else if (c == '/')
            v = 63;
        else if (c == ':')
            return bytes; // an encrypted key's headers: left to the stack
        else
            continue;
        acc = (acc << 6) | std::uint32_t(v);
        bits += 6;
        if (bits >= 8) {
            bits -= 8;
            out.push_back(char((acc >> bits) & 0xFF));
        }
    }
    return out;
}

/// The SHA-1 of the bytes, as 40 upper-case hex digits (the thumbprint of a DER certificate).
inline std::string thumbprint(const std::string& der) {
    std::array<std::uint32_t, 5> h{0x67452301, 0xEFCDAB89, 0x98BADCFE, 0x10325476, 0xC3D2E1F0};
    std::vector<unsigned char> m(der.begin(), der.end());
    const std::uint64_t bitLength = std::uint64_t(der.size()) * 8;
    m.push_back(0x80);
    while (m.size() % 64 != 56) m.push_back(0);
    for (int i = 7; i >= 0; --i) m.push_back((unsigned char)(bitLength >> (i * 8)));
    const auto rol = [](std::uint32_t x, int n) { return (x << n) | (x >> (32 - n)); };
    for (std::size_t block = 0; block < m.size(); block += 64) {
        std::uint32_t w[80];
        for (int i = 0; i < 16; ++i)
            w[i] = std::uint32_t(m[block + 4 * i]) << 24 | std::uint32_t(m[block + 4 * i + 1]) << 16 |
                   std::uint32_t(m[block + 4 * i + 2]) << 8 | m[block + 4 * i + 3];
        for (int i = 16; i < 80; ++i) w[i] = rol(w[i - 3] ^ w[i - 8] ^ w[i - 14] ^ w[i - 16], 1);
        std::uint32_t a = h[0], b = h[1], c = h[2], d = h[3], e = h[4];
        for (int i = 0; i < 80; ++i) {
            std::uint32_t f, k;
            if (i < 20)
                f = (b & c) | (~b & d), k = 0x5A827999;
            else if (i < 40)
                f = b ^ c ^ d, k = 0x6ED9EBA1;
            else if (i < 60)
                f = (b & c) | (b & d) | (c & d), k = 0x8F1BBCDC;
            else
                f = b ^ c ^ d, k = 0xCA62C1D6;
            const std::uint32_t t = rol(a, 5) + f + e + k + w[i];
            e = d, d = c, c = rol(b, 30), b = a, a = t;
        }
        h[0] += a, h[1] += b, h[2] += c, h[3] += d, h[4] += e;
    }
    char text[41];
    for (int i = 0; i < 5; ++i) std::snprintf(text + 8 * i, 9, "%08X", h[i]);
    return std::string(text, 40);
}

/// The first URI of the certificate's subject alternative name, or empty.
inline std::string applicationUriOf(const std::string& der) {
    static const std::string sanOid("\x06\x03\x55\x1D\x11", 5);
    const auto at = der.find(sanOid);
    if (at == std::string::npos) return {};
    // The extension's few hundred bytes hold the general names; a URI is tagged [6].
    for (auto i = at + sanOid.size(); i + 2 < der.size() && i < at + 600; ++i) {
        if (static_cast<unsigned char>(der[i]) != 0x86) continue;
        const std::size_t length = static_cast<unsigned char>(der[i + 1]);
        if (length < 0x80 && i + 2 + length <= der.size()) {
            std::string uri = der.substr(i + 2, length);
            if (uri.find(':') != std::string::npos) return uri;
        }
    }
    return {};
}

/// A self-signed certificate and its private key (both DER, 2048-bit RSA) written to the paths,
/// with the application URI and host name in the subject alternative name.
inline void createSelfSigned(const std::string& applicationUri, const std::string& commonName,
                             const std::string& certificatePath, const std::string& keyPath) {
    const std::string cn = "CN=" + commonName, org = "O=duvo", san = "URI:" + applicationUri, dns = "DNS:localhost";
    UA_String subject[2] = {UA_STRING(const_cast<char*>(cn.c_str())), UA_STRING(const_cast<char*>(org.c_str()))};
    UA_String alt[2] = {UA_STRING(const_cast<char*>(san.c_str())), UA_STRING(const_cast<char*>(dns.c_str()))};
    UA_KeyValueMap* params = UA_KeyValueMap_new();
    UA_UInt16 bits = 2048;
    UA_UInt16 days = 3650;
    UA_KeyValueMap_setScalar(params, UA_QUALIFIEDNAME(0, const_cast<char*>("key-size-bits")), &bits,
                             &UA_TYPES[UA_TYPES_UINT16]);
    UA_KeyValueMap_setScalar(params, UA_QUALIFIEDNAME(0, const_cast<char*>("expires-in-days")), &days,
                             &UA_TYPES[UA_TYPES_UINT16]);
    UA_ByteString key = UA_BYTESTRING_NULL, cert = UA_BYTESTRING_NULL;
    static const UA_Logger silent{nullptr, nullptr, nullptr}; // its failure is the status
    const UA_StatusCode rc =
        UA_CreateCertificate(&silent, subject, 2, alt, 2, UA_CERTIFICATEFORMAT_DER, params, &key, &cert);
    UA_KeyValueMap_delete(params);
    if (rc != UA_STATUSCODE_GOOD) {
        UA_ByteString_clear(&key);
        UA_ByteString_clear(&cert);
        throw std::runtime_error(std::string("cannot create a certificate: ") + UA_StatusCode_name(rc));
    }
    const std::string keyBytes(reinterpret_cast<const char*>(key.data), key.length);
    const std::string certBytes(reinterpret_cast<const char*>(cert.data), cert.length);
    std::memset(key.data, 0, key.length);
    UA_ByteString_clear(&key);
    UA_ByteString_clear(&cert);
    writeFile(keyPath, keyBytes, true);
    writeFile(certificatePath, certBytes);
}

/// The DER certificates (.der, .pem, .crt) of a folder; a missing folder holds none.
inline std::vector<std::string> certificatesIn(const std::string& folder) {
    std::vector<std::string> out;
    std::error_code ec;
    for (const auto& entry : std::filesystem::directory_iterator(folder, ec)) {
        const auto ext = entry.path().extension().string();
        if (!entry.is_regular_file() || (ext != ".der" && ext != ".pem" && ext != ".crt")) continue;
        try {
            out.push_back(toDer(readFile(entry.path().string())));
        } catch (const std::exception&) {
            // A file being written or unreadable is not a trusted certificate.
        }
    }
    return out;
}

/// The endpoints the server offers, asked over a None discovery channel whatever security it
/// offers for sessions. The caller deletes them (UA_Array_delete) when the call succeeded.
inline UA_StatusCode discoverEndpoints(const std::string& endpoint, UA_UInt32 timeoutMs, size_t* count,
                                       UA_EndpointDescription** endpoints) {
    static UA_Logger silent{nullptr, nullptr, nullptr};
    UA_ClientConfig config;
    std::memset(&config, 0, sizeof config);
    config.logging = &silent;
    UA_StatusCode rc = UA_ClientConfig_setDefault(&config);
    if (rc != UA_STATUSCODE_GOOD) {
        UA_ClientConfig_clear(&config);
        return rc;
    }
    config.timeout = timeoutMs;
    config.endpoint.securityMode = UA_MESSAGESECURITYMODE_NONE;
    config.endpoint.securityPolicyUri = UA_STRING_ALLOC("http://opcfoundation.org/UA/SecurityPolicy#None");
    config.endpoint.endpointUrl = UA_STRING_ALLOC(endpoint.c_str());
    config.userTokenPolicy.tokenType = UA_USERTOKENTYPE_ANONYMOUS;
    UA_Client* probe = UA_Client_newWithConfig(&config);
    if (!probe) {
        UA_ClientConfig_clear(&config);
        return UA_STATUSCODE_BADOUTOFMEMORY;
    }
    *count = 0;
    *endpoints = nullptr;
    rc = UA_Client_getEndpoints(probe, endpoint.c_str(), count, endpoints);
    UA_Client_delete(probe);
    return rc;
}

} // namespace vesk::duvo::pki
