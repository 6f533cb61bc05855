#include <vesk/duvo/opcua/detail/security.hpp>

#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <stdexcept>

#include <unistd.h>

#include <log4cplus/logger.h>
#include <log4cplus/loggingmacros.h>
#include <open62541/client_config_default.h>
#include <open62541/plugin/pki_default.h>
#include <open62541/plugin/securitypolicy_default.h>

#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/opcua/properties.hpp>

namespace vesk::duvo::opcua::detail {

namespace {

log4cplus::Logger& logger() {
    static log4cplus::Logger instance = log4cplus::Logger::getInstance("orsa.duvo.opcua.internal");
    return instance;
}

constexpr const char* policyPrefix = "http://opcfoundation.org/UA/SecurityPolicy#";
constexpr const char* policies[] = {"Basic256Sha256", "Aes128_Sha256_RsaOaep", "Aes256_Sha256_RsaPss"};

std::string property(const std::map<std::string, std::string>& props, const std::string& key) {
    const auto it = props.find(key);
    return it == props.end() ? std::string() : it->second;
}

std::string hostName() {
    char name[256] = {};
    if (gethostname(name, sizeof name - 1) != 0 || name[0] == '\0') return "localhost";
    return name;
}

std::string text(const UA_ByteString& b) { return std::string(reinterpret_cast<const char*>(b.data), b.length); }

UA_ByteString bytes(const std::string& s) {
    UA_ByteString b;
    b.length = s.size();
    b.data = reinterpret_cast<UA_Byte*>(const_cast<char*>(s.data()));
    return b;
}

bool refusesUser(UA_StatusCode rc) {
    return rc == UA_STATUSCODE_BADUSERACCESSDENIED || rc == UA_STATUSCODE_BADIDENTITYTOKENINVALID;
}

// What open62541 reports when no endpoint of the server matches the mode, policy and identity.
bool noEndpoint(UA_StatusCode rc) {
    return rc == UA_STATUSCODE_BADIDENTITYTOKENREJECTED || rc == UA_STATUSCODE_BADSECURITYPOLICYREJECTED ||
           rc == UA_STATUSCODE_BADSECURITYMODEREJECTED;
}

const char* modeName(UA_MessageSecurityMode mode) {
    return mode == UA_MESSAGESECURITYMODE_SIGN             ? "Sign"
           : mode == UA_MESSAGESECURITYMODE_SIGNANDENCRYPT ? "SignAndEncrypt"
                                                           : "None";
}

std::string shortPolicy(const UA_String& uri) {
    const std::string s = text(uri);
    const auto hash = s.rfind('#');
    return hash == std::string::npos ? s : s.substr(hash + 1);
}

} // namespace

const char* const ClientSecurity::keys[] = {
    "opc.security.mode",         "opc.security.policy",         "opc.security.pkiDir",
    "opc.security.certificate",  "opc.security.privateKey",     "opc.security.user",
    "opc.security.passwordFile", "opc.security.trustAnyServer", nullptr};

std::string ClientSecurity::firstDifference(const std::map<std::string, std::string>& a,
                                            const std::map<std::string, std::string>& b) {
    for (const char* const* key = keys; *key; ++key)
        if (property(a, *key) != property(b, *key)) return *key;
    return {};
}

ClientSecurity::ClientSecurity(std::string endpoint, const std::map<std::string, std::string>& props)
    : endpoint_(std::move(endpoint)) {
    const std::string mode = property(props, "opc.security.mode");
    if (mode == "Sign")
        mode_ = UA_MESSAGESECURITYMODE_SIGN;
    else if (mode == "SignAndEncrypt")
        mode_ = UA_MESSAGESECURITYMODE_SIGNANDENCRYPT;
    else if (!mode.empty() && mode != "None")
        throwInvalidProperty("opc.security.mode", mode);
    const std::string policy = property(props, "opc.security.policy");
    if (!policy.empty()) {
        bool known = false;
        for (const char* p : policies) known = known || policy == p;
        if (!known) throwInvalidProperty("opc.security.policy", policy);
        policyUri_ = policyPrefix + policy;
    }
    pkiDir_ = property(props, "opc.security.pkiDir");
    if (pkiDir_.empty()) pkiDir_ = pki::defaultDir();
    certificate_ = property(props, "opc.security.certificate");
    privateKey_ = property(props, "opc.security.privateKey");
    if (certificate_.empty() != privateKey_.empty())
        throw std::runtime_error("DUVO properties \"opc.security.certificate\" and \"opc.security.privateKey\" go "
                                 "together: give both or neither");
    user_ = property(props, "opc.security.user");
    passwordFile_ = property(props, "opc.security.passwordFile");
    if (!user_.empty() && passwordFile_.empty() && !std::getenv("DUVO_OPCUA_PASSWORD"))
        throw std::runtime_error("no password for the user \"" + user_ + "\" of " + endpoint_ +
                                 ": set DUVO property \"opc.security.passwordFile\" or DUVO_OPCUA_PASSWORD");
    trustAny_ = getDuvoProperty(props, "opc.security.trustAnyServer", false);
    secure_ = mode_ != UA_MESSAGESECURITYMODE_NONE || !user_.empty();
}

ClientSecurity::~ClientSecurity() = default;

void ClientSecurity::configure(UA_ClientConfig& config) {
    if (!secure_) return;
    config.securityMode = mode_;
    if (!policyUri_.empty()) config.securityPolicyUri = UA_STRING_ALLOC(policyUri_.c_str());
    // Our own check of the server's certificate: it reads trusted/ at each connection, so a
    // certificate moved there is picked up by the next attempt.
    if (config.certificateVerification.clear) config.certificateVerification.clear(&config.certificateVerification);
    UA_CertificateVerification_AcceptAll(&config.certificateVerification);
    config.certificateVerification.context = this;
    config.certificateVerification.verifyCertificate = &ClientSecurity::verify;
    std::string why;
    loadPolicies(config, why);
    if (!user_.empty()) loadUser(config, why);
}

bool ClientSecurity::loadPolicies(UA_ClientConfig& config, std::string& why) {
    if (policiesLoaded_) return true;
    namespace fs = std::filesystem;
    std::string certPath = certificate_, keyPath = privateKey_;
    std::string cert, key;
    try {
        std::error_code ec;
        fs::create_directories(pkiDir_ + "/trusted", ec);
        fs::create_directories(pkiDir_ + "/rejected", ec);
        if (certPath.empty()) {
            certPath = pkiDir_ + "/own/cert.der";
            keyPath = pkiDir_ + "/own/key.der";
            if (!fs::exists(certPath) && !fs::exists(keyPath)) {
                LOG4CPLUS_INFO(logger(), "creating the application certificate " << certPath);
                pki::createSelfSigned("urn:" + hostName() + ":duvo-opcua", "duvo-opcua@" + hostName(), certPath,
                                      keyPath);
            }
        }
        cert = pki::toDer(pki::readFile(certPath));
        try {
            key = pki::toDer(pki::readFile(keyPath));
        } catch (const std::exception& e) {
            throw std::runtime_error(std::string("private key: ") + e.what());
        }
    } catch (const std::exception& e) {
        why = std::string("the application certificate of ") + endpoint_ + " cannot be used: " + e.what();
        return false;
    }
    std::string uri = pki::applicationUriOf(cert);
    if (uri.empty()) uri = "urn:" + hostName() + ":duvo-opcua";
    UA_String_clear(&config.clientDescription.applicationUri);
    config.clientDescription.applicationUri = UA_STRING_ALLOC(uri.c_str());

    using Make = UA_StatusCode (*)(UA_SecurityPolicy*, const UA_ByteString, const UA_ByteString, const UA_Logger*);
    const Make makers[] = {&UA_SecurityPolicy_Basic256Sha256, &UA_SecurityPolicy_Aes128Sha256RsaOaep,
                           &UA_SecurityPolicy_Aes256Sha256RsaPss};
    const auto add = [&](UA_SecurityPolicy*& array, size_t& size) -> UA_StatusCode {
        auto* grown =
            static_cast<UA_SecurityPolicy*>(UA_realloc(array, sizeof(UA_SecurityPolicy) * (size + std::size(makers))));
        if (!grown) return UA_STATUSCODE_BADOUTOFMEMORY;
        array = grown;
        for (Make make : makers) {
            const UA_StatusCode rc = make(&array[size], bytes(cert), bytes(key), config.logging);
            if (rc != UA_STATUSCODE_GOOD) return rc;
            ++size;
        }
        return UA_STATUSCODE_GOOD;
    };
    UA_StatusCode rc = add(config.securityPolicies, config.securityPoliciesSize);
    if (rc == UA_STATUSCODE_GOOD) rc = add(config.authSecurityPolicies, config.authSecurityPoliciesSize);
    std::fill(key.begin(), key.end(), '\0');
    if (rc != UA_STATUSCODE_GOOD) {
        why = "the application certificate " + certPath + " and key " + keyPath + " of " + endpoint_ +
              " cannot be used: " + UA_StatusCode_name(rc);
        return false;
    }
    policiesLoaded_ = true;
    return true;
}

bool ClientSecurity::loadUser(UA_ClientConfig& config, std::string& why) {
    std::string password;
    if (!passwordFile_.empty()) {
        try {
            password = pki::readFile(passwordFile_);
        } catch (const std::exception& e) {
            why = "the password file of the user \"" + user_ + "\" for " + endpoint_ + " is unreadable: " + e.what();
            return false;
        }
        while (!password.empty() && (password.back() == '\n' || password.back() == '\r')) password.pop_back();
    } else if (const char* env = std::getenv("DUVO_OPCUA_PASSWORD")) {
        password = env;
    }
    const UA_StatusCode rc = UA_ClientConfig_setAuthenticationUsername(&config, user_.c_str(), password.c_str());
    std::fill(password.begin(), password.end(), '\0');
    if (rc != UA_STATUSCODE_GOOD) {
        why = std::string("cannot set the user of ") + endpoint_ + ": " + UA_StatusCode_name(rc);
        return false;
    }
    return true;
}

std::string ClientSecurity::beforeAttempt(UA_ClientConfig& config, UA_StatusCode previous, bool& ready) {
    ready = true;
    std::string why;
    if (secure_ && !loadPolicies(config, why)) {
        ready = false;
        return report(why);
    }
    if (!user_.empty() && !loadUser(config, why)) {
        ready = false;
        return report(why);
    }
    if (!rejected_.empty()) {
        why = std::exchange(rejected_, {});
    } else if (refusesUser(previous) && !user_.empty()) {
        why = "the server " + endpoint_ + " refused the user \"" + user_ + "\" (" + UA_StatusCode_name(previous) +
              "): check its password (\"opc.security.passwordFile\" or DUVO_OPCUA_PASSWORD) and its rights";
    } else if (refusesUser(previous)) {
        why = "the server " + endpoint_ + " refused an anonymous session (" + UA_StatusCode_name(previous) +
              "): set \"opc.security.user\"";
    } else if (noEndpoint(previous)) {
        // Asked once per cause: the server's endpoints tell which part of ours it lacks.
        if (diagnosed_.empty()) diagnosed_ = diagnoseEndpoints(previous);
        why = diagnosed_;
    }
    return report(why);
}

std::string ClientSecurity::report(std::string why) {
    if (!why.empty() && why != reported_) {
        reported_ = why;
        LOG4CPLUS_ERROR(logger(), "not connected: " << why);
    }
    return why;
}

std::string ClientSecurity::diagnoseEndpoints(UA_StatusCode previous) {
    std::string offered;
    bool modeOffered = false;
    size_t count = 0;
    UA_EndpointDescription* endpoints = nullptr;
    if (pki::discoverEndpoints(endpoint_, 1000, &count, &endpoints) == UA_STATUSCODE_GOOD) {
        for (size_t i = 0; i < count; ++i) {
            const auto& e = endpoints[i];
            const std::string policy = shortPolicy(e.securityPolicyUri);
            offered += std::string(offered.empty() ? "" : ", ") + modeName(e.securityMode) + "/" + policy;
            modeOffered = modeOffered ||
                          (e.securityMode == mode_ && (policyUri_.empty() || text(e.securityPolicyUri) == policyUri_));
        }
        UA_Array_delete(endpoints, count, &UA_TYPES[UA_TYPES_ENDPOINTDESCRIPTION]);
    }
    const std::string status = std::string(" (") + UA_StatusCode_name(previous) + ")";
    if (offered.empty())
        return "the server " + endpoint_ + " offers no endpoint that fits security mode \"" + modeName(mode_) +
               "\", policy \"" + (policyUri_.empty() ? "any" : policyUri_.substr(std::strlen(policyPrefix))) +
               "\" and " + (user_.empty() ? "an anonymous session" : "a user name") + status;
    if (!modeOffered)
        return "the server " + endpoint_ + " offers no endpoint with security mode \"" + modeName(mode_) +
               "\" and policy \"" + (policyUri_.empty() ? "any" : policyUri_.substr(std::strlen(policyPrefix))) + "\"" +
               status + ", only " + offered + ": change \"opc.security.mode\" or \"opc.security.policy\"";
    if (user_.empty())
        return "the server " + endpoint_ + " refused an anonymous session" + status + ": set \"opc.security.user\"";
    return "the server " + endpoint_ + " offers no user name login with security mode \"" + modeName(mode_) + "\"" +
           status;
}

void ClientSecurity::connected() {
    diagnosed_.clear();
    reported_.clear();
    rejected_.clear();
}

UA_StatusCode ClientSecurity::verify(const UA_CertificateVerification* cv, const UA_ByteString* certificate) {
    auto* self = static_cast<ClientSecurity*>(cv->context);
    if (self->trustAny_) {
        if (!std::exchange(self->warnedTrustAny_, true))
            LOG4CPLUS_WARN(logger(), "trusting any server certificate for " << self->endpoint_
                                                                            << " (\"opc.security.trustAnyServer\"): "
                                                                               "for commissioning only");
        return UA_STATUSCODE_GOOD;
    }
    const std::string der = text(*certificate);
    const std::string trustedDir = self->pkiDir_ + "/trusted";
    const auto trusted = pki::certificatesIn(trustedDir);
    for (const auto& t : trusted)
        if (t == der) return UA_STATUSCODE_GOOD;
    if (!trusted.empty()) {
        // A certificate issued by a trusted authority.
        std::vector<UA_ByteString> list;
        for (const auto& t : trusted) list.push_back(bytes(t));
        UA_CertificateVerification chain;
        std::memset(&chain, 0, sizeof chain);
        if (UA_CertificateVerification_Trustlist(&chain, list.data(), list.size(), nullptr, 0, nullptr, 0) ==
            UA_STATUSCODE_GOOD) {
            const UA_StatusCode rc = chain.verifyCertificate(&chain, certificate);
            chain.clear(&chain);
            if (rc == UA_STATUSCODE_GOOD) return rc;
        }
    }
    const std::string thumb = pki::thumbprint(der);
    const std::string path = self->pkiDir_ + "/rejected/" + thumb + ".der";
    std::string where = "written to " + path;
    try {
        if (!std::filesystem::exists(path)) pki::writeFile(path, der);
    } catch (const std::exception& e) {
        where = std::string("not written to rejected/: ") + e.what();
    }
    self->rejected_ = "the certificate of the server " + self->endpoint_ + " (SHA-1 " + thumb + ") is not trusted (" +
                      UA_StatusCode_name(UA_STATUSCODE_BADCERTIFICATEUNTRUSTED) + "); it was " + where +
                      ": move it to " + trustedDir + "/ to trust it";
    return UA_STATUSCODE_BADCERTIFICATEUNTRUSTED;
}

} // namespace vesk::duvo::opcua::detail
