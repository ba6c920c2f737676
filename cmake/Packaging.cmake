# Install rules, the CMake package and pkg-config file a consumer builds against, and the Debian
# packages (cpack -G DEB). The installed tree is relocatable: nothing in it names the prefix.
#
# Components, one Debian package each:
#   runtime  libstyluspredictor1     the library (named after its SONAME) and the shipped model
#   dev      libstyluspredictor-dev  header, .so link, CMake package, pkg-config file
#   tools    stylus-predictor-tools  stylus-replay and stylus-sample-gen with their man pages
include(CMakePackageConfigHelpers)

set(STYLUS_DATA_DIR ${CMAKE_INSTALL_DATADIR}/stylus-predictor)
set(STYLUS_CMAKE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/StylusPredictor)
set(STYLUS_PKGCONFIG_DIR ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
set(STYLUS_RUNTIME_PACKAGE libstyluspredictor${PROJECT_VERSION_MAJOR})
set(STYLUS_DEV_PACKAGE libstyluspredictor-dev)
set(STYLUS_TOOLS_PACKAGE stylus-predictor-tools)
set(STYLUS_DEBIAN_REVISION 1)
set(STYLUS_DEBIAN_VERSION ${PROJECT_VERSION}-${STYLUS_DEBIAN_REVISION})
set(CPACK_PACKAGE_CONTACT "Stylus Predictor Developers <stylus-predictor@example.com>")

install(TARGETS StylusPredictor EXPORT StylusPredictorTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT dev
  PUBLIC_HEADER DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT dev)
install(FILES models/stylus_predictor.tflite models/stylus_predictor.json models/MODEL_CARD.md
  DESTINATION ${STYLUS_DATA_DIR} COMPONENT runtime)
if(TARGET stylus-replay)
  # The installed replay host finds the library of its own prefix, wherever that was unpacked.
  file(RELATIVE_PATH bin_to_lib /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(stylus-replay PROPERTIES INSTALL_RPATH "$ORIGIN/${bin_to_lib}")
  install(TARGETS stylus-replay RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)
  # The tuned peers' parameters, found beside the installed configuration by stylus-replay --peers.
  install(FILES models/stylus_predictor.peers.json DESTINATION ${STYLUS_DATA_DIR} COMPONENT tools)
endif()
install(TARGETS stylus-sample-gen RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT tools)

# Man pages and Debian's per-package documents, compressed as Debian wants them (gzip -9n: no name,
# no time stamp, so that the packages are reproducible).
set(STYLUS_GZ_DIR ${CMAKE_CURRENT_BINARY_DIR}/packaging)
configure_file(cmake/debian/changelog.in ${STYLUS_GZ_DIR}/changelog.Debian @ONLY)
set(gz_outputs)
foreach(source IN ITEMS ${CMAKE_CURRENT_SOURCE_DIR}/tools/man/stylus-replay.1
                        ${CMAKE_CURRENT_SOURCE_DIR}/tools/man/stylus-sample-gen.1
                        ${STYLUS_GZ_DIR}/changelog.Debian)
  get_filename_component(name ${source} NAME)
  add_custom_command(OUTPUT ${STYLUS_GZ_DIR}/${name}.gz
    COMMAND gzip -9n -c ${source} > ${STYLUS_GZ_DIR}/${name}.gz
    DEPENDS ${source} VERBATIM)
  list(APPEND gz_outputs ${STYLUS_GZ_DIR}/${name}.gz)
endforeach()
add_custom_target(stylus_packaging_docs ALL DEPENDS ${gz_outputs})
install(FILES ${STYLUS_GZ_DIR}/stylus-replay.1.gz ${STYLUS_GZ_DIR}/stylus-sample-gen.1.gz
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
# Only the packages carry these (a component install); a plain install leaves them out.
foreach(component IN ITEMS runtime dev tools)
  string(TOUPPER ${component} upper)
  install(FILES cmake/debian/copyright ${STYLUS_GZ_DIR}/changelog.Debian.gz
    DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${STYLUS_${upper}_PACKAGE} COMPONENT ${component} EXCLUDE_FROM_ALL)
endforeach()

# find_package(StylusPredictor CONFIG): the imported target, and where the shipped model lies.
install(EXPORT StylusPredictorTargets NAMESPACE StylusPredictor:: DESTINATION ${STYLUS_CMAKE_DIR}
  COMPONENT dev)
configure_package_config_file(cmake/StylusPredictorConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfig.cmake
  INSTALL_DESTINATION ${STYLUS_CMAKE_DIR} PATH_VARS STYLUS_DATA_DIR)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/StylusPredictorConfigVersion.cmake DESTINATION ${STYLUS_CMAKE_DIR}
  COMPONENT dev)

# pkg-config: the prefix is found from the .pc file's own place.
file(RELATIVE_PATH STYLUS_PKGCONFIG_TO_PREFIX /${STYLUS_PKGCONFIG_DIR} /)
string(REGEX REPLACE "/$" "" STYLUS_PKGCONFIG_TO_PREFIX "${STYLUS_PKGCONFIG_TO_PREFIX}")
configure_file(cmake/stylus-predictor.pc.in ${CMAKE_CURRENT_BINARY_DIR}/stylus-predictor.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/stylus-predictor.pc DESTINATION ${STYLUS_PKGCONFIG_DIR}
  COMPONENT dev)

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME stylus-predictor)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_COMPONENTS_ALL runtime dev tools)
set(CPACK_DEBIAN_PACKAGE_RELEASE ${STYLUS_DEBIAN_REVISION})
set(CPACK_DEBIAN_PACKAGE_SOURCE stylus-predictor)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
if(CMAKE_CROSSCOMPILING AND CMAKE_SYSTEM_PROCESSOR MATCHES "^(aarch64|arm64)$")
  set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE arm64)
