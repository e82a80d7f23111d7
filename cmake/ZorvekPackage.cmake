# What another project consumes: `cmake --install` puts the public headers, the shared
# libraries (versioned, with a SONAME) and the programs under one prefix, with a CMake package
# (find_package(Zorvek) gives Zorvek::platform, Zorvek::dal, Zorvek::sim and
# Zorvek::skorraredis, the state database on Redis) and pkg-config files (zorvek-platform,
# zorvek-dal, zorvek-sim); CPack makes a Debian package of the same.
# Every installed file finds the others relative to itself, so the prefix can be moved.
include(CMakePackageConfigHelpers)

set(ZORVEK_LIBRARIES zorvekplatform zorvekdal zorveksim zorvekskorraredis)
set(ZORVEK_PROGRAMS zorvek-sim zorvek-serializer)

# The libraries find one another in their own directory, the programs in ../lib beside
# their bin/; the build tree keeps its absolute paths.
file(RELATIVE_PATH libFromBin ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
foreach(lib ${ZORVEK_LIBRARIES})
  string(REGEX REPLACE "^zorvek" "" exportName ${lib})
  set_target_properties(${lib} PROPERTIES
    VERSION ${PROJECT_VERSION}
    SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    EXPORT_NAME ${exportName}
    INSTALL_RPATH "$ORIGIN")
endforeach()
# The headers use C++20: a consumer gets it from the package without asking.
target_compile_features(zorvekplatform INTERFACE cxx_std_20)

install(TARGETS ${ZORVEK_LIBRARIES} EXPORT ZorvekTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
foreach(program ${ZORVEK_PROGRAMS})
  if(TARGET ${program})
    set_target_properties(${program} PROPERTIES INSTALL_RPATH "$ORIGIN/${libFromBin}")
    install(TARGETS ${program} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  endif()
endforeach()

# Headers by directory, so that a header added or moved is installed without a list to keep:
# the platform's folders and the DAL's land side by side under include/ (Zorvek/ holds both
# the identifier types and the DAL classes), the simulator's under include/sim/, as their
# own #include lines name them.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/platform/ ${PROJECT_SOURCE_DIR}/src-includes/
        DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/sim/ DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/sim
        FILES_MATCHING PATTERN "*.h")

set(cmakeDir ${CMAKE_INSTALL_LIBDIR}/cmake/Zorvek)
install(EXPORT ZorvekTargets NAMESPACE Zorvek:: DESTINATION ${cmakeDir})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/pkg/ZorvekConfig.cmake.in
                              ${PROJECT_BINARY_DIR}/ZorvekConfig.cmake
                              INSTALL_DESTINATION ${cmakeDir})
# 0.x: a minor version may change the interface, so only the same minor version matches.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/ZorvekConfigVersion.cmake
                                 COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/ZorvekConfig.cmake
              ${PROJECT_BINARY_DIR}/ZorvekConfigVersion.cmake
        DESTINATION ${cmakeDir})

# pkg-config: the prefix is found from the .pc file's own directory.
set(pkgconfigDir ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
file(RELATIVE_PATH ZORVEK_PC_PREFIX ${CMAKE_INSTALL_PREFIX}/${pkgconfigDir} ${CMAKE_INSTALL_PREFIX})
set(ZORVEK_PC_PREFIX "\${pcfiledir}/${ZORVEK_PC_PREFIX}")
set(ZORVEK_PC_DEFINES "")
if(ZORVEK_THREAD_SAFE_PTR)
  set(ZORVEK_PC_DEFINES " -DKEL_THREAD_SAFE_PTR=1")
endif()
foreach(pc zorvek-platform zorvek-dal zorvek-sim)
  configure_file(${CMAKE_CURRENT_LIST_DIR}/pkg/${pc}.pc.in ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc
                 @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/pkgconfig/${pc}.pc DESTINATION ${pkgconfigDir})
endforeach()

# A Debian package of the whole install: runtime, headers and the development files in one.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME zorvek-dal)
set(CPACK_PACKAGE_VENDOR "Zorvek")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "Zorvek DAL: data access layer of a switch's hardware-access framework")
set(CPACK_PACKAGE_DESCRIPTION
    "The DAL (libzorvekdal), the platform libraries it imports (libzorvekplatform), the \
simulated switch (libzorveksim) and the zorvek-sim program, with their headers, CMake package \
and pkg-config files.")
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "Zorvek DAL developers <zorvek-dal@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
# The build keeps its debug information; the package does not need it.
set(CPACK_STRIP_FILES ON)
# dpkg-shlibdeps reads the libraries and programs and names the packages they need (libc6,
# libstdc++6, libgcc-s1); the package's own libraries are found through their $ORIGIN paths.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
include(CPack)
