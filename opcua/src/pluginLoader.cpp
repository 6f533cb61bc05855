#include <vesk/duvo/opcua/pluginLoader.hpp>

#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <sys/stat.h>

namespace vesk::duvo::opcua::detail {
namespace {

bool isDirectory(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0 && S_ISDIR(st.st_mode);
}

bool exists(const std::string& path) {
    struct stat st {};
    return ::stat(path.c_str(), &st) == 0;
}

/// The folder of the library this code is in.
std::string ownFolder() {
    Dl_info info{};
    if (::dladdr(reinterpret_cast<void*>(&ownFolder), &info) == 0 || info.dli_fname == nullptr) return {};
    const std::string file = info.dli_fname;
    const auto slash = file.rfind('/');
    return slash == std::string::npos ? std::string(".") : file.substr(0, slash);
}

} // namespace

std::string PluginLoader::fileName(const std::string& module) { return "lib" + module + "-opcua.so"; }

PluginLoader::PluginLoader(const std::string& module, const std::string& explicitPath) {
    const std::string file = fileName(module);
    std::vector<std::string> candidates;
    if (!explicitPath.empty())
        candidates.push_back(isDirectory(explicitPath) ? explicitPath + "/" + file : explicitPath);
    if (const char* env = std::getenv("DUVO_OPCUA_PLUGIN_PATH")) {
        const std::string folders = env;
        std::size_t start = 0;
        while (start <= folders.size()) {
            const std::size_t end = std::min(folders.find(':', start), folders.size());
            if (end > start) candidates.push_back(folders.substr(start, end - start) + "/" + file);
            start = end + 1;
        }
    }
    if (const std::string own = ownFolder(); !own.empty()) candidates.push_back(own + "/" + file);

    std::string looked;
    for (const std::string& candidate : candidates) {
        looked += (looked.empty() ? "" : ", ") + candidate;
        if (!exists(candidate)) continue;
        handle_ = ::dlopen(candidate.c_str(), RTLD_NOW | RTLD_LOCAL);
        if (handle_ == nullptr)
            throw std::runtime_error("cannot load OPC UA plug-in " + candidate + ": " + ::dlerror());
        path_ = candidate;
        return;
    }
    // Last, the dynamic linker's own search path.
    handle_ = ::dlopen(file.c_str(), RTLD_NOW | RTLD_LOCAL);
    if (handle_ == nullptr)
        throw std::runtime_error("OPC UA plug-in " + file + " not found (looked at " + looked +
                                 (looked.empty() ? "" : ", ") + "the library search path)");
    path_ = file;
}

PluginLoader::~PluginLoader() {
    // Entities made by the plug-in may outlive this loader (the application owns them), so
    // the library stays loaded until the process ends.
}

void* PluginLoader::symbol(const std::string& name) const {
    ::dlerror();
    void* address = ::dlsym(handle_, name.c_str());
    if (address == nullptr) throw std::runtime_error("entry point " + name + " not found in " + path_);
    return address;
}

} // namespace vesk::duvo::opcua::detail
