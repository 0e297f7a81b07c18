# Debian packages, by `cpack -G DEB` in a build of the preset `package` (scripts/package does all of it):
#   libcanopenanalysis0       both libraries: they change their SONAMEs together, so one package holds them
#   libcanopenanalysis-dev    headers, CMake package, pkg-config files, documents
#   canopen-analyze           the program
set(CANOPENANALYSIS_MAINTAINER "CANopenAnalysis maintainers <maintainers@canopenanalysis.example.org>" CACHE STRING
    "Who the Debian packages name as their maintainer")

set(CPACK_PACKAGE_VENDOR "")
set(CPACK_PACKAGE_CONTACT ${CANOPENANALYSIS_MAINTAINER})
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime development tool)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_RELEASE 0upstream1) # below the 1 of a package of Debian itself
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON) # on exactly this version
set(CPACK_COMPONENT_DEVELOPMENT_DEPENDS runtime)
set(CPACK_COMPONENT_TOOL_DEPENDS runtime)
# Where the packages depend on each other, the libraries are looked up in the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_LIBRARY_OUTPUT_DIRECTORY})

set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # each package has its own
set(what_it_does "Reads the frames of a CANopen network (CiA 301), recorded or live, and tells
what went on: SDO transfers with their values, frames that break the protocol,
nodes and their NMT states, emergencies, and how clean the line is.
")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME libcanopenanalysis${PROJECT_VERSION_MAJOR})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
# The trigger has ldconfig run. CPack would add scripts that run it as well, unless it is told of others: these do not exist,
# of which it warns, and packs what exists.
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA
    ${CMAKE_CURRENT_LIST_DIR}/debian/triggers
    ${CMAKE_CURRENT_LIST_DIR}/debian/none/postinst ${CMAKE_CURRENT_LIST_DIR}/debian/none/postrm)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "CANopen traffic analysis, shared libraries
${what_it_does}
This package holds the shared libraries.")

set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_NAME libcanopenanalysis-dev)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEVELOPMENT_PACKAGE_DEPENDS "qtbase5-dev (>= 5.15)")
set(CPACK_DEBIAN_DEVELOPMENT_DESCRIPTION "CANopen traffic analysis, development files
${what_it_does}
This package holds what it takes to build a program with the libraries:
headers, the CMake package, pkg-config files, and documents.")

set(CPACK_DEBIAN_TOOL_PACKAGE_NAME canopen-analyze)
set(CPACK_DEBIAN_TOOL_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOL_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_TOOL_PACKAGE_RECOMMENDS libqt5serialbus5-plugins) # for live traffic
set(CPACK_DEBIAN_TOOL_DESCRIPTION "analyser of CANopen traffic
${what_it_does}
This package holds a program that reports it as text or as JSON.")

# ---- what Debian wants beside the files of each package --------------------------------------------------------------------------
set(debian_dir ${PROJECT_BINARY_DIR}/debian)
string(TIMESTAMP debian_date "%a, %d %b %Y %H:%M:%S +0000" UTC)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/changelog.in ${debian_dir}/changelog.Debian @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/debian/copyright.in ${debian_dir}/copyright @ONLY)

# canopenanalysis_install_compressed(FILE NAME DESTINATION COMPONENT): always to the same bytes.
function(canopenanalysis_install_compressed file name destination component)
    execute_process(COMMAND gzip -9nc ${file} OUTPUT_FILE ${debian_dir}/${name}.gz COMMAND_ERROR_IS_FATAL ANY)
    install(FILES ${debian_dir}/${name}.gz DESTINATION ${destination} COMPONENT ${component})
endfunction()

foreach(component runtime development tool)
    string(TOUPPER ${component} COMPONENT)
    set(doc_dir share/doc/${CPACK_DEBIAN_${COMPONENT}_PACKAGE_NAME})
    install(FILES ${debian_dir}/copyright DESTINATION ${doc_dir} COMPONENT ${component})
    canopenanalysis_install_compressed(${debian_dir}/changelog.Debian changelog.Debian ${doc_dir} ${component})
    canopenanalysis_install_compressed(${PROJECT_SOURCE_DIR}/CHANGELOG.md changelog ${doc_dir} ${component})
endforeach()

canopenanalysis_install_compressed(${PROJECT_SOURCE_DIR}/tools/canopen-analyze/canopen-analyze.1 canopen-analyze.1
    ${CMAKE_INSTALL_MANDIR}/man1 tool)

include(CPack)
