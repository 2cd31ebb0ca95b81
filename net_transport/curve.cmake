# CURVE security of the network transport (curve.h): key files, the
# allow-list and the ZAP handler. A library of its own, so that kt-host's
# keygen, the transport module and the tests share it.
find_package(PkgConfig REQUIRED)
pkg_check_modules(ZMQ REQUIRED IMPORTED_TARGET libzmq)
add_library(kt_net_curve STATIC
  ${CMAKE_CURRENT_LIST_DIR}/curve.cpp
  ${CMAKE_CURRENT_LIST_DIR}/curve.h)
target_include_directories(kt_net_curve PUBLIC ${PROJECT_SOURCE_DIR})
target_link_libraries(kt_net_curve PUBLIC kt_public_headers PkgConfig::ZMQ Threads::Threads)
set_target_properties(kt_net_curve PROPERTIES CXX_VISIBILITY_PRESET hidden
  VISIBILITY_INLINES_HIDDEN ON)
