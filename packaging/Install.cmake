# What `cmake --install` puts under a prefix, and the Debian package made of it with
# `cpack -G DEB`. Every installed path is relative to the prefix, so --prefix may differ from
# the configured one.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set_target_properties(qxgroupmgr PROPERTIES VERSION ${PROJECT_VERSION}
                                            SOVERSION ${PROJECT_VERSION_MAJOR})
target_include_directories(qxgroupmgr INTERFACE $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)

install(TARGETS qxgroupmgr EXPORT QXGroupMgrTargets
        LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} NAMELINK_COMPONENT Development)
install(TARGETS qxgroup RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
install(DIRECTORY ${CMAKE_SOURCE_DIR}/include/qxgroupmgr DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

# CMake package: find_package(QXGroupMgr CONFIG) -> QXGroupMgr::qxgroupmgr.
set(QX_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/QXGroupMgr)
install(EXPORT QXGroupMgrTargets NAMESPACE QXGroupMgr:: DESTINATION ${QX_CMAKE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/QXGroupMgrConfig.cmake.in
  ${CMAKE_BINARY_DIR}/QXGroupMgrConfig.cmake INSTALL_DESTINATION ${QX_CMAKE_DIR})
write_basic_package_version_file(${CMAKE_BINARY_DIR}/QXGroupMgrConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_BINARY_DIR}/QXGroupMgrConfig.cmake
              ${CMAKE_BINARY_DIR}/QXGroupMgrConfigVersion.cmake DESTINATION ${QX_CMAKE_DIR})

# pkg-config: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH QX_PC_TO_PREFIX /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
configure_file(${CMAKE_CURRENT_LIST_DIR}/qxgroupmgr.pc.in ${CMAKE_BINARY_DIR}/qxgroupmgr.pc @ONLY)
install(FILES ${CMAKE_BINARY_DIR}/qxgroupmgr.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Man page from `qxgroup --help` and `--version`, made at build time so it follows the program.
find_program(QX_HELP2MAN help2man)
if(QX_HELP2MAN)
  add_custom_command(OUTPUT ${CMAKE_BINARY_DIR}/qxgroup.1
    COMMAND ${QX_HELP2MAN} --no-info --section=1
            --name "manage graphing-calculator group files"
            --include ${CMAKE_CURRENT_LIST_DIR}/qxgroup.h2m
            --output ${CMAKE_BINARY_DIR}/qxgroup.1 $<TARGET_FILE:qxgroup>
    DEPENDS qxgroup ${CMAKE_CURRENT_LIST_DIR}/qxgroup.h2m VERBATIM)
  add_custom_target(qxgroup_man ALL DEPENDS ${CMAKE_BINARY_DIR}/qxgroup.1)
  install(FILES ${CMAKE_BINARY_DIR}/qxgroup.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
else()
  message(WARNING "help2man not found: no man page (scripts/setup.sh installs it)")
endif()

install(FILES ${CMAKE_CURRENT_LIST_DIR}/qxgroup.bash-completion
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME qxgroup)

# The Python package, where Debian's python3 looks, with the way back to the library.
set(QX_PYTHON_DIR lib/python3/dist-packages CACHE STRING "Install folder of the Python package")
install(DIRECTORY ${CMAKE_SOURCE_DIR}/python/qxgroupmgr DESTINATION ${QX_PYTHON_DIR}
        PATTERN __pycache__ EXCLUDE)
file(RELATIVE_PATH QX_PY_TO_LIB /${QX_PYTHON_DIR}/qxgroupmgr
     /${CMAKE_INSTALL_LIBDIR}/libqxgroupmgr.so.${PROJECT_VERSION_MAJOR})
file(WRITE ${CMAKE_BINARY_DIR}/python_install.py
  "# Written by cmake --install: where the library lies, from this folder.\n"
  "LIBRARY = \"${QX_PY_TO_LIB}\"\n")
install(FILES ${CMAKE_BINARY_DIR}/python_install.py DESTINATION ${QX_PYTHON_DIR}/qxgroupmgr
        RENAME _install.py)

# Debian package: cpack -G DEB in the build folder.
set(CPACK_PACKAGE_NAME qxgroupmgr)
set(CPACK_PACKAGE_VENDOR "QXGroupMgr")
set(CPACK_PACKAGE_CONTACT "QXGroupMgr developers <qxgroupmgr@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY
    "graphing-calculator group files: component module, qxgroup and Python package")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)    # zlib1g, libstdc++6, libgcc-s1, libc6 from the binaries
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "python3")
include(CPack)
