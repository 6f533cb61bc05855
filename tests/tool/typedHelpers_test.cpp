// OpcUaDuvo's typed helpers: how they find the plug-in and what they refuse (the entity tests
// create every kind of entity through them).
#include <cstdio>
#include <memory>
#include <stdexcept>
#include <string>

#include <gtest/gtest.h>

#include <m2Types/m2Types.hpp>
#include <vesk/duvo/opcua/opcuaDuvo.hpp>
#include <vesk/duvo/sim/simulator.hpp>

#include "support/simulatorFixture.hpp"

namespace {

using vesk::duvo::opcua::detail::OpcUaDuvo;

/// A type the module does not have: its entry points cannot exist.
class NotInModule : public m2Types::M2Int32Value0 {
public:
    static constexpr const char* typeName = "M2NoSuchType";
};

class TypedHelpers : public duvo::test::SimulatorSuite {};

TEST_F(TypedHelpers, find_the_plug_in_and_refuse_clearly_what_they_cannot_create) {
    // The plug-in is next to the binding library, or where the property says.
    EXPECT_EQ(duvo->pluginLoader().path(), M2TYPES_PLUGIN_FILE);
    const std::string file = M2TYPES_PLUGIN_FILE;
    const auto byFolder =
        std::make_shared<OpcUaDuvo>(OpcUaDuvo::Properties{{"opc.pluginPath", file.substr(0, file.rfind('/'))}});
    EXPECT_EQ(byFolder->pluginLoader().path(), file);
    EXPECT_EQ(OpcUaDuvo::entryPointName("Client", "PsRpcSetpowerSync"),
              "generated_opcua_Client_m2Types_PsRpcSetpowerSync");

    // A sample made by the plug-in; one of a type the module lacks is refused by name.
    const auto sample = duvo->createDataEntity<m2Types::M2FloatVector6>();
    ASSERT_NE(sample, nullptr);
    sample->setValue0(vesk::duvo::shared_vector<const float>{1, 2, 3, 4, 5, 6});
    EXPECT_EQ(sample->getValue0().size(), 6u);
    try {
        duvo->createDataEntity<NotInModule>();
        FAIL() << "an entry point that does not exist was found";
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("generated_opcua_DataEntity_m2Types_M2NoSuchType"), std::string::npos)
            << e.what();
    }

    // Any file that is not a shared library.
    const std::string notAPlugin = std::string(::testing::TempDir()) + "/libm2Types-opcua.so";
    std::FILE* f = std::fopen(notAPlugin.c_str(), "w");
    ASSERT_NE(f, nullptr);
    std::fputs("not a library", f);
    std::fclose(f);
    const auto wrong = std::make_shared<OpcUaDuvo>(OpcUaDuvo::Properties{{"opc.pluginPath", notAPlugin}});
    try {
        wrong->createPublisher<m2Types::M2Int32Value0>(psUri("M2Int32Value0"));
        FAIL() << "loaded " << notAPlugin;
    } catch (const std::runtime_error& e) {
        EXPECT_NE(std::string(e.what()).find("cannot load OPC UA plug-in " + notAPlugin), std::string::npos)
            << e.what();
    }
    std::remove(notAPlugin.c_str());

    OpcUaDuvo unshared;
    EXPECT_THROW(unshared.createPublisher<m2Types::M2Int32Value0>(psUri("M2Int32Value0")), std::logic_error);
}

} // namespace
