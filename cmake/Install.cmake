# Installation: the libraries, the plug-in beside the binding library (the loader looks
# there), the public headers, the programs, and a package configuration so that an
# application finds everything with find_package(DuvoOpcUa CONFIG REQUIRED).
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(duvo-core PROPERTIES EXPORT_NAME core INSTALL_RPATH "$ORIGIN")
set_target_properties(duvo-m2Types PROPERTIES EXPORT_NAME m2Types INSTALL_RPATH "$ORIGIN")
set_target_properties(duvo-opcua PROPERTIES EXPORT_NAME opcua INSTALL_RPATH "$ORIGIN")
set_target_properties(duvo-sim PROPERTIES EXPORT_NAME simulator INSTALL_RPATH "$ORIGIN")
set_target_properties(m2-sim PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")

install(TARGETS duvo-core duvo-m2Types duvo-opcua duvo-sim
        EXPORT DuvoOpcUaTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
        INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(TARGETS m2Types-opcua LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS m2-sim RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
if(TARGET m2ctl)
  set_target_properties(m2ctl PROPERTIES INSTALL_RPATH "$ORIGIN/../${CMAKE_INSTALL_LIBDIR}")
  install(TARGETS m2ctl RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
endif()

install(DIRECTORY core/include/ m2Types/include/ opcua/include/ simulator/include/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT DuvoOpcUaTargets NAMESPACE Duvo:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DuvoOpcUa)
configure_package_config_file(cmake/DuvoOpcUaConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DuvoOpcUa)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfig.cmake
              ${CMAKE_CURRENT_BINARY_DIR}/DuvoOpcUaConfigVersion.cmake
              cmake/Dependencies.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/DuvoOpcUa)
