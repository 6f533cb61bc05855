# Third-party packages, all from Debian (scripts/install-deps.sh installs them).
find_package(Threads REQUIRED)
find_package(open62541 1.4...<1.5 REQUIRED)
find_package(log4cplus REQUIRED)
# "1.83" alone does not match Boost's own version file.
find_package(Boost 1.83.0 EXACT CONFIG REQUIRED COMPONENTS thread system url program_options)

# Boost.Chrono is used header-only: the packaged shared library of that release is
# empty, so Boost.Thread must not pull it in.
get_target_property(_duvo_thread_deps Boost::thread INTERFACE_LINK_LIBRARIES)
if(_duvo_thread_deps)
  list(REMOVE_ITEM _duvo_thread_deps Boost::chrono)
  set_target_properties(Boost::thread PROPERTIES INTERFACE_LINK_LIBRARIES "${_duvo_thread_deps}")
endif()
