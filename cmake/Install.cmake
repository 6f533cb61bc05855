# Installation: the libraries, the plug-in beside the binding library (the loader looks
# there), the public headers, the programs, and a package configuration so that an
# application finds everything with find_package(DuvoOpcUa CONFIG REQUIRED). Two components,
# which are also the two Debian packages (cpack -G DEB): Runtime and Development.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

# A 0.x release may change its interface with every minor version.
set(DUVO_SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR})
foreach(lib core m2Types opcua sim)
  set_target_properties(duvo-${lib} PROPERTIES INSTALL_RPATH "$ORIGIN"
                        VERSION ${PROJECT_VERSION} SOVERSION ${DUVO_SOVERSION})
endforeach()
set_target_properties(duvo-core PROPERTIES EXPORT_NAME core)
set_target_properties(duvo-m2Types PROPERTIES EXPORT_NAME m2Types)
set_target_properties(duvo-opcua PROPERTIES EXPORT_NAME opcua)
set_target_properties(duvo-sim PROPERTIES EXPORT_NAME simulator)
set_target_properties(m2-sim m2ctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

set_target_properties(m2Types-opcua-headers PROPERTIES EXPORT_NAME m2TypesBinding)
install(TARGETS duvo-core duvo-m2Types duvo-opcua duvo-sim m2Types-opcua-headers
        EXPORT DuvoOpcUaTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime NAMELINK_COMPONENT Development
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
# The plug-in is a module loaded by its file name, so it has no version in its name.
install(TARGETS m2Types-opcua LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT Runtime
        NAMELINK_SKIP)
install(TARGETS m2-sim m2ctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT Runtime)

install(DIRECTORY core/include/ m2Types/include/ opcua/include/ simulator/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT Development)
# The binding classes (<generated/opcua/m2Types/m2Types.hpp>) and the templates they stand on.
# The subscription machinery is the plug-in's own (compiled into it), so its headers stay out.
install(DIRECTORY plugin/duvo plugin/generated
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/duvo-m2Types-opcua
        COMPONENT Development FILES_MATCHING PATTERN "*.hpp"
        PATTERN "duvo/ps" EXCLUDE PATTERN "opcua/detail/ps" EXCLUDE PATTERN "entryPoints.hpp" EXCLUDE)

set(DUVO_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/DuvoOpcUa)
install(EXPORT DuvoOpcUaTargets NAMESPACE Duvo:: DESTINATION ${DUVO_CMAKE_DIR}
        COMPONENT Development)
configure_package_config_file(cmake/DuvoOpcUaConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfig.cmake
  INSTALL_DESTINATION ${DUVO_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfigVersion.cmake
              cmake/DuvoBoostThread.cmake
        DESTINATION ${DUVO_CMAKE_DIR} COMPONENT Development)

# Debian packages: duvo-opcua (libraries, plug-in, m2ctl, m2-sim; its Depends computed from
# the binaries) and duvo-opcua-dev (headers, CMake package, the development packages that the
# CMake package finds).
set(CPACK_PACKAGE_NAME duvo-opcua)
set(CPACK_PACKAGE_VENDOR "vesk")
set(CPACK_PACKAGE_CONTACT "vesk duvo team <duvo@vesk.invalid>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "OPC UA type support of the duvo middleware for m2Types")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL Runtime Development)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME duvo-opcua)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME duvo-opcua-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS
  "duvo-opcua (= ${PROJECT_VERSION}), libopen62541-1.4-dev (>= 1.4), libopen62541-1.4-dev (<< 1.5), libopen62541-1.4-tools, libboost1.83-dev, libboost-thread1.83-dev, liblog4cplus-dev")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION
  "Libraries, the m2Types plug-in, m2ctl and m2-sim of the duvo middleware's OPC UA type support")
set(CPACK_COMPONENT_DEVELOPMENT_DESCRIPTION
  "Headers and CMake package of the duvo middleware's OPC UA type support")
include(CPack)
