#pragma once
#include <string>
#include <vector>

namespace vesk::duvo::opcua::detail {

/// Opens a module's type-support plug-in (lib<module>-opcua.so) and finds its entry points by
/// name. It looks, in order, at an explicit path (a file or a folder), the folders of the
/// DUVO_OPCUA_PLUGIN_PATH environment variable (colon-separated), the folder of the binding
/// library itself, and the dynamic linker's own search path.
class PluginLoader {
public:
    /// Throws std::runtime_error naming the file and every place looked at when it is missing
    /// or cannot be loaded.
    explicit PluginLoader(const std::string& module, const std::string& explicitPath = {});
    /// Unloads the plug-in.
    ~PluginLoader();
    PluginLoader(const PluginLoader&) = delete;
    PluginLoader& operator=(const PluginLoader&) = delete;

    /// The entry point's address; throws std::runtime_error naming the symbol and the file.
    void* symbol(const std::string& name) const;
    /// The file that was loaded.
    const std::string& path() const noexcept { return path_; }
    /// The plug-in's file name for a module: "lib" + module + "-opcua.so".
    static std::string fileName(const std::string& module);

private:
    void* handle_ = nullptr;
    std::string path_;
};

} // namespace vesk::duvo::opcua::detail
