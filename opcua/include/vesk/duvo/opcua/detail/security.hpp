#pragma once
// The security of one endpoint's client: its settings from the properties, its certificate,
// its trust in the server, its user, and why a connection attempt cannot succeed.
#include <map>
#include <string>

#include <open62541/client.h>

namespace vesk::duvo::opcua::detail {

class ClientSecurity {
public:
    /// The property keys that decide a client's security (one client serves an endpoint).
    static const char* const keys[];
    /// The first security property whose values differ, or empty.
    static std::string firstDifference(const std::map<std::string, std::string>& a,
                                       const std::map<std::string, std::string>& b);

    /// Throws `invalid value for DUVO property ...` for a mode or policy it does not know.
    ClientSecurity(std::string endpoint, const std::map<std::string, std::string>& properties);
    ClientSecurity(const ClientSecurity&) = delete;
    ClientSecurity& operator=(const ClientSecurity&) = delete;
    ~ClientSecurity();

    /// Sets up the configuration before the client is made from it.
    void configure(UA_ClientConfig& config);

    /// Before an attempt, with the channel closed, and the status the previous one ended with:
    /// loads what a user may have fixed since (key, password file), and says why the attempt
    /// cannot succeed, or why the previous one failed (empty: no security cause). ready is
    /// false when an attempt is pointless. Logs one ERROR per cause.
    std::string beforeAttempt(UA_ClientConfig& config, UA_StatusCode previous, bool& ready);
    /// A session is up: the next failure is a new cause.
    void connected();

private:
    bool loadPolicies(UA_ClientConfig& config, std::string& why);
    bool loadUser(UA_ClientConfig& config, std::string& why);
    std::string report(std::string why);
    std::string diagnoseEndpoints(UA_StatusCode previous);
    static UA_StatusCode verify(const UA_CertificateVerification* cv, const UA_ByteString* certificate);

    const std::string endpoint_;
    bool secure_ = false;
    UA_MessageSecurityMode mode_ = UA_MESSAGESECURITYMODE_NONE;
    std::string policyUri_;
    std::string pkiDir_, certificate_, privateKey_, user_, passwordFile_;
    bool trustAny_ = false;
    bool policiesLoaded_ = false;
    bool warnedTrustAny_ = false;
    std::string rejected_;  // why the last server certificate was refused
    std::string reported_;  // the cause last logged
    std::string diagnosed_; // what the server's endpoints said, until a session is up
};

} // namespace vesk::duvo::opcua::detail
