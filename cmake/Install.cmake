# What `cmake --install` puts where. Components: runtime (the shared libraries), development (headers, CMake package, pkg-config
# files, documents), tool (canopen-analyze). Everything finds everything else relative to its own place, so an installation can
# be moved as a whole, and `cmake --install BUILD --prefix ANYWHERE` is complete.
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/CANopenAnalysis)

# ---- the libraries and their headers -------------------------------------------------------------------------------------------
set_target_properties(canopenanalysis-inmemory PROPERTIES INSTALL_RPATH $ORIGIN)
install(TARGETS canopenanalysis canopenanalysis-inmemory
    EXPORT CANopenAnalysisTargets
    LIBRARY COMPONENT runtime NAMELINK_COMPONENT development
    FILE_SET HEADERS DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/canopenanalysis COMPONENT development
    FILE_SET generated DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/canopenanalysis COMPONENT development)

# ---- find_package(CANopenAnalysis) ---------------------------------------------------------------------------------------------
install(EXPORT CANopenAnalysisTargets NAMESPACE CANopenAnalysis:: DESTINATION ${package_dir} COMPONENT development)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/CANopenAnalysisConfig.cmake.in
    ${PROJECT_BINARY_DIR}/CANopenAnalysisConfig.cmake
    INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
# As the SONAME, which changes with the major version.
write_basic_package_version_file(${PROJECT_BINARY_DIR}/CANopenAnalysisConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/CANopenAnalysisConfig.cmake ${PROJECT_BINARY_DIR}/CANopenAnalysisConfigVersion.cmake
    DESTINATION ${package_dir} COMPONENT development)

# ---- pkg-config ----------------------------------------------------------------------------------------------------------------
# The prefix is told relative to the .pc file; a folder given as an absolute path stays one (cmake_path appends it so).
cmake_path(ABSOLUTE_PATH CMAKE_INSTALL_LIBDIR BASE_DIRECTORY /prefix OUTPUT_VARIABLE pc_home)
cmake_path(APPEND pc_home pkgconfig)
file(RELATIVE_PATH pc_to_prefix ${pc_home} /prefix)
string(REGEX REPLACE "/$" "" pc_to_prefix ${pc_to_prefix})
cmake_path(IS_ABSOLUTE CMAKE_INSTALL_LIBDIR libdir_is_absolute)
if(libdir_is_absolute)
    set(pc_prefix ${CMAKE_INSTALL_PREFIX})
else()
    set(pc_prefix "\${pcfiledir}/${pc_to_prefix}")
endif()
cmake_path(APPEND pc_libdir "\${prefix}" ${CMAKE_INSTALL_LIBDIR})
cmake_path(APPEND pc_includedir "\${prefix}" ${CMAKE_INSTALL_INCLUDEDIR})
foreach(name canopenanalysis canopenanalysis-inmemory)
    configure_file(${CMAKE_CURRENT_LIST_DIR}/${name}.pc.in ${PROJECT_BINARY_DIR}/${name}.pc @ONLY)
    install(FILES ${PROJECT_BINARY_DIR}/${name}.pc
        DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)
endforeach()

# ---- the program and the documents ---------------------------------------------------------------------------------------------
if(CANOPENANALYSIS_BUILD_TOOLS)
    file(RELATIVE_PATH bin_to_lib ${CMAKE_INSTALL_FULL_BINDIR} ${CMAKE_INSTALL_FULL_LIBDIR})
    set_target_properties(canopen-analyze PROPERTIES INSTALL_RPATH $ORIGIN/${bin_to_lib})
    install(TARGETS canopen-analyze RUNTIME COMPONENT tool)
    if(NOT CANOPENANALYSIS_DEBIAN_PACKAGES) # they hold it compressed
        install(FILES ${PROJECT_SOURCE_DIR}/tools/canopen-analyze/canopen-analyze.1
            DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tool)
    endif()
endif()
install(FILES README.md CHANGELOG.md DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development)
install(DIRECTORY docs DESTINATION ${CMAKE_INSTALL_DOCDIR} COMPONENT development FILES_MATCHING PATTERN "*.md" PATTERN "*.svg")
