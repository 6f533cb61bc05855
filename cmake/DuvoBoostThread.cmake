# Duvo::boostThread: Boost.Thread for the futures of the public API, found with
# find_package(Boost 1.83.0 EXACT CONFIG COMPONENTS thread) before this file is included.
# Boost's own Boost::thread also names Boost.Chrono, whose packaged shared library of this
# Boost release is empty (Chrono is used header-only: BOOST_CHRONO_HEADER_ONLY); linking
# Boost.Thread's library file directly leaves Boost::thread as Boost made it, in this build
# and in an application's.
if(NOT TARGET Duvo::boostThread)
  foreach(_duvo_config RELEASE NOCONFIG RELWITHDEBINFO DEBUG)
    get_target_property(_duvo_boost_thread Boost::thread IMPORTED_LOCATION_${_duvo_config})
    if(_duvo_boost_thread)
      break()
    endif()
  endforeach()
  if(NOT _duvo_boost_thread)
    get_target_property(_duvo_boost_thread Boost::thread IMPORTED_LOCATION)
  endif()
  add_library(Duvo::boostThread INTERFACE IMPORTED)
  set_target_properties(Duvo::boostThread PROPERTIES
    INTERFACE_LINK_LIBRARIES "${_duvo_boost_thread};Boost::headers;Threads::Threads")
  unset(_duvo_boost_thread)
  unset(_duvo_config)
endif()
