#pragma once
// What the encrypted rows need: a temporary folder with the secure server's PKI, our client's
// PKI, a users file and a password file. The password is made up per run and never printed.
#include <cstdlib>
#include <filesystem>
#include <map>
#include <random>
#include <stdexcept>
#include <string>

#include <vesk/duvo/opcua/pki.hpp>

namespace duvo::bench {

class SecureSetup {
public:
    static constexpr const char* user = "bench";

    SecureSetup() {
        std::string pattern = (std::filesystem::temp_directory_path() / "duvo-bench-pki-XXXXXX").string();
        if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("cannot make a temporary PKI folder");
        dir_ = pattern;
        static const char alphabet[] = "abcdefghijkmnpqrstuvwxyzABCDEFGHJKLMNPQRSTUVWXYZ23456789";
        std::random_device random;
        std::uniform_int_distribution<std::size_t> pick(0, sizeof alphabet - 2);
        for (int i = 0; i < 24; ++i) password_ += alphabet[pick(random)];
        vesk::duvo::pki::writeFile(usersFile(), std::string(user) + ":" + password_ + "\n", true);
        vesk::duvo::pki::writeFile(passwordFile(), password_ + "\n", true);
    }
    ~SecureSetup() {
        std::error_code ignored;
        std::filesystem::remove_all(dir_, ignored);
    }
    SecureSetup(const SecureSetup&) = delete;
    SecureSetup& operator=(const SecureSetup&) = delete;

    std::string serverPki() const { return dir_ + "/server"; }
    std::string clientPki() const { return dir_ + "/client"; }
    std::string usersFile() const { return dir_ + "/users"; }
    std::string passwordFile() const { return dir_ + "/password"; }
    /// For the raw client, which takes the password itself.
    const std::string& password() const { return password_; }

    /// The server's certificate (made by its first start) becomes the only one our client trusts.
    std::string trustServer() const {
        const std::string der = vesk::duvo::pki::readFile(serverPki() + "/own/cert.der");
        vesk::duvo::pki::writeFile(clientPki() + "/trusted/server.der", der);
        return der;
    }

    /// Our side's properties: SignAndEncrypt with Basic256Sha256, as the user.
    std::map<std::string, std::string> properties() const {
        return {{"opc.ps.pollingPeriodMs", "0"},
                {"opc.security.mode", "SignAndEncrypt"},
                {"opc.security.policy", "Basic256Sha256"},
                {"opc.security.pkiDir", clientPki()},
                {"opc.security.user", user},
                {"opc.security.passwordFile", passwordFile()}};
    }

private:
    std::string dir_;
    std::string password_;
};

} // namespace duvo::bench
