// An application that never sets up log4cplus: it makes the subscriber log an error, so that
// a test sees what the middleware's own logging prints.
#include <cstdio>
#include <exception>
#include <memory>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>

int main() {
    const auto duvo = std::make_shared<vesk::duvo::opcua::detail::OpcUaDuvo>(
        vesk::duvo::Duvo::Properties{{"opc.pluginPath", M2TYPES_PLUGIN_FILE}});
    const auto subscriber =
        duvo->createSubscriber<m2Types::M2Int32Value0>("opcua-ps://127.0.0.1:1#ns=1;s=M2Int32Value0");
    subscriber->close();
    try {
        subscriber->read(1); // "Subscriber already closed", at ERROR
    } catch (const std::exception&) {
        return 0;
    }
    std::fputs("read after close did not throw\n", stderr);
    return 1;
}