endif()
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The tools' dependency on the library is stated below; dpkg-shlibdeps looks for it in the build.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${CMAKE_CURRENT_BINARY_DIR})
set(exact_runtime "${STYLUS_RUNTIME_PACKAGE} (= ${STYLUS_DEBIAN_VERSION})")

set(CPACK_DEBIAN_RUNTIME_PACKAGE_NAME ${STYLUS_RUNTIME_PACKAGE})
set(CPACK_DEBIAN_RUNTIME_PACKAGE_SECTION libs)
set(CPACK_DEBIAN_RUNTIME_DESCRIPTION "on-device stylus stroke predictor library
Predicts where a stylus will be a few milliseconds ahead from the samples
the touch hardware reports, with a small learned model run through XNNPACK
or Arm NN. While it runs it measures its own accuracy and can record the
pen input for later training.
.
This package holds the shared library and the shipped model with its
configuration and model card.")
# ldconfig runs through dpkg's trigger, not from maintainer scripts; shlibs tells dpkg-shlibdeps
# which package a program linked against libStylusPredictor.so.1 needs.
configure_file(cmake/debian/shlibs.in ${STYLUS_GZ_DIR}/control/shlibs @ONLY)
configure_file(cmake/debian/triggers ${STYLUS_GZ_DIR}/control/triggers COPYONLY)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_EXTRA ${STYLUS_GZ_DIR}/control/shlibs ${STYLUS_GZ_DIR}/control/triggers)
set(CPACK_DEBIAN_RUNTIME_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_POST_BUILD_SCRIPTS ${CMAKE_CURRENT_SOURCE_DIR}/cmake/debian/DropLdconfigScripts.cmake)
# Arm NN loads its backends at run time, which no linker record shows: depend on the package that
# holds the backend this build found.
if(TALC_ARMNN_BACKEND_DIR)
  execute_process(COMMAND dpkg-query -S ${TALC_ARMNN_BACKEND_DIR}/Arm_CpuRef_backend.so
    OUTPUT_VARIABLE backend_owner RESULT_VARIABLE backend_status ERROR_QUIET)
  if(backend_status EQUAL 0 AND backend_owner MATCHES "^([^:,]+)")
    set(CPACK_DEBIAN_RUNTIME_PACKAGE_DEPENDS ${CMAKE_MATCH_1})
  endif()
endif()

set(CPACK_DEBIAN_DEV_PACKAGE_NAME ${STYLUS_DEV_PACKAGE})
set(CPACK_DEBIAN_DEV_PACKAGE_SECTION libdevel)
set(CPACK_DEBIAN_DEV_PACKAGE_DEPENDS ${exact_runtime})
set(CPACK_DEBIAN_DEV_DESCRIPTION "on-device stylus stroke predictor library - development files
Predicts where a stylus will be a few milliseconds ahead from the samples
the touch hardware reports, with a small learned model.
.
This package holds the C header, the CMake package and the pkg-config file
to build a host against the library.")

set(CPACK_DEBIAN_TOOLS_PACKAGE_NAME ${STYLUS_TOOLS_PACKAGE})
set(CPACK_DEBIAN_TOOLS_PACKAGE_SECTION utils)
set(CPACK_DEBIAN_TOOLS_PACKAGE_DEPENDS ${exact_runtime})
set(CPACK_DEBIAN_TOOLS_DESCRIPTION "replay and sample tools for the stylus stroke predictor
stylus-replay sends stylus recordings through the library as touch hardware
would and measures every prediction against the real pen, beside two simple
baselines. stylus-sample-gen writes handwriting-like sample recordings.")
include(CPack)
