# Everything beside the library that is installed, and the Debian packages: libbsp1 (the library),
# libbsp-dev (headers and build files), bsp-tools (programs, units, man pages, completion).

set(BSP_SYSTEMD_UNIT_DIR lib/systemd/system CACHE STRING "Where systemd looks for units")
file(GLOB units CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/systemd/*.service)
install(FILES ${units} DESTINATION ${BSP_SYSTEMD_UNIT_DIR} COMPONENT tools)
file(GLOB man_pages CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/man/*.1)
install(FILES ${man_pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
file(GLOB completions CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/packaging/completion/*)
install(FILES ${completions} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions
        COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/packaging/com_srv_app.ini
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bsp COMPONENT tools)
install(FILES ${PROJECT_SOURCE_DIR}/LICENSE DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT runtime)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME bsp)
set(CPACK_PACKAGE_VENDOR "The bsp developers")
set(CPACK_PACKAGE_CONTACT "The bsp developers <maintainers@localhost>")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/lib)

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libbsp${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/packaging/debian/triggers)
set(CPACK_DEBIAN_DEV_PACKAGE_NAME libbsp-dev)
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_SHLIBDEPS OFF)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS
    "libbsp${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION}), libc6-dev")
set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME bsp-tools)
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS "libbsp${PROJECT_VERSION_MAJOR} (= ${PROJECT_VERSION})")
set(CPACK_COMPONENT_RUNTIME_DESCRIPTION "Board-support runtime: shared library
 RPC bus, system log and shared-memory stores for the processes of an embedded device.")
set(CPACK_COMPONENT_DEV_DESCRIPTION "Board-support runtime: headers and build files
 What is needed to build modules against libbsp in C++17 or C11.")
set(CPACK_COMPONENT_TOOLS_DESCRIPTION "Board-support runtime: programs
 The broker bsp-broker, the log server bsp-logd and the operator's tool bspctl.")
include(CPack)
