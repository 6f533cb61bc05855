# Third-party packages of the build, all from Debian (scripts/install-deps.sh installs them).
# An application of the installed package finds only what the public targets need
# (DuvoOpcUaConfig.cmake).
find_package(Threads REQUIRED)
find_package(open62541 1.4...<1.5 REQUIRED)
find_package(log4cplus REQUIRED)
# "1.83" alone does not match Boost's own version file.
find_package(Boost 1.83.0 EXACT CONFIG REQUIRED COMPONENTS thread url program_options)
include(${CMAKE_CURRENT_LIST_DIR}/DuvoBoostThread.cmake)
