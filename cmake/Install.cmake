# What `cmake --install` puts under the prefix: the library with its SONAME links, the headers
# under include/zrtproxy/ (the C header, and the C++ host interfaces at their paths in the tree),
# a CMake package (find_package(zrtproxy) -> zrtproxy::zrtproxy) with the 32-bit ARM toolchain
# file beside it, zrtproxy.pc and the daemon.
include(CMakePackageConfigHelpers)

# These are the library's C++ interface: within one SONAME no type in them changes its layout and
# no interface gains a virtual function (tools/abi-check holds the line). Settings and counters
# stay out of them: hosts set options by name and read counters by number.
set(zrt_public_headers
  proxy/core/CProxy.h proxy/core/IProxyObserver.h
  host/CDirectHost.h
  transport/CTCPIPAddress.h transport/IConnectionListener.h transport/IConnectionReceiver.h
  transport/IDatagramHandler.h transport/IDatagramEndNotification.h transport/IDatagramReceiver.h transport/IResolveAddress.h
  transport/IResolveAddressCompletedNotification.h transport/IResolveAddressLifetimeNotification.h
  transport/IZRTConnectionAddress.h
  transport/IZRTConnectionClosedNotification.h transport/IZRTDataLayer.h transport/IZRTDataLayerNotification.h
  transport/IZRTMultiPointLayer.h transport/IZRTNotification.h
  runtime/CAtomicInt.h runtime/CRefCountImpl.h runtime/CRefCountPtr.h runtime/CRefCount_Base.h runtime/Export.h)
foreach(header ${zrt_public_headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zrtproxy/${folder} COMPONENT development)
endforeach()
# Which C++ standard library the library was built with, for zrtproxy.hpp to refuse another.
include(CheckCXXSourceCompiles)
check_cxx_source_compiles("#include <cstddef>\n#ifndef _LIBCPP_VERSION\n#error\n#endif\nint main() { return 0; }"
                          ZRT_STDLIB_LIBCXX)
check_cxx_source_compiles("#include <string>\n#if !_GLIBCXX_USE_CXX11_ABI\n#error\n#endif\nint main() { return 0; }"
                          ZRT_STDLIB_CXX11_ABI)
set(ZRT_BUILT_WITH_LIBCXX 0)
set(ZRT_BUILT_WITH_CXX11_ABI 0)
if(ZRT_STDLIB_LIBCXX)
  set(ZRT_BUILT_WITH_LIBCXX 1)
endif()
if(ZRT_STDLIB_CXX11_ABI)
  set(ZRT_BUILT_WITH_CXX11_ABI 1)
endif()
configure_file(${CMAKE_CURRENT_LIST_DIR}/zrtproxy_stdlib.h.in ${CMAKE_CURRENT_BINARY_DIR}/include/zrtproxy/zrtproxy_stdlib.h
               @ONLY)
install(FILES include/zrtproxy/zrtproxy.h include/zrtproxy/zrtproxy.hpp
              ${CMAKE_CURRENT_BINARY_DIR}/include/zrtproxy/zrtproxy_stdlib.h
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zrtproxy COMPONENT development)

install(TARGETS zrtproxy EXPORT zrtproxyTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT development)
install(EXPORT zrtproxyTargets NAMESPACE zrtproxy:: DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zrtproxy
        COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/zrtproxyConfig.cmake.in
                              ${CMAKE_CURRENT_BINARY_DIR}/zrtproxyConfig.cmake
                              INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zrtproxy)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/zrtproxyConfigVersion.cmake
                                 COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zrtproxyConfig.cmake ${CMAKE_CURRENT_BINARY_DIR}/zrtproxyConfigVersion.cmake
              ${CMAKE_CURRENT_LIST_DIR}/armhf.cmake
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zrtproxy COMPONENT development)

# The .pc file finds its prefix from where it lies, so an install with --prefix works too.
file(RELATIVE_PATH zrt_pc_to_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zrtproxy.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zrtproxy.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zrtproxy.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
