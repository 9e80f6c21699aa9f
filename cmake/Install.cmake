# What `cmake --install` puts under the prefix: the library with its SONAME links, the headers
# under include/zrtproxy/ (the C header, and the C++ host interfaces at their paths in the tree),
# a CMake package (find_package(zrtproxy) -> zrtproxy::zrtproxy), zrtproxy.pc and the daemon.
include(CMakePackageConfigHelpers)

set(zrt_public_headers
  proxy/core/CProxy.h proxy/core/CProxyStats.h proxy/core/IPasswordVerifier.h proxy/core/IProxyObserver.h
  proxy/core/SProxySettings.h
  host/CDirectHost.h host/SDirectHostSettings.h
  transport/CTCPIPAddress.h transport/IConnectionListener.h transport/IConnectionReceiver.h
  transport/IDatagramHandler.h transport/IDatagramReceiver.h transport/IResolveAddress.h
  transport/IResolveAddressCompletedNotification.h transport/IZRTConnectionAddress.h
  transport/IZRTConnectionClosedNotification.h transport/IZRTDataLayer.h transport/IZRTDataLayerNotification.h
  transport/IZRTMultiPointLayer.h transport/IZRTNotification.h
  runtime/CAtomicInt.h runtime/CRefCountImpl.h runtime/CRefCountPtr.h runtime/CRefCount_Base.h runtime/Export.h)
foreach(header ${zrt_public_headers})
  get_filename_component(folder ${header} DIRECTORY)
  install(FILES ${header} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/zrtproxy/${folder} COMPONENT development)
endforeach()
install(FILES include/zrtproxy/zrtproxy.h include/zrtproxy/zrtproxy.hpp
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
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/zrtproxy COMPONENT development)

# The .pc file finds its prefix from where it lies, so an install with --prefix works too.
file(RELATIVE_PATH zrt_pc_to_prefix "/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/")
configure_file(${CMAKE_CURRENT_LIST_DIR}/zrtproxy.pc.in ${CMAKE_CURRENT_BINARY_DIR}/zrtproxy.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/zrtproxy.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig
        COMPONENT development)
