#pragma once
#include <map>
#include <string>

namespace vesk::duvo {

/// A middleware instance: the context that creates entities of one binding.
class Duvo {
public:
    /// Middleware properties: string keys to string values, read by the bindings.
    using Properties = std::map<std::string, std::string>;

    /// Destroys the instance; the entities it created keep it alive until they go.
    virtual ~Duvo();
};

} // namespace vesk::duvo
