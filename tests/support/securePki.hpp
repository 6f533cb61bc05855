#pragma once
// Certificates, users and passwords for secured sessions with the simulator. Keys take a
// while to make, so one set under the temporary folder serves every run and test binary.
#include <filesystem>
#include <map>
#include <string>
#include <unistd.h>

#include <vesk/duvo/opcua/pki.hpp>
#include <vesk/duvo/sim/simulator.hpp>

namespace duvo::test {

struct SecurePki {
    std::string dir;          // server/ and client/ PKI folders below it
    std::string usersFile;    // operator:<password>
    std::string passwordFile; // the operator's password
    static constexpr const char* user = "operator";
    static constexpr const char* password = "Pa55-word-never-shown";

    std::string server() const { return dir + "/server"; }
    std::string client() const { return dir + "/client"; }

    /// A secure simulator (Sign, SignAndEncrypt and None endpoints) that knows the operator.
    vesk::duvo::sim::Options
    serverOptions(vesk::duvo::sim::Options::Security security = vesk::duvo::sim::Options::Security::Both) const {
        vesk::duvo::sim::Options options;
        options.logLevel = UA_LOGLEVEL_ERROR;
        options.security = security;
        options.pkiDir = server();
        options.usersFile = usersFile;
        return options;
    }

    /// Client properties for SignAndEncrypt as the operator, trusting the simulator.
    std::map<std::string, std::string> clientProperties(const std::string& pkiDir = {}) const {
        return {{"opc.security.mode", "SignAndEncrypt"},
                {"opc.security.pkiDir", pkiDir.empty() ? client() : pkiDir},
                {"opc.security.user", user},
                {"opc.security.passwordFile", passwordFile}};
    }

    /// A client PKI folder of its own (trusting nothing), with the shared client certificate.
    std::string freshClientDir(const std::string& name) const {
        namespace fs = std::filesystem;
        const std::string folder = dir + "/" + name + "." + std::to_string(::getpid());
        fs::remove_all(folder);
        fs::create_directories(folder + "/trusted");
        fs::copy(client() + "/own", folder + "/own");
        return folder;
    }
};

/// Made once; concurrent first runs each build theirs aside and the first rename wins.
inline const SecurePki& securePki() {
    namespace fs = std::filesystem;
    static const SecurePki pki = [] {
        SecurePki p;
        p.dir = (fs::temp_directory_path() / "duvo-test-pki-1").string();
        p.usersFile = p.dir + "/users";
        p.passwordFile = p.dir + "/password";
        if (!fs::exists(p.dir + "/ready")) {
            const std::string aside = p.dir + ".making." + std::to_string(::getpid());
            fs::remove_all(aside);
            vesk::duvo::pki::createSelfSigned("urn:duvo:m2-sim", "m2-sim@localhost", aside + "/server/own/cert.der",
                                              aside + "/server/own/key.der");
            vesk::duvo::pki::createSelfSigned("urn:duvo:test-client", "duvo-test", aside + "/client/own/cert.der",
                                              aside + "/client/own/key.der");
            vesk::duvo::pki::writeFile(aside + "/client/trusted/m2-sim.der",
                                       vesk::duvo::pki::readFile(aside + "/server/own/cert.der"));
            vesk::duvo::pki::writeFile(aside + "/users", std::string("operator:") + SecurePki::password + "\n");
            vesk::duvo::pki::writeFile(aside + "/password", std::string(SecurePki::password) + "\n", true);
            vesk::duvo::pki::writeFile(aside + "/ready", "");
            std::error_code ec;
            fs::rename(aside, p.dir, ec);
            if (ec) fs::remove_all(aside);
        }
        return p;
    }();
    return pki;
}

} // namespace duvo::test
